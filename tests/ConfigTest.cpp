#include "Config.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/InChild.h"
#include "support/LogCapture.h"
#include "support/WithSafeguards.h"

namespace kro
{
extern std::string s_config_path;

namespace
{
namespace fs = std::filesystem;
using test::LogCapture;
using LogLines = std::vector<test::LogLine>;

const fs::path kDirectory = "/etc/tolvan";  // private to this program, see TestMain.cpp
const fs::path kFile = kDirectory / "ConfigTest.json";
const test::LogLine kPath = test::information("config full path: /etc/tolvan/ConfigTest.json");
const test::LogLine kSaved = test::information("save config path: /etc/tolvan/ConfigTest.json");
const test::LogLine kInitialized = test::information("config initialized");

std::string treeText(unsigned indent = 2)
{
    std::ostringstream text;
    configInstance()->save(text, indent);
    return text.str();
}

std::string fileText()
{
    std::ifstream file(kFile);
    return {std::istreambuf_iterator<char>(file), {}};
}

void writeFile(const fs::path& path, const std::string& text)
{
    fs::create_directories(path.parent_path());
    std::ofstream(path) << text;
}

/// @return what is logged in the meantime.
LogLines logOf(void (*step)())
{
    LogCapture::instance().clear();
    step();
    return LogCapture::instance().lines();
}

class ConfigTest : public testing::Test
{
protected:
    ConfigTest()
    {
        fs::remove_all(kDirectory);
        std::istringstream known(R"({"hook":{"enable":false}})");
        configInstance()->load(known);
        s_config_path.clear();
    }
};

TEST_F(ConfigTest, LeavesAFileOfDefaultsBehindWhereThereIsNoneOrAnEmptyOne)
{
    initHttpOption();
    initRpcOption();
    initSSLOption();
    EXPECT_EQ(
        treeText(0),
        R"({"hook":{"enable":false},"http":{"apiDebug":true,"port":9528,"sslport":443},)"
        R"("openSSL":{"server":{"caConfig":"${application.configDir}rootcert.pem",)"
        R"("cacheSessions":true,"cipherList":"ALL:!ADH:!LOW:!EXP:!MD5:@STRENGTH",)"
        R"("extendedVerification":false,"invalidCertificateHandler":{"name":"AcceptCertificateHandler"},)"
        R"("loadDefaultCAFile":true,"privateKeyFile":"${application.configDir}any.pem",)"
        R"("privateKeyPassphraseHandler":{"name":"KeyFileHandler","options":{"password":"tinsel"}},)"
        R"("requireTLSv1":false,"sessionCacheSize":100,"sessionIdContext":"${application.name}",)"
        R"("verificationDepth":9,"verificationMode":"relaxed"}},"rpc":{"port":9527}})");
    const std::string defaults = treeText();
    EXPECT_EQ(logOf(loadConfig), (LogLines{kPath, kSaved, kInitialized}));
    EXPECT_EQ(fileText(), defaults);
    writeFile(kFile, "");
    EXPECT_EQ(logOf(loadConfig), (LogLines{kPath, kSaved, kInitialized}));
    EXPECT_EQ(fileText(), defaults);
    EXPECT_EQ(logOf(loadConfig), (LogLines{kPath, kInitialized}));
    EXPECT_EQ(treeText(), defaults) << "what was written must read back the same";
}

TEST_F(ConfigTest, ReplacesTheWholeTreeByTheFile)
{
    initHttpOption();
    writeFile(kFile, R"({"http":{"port":80}})");
    loadConfig();
    EXPECT_EQ(treeText(0), R"({"http":{"port":80}})");
    initHttpOption();
    EXPECT_EQ(configInstance()->getInt(http::kPort), 9528) << "the defaults go over the file's values";
    EXPECT_EQ(fileText(), R"({"http":{"port":80}})") << "in memory only";
    saveConfig();
    EXPECT_EQ(fileText(), treeText());
}

TEST_F(ConfigTest, LeavesTreeAndFileAsTheyAreForAFileThatIsNoJsonObject)
{
    const std::string defaults = treeText();
    for (const std::string& text : std::vector<std::string>{
             R"({"http":{"port":80)", "no JSON", "5", "null", std::string("{\"a\":\"\0\xff", 8), " ", "[1,2]",
             std::string(10'000, '[') + std::string(10'000, ']')})
    {
        SCOPED_TRACE(text.substr(0, 20));
        writeFile(kFile, text);
        const LogLines lines = logOf(loadConfig);
        EXPECT_EQ(treeText(), defaults);
        EXPECT_EQ(fileText(), text);
        ASSERT_EQ(lines.size(), 2u);
        if (text == "[1,2]")
            EXPECT_EQ(lines[1], kInitialized) << "POCO says nothing of an array";
        else
            EXPECT_EQ(lines[1].level, Poco::Message::PRIO_ERROR);
    }
}

TEST_F(ConfigTest, GoesOnWhereThereIsNoFileOrSomethingElseInThePlaceOfFileOrDirectory)
{
    const std::string prefix = "save config file error: ";
    const LogLines unknown = logOf(saveConfig);  // before the file is known
    ASSERT_EQ(unknown.size(), 1u);
    EXPECT_EQ(unknown[0].level, Poco::Message::PRIO_ERROR);
    EXPECT_EQ(unknown[0].text.rfind(prefix, 0), 0u);
    EXPECT_GT(unknown[0].text.size(), prefix.size());
    fs::create_directories(kFile / "in the way");
    EXPECT_EQ(logOf(loadConfig).back(), test::error("Cannot open file"));
    EXPECT_TRUE(fs::exists(kFile / "in the way"));
    fs::remove_all(kDirectory);
    writeFile(kDirectory, "a file in the directory's place");
    EXPECT_EQ(logOf(loadConfig).back(), kInitialized) << "what fails in the saving ends there";
    EXPECT_EQ(LogCapture::instance().countPrefix(prefix), 1u);
    EXPECT_EQ(treeText(0), R"({"hook":{"enable":false}})");
}

TEST_F(ConfigTest, KeepsTheOldFileWholeOnAFullDiskWhenItIsGuarded)
{
    const test::WithSafeguards guarded(kWholeFiles);
    fs::create_directories(kDirectory);
    ASSERT_EQ(mount("tmpfs", kDirectory.c_str(), "tmpfs", 0, "size=32k"), 0);
    const fs::path kept = kDirectory / "kept.json";
    writeFile(kept, R"({"a":1})");
    fs::permissions(kept, fs::perms(0640));
    fs::create_symlink(kept, kFile);
    loadConfig();
    configInstance()->setString("long", std::string(8192, 'x'));
    {
        std::ofstream filler(kDirectory / "filler");
        while (filler.write("0123456789abcdef", 16).flush()) {
        }
    }
    const LogLines lines = logOf(saveConfig);
    EXPECT_EQ(fileText(), R"({"a":1})");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text.rfind("save config file error: cannot ", 0), 0u);
    fs::remove(kDirectory / "filler");
    EXPECT_EQ(logOf(saveConfig), LogLines{kSaved});
    EXPECT_EQ(fileText(), treeText());
    EXPECT_TRUE(fs::is_symlink(kFile));
    EXPECT_EQ(fs::status(kept).permissions(), fs::perms(0640));
    fs::remove(kFile);
    fs::create_symlink("next", kFile);
    fs::create_symlink("new.json", kDirectory / "next");  // which leads nowhere yet
    const mode_t before = umask(077);
    saveConfig();
    umask(before);
    EXPECT_TRUE(fs::is_symlink(kFile) && fs::is_symlink(kDirectory / "next"));
    EXPECT_EQ(fileText(), treeText());
    EXPECT_EQ(fs::status(kFile).permissions(), fs::perms(0600)) << "a new file's is the process's";
    EXPECT_EQ(std::distance(fs::directory_iterator(kDirectory), {}), 4) << "nothing is left beside them";
    fs::remove(kFile);
    fs::create_symlink(kFile, kFile);
    EXPECT_EQ(logOf(saveConfig)[0].text.rfind("save config file error: cannot follow ", 0), 0u);
    s_config_path.clear();
    EXPECT_EQ(logOf(saveConfig),
              LogLines{test::error("save config file error: no path before loadConfig()")});
    EXPECT_EQ(umount(kDirectory.c_str()), 0);
}

TEST_F(ConfigTest, GoesOnForAUserWhoMayNotWriteAndGivesAnOwnerThePermissionBack)
{
    constexpr uid_t kNobody = 65534;
    if (seteuid(kNobody) != 0) GTEST_SKIP() << "the namespace of a test that is not root's knows one user";
    ASSERT_EQ(seteuid(0), 0);
    for (const bool owns : {false, true}) {
        fs::create_directories(kDirectory);
        ASSERT_EQ(chown(kDirectory.c_str(), owns ? kNobody : 0, 0), 0);
        fs::permissions(kDirectory, fs::perms(0555));
        test::inChild([owns] {
            ASSERT_EQ(setresuid(kNobody, kNobody, kNobody), 0);
            const LogLines lines = logOf(loadConfig);
            ASSERT_EQ(lines.size(), owns ? 4u : 1u);
            const auto gives =
                test::information("No write permission for directory: [ERRFMT],give write permission");
            EXPECT_TRUE(owns ? lines[0] == gives : lines[0].level == Poco::Message::PRIO_ERROR);
            EXPECT_EQ(treeText(0), R"({"hook":{"enable":false}})");
        });
    }
    EXPECT_EQ(fileText(), treeText());
}

}  // namespace
}  // namespace kro
