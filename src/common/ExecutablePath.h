#ifndef KRO_EXECUTABLE_PATH_H
#define KRO_EXECUTABLE_PATH_H

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <string>
#include <system_error>

#include <Poco/Foundation.h>
#include <Poco/Path.h>

namespace kro::detail
{
/// @return the absolute path of the running executable.
/// @throws std::system_error if /proc/self/exe can't be read (POCO before 1.13).
inline std::string executablePath()
{
#if POCO_VERSION >= 0x010D0000
    return Poco::Path::self();
#else
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    if (length < 0) throw std::system_error(errno, std::generic_category(), "/proc/self/exe");
    return std::string(path, static_cast<std::size_t>(length));
#endif
}
}  // namespace kro::detail

#endif
