#include "Config.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <exception>
#include <filesystem>
#include <ios>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include <Poco/File.h>
#include <Poco/FileStream.h>
#include <Poco/Path.h>

#include "ExecutablePath.h"
#include "LoadOrder.h"
#include "Logger.h"
#include "Safeguards.h"
#include "WebHookBasic.h"

namespace kro
{

namespace http
{
KRO_BUILT_FIRST const std::string kPort = "http.port";
KRO_BUILT_FIRST const std::string kSslPort = "http.sslport";
KRO_BUILT_FIRST const std::string kApiDebug = "http.apiDebug";
}  // namespace http

namespace rpc
{
KRO_BUILT_FIRST const std::string kRpcPort = "rpc.port";
}  // namespace rpc

namespace openssl::server
{
namespace
{
#define KRO_SERVER_KEY(name, text) KRO_BUILT_FIRST const std::string name = "openSSL.server." text
KRO_SERVER_KEY(kPrivateKeyFile, "privateKeyFile");
KRO_SERVER_KEY(kCaConfig, "caConfig");
KRO_SERVER_KEY(kVerificationMode, "verificationMode");
KRO_SERVER_KEY(kVerificationDepth, "verificationDepth");
KRO_SERVER_KEY(kLoadDefaultCAFile, "loadDefaultCAFile");
KRO_SERVER_KEY(kCipherList, "cipherList");
KRO_SERVER_KEY(kPrivateKeyPassphraseHandlerName, "privateKeyPassphraseHandler.name");
KRO_SERVER_KEY(kPrivateKeyPassphraseHandlerOptionsPassword, "privateKeyPassphraseHandler.options.password");
KRO_SERVER_KEY(kInvalidCertificateHandlerName, "invalidCertificateHandler.name");
KRO_SERVER_KEY(kExtendedVerification, "extendedVerification");
KRO_SERVER_KEY(kCacheSessions, "cacheSessions");
KRO_SERVER_KEY(kSessionIdContext, "sessionIdContext");
KRO_SERVER_KEY(kSessionCacheSize, "sessionCacheSize");
KRO_SERVER_KEY(kRequireTLSv1, "requireTLSv1");
#undef KRO_SERVER_KEY
}  // namespace
}  // namespace openssl::server

// Null before any initialiser runs, since a null pointer needs none: so the initialiser of the `hook.*`
// defaults may call configInstance() whether or not the statics of this file stand. Never freed.
Poco::Util::JSONConfiguration* g_config = nullptr;
KRO_BUILT_FIRST std::string s_config_path;  // full path of the file; empty until loadConfig()

namespace
{
// A static archive gives a program only those object files that somebody refers to, and nobody needs to name
// the one with the `hook.*` defaults. This reference brings it along with this file, and with it the
// initialiser that writes them.
[[gnu::used]] const onceToken* const s_hook_defaults = &Hook::token;

// Ports go in as setInt has them: a number in the file. POCO 1.11 has no setUInt16, and the general setters
// for unsigned values store a text, which an operator would find in quotes.
void setPort(const std::string& key, int port)
{
    configInstance()->setInt(key, port);
}
}  // namespace

Poco::Util::JSONConfiguration* configInstance()
{
    // Needs no lock: the first call is the initialiser of Hook::token, when there is one thread.
    if (g_config == nullptr) g_config = new Poco::Util::JSONConfiguration;
    return g_config;
}

// Settled: each of these overwrites what its keys hold, values of the file included: a host calls them before
// loadConfig().
void initHttpOption()
{
    setPort(http::kPort, 9528);
    setPort(http::kSslPort, 443);
    configInstance()->setBool(http::kApiDebug, true);
}

void initRpcOption()
{
    setPort(rpc::kRpcPort, 9527);
}

void initSSLOption()
{
    using namespace openssl::server;
    auto& config = *configInstance();
    config.setString(kPrivateKeyFile, "${application.configDir}any.pem");
    config.setString(kCaConfig, "${application.configDir}rootcert.pem");
    config.setString(kVerificationMode, "relaxed");
    config.setInt(kVerificationDepth, 9);
    config.setBool(kLoadDefaultCAFile, true);
    config.setString(kCipherList, "ALL:!ADH:!LOW:!EXP:!MD5:@STRENGTH");
    config.setString(kPrivateKeyPassphraseHandlerName, "KeyFileHandler");
    config.setString(kPrivateKeyPassphraseHandlerOptionsPassword, "tinsel");
    config.setString(kInvalidCertificateHandlerName, "AcceptCertificateHandler");
    config.setBool(kExtendedVerification, false);
    config.setBool(kCacheSessions, true);
    config.setString(kSessionIdContext, "${application.name}");
    config.setInt(kSessionCacheSize, 100);
    config.setBool(kRequireTLSv1, false);
}

void loadConfig()
{
    try {
        // Settled: the name keeps its case here, while the log file's is lower-cased.
        const std::string file_name = Poco::Path(detail::executablePath()).getBaseName() + ".json";
        Poco::Path directory_path(Poco::Path::config());
        directory_path.pushDirectory("tolvan");
        Poco::File directory(directory_path);
        if (!directory.exists()) directory.createDirectories();
        if (!directory.canWrite()) {
            directory.setWriteable(true);
            // Settled: the Poco::Path itself is the argument, and what POCO prints for it stands.
            KRO_LOG_INFORMATION("No write permission for directory: %s,give write permission",
                                directory_path);
        }
        s_config_path = directory_path.toString() + file_name;
        KRO_LOG_INFORMATION("config full path: " + s_config_path);
        const Poco::File file(s_config_path);
        // Settled: an empty file counts as no file, and is overwritten with the defaults.
        if (file.exists() && file.getSize() != 0) {
            configInstance()->load(s_config_path);  // Settled: replaces the whole tree, defaults included
        } else {
            saveConfig();
        }
        // Settled: also after a saving that failed, which ends in saveConfig(): the defaults are in force.
        KRO_LOG_INFORMATION("config initialized");
    } catch (const std::exception& e) {
        KRO_LOG_ERROR(e.what());  // Settled: what() alone, which of POCO's exceptions is the class's name
    }
}

namespace
{
void require(bool done, const std::string& what)
{
    if (!done) throw std::system_error(errno, std::generic_category(), what);
}

/// @return where a chain of links ends, whether there is a file or not.
std::string linkEnd(std::filesystem::path path)
{
    for (int links = 0; std::filesystem::is_symlink(path); ++links) {
        if (links == 40)  // as the kernel counts
            throw std::system_error(ELOOP, std::generic_category(), "cannot follow " + path.string());
        path = path.parent_path() / std::filesystem::read_symlink(path);
    }
    return path.string();
}

/// Puts a new file in the place of `path`, so that a crash or a full disk at any moment leaves the old one or
/// the new one. Mode and, where we may, owner stay as they are; a link stays a link.
void replaceFile(std::string path, const std::string& text)
{
    if (path.empty()) throw std::logic_error("no path before loadConfig()");
    path = linkEnd(path);
    // A name of this call's own; what a process of the same number left there in a crash goes. The mode of a
    // file that is new is the process's, by its umask.
    static std::atomic<unsigned> calls{0};
    const std::string beside = path + "." + std::to_string(getpid()) + "-" + std::to_string(++calls);
    unlink(beside.c_str());
    const int file = open(beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    require(file >= 0, "cannot create a file beside " + path);
    try {
        struct stat former = {};
        if (stat(path.c_str(), &former) == 0) {
            if (fchown(file, former.st_uid, former.st_gid) != 0) errno = 0;  // not ours to give away
            require(fchmod(file, former.st_mode & 07777) == 0, "cannot set the mode of " + beside);
        }
        for (std::size_t done = 0; done < text.size();) {
            const ssize_t written = write(file, text.data() + done, text.size() - done);
            if (written < 0 && errno == EINTR) continue;
            require(written > 0, "cannot write " + beside);
            done += static_cast<std::size_t>(written);
        }
        require(fsync(file) == 0, "cannot sync " + beside);
        require(rename(beside.c_str(), path.c_str()) == 0, "cannot rename " + beside);
    } catch (...) {
        close(file);
        unlink(beside.c_str());
        throw;
    }
    close(file);
    // The name is safe when the directory is; a file system that can't sync one keeps its own promise.
    const int directory =
        open(std::filesystem::path(path).parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory < 0) return;
    fsync(directory);
    close(directory);
}
}  // namespace

void saveConfig()
{
    try {
        if (safeguarded(kWholeFiles)) {
            // Safeguard: the old file or the new one, never a part. It costs a sync of the disk.
            std::ostringstream text;
            configInstance()->save(text, 2);
            replaceFile(s_config_path, text.str());
            KRO_LOG_INFORMATION("save config path: %s", s_config_path);
            return;
        }
        // Settled: the file is cut to nothing first, and whatever ends the writing leaves a part of it.
        Poco::FileOutputStream stream(s_config_path, std::ios::out | std::ios::trunc);
        // Settled: the write is tried all the same.
        if (!stream.good()) KRO_LOG_INFORMATION("create config file failed! config path: %s", s_config_path);
        configInstance()->save(stream, 2);
        stream.close();
        KRO_LOG_INFORMATION("save config path: %s", s_config_path);
    } catch (const std::exception& e) {
        KRO_LOG_ERROR("save config file error: " + std::string(e.what()));
    }
}

}  // namespace kro
