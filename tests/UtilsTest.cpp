#include "Utils.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "ApiCommon.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/WithSafeguards.h"

namespace kro
{
namespace
{
namespace fs = std::filesystem;
using test::LogCapture;
using Names = std::set<std::string>;

TEST(JsonTest, WritesWhatItReadsAndTellsAFailureInTheLogAndByAnEmptyResult)
{
    EXPECT_EQ(makeJsonDefault(-7, R"(a "b" \ c)"), R"({"code":-7,"msg":"a \"b\" \\ c"})");
    LogCapture::instance().clear();
    auto json = stringToJson(R"({ "b": [1, 2], "a": { "c": "d" } })");
    EXPECT_EQ(jsonToString(json), R"({"a":{"c":"d"},"b":[1,2]})");
    EXPECT_EQ(jsonToString(nullptr), "");
    json->set("no text", Poco::Path());
    EXPECT_EQ(jsonToString(json), "");
    EXPECT_TRUE(LogCapture::instance().has(test::error("JsonToString exception: [ERRFMT]")));
    for (const char* const text : {"[1]", "{\"a\":}"}) EXPECT_TRUE(stringToJson(text).isNull()) << text;
    EXPECT_EQ(LogCapture::instance().lines().size(), 3u);
}

TEST(PathTest, StartsFromTheRunningExecutable)
{
    const std::string directory = fs::read_symlink("/proc/self/exe").parent_path().string() + "/";
    EXPECT_EQ(getCurrentPath(), directory);
    EXPECT_EQ(getCurrentChildPath("no such"), directory + "no such/");
}

/// A process of ours that bears a name and waits until it is killed.
struct Child
{
    explicit Child(const std::string& name)
    {
        char former[16];
        prctl(PR_GET_NAME, former);
        prctl(PR_SET_NAME, name.c_str());  // a fork inherits it
        pid = fork();
        if (pid == 0) alarm(60);  // should the test crash
        while (pid == 0) pause();
        prctl(PR_SET_NAME, former);
    }
    ~Child()
    {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    Child(Child&&) = delete;

    bool killed() const
    {
        siginfo_t end{};
        waitid(P_PID, static_cast<id_t>(pid), &end, WEXITED | WNOHANG | WNOWAIT);
        return end.si_pid == pid && end.si_status == SIGKILL;
    }

    pid_t pid;
};

TEST(ProcessTest, FindsAndKillsByTheFirstWordOfTheFifteenCharactersThatTheKernelKeepsAndNoGroupWithoutAShell)
{
    const std::string word = "k" + std::to_string(getpid());  // which no other run of the tests uses
    const std::string longer = word + std::string(16 - word.size(), 'x');
    for (const unsigned bits : {0u, unsigned{kNoShell}}) {
        const test::WithSafeguards guarded(bits);
        const Child first(word), second(word + " b"), other(longer);
        std::vector<int> pids;
        for (const std::string& none :
             {longer, longer.substr(0, 14), "K" + longer.substr(1, 14), word + " b"})
            EXPECT_FALSE(findProcessByName(none, pids)) << none;
        EXPECT_TRUE(findProcessByName(longer.substr(0, 15), pids));
        EXPECT_TRUE(findProcessByName(longer, pids)) << "what was in the vector before counts too";
        EXPECT_EQ(pids, std::vector{other.pid});
        LogCapture::instance().clear();
        cleanProcessByName(word);
        EXPECT_TRUE(test::eventually([&] { return first.killed() && second.killed(); }));
        EXPECT_FALSE(other.killed());
        EXPECT_EQ(LogCapture::instance().countPrefix("system command: kill -9 "), bits == 0 ? 2u : 0u);
    }
    const test::WithSafeguards guarded(kNoShell);
    for (const unsigned group : {0u, 0x80000001u}) cleanProcessById(group);
    EXPECT_EQ(LogCapture::instance().countPrefix("no process to kill has the id "), 2u);
}

TEST(PingTest, HandsAnAddressToTheShellAsItStandsUnlessToldToGoWithoutOne)
{
    LogCapture::instance().clear();
    EXPECT_TRUE(pingIp("127.0.0.1"));
    EXPECT_FALSE(pingIp("127.0.0.1 > /dev/null; exit 3 #"));
    EXPECT_EQ(LogCapture::instance().lines(),
              (std::vector{test::information("pingIp ip: 127.0.0.1, ret = 0"),
                           test::information("pingIp ip: 127.0.0.1 > /dev/null; exit 3 #, ret = 768")}));
    const test::WithSafeguards guarded(kNoShell);
    for (const char* const good : {"127.0.0.1", "localhost"}) EXPECT_TRUE(pingIp(good)) << good;
    EXPECT_FALSE(pingIp("no-such-host.invalid"));
    for (const std::string refused : {"", "-f", "127.0.0.1; true", "a b", "a..b", "a."}) {
        EXPECT_FALSE(pingIp(refused));
        EXPECT_TRUE(LogCapture::instance().has(
            test::error("ping failed: neither an address nor a host name, ip: " + refused)));
    }
}

TEST(ListingTest, CollectsByKindWithALineForEachButLogFilesAndFollowsLinks)
{
    const fs::path root = "/media/listing";  // private to this program, see TestMain.cpp
    const auto list = [&](int type, const std::string& prefix) {
        std::list<std::string> found;
        listFilesRecursively(Poco::Path(root.string()), found, static_cast<ListFileType>(type), prefix);
        Names names;
        for (const auto& path : found) names.insert(path.substr(root.string().size() + 1));
        return names;
    };
    fs::remove_all(root);
    EXPECT_THROW(list(kLogFile, ""), Poco::FileNotFoundException);
    fs::create_directories(root / "sub/deep");
    for (const char* const name : {"libx.so", "libx.so.1", "x.so", "sub/x.so", "sub/deep/liba b\nc.so",
                                   ".log", "log", "a.LOG", "sub/a.log.gz", "sub/deep/ab.log", "sub/service"})
        std::ofstream(root / name) << "x";
    fs::permissions(root / "sub/service", fs::perms(0755));
    fs::create_directory_symlink("sub/deep", root / "link");
    const std::tuple<int, std::string, std::string, Names> rows[] = {
        {kPlugin, "lib", "pulugin: ", {"libx.so", "link/liba b\nc.so", "sub/deep/liba b\nc.so"}},
        {kPlugin, "libx.so", "pulugin: ", {"libx.so"}},             // prefix and suffix may overlap
        {kMicroservice, "zzz", "microservice: ", {"sub/service"}},  // whatever the prefix
        {kLogFile, "", "", {".log", "link/ab.log", "sub/deep/ab.log"}},
        {3, "", "", {}}};
    for (const auto& [kind, prefix, log, expected] : rows) {
        LogCapture::instance().clear();
        EXPECT_EQ(list(kind, prefix), expected) << kind << " " << prefix;
        EXPECT_EQ(LogCapture::instance().countPrefix(log), log.empty() ? 0 : expected.size());
    }
}

}  // namespace
}  // namespace kro
