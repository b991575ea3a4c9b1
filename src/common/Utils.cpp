#include "Utils.h"

#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <limits>
#include <memory>
#include <sstream>
#include <system_error>
#include <tuple>

#include <Poco/DirectoryIterator.h>
#include <Poco/Exception.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/Process.h>

#include "ExecutablePath.h"
#include "Logger.h"
#include "Safeguards.h"

namespace kro
{

std::string jsonToString(Poco::JSON::Object::Ptr json)
{
    if (json.isNull()) return {};
    try {
        std::stringstream text;
        json->stringify(text, 0, -1);
        return text.str();
    } catch (const std::exception& e) {
        // Settled: handed over as a const char*, for which %s prints [ERRFMT].
        KRO_LOG_ERROR("JsonToString exception: %s", e.what());
        return {};
    }
}

Poco::JSON::Object::Ptr stringToJson(const std::string& text)
{
    Poco::JSON::Parser parser;
    Poco::JSON::Object::Ptr json;
    try {
        json = parser.parse(text).extract<Poco::JSON::Object::Ptr>();
    } catch (const std::exception& e) {
        KRO_LOG_ERROR(e.what());
    }
    return json;
}

std::string getCurrentPath()
{
    return Poco::Path(detail::executablePath()).parent().toString();
}

std::string getCurrentChildPath(const std::string& name)
{
    Poco::Path path(getCurrentPath());
    path.pushDirectory(name);
    return path.toString();
}

namespace
{
struct Closer
{
    void operator()(std::FILE* file) const { std::fclose(file); }
    void operator()(DIR* directory) const { closedir(directory); }
};

/// @param entry  of /proc; any that is no process has no status. Nor has a process that has ended meanwhile.
bool bearsName(const char* entry, const std::string& name)
{
    std::array<char, 1024> text{};
    std::snprintf(text.data(), text.size(), "/proc/%s/status", entry);
    const std::unique_ptr<std::FILE, Closer> status(std::fopen(text.data(), "r"));
    if (!status || std::fgets(text.data(), 1023, status.get()) == nullptr) return false;
    // Settled: the second word of "Name: one two", so that a name with a blank is known by its first word
    // only. A name of blanks alone has none, and is no match for any name.
    std::array<char, 1024> word{};
    return std::sscanf(text.data(), "%*s %s", word.data()) == 1 &&
           std::strcmp(word.data(), name.c_str()) == 0;
}

bool hasEnds(const std::string& file_name, const std::string& prefix, const std::string& suffix)
{
    // Settled: the two may overlap, as in the prefix "liba.so" and the file liba.so.
    return file_name.size() >= prefix.size() && file_name.compare(0, prefix.size(), prefix) == 0 &&
           file_name.size() >= suffix.size() &&
           file_name.compare(file_name.size() - suffix.size(), suffix.size(), suffix) == 0;
}
}  // namespace

bool findProcessByName(const std::string& name, std::vector<int>& pids)
{
    const std::unique_ptr<DIR, Closer> proc(opendir("/proc"));
    while (proc) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody else has this stream
        const dirent* const entry = readdir(proc.get());
        if (entry == nullptr) break;
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
        if (entry->d_type != DT_DIR || !bearsName(entry->d_name, name)) continue;
        int pid = 0;
        std::sscanf(entry->d_name, "%d", &pid);
        pids.push_back(pid);
    }
    // Settled: what was in the vector before counts too, so the answer is true for it even without a match.
    return !pids.empty();
}

namespace
{
/// The signal without a shell. No process has the number 0, which means the caller's whole group, or one
/// above INT_MAX, which would turn negative and mean a group, too.
void killDirectly(unsigned int pid)
{
    if (pid == 0 || pid > static_cast<unsigned int>(std::numeric_limits<pid_t>::max())) {
        KRO_LOG_ERROR("no process to kill has the id %u", pid);
        return;
    }
    KRO_LOG_INFORMATION("kill process: %u", pid);
    if (::kill(static_cast<pid_t>(pid), SIGKILL) != 0)
        KRO_LOG_INFORMATION("kill process: %u, errno = %d", pid, errno);
}

bool isAddressOrHostName(const std::string& text)
{
    Poco::Net::IPAddress address;
    if (Poco::Net::IPAddress::tryParse(text, address)) return true;
    // RFC 1123 section 2.1: letters, digits and hyphens, in parts of 1 to 63 that a dot separates; a hyphen
    // neither begins nor ends a part.
    if (text.empty() || text.size() > 253) return false;
    std::istringstream parts(text);
    std::string part;
    while (std::getline(parts, part, '.')) {
        const auto is_allowed = [](char c) {
            return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
        };
        if (part.empty() || part.size() > 63 || part.front() == '-' || part.back() == '-' ||
            !std::all_of(part.begin(), part.end(), is_allowed))
            return false;
    }
    return text.back() != '.';
}

/// @return what waitpid() tells of ping.
/// @throws std::system_error if it could not be started.
int pingDirectly(const std::string& address)
{
    posix_spawn_file_actions_t silence;
    posix_spawn_file_actions_init(&silence);
    posix_spawn_file_actions_addopen(&silence, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&silence, STDOUT_FILENO, STDERR_FILENO);
    std::string words[] = {"ping", "-c", "1", "-W", "2", address};
    char* arguments[] = {words[0].data(), words[1].data(), words[2].data(), words[3].data(),
                         words[4].data(), words[5].data(), nullptr};
    pid_t child = 0;
    const int refused = posix_spawnp(&child, "ping", &silence, nullptr, arguments, environ);
    posix_spawn_file_actions_destroy(&silence);
    if (refused != 0) throw std::system_error(refused, std::generic_category(), "cannot start ping");
    int status = -1;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}
}  // namespace

