#include "Utils.h"

#include <dirent.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <sstream>
#include <tuple>

#include <Poco/DirectoryIterator.h>
#include <Poco/Exception.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Process.h>

#include "ExecutablePath.h"
#include "Logger.h"

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

void cleanProcessById(const unsigned int& pid)
{
    try {
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
