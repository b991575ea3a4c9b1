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
using Pids = std::vector<int>;

TEST(JsonTest, WritesWhatItReadsAndTellsEveryFailureInTheLogAndByAnEmptyResult)
{
    struct NoText
    {};
    EXPECT_EQ(makeJsonDefault(-7, R"(a "b" \ c)"), R"({"code":-7,"msg":"a \"b\" \\ c"})");
    LogCapture::instance().clear();
    auto json = stringToJson(R"({ "b": [1, 2], "a": { "c": "d" } })");
    EXPECT_EQ(jsonToString(json), R"({"a":{"c":"d"},"b":[1,2]})");
    EXPECT_EQ(jsonToString(nullptr), "");
    EXPECT_TRUE(LogCapture::instance().lines().empty());
    json->set("member", NoText());
    EXPECT_EQ(jsonToString(json), "");
    EXPECT_EQ(LogCapture::instance().lines(), std::vector{test::error("JsonToString exception: [ERRFMT]")});
    std::size_t lines = 1;
    for (const std::string text : {"[1]", "5", "null", "", "{", "{\"a\":}"}) {
        EXPECT_TRUE(stringToJson(text).isNull()) << text;
        ASSERT_EQ(LogCapture::instance().lines().size(), ++lines) << text;
        EXPECT_EQ(LogCapture::instance().lines().back().level, Poco::Message::PRIO_ERROR) << text;
    }
    EXPECT_TRUE(LogCapture::instance().has(test::error("Bad cast exception"))) << "for the array";
}

TEST(PathTest, StartsFromTheRunningExecutableAndCreatesNothing)
{
    const std::string directory = fs::read_symlink("/proc/self/exe").parent_path().string() + "/";
    EXPECT_EQ(getCurrentPath(), directory);
    EXPECT_EQ(getCurrentChildPath("no such"), directory + "no such/");
    EXPECT_FALSE(fs::exists(directory + "no such"));
}

/// @return a process name of `length` characters that no other run of the tests uses.
std::string uniqueName(std::size_t length)
{
    std::string name = "k" + std::to_string(getpid());
    name.resize(length, 'x');
    return name;
}

/// A process of ours that bears a name and does `work`, over and over, until it is killed.
class Child
{
public:
    explicit Child(
        const std::string& name, void (*work)() = [] { pause(); })
    {
        char former[16];
        prctl(PR_GET_NAME, former);
        prctl(PR_SET_NAME, name.c_str());  // a fork inherits it
        pid = fork();
        if (pid == 0) prctl(PR_SET_PDEATHSIG, SIGKILL);
        while (pid == 0) work();
        prctl(PR_SET_NAME, former);
    }
    ~Child()
    {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    bool killed() const
    {
        siginfo_t end{};
        waitid(P_PID, static_cast<id_t>(pid), &end, WEXITED | WNOHANG | WNOWAIT);
        return end.si_pid == pid && end.si_status == SIGKILL;
    }

    pid_t pid;
};

TEST(ProcessTest, FindsByTheFirstWordOfTheFifteenCharactersThatTheKernelKeepsAndPastProcessesThatVanish)
{
    const std::string name = uniqueName(16), word = uniqueName(10);
    const Child child(name), blank(word + " b"), churning(uniqueName(8), [] {
        const pid_t pid = fork();
        if (pid == 0) _exit(0);
        waitpid(pid, nullptr, 0);
    });
    for (int i = 0; i < 300; ++i) {
        Pids found;
        ASSERT_TRUE(findProcessByName(word, found));
        ASSERT_EQ(found, Pids{blank.pid});
    }
    Pids pids;
    for (const std::string& other : {name, name.substr(0, 14), "K" + name.substr(1, 14), word + " b"})
        EXPECT_FALSE(findProcessByName(other, pids)) << other;
    EXPECT_TRUE(findProcessByName(name.substr(0, 15), pids));
    EXPECT_EQ(pids, Pids{child.pid});
    EXPECT_TRUE(findProcessByName(name, pids)) << "what was in the vector before counts too";
    EXPECT_TRUE(findProcessByName(word, pids));
    EXPECT_EQ(pids, (Pids{child.pid, blank.pid}));
}

TEST(ProcessTest, KillsAllThatBearTheNameAndNoOther)
{
    const std::string name = uniqueName(12);
    const Child first(name), second(name), other(name + "y");
    LogCapture::instance().clear();
    cleanProcessByName(name);
    EXPECT_TRUE(test::eventually([&] { return first.killed() && second.killed(); }));
    EXPECT_FALSE(other.killed());
    EXPECT_EQ(LogCapture::instance().lines().size(), 2u);
    for (const pid_t pid : {first.pid, second.pid})
        EXPECT_TRUE(
            LogCapture::instance().has(test::information("system command: kill -9 " + std::to_string(pid))));
}

TEST(ProcessTest, KeepsWhatItThrowsInTheLog)
{
    const Child child(uniqueName(9));
    LogCapture::instance().setHook([](const test::LogLine& line) {
        if (line.text.rfind("system", 0) == 0) throw Poco::NotFoundException("the channel");
        if (line.text.rfind("pingIp", 0) == 0) throw std::runtime_error("plain");
    });
    EXPECT_NO_THROW(cleanProcessById(static_cast<unsigned>(child.pid)));
    EXPECT_FALSE(pingIp("127.0.0.1"));
    LogCapture::instance().setHook({});
    EXPECT_TRUE(LogCapture::instance().has(test::error("Not found: the channel")));
    EXPECT_TRUE(LogCapture::instance().has(test::error("ping failed: plain, ip: 127.0.0.1")));
    EXPECT_FALSE(child.killed()) << "the line comes before the kill";
}

TEST(PingTest, TellsWhetherAnAddressAnswersAndHandsItToTheShellAsItStands)
{
    LogCapture::instance().clear();
    EXPECT_TRUE(pingIp("127.0.0.1"));
    EXPECT_FALSE(pingIp("127.0.0.1 > /dev/null; exit 3 #"));
    EXPECT_FALSE(pingIp("239.192.83.71")) << "a multicast group of RFC 2365 that nobody has joined";
    const auto lines = LogCapture::instance().lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], test::information("pingIp ip: 127.0.0.1, ret = 0"));
    EXPECT_EQ(lines[1], test::information("pingIp ip: 127.0.0.1 > /dev/null; exit 3 #, ret = 768"));
    EXPECT_EQ(lines[2].level, Poco::Message::PRIO_INFORMATION) << "no answer is no error";
    EXPECT_EQ(lines[2].text.rfind("pingIp ip: 239.192.83.71, ret = ", 0), 0u);
}

