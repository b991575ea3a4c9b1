#ifndef KRO_EXECUTABLE_PATH_H
#define KRO_EXECUTABLE_PATH_H

#include <filesystem>
#include <string>
#include <system_error>
#include <type_traits>

#include <Poco/Path.h>

namespace kro::detail
{
/// POCO before 1.13 has no Path::self(): the same answer, from the link that the kernel keeps.
template <typename Path, typename = void>
struct SelfPath
{
    static std::string get()
    {
        std::error_code failed;
        return std::filesystem::read_symlink("/proc/self/exe", failed).string();
    }
};

template <typename Path>
struct SelfPath<Path, std::void_t<decltype(Path::self())>>
{
    static std::string get() { return Path::self(); }
};

/// @return the absolute path of the running executable, its links resolved; empty if it can't be told.
inline std::string executablePath()
{
    return SelfPath<Poco::Path>::get();
}
}  // namespace kro::detail

#endif
