#ifndef KRO_EXECUTABLE_PATH_H
#define KRO_EXECUTABLE_PATH_H

#include <climits>
#include <string>

#include <unistd.h>

#include <Poco/Exception.h>
#include <Poco/Path.h>
#include <Poco/Version.h>

namespace kro::detail
{

/// @return the full path of the running executable, links resolved.
/// @throws Poco::SystemException if /proc can't be read (or what Poco::Path::self() throws).
inline std::string executablePath()
{
#if POCO_VERSION >= 0x010D0000
    return Poco::Path::self();
#else
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    if (length < 0) throw Poco::SystemException("cannot read the link /proc/self/exe");
    return {path, static_cast<std::size_t>(length)};
#endif
}

}  // namespace kro::detail

#endif
