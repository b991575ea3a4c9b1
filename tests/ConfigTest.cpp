#include "Config.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "support/LogCapture.h"
#include "support/WithSafeguards.h"

namespace kro
{
extern std::string s_config_path;

namespace
{
namespace fs = std::filesystem;
using test::LogCapture;

const fs::path kDirectory = "/etc/tolvan";  // private to this program, see TestMain.cpp
const fs::path kFile = kDirectory / "ConfigTest.json";

std::string treeText()
{
    std::ostringstream text;
    configInstance()->save(text, 2);
    return text.str();
}

std::string fileText()
{
    std::ifstream file(kFile);
    return {std::istreambuf_iterator<char>(file), {}};
}

void writeFile(const std::string& text)
{
    fs::create_directories(kDirectory);
    std::ofstream(kFile) << text;
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
        LogCapture::instance().clear();
    }
    static std::vector<test::LogLine> logged(std::vector<test::LogLine> between)
    {
        between.insert(between.begin(), test::information("config full path: /etc/tolvan/ConfigTest.json"));
        return between;
    }
};

const test::LogLine kSaved = test::information("save config path: /etc/tolvan/ConfigTest.json");
const test::LogLine kInitialized = test::information("config initialized");

TEST_F(ConfigTest, LeavesAFileOfDefaultsBehindWhereThereIsNoneOrAnEmptyOne)
{
    initHttpOption();
    initRpcOption();
    const std::string defaults = treeText();
    for (const bool empty : {false, true}) {
        fs::remove_all(kDirectory);
        if (empty) writeFile("");
        LogCapture::instance().clear();
        loadConfig();
        EXPECT_EQ(fileText(), defaults);
        EXPECT_EQ(LogCapture::instance().lines(), logged({kSaved, kInitialized}));
    }
    EXPECT_NE(defaults.find("\"port\": 9528"), std::string::npos) << "ports are numbers:\n" << defaults;
    EXPECT_NE(defaults.find("\"port\": 9527"), std::string::npos);
    EXPECT_NE(defaults.find("\"enable\": false"), std::string::npos);
    LogCapture::instance().clear();
    loadConfig();
    EXPECT_EQ(treeText(), defaults) << "what was written must read back the same";
    EXPECT_EQ(LogCapture::instance().lines(), logged({kInitialized}));
}

TEST_F(ConfigTest, ReplacesTheWholeTreeByTheFile)
{
    initHttpOption();
    writeFile(R"({"http":{"port":80}})");
    loadConfig();
    EXPECT_EQ(configInstance()->getInt(http::kPort), 80);
    EXPECT_FALSE(configInstance()->has(http::kSslPort));
    EXPECT_FALSE(configInstance()->has("hook.enable"));
    initHttpOption();
    EXPECT_EQ(configInstance()->getInt(http::kPort), 9528) << "the defaults go over the file's values";
    EXPECT_EQ(fileText(), R"({"http":{"port":80}})") << "in memory only";
    saveConfig();
    EXPECT_EQ(fileText(), treeText());
}

TEST_F(ConfigTest, LeavesTreeAndFileAsTheyAreForAFileThatIsNoJsonObject)
{
    initHttpOption();
    const std::string defaults = treeText();
    const std::string deep = std::string(10'000, '[') + std::string(10'000, ']');
    for (const std::string& text :
         {std::string(R"({"http":{"port":80)"), std::string("no JSON"), std::string("5"), std::string("null"),
          std::string("{\"a\":\"" + std::string("\0\xff", 2)), std::string(" "), deep})
    {
        SCOPED_TRACE(text.substr(0, 20));
        writeFile(text);
        LogCapture::instance().clear();
        loadConfig();
        EXPECT_EQ(treeText(), defaults);
        EXPECT_EQ(fileText(), text);
        const auto lines = LogCapture::instance().lines();
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_EQ(lines[1].level, Poco::Message::PRIO_ERROR);
        EXPECT_NE(lines[1].text, "");
    }
    writeFile("[1,2]");
    LogCapture::instance().clear();
    loadConfig();
    EXPECT_EQ(treeText(), defaults);
    EXPECT_EQ(LogCapture::instance().lines(), logged({kInitialized})) << "POCO says nothing of an array";
}

TEST_F(ConfigTest, SetsEveryTlsDefaultAndExpandsNone)
{
    initSSLOption();
    std::ostringstream text;
    configInstance()->save(text, 0);
    EXPECT_EQ(
        text.str(),
        R"({"hook":{"enable":false},"openSSL":{"server":{"caConfig":"${application.configDir}rootcert.pem",)"
        R"("cacheSessions":true,"cipherList":"ALL:!ADH:!LOW:!EXP:!MD5:@STRENGTH",)"
        R"("extendedVerification":false,"invalidCertificateHandler":{"name":"AcceptCertificateHandler"},)"
        R"("loadDefaultCAFile":true,"privateKeyFile":"${application.configDir}any.pem",)"
        R"("privateKeyPassphraseHandler":{"name":"KeyFileHandler","options":{"password":"tinsel"}},)"
        R"("requireTLSv1":false,"sessionCacheSize":100,"sessionIdContext":"${application.name}",)"
        R"("verificationDepth":9,"verificationMode":"relaxed"}}})");
}

TEST_F(ConfigTest, WritesNothingBeforeTheFileIsKnown)
{
    saveConfig();
    ASSERT_EQ(LogCapture::instance().lines().size(), 1u);
    EXPECT_EQ(LogCapture::instance().lines()[0].level, Poco::Message::PRIO_ERROR);
    EXPECT_EQ(LogCapture::instance().countPrefix("save config file error: "), 1u);
    EXPECT_NE(LogCapture::instance().lines()[0].text, "save config file error: ");
}

TEST_F(ConfigTest, GoesOnWhereSomethingElseStandsInThePlaceOfFileOrDirectory)
{
    fs::create_directories(kFile);  // a directory in the file's place
    std::ofstream(kFile / "in the way") << "x";
    loadConfig();
    EXPECT_EQ(LogCapture::instance().lines().back(), test::error("Cannot open file"));
    EXPECT_TRUE(fs::exists(kFile / "in the way"));
    fs::remove_all(kDirectory);
    std::ofstream(kDirectory) << "a file in the directory's place";
    LogCapture::instance().clear();
    loadConfig();
    EXPECT_EQ(LogCapture::instance().countPrefix("save config file error: "), 1u);
    EXPECT_EQ(LogCapture::instance().lines().back(), kInitialized) << "what fails in the saving ends there";
    EXPECT_EQ(configInstance()->getString("hook.enable"), "false");
}

TEST_F(ConfigTest, GoesOnWithAFullDiskAndWritesTheFileOnceThereIsRoom)
{
    fs::create_directories(kDirectory);
    ASSERT_EQ(mount("tmpfs", kDirectory.c_str(), "tmpfs", 0, "size=16k,nr_inodes=4"), 0);
    {
        std::ofstream filler(kDirectory / "filler");
        while (filler.write("0123456789abcdef", 16).flush()) {
        }
    }
    initSSLOption();
    const std::string defaults = treeText();
    loadConfig();
    EXPECT_EQ(fileText(), "") << "an empty file, which counts as none at the next start";
    EXPECT_EQ(treeText(), defaults);
    EXPECT_EQ(LogCapture::instance().lines(), logged({kSaved, kInitialized})) << "POCO's stream swallows it";
    fs::remove(kDirectory / "filler");
    loadConfig();
    EXPECT_EQ(fileText(), defaults);
    EXPECT_EQ(umount(kDirectory.c_str()), 0);
}

TEST_F(ConfigTest, KeepsTheOldFileWholeOnAFullDiskWhenItIsGuarded)
{
    const test::WithSafeguards guarded(kWholeFiles);
    fs::create_directories(kDirectory);
    ASSERT_EQ(mount("tmpfs", kDirectory.c_str(), "tmpfs", 0, "size=32k"), 0);
    const fs::path kept = kDirectory / "kept.json";
    std::ofstream(kept) << R"({"a":1})";
    fs::permissions(kept, fs::perms::owner_read | fs::perms::owner_write);
    fs::create_symlink(kept, kFile);
    loadConfig();
    initSSLOption();
    configInstance()->setString("long", std::string(8192, 'x'));
    {
        std::ofstream filler(kDirectory / "filler");
        while (filler.write("0123456789abcdef", 16).flush()) {
        }
    }
    LogCapture::instance().clear();
    saveConfig();
    EXPECT_EQ(fileText(), R"({"a":1})");
    ASSERT_EQ(LogCapture::instance().lines().size(), 1u);
    EXPECT_EQ(LogCapture::instance().lines()[0].text.rfind("save config file error: cannot ", 0), 0u);
    fs::remove(kDirectory / "filler");
    saveConfig();
    EXPECT_EQ(fileText(), treeText());
    EXPECT_TRUE(fs::is_symlink(kFile));
    EXPECT_EQ(fs::status(kept).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(std::distance(fs::directory_iterator(kDirectory), {}), 2) << "nothing is left beside them";
    EXPECT_EQ(umount(kDirectory.c_str()), 0);
}

constexpr uid_t kNobody = 65534;

/// Loads as a user who owns nothing here, and prints what was logged.
[[noreturn]] void loadAsNobody()
{
    if (setresgid(kNobody, kNobody, kNobody) != 0 || setresuid(kNobody, kNobody, kNobody) != 0) _exit(77);
    LogCapture::instance().clear();
    loadConfig();
    for (const auto& line : LogCapture::instance().lines()) std::cerr << line << "; ";
    std::cerr << "enable " << configInstance()->getString("hook.enable") << std::endl;
    _exit(0);
}

using ConfigDeathTest = ConfigTest;

TEST_F(ConfigDeathTest, LogsTheCauseAndGoesOnForAUserWhoMayNotWrite)
{
    if (seteuid(kNobody) != 0) GTEST_SKIP() << "the namespace of a test that is not root's knows one user";
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EXIT(loadAsNobody(), testing::ExitedWithCode(0), "^3: .*enable false") << "no directory";
    fs::create_directories(kDirectory);
    EXPECT_EXIT(loadAsNobody(), testing::ExitedWithCode(0), "^3: .*enable false") << "a directory of root";
    writeFile(R"({"hook":{"enable":true}})");
    EXPECT_EXIT(loadAsNobody(), testing::ExitedWithCode(0), "^3: .*enable false") << "not even read";
}

TEST_F(ConfigDeathTest, GivesADirectoryItsWritePermissionBack)
{
    if (seteuid(kNobody) != 0) GTEST_SKIP() << "the namespace of a test that is not root's knows one user";
    ASSERT_EQ(seteuid(0), 0);
    fs::create_directories(kDirectory);
    ASSERT_EQ(chown(kDirectory.c_str(), kNobody, kNobody), 0);
    fs::permissions(kDirectory, fs::perms::owner_write, fs::perm_options::remove);
    EXPECT_EXIT(
        loadAsNobody(), testing::ExitedWithCode(0),
        "^6: No write permission for directory: \\[ERRFMT\\],give write permission; 6: .*enable false");
    EXPECT_NE(fs::status(kDirectory).permissions() & fs::perms::owner_write, fs::perms::none);
    EXPECT_EQ(fileText(), treeText());
}

}  // namespace
}  // namespace kro
