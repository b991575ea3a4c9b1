#include "Config.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/InChild.h"
#include "support/LogCapture.h"
#include "support/WithSafeguards.h"

namespace kro
{
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
        fs::create_directories(kDirectory);
        std::istringstream known(R"({"hook":{"enable":false}})");
        configInstance()->load(known);
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
    fs::remove(kDirectory);
    for (const bool empty : {false, true}) {
        if (empty) fs::resize_file(kFile, 0);
        EXPECT_EQ(logOf(loadConfig), (LogLines{kPath, kSaved, kInitialized}));
        EXPECT_EQ(fileText(), defaults);
    }
    EXPECT_EQ(logOf(loadConfig), (LogLines{kPath, kInitialized}));
    EXPECT_EQ(treeText(), defaults) << "what was written must read back the same";
}

TEST_F(ConfigTest, ReplacesTheWholeTreeByTheFileAndTheWholeFileByTheTree)
{
    initRpcOption();
    std::ofstream(kFile) << R"({"http":{"port":80}})" << std::string(999, ' ');
    loadConfig();
    EXPECT_EQ(treeText(0), R"({"http":{"port":80}})");
    initHttpOption();
    EXPECT_EQ(configInstance()->getInt(http::kPort), 9528) << "the defaults go over the file's values";
    saveConfig();
    EXPECT_EQ(fileText(), treeText());
}

TEST_F(ConfigTest, GoesOnWithTheTreeAsItIsWhereFileOrDirectoryAreNoGood)
{
    const std::string before = treeText();
    for (const std::string text : {R"({"http":{"port":80)", " ", "[1,2]"}) {
        std::ofstream(kFile) << text;
        const LogLines lines = logOf(loadConfig);
        EXPECT_EQ(fileText(), text);
        EXPECT_EQ(lines.back().level == Poco::Message::PRIO_ERROR, text != "[1,2]") << text;
    }
    fs::remove(kFile);
    fs::create_directories(kFile);
    EXPECT_EQ(logOf(loadConfig).back(), test::error("Cannot open file"));
    fs::remove_all(kDirectory);
    std::ofstream(kDirectory) << "a file in the directory's place";
    EXPECT_EQ(logOf(loadConfig).back(), kInitialized) << "what fails in the saving ends there";
    EXPECT_EQ(LogCapture::instance().countPrefix("save config file error: "), 1u);
    EXPECT_EQ(treeText(), before);
}

TEST_F(ConfigTest, GivesTheOwnerOfTheDirectoryThePermissionBack)
{
    constexpr uid_t kNobody = 65534;
    if (seteuid(kNobody) != 0) GTEST_SKIP() << "the namespace of a test that is not root's knows one user";
    ASSERT_EQ(seteuid(0), 0);
    ASSERT_EQ(chown(kDirectory.c_str(), kNobody, 0), 0);
    fs::permissions(kDirectory, fs::perms(0555));
    test::inChild([] {
        ASSERT_EQ(setresuid(kNobody, kNobody, kNobody), 0);
        EXPECT_EQ(logOf(loadConfig).at(0),
                  test::information("No write permission for directory: [ERRFMT],give write permission"));
    });
    EXPECT_EQ(fileText(), treeText());
}

TEST_F(ConfigTest, KeepsTheOldFileWholeOnAFullDiskWhenItIsGuarded)
{
    const test::WithSafeguards guarded(kWholeFiles);
    ASSERT_EQ(mount("tmpfs", kDirectory.c_str(), "tmpfs", 0, "size=32k"), 0);
    const fs::path kept = kDirectory / "kept.json";
    std::ofstream(kept) << R"({"a":1})";
    fs::permissions(kept, fs::perms(0640));
    fs::create_symlink("next", kFile);
    fs::create_symlink(kept, kDirectory / "next");
    loadConfig();
    configInstance()->setString("long", std::string(100'000, 'x'));
    EXPECT_EQ(logOf(saveConfig).back().level, Poco::Message::PRIO_ERROR);
    EXPECT_EQ(fileText(), R"({"a":1})");
    configInstance()->setString("long", "x");
    EXPECT_EQ(logOf(saveConfig), LogLines{kSaved});
    EXPECT_EQ(fileText(), treeText());
    EXPECT_TRUE(fs::is_symlink(kFile) && fs::is_symlink(kDirectory / "next"));
    EXPECT_EQ(fs::status(kept).permissions(), fs::perms(0640));
    EXPECT_EQ(std::distance(fs::directory_iterator(kDirectory), {}), 3) << "nothing is left beside them";
    EXPECT_EQ(umount(kDirectory.c_str()), 0);
}

}  // namespace
}  // namespace kro