void cleanProcessById(const unsigned int& pid)
{
    try {
        if (safeguarded(kNoShell)) {
            // Safeguard: no shell, and so no process of its own. It costs nothing.
            killDirectly(pid);
            return;
        }
        const std::string command = "kill -9 " + std::to_string(pid);
        if (command.empty()) {
            // Settled: a fallback that stays, though the command never is empty.
            Poco::Process::kill(static_cast<Poco::Process::PID>(pid));
        } else {
            KRO_LOG_INFORMATION("system command: %s", command);
            // The result doesn't matter: the process may have ended by itself.
            // NOLINTNEXTLINE(concurrency-mt-unsafe): glibc's is safe
            std::ignore = std::system(command.c_str());
        }
    } catch (const Poco::Exception& e) {
        KRO_LOG_ERROR(e.displayText());
    } catch (const std::exception& e) {
        KRO_LOG_ERROR(e.what());
    }
}

void cleanProcessByName(const std::string& name)
{
    std::vector<int> pids;
    if (!findProcessByName(name, pids)) return;
    for (const int pid : pids) cleanProcessById(static_cast<unsigned int>(pid));
}

bool pingIp(const std::string& ip)
{
    try {
        if (safeguarded(kNoShell)) {
            // Safeguard: no shell. Options in the address, which it would pass on, are refused.
            if (!isAddressOrHostName(ip)) {
                KRO_LOG_ERROR("ping failed: %s, ip: %s", std::string("neither an address nor a host name"),
                              ip);
                return false;
            }
            const int status = pingDirectly(ip);
            KRO_LOG_INFORMATION("pingIp ip: %s, ret = %d", ip, status);
            return status == 0;
        }
        // Settled: ip goes to the shell unchecked and unquoted: it is the host's own, and may carry options.
        const std::string command = "ping -c 1 -W 2 " + ip + " > /dev/null 2>&1";
        // NOLINTNEXTLINE(concurrency-mt-unsafe): glibc's is safe
        const int result = std::system(command.c_str());
        KRO_LOG_INFORMATION("pingIp ip: %s, ret = %d", ip, result);
        return result == 0;
    } catch (const std::exception& e) {
        KRO_LOG_ERROR("ping failed: %s, ip: %s", std::string(e.what()), ip);
        return false;
    }
}

void listFilesRecursively(const Poco::Path& dir, std::list<std::string>& files, const ListFileType& type,
                          const std::string& prefix)
{
    const Poco::DirectoryIterator end;
    for (Poco::DirectoryIterator entry(dir); entry != end; ++entry) {
        if (entry->isDirectory()) {
            // Settled: every kind descends everywhere, an unknown one too.
            listFilesRecursively(Poco::Path(entry->path()), files, type, prefix);
            continue;
        }
        const std::string& path = entry->path();
        const std::string& file_name = entry.name();
        switch (type) {
            case kMicroservice:
                if (!entry->canExecute()) break;
                KRO_LOG_INFORMATION("microservice: %s", path);
                files.push_back(path);
                break;
            case kPlugin:
                if (!hasEnds(file_name, prefix, ".so")) break;
                KRO_LOG_INFORMATION("pulugin: %s", path);  // Settled: people search for it as it is spelt
                files.push_back(path);
                break;
            case kLogFile:
                if (hasEnds(file_name, prefix, ".log")) files.push_back(path);
                break;
            default:
                // Settled: an unknown kind ends this level at its first plain file, and says nothing.
                return;
        }
    }
}

}  // namespace kro