TEST(NoShellTest, HandsOverAnAddressOrAHostNameAndNothingElse)
{
    const test::WithSafeguards guarded(kNoShell);
    EXPECT_TRUE(pingIp("127.0.0.1"));
    EXPECT_TRUE(pingIp("localhost"));
    EXPECT_FALSE(pingIp("no-such-host.invalid"));
    LogCapture::instance().clear();
    for (const char* const refused : {"", "-f", "127.0.0.1; true", "a b", "a..b", "a-.b", "a.", "$(id)"}) {
        EXPECT_FALSE(pingIp(refused));
        EXPECT_TRUE(LogCapture::instance().has(
            test::error(std::string("ping failed: neither an address nor a host name, ip: ") + refused)));
    }
}

TEST(NoShellTest, KillsAProcessAndNeverAGroup)
{
    const test::WithSafeguards guarded(kNoShell);
    const Child child(uniqueName(11));
    LogCapture::instance().clear();
    cleanProcessById(0);
    cleanProcessById(static_cast<unsigned>(-1));
    EXPECT_EQ(LogCapture::instance().lines(),
              (std::vector{test::error("no process to kill has the id 0"),
                           test::error("no process to kill has the id 4294967295")}));
    cleanProcessById(static_cast<unsigned>(child.pid));
    EXPECT_TRUE(test::eventually([&] { return child.killed(); }));
    EXPECT_EQ(LogCapture::instance().countPrefix("system command"), 0u);
}

class ListingTest : public testing::Test
{
protected:
    ListingTest() { fs::create_directory(root); }
    ~ListingTest() override { fs::remove_all(root); }

    void make(const Names& names, fs::perms mode = fs::perms(0644))
    {
        for (const std::string& name : names) {
            fs::create_directories((root / name).parent_path());
            std::ofstream(root / name) << "x";
            fs::permissions(root / name, mode);
        }
    }
    /// @return the names below root that the listing gave, each once.
    Names list(int type, const std::string& prefix)
    {
        std::list<std::string> found;
        LogCapture::instance().clear();
        listFilesRecursively(Poco::Path(root.string()), found, static_cast<ListFileType>(type), prefix);
        Names names;
        for (const auto& path : found)
            EXPECT_TRUE(names.insert(path.substr(root.string().size() + 1)).second);
        return names;
    }

    const fs::path root = "/media/listing";  // private to this program, see TestMain.cpp
};

TEST_F(ListingTest, CollectsByKindWithALineForEachButLogFiles)
{
    make({"libx.so", "libx.so.1", ".so", "so", "sub/deep/lib.so", "liba b\nc.so"});
    make({".log", "log", "a.log", "a.LOG", "b/a.log.gz", "b/ab.log"});
    make({"service", "sub/a b"}, fs::perms(0755));
    const std::tuple<int, const char*, const char*, Names> rows[] = {
        {kPlugin, "lib", "pulugin: ", {"liba b\nc.so", "libx.so", "sub/deep/lib.so"}},
        {kPlugin, "libx.so", "pulugin: ", {"libx.so"}},  // prefix and suffix may overlap
        {kPlugin, "", "pulugin: ", {".so", "liba b\nc.so", "libx.so", "sub/deep/lib.so"}},
        {kLogFile, "", nullptr, {".log", "a.log", "b/ab.log"}},
        {kLogFile, "a", nullptr, {"a.log", "b/ab.log"}},
        {kMicroservice, "zzz", "microservice: ", {"service", "sub/a b"}},  // whatever the prefix
        {3, "", nullptr, {}}};
    for (const auto& [kind, prefix, log, expected] : rows) {
        EXPECT_EQ(list(kind, prefix), expected) << kind << " " << prefix;
        EXPECT_EQ(LogCapture::instance().lines().size(), log == nullptr ? 0 : expected.size());
        for (const auto& name : log == nullptr ? Names{} : expected)
            EXPECT_TRUE(LogCapture::instance().has(test::information(log + (root / name).string())));
    }
}

TEST_F(ListingTest, FollowsLinksAndEndsInAnExceptionWhereTheyLeadNowhereOrInALoop)
{
    make({"real/a.log"});
    fs::create_symlink("real/a.log", root / "link.log");
    fs::create_directory_symlink("real", root / "again");
    EXPECT_EQ(list(kLogFile, ""), (Names{"again/a.log", "link.log", "real/a.log"}));
    fs::create_symlink("nowhere", root / "real/b.log");
    EXPECT_THROW(list(kLogFile, ""), Poco::FileNotFoundException);
    fs::remove(root / "real/b.log");
    fs::create_directory_symlink(".", root / "loop");
    EXPECT_THROW(list(kLogFile, ""), Poco::FileException);
    fs::remove_all(root);
    EXPECT_THROW(list(kLogFile, ""), Poco::FileNotFoundException);
}

}  // namespace
}  // namespace kro
