#ifndef KRO_UTILS_H
#define KRO_UTILS_H

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include <Poco/JSON/Object.h>
#include <Poco/Path.h>

#include "KroApi.h"

// Free functions without shared state: any thread may call any of them at any time.

namespace kro
{

/// @param json  may be null.
/// @return the object as text without white space (RFC 8259); empty if it is null, or if it can't be written,
///         which is logged.
KRO_API std::string jsonToString(Poco::JSON::Object::Ptr json);

/// @param text  JSON (RFC 8259) whose root is an object.
/// @return the object; null if the text is no JSON or its root is something else, which is logged.
KRO_API Poco::JSON::Object::Ptr stringToJson(const std::string& text);

/// @return the directory of the running executable, with a slash at its end.
KRO_API std::string getCurrentPath();

/// @return the subdirectory `name` of getCurrentPath(), with a slash at its end. It isn't created.
KRO_API std::string getCurrentChildPath(const std::string& name);

/// Looks for processes by the name that the kernel keeps: the first line of /proc/PID/status, see proc(5).
/// The kernel keeps 15 bytes of a name, so a longer `name` finds nothing; of a name with a blank only the
/// first word counts. A process that has ended is found until its parent has waited for it.
/// @param name  compared exactly.
/// @param pids  the ids found are put at its back; what it held before stays.
/// @return true if `pids` holds anything, be it from before.
KRO_API bool findProcessByName(const std::string& name, std::vector<int>& pids);

/// Ends a process with SIGKILL: `pid` goes to the shell's kill. Waits for the shell, not for the process's
/// end; meanwhile SIGCHLD is blocked on the calling thread, and the process ignores SIGINT and SIGQUIT
/// (POSIX, system()). A process that isn't there, or isn't ours to kill, is left without a word; other
/// failures are logged. With kNoShell the signal is sent directly, and an id that means a group is refused
/// and logged.
/// @param pid  0 is the caller's own process group.
KRO_API void cleanProcessById(const unsigned int& pid);

/// Ends every process that findProcessByName() finds, the caller too if it bears the name.
KRO_API void cleanProcessByName(const std::string& name);

/// Sends one ICMP echo through the shell's ping and waits up to 2 s for the answer, with SIGCHLD, SIGINT and
/// SIGQUIT as for cleanProcessById(). With kNoShell ping is started without a shell and the signals are left
/// as they are; anything but an address or a host name is refused and logged.
/// @param ip  an address or a host name. It goes to the shell as it stands, so never hand over what came from
///            outside without kNoShell.
/// @return true if it answered. False without an answer, without a ping on the machine, after a failure, and
///         always in a host that ignores SIGCHLD: the result of ping can't be had there.
KRO_API bool pingIp(const std::string& ip);

/// What listFilesRecursively() collects.
enum ListFileType : std::int32_t
{
    kMicroservice = 0,  ///< files that the process may execute, whatever their name
    kPlugin = 1,        ///< names that begin with the prefix and end in ".so"
    kLogFile = 2        ///< names that begin with the prefix and end in ".log"
};

/// Collects the files below a directory, in no order. Links are followed: a link to a directory is descended
/// into, and a loop of links ends in an exception when the kernel has had enough of it.
/// @param dir     where to begin; it isn't looked at itself.
/// @param files   full paths are put at its back; what it held before stays, also when this throws.
/// @param type    a value beyond the enumeration ends each directory at its first plain file, and
///                collects nothing.
/// @param prefix  empty matches every name.
/// @throws Poco::Exception if a directory can't be read or a link leads nowhere.
KRO_API void listFilesRecursively(const Poco::Path& dir, std::list<std::string>& files,
                                  const ListFileType& type, const std::string& prefix);

}  // namespace kro

#endif
