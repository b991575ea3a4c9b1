#include "Utils.h"

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <future>
#include <stdexcept>

#include <Poco/Exception.h>

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
using Names = std::vector<std::string>;

TEST(JsonTest, BuildsTheEnvelopeToTheLetter)
{
    EXPECT_EQ(makeJsonDefault(0, "ok"), R"({"code":0,"msg":"ok"})");
    EXPECT_EQ(makeJsonDefault(-7, R"(a "b" \ c)"), R"({"code":-7,"msg":"a \"b\" \\ c"})");
}

TEST(JsonTest, WritesAnObjectAndReadsItBack)
{
    LogCapture::instance().clear();
    const auto json = stringToJson(R"({ "b": [1, 2], "a": { "c": "d" } })");
    ASSERT_FALSE(json.isNull());
    EXPECT_EQ(jsonToString(json), R"({"a":{"c":"d"},"b":[1,2]})");
    EXPECT_EQ(jsonToString(nullptr), "");
    EXPECT_TRUE(LogCapture::instance().lines().empty());
}

TEST(JsonTest, TellsEveryFailureInTheLogAndByAnEmptyResult)
{
    for (const std::string text : {"[1]", "5", "null", "", "{", "{\"a\":}"}) {
        SCOPED_TRACE(text);
        LogCapture::instance().clear();
        EXPECT_TRUE(stringToJson(text).isNull());
        ASSERT_EQ(LogCapture::instance().lines().size(), 1u);
        EXPECT_EQ(LogCapture::instance().lines()[0].level, Poco::Message::PRIO_ERROR);
    }
    EXPECT_TRUE(stringToJson("[1]").isNull());
    EXPECT_TRUE(LogCapture::instance().has(test::error("Bad cast exception")));
    struct NoText
    {};
    Poco::JSON::Object::Ptr json = new Poco::JSON::Object;
    json->set("member", NoText());
    LogCapture::instance().clear();
    EXPECT_EQ(jsonToString(json), "");
    EXPECT_EQ(LogCapture::instance().lines(), std::vector{test::error("JsonToString exception: [ERRFMT]")})
        << "the reason is handed over as a const char*";
}

TEST(PathTest, StartsFromTheRunningExecutable)
{
    const std::string directory = fs::read_symlink("/proc/self/exe").parent_path().string() + "/";
    EXPECT_EQ(getCurrentPath(), directory);
    EXPECT_EQ(getCurrentChildPath("no such"), directory + "no such/");
    EXPECT_FALSE(fs::exists(directory + "no such"));
}

/// A process of ours that bears a name and does `work`, over and over, until it is killed.
class Child
{
public:
    explicit Child(
        const std::string& name, void (*work)() = [] { pause(); })
    {
        int ready[2];
        if (pipe(ready) != 0) throw std::runtime_error("no pipe");
        pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            prctl(PR_SET_NAME, name.c_str());
            close(ready[0]);
            close(ready[1]);
            for (;;) work();
        }
        close(ready[1]);
        char nothing;
        while (read(ready[0], &nothing, 1) > 0) {
        }
        close(ready[0]);
    }
    ~Child()
    {
        if (!waited) kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    bool killed()
    {
        int status = 0;
        waited = waited || waitpid(pid, &status, WNOHANG) == pid;
        return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    }

    pid_t pid;

private:
    bool waited = false;
};

/// @return a process name of `length` characters that no other run of the tests uses.
std::string uniqueName(std::size_t length)
{
    std::string name = "k" + std::to_string(getpid());
    name.resize(length, 'x');
    return name;
}

TEST(ProcessTest, FindsByTheFifteenCharactersThatTheKernelKeeps)
{
    const std::string name = uniqueName(16);
    const Child child(name);
    std::vector<int> pids;
    EXPECT_FALSE(findProcessByName(name, pids));
    EXPECT_FALSE(findProcessByName(name.substr(0, 14), pids));
    EXPECT_FALSE(findProcessByName("K" + name.substr(1, 14), pids));
    EXPECT_TRUE(findProcessByName(name.substr(0, 15), pids));
    EXPECT_EQ(pids, std::vector<int>{child.pid});
    EXPECT_TRUE(findProcessByName(name, pids)) << "what was in the vector before counts too";
    EXPECT_EQ(pids, std::vector<int>{child.pid});
}

TEST(ProcessTest, KnowsANameWithABlankByItsFirstWord)
{
    const std::string word = uniqueName(10);
    const Child child(word + " b");
    std::vector<int> pids;
    EXPECT_FALSE(findProcessByName(word + " b", pids));
    EXPECT_TRUE(findProcessByName(word, pids));
    EXPECT_EQ(pids, std::vector<int>{child.pid});
}

TEST(ProcessTest, KillsAllThatBearTheNameAndNoOther)
{
    const std::string name = uniqueName(12);
    Child first(name);
    Child second(name);
    Child other(name + "y");
    LogCapture::instance().clear();
    cleanProcessByName(name);
    EXPECT_TRUE(test::eventually([&] { return first.killed(); }));
    EXPECT_TRUE(test::eventually([&] { return second.killed(); }));
    EXPECT_EQ(kill(other.pid, 0), 0);
    EXPECT_FALSE(other.killed());
    for (const Child* child : {&first, &second})
        EXPECT_TRUE(LogCapture::instance().has(
            test::information("system command: kill -9 " + std::to_string(child->pid))));
    EXPECT_EQ(LogCapture::instance().lines().size(), 2u);
    cleanProcessByName(name);
    EXPECT_EQ(LogCapture::instance().lines().size(), 2u) << "nobody is left to be killed";
}

TEST(ProcessTest, FindsAZombieUntilItIsWaitedFor)
{
    const std::string name = uniqueName(13);
    std::vector<int> pids;
    {
        const Child child(name, [] { _exit(0); });
        siginfo_t ended;
        waitid(P_PID, static_cast<id_t>(child.pid), &ended, WEXITED | WNOWAIT);
        EXPECT_TRUE(findProcessByName(name, pids));
        cleanProcessById(static_cast<unsigned int>(child.pid));
    }
    pids.clear();
    EXPECT_FALSE(findProcessByName(name, pids));
}

TEST(ProcessTest, TakesProcessesThatVanishWhileItReads)
{
    const Child churning(uniqueName(8), [] {
        const pid_t pid = fork();
        if (pid == 0) _exit(0);
        waitpid(pid, nullptr, 0);
    });
    const std::string name = uniqueName(14);
    const Child staying(name);
    for (int i = 0; i < 300; ++i) {
        std::vector<int> pids;
        ASSERT_TRUE(findProcessByName(name, pids));
        ASSERT_EQ(pids, std::vector<int>{staying.pid});
    }
}

/// Makes every line at INFORMATION throw.
class ThrowingLog
{
public:
    template <typename Exception>
    explicit ThrowingLog(const Exception& thrown)
    {
        LogCapture::instance().clear();
        LogCapture::instance().setHook([thrown](const test::LogLine& line) {
            if (line.level == Poco::Message::PRIO_INFORMATION) throw thrown;
        });
    }
    ~ThrowingLog() { LogCapture::instance().setHook({}); }
};

TEST(ProcessTest, KeepsWhatItThrowsInTheLog)
{
    const Child child(uniqueName(9));
    const auto pid = static_cast<unsigned int>(child.pid);
    {
        const ThrowingLog log(Poco::NotFoundException("the channel"));
        EXPECT_NO_THROW(cleanProcessById(pid));
        EXPECT_TRUE(LogCapture::instance().has(test::error("Not found: the channel")));
    }
    {
        const ThrowingLog log(std::runtime_error("plain"));
        EXPECT_NO_THROW(cleanProcessById(pid));
        EXPECT_TRUE(LogCapture::instance().has(test::error("plain")));
        EXPECT_FALSE(pingIp("127.0.0.1"));
        EXPECT_TRUE(LogCapture::instance().has(test::error("ping failed: plain, ip: 127.0.0.1")));
    }
    EXPECT_EQ(kill(child.pid, 0), 0) << "the line comes before the kill";
}

TEST(PingTest, TellsWhetherAnAddressAnswers)
{
    LogCapture::instance().clear();
    EXPECT_TRUE(pingIp("127.0.0.1"));
    EXPECT_EQ(LogCapture::instance().lines(),
              std::vector{test::information("pingIp ip: 127.0.0.1, ret = 0")});
    LogCapture::instance().clear();
    EXPECT_FALSE(pingIp("239.192.83.71")) << "a multicast group of RFC 2365 that nobody has joined";
    ASSERT_EQ(LogCapture::instance().lines().size(), 1u);
    const auto line = LogCapture::instance().lines()[0];
    EXPECT_EQ(line.level, Poco::Message::PRIO_INFORMATION) << "no answer is no error";
    EXPECT_EQ(line.text.rfind("pingIp ip: 239.192.83.71, ret = ", 0), 0u);
}

TEST(PingTest, HandsTheAddressToTheShellAsItStands)
{
    LogCapture::instance().clear();
    EXPECT_FALSE(pingIp("127.0.0.1 > /dev/null; exit 3 #"));
    EXPECT_TRUE(LogCapture::instance().has(
        test::information("pingIp ip: 127.0.0.1 > /dev/null; exit 3 #, ret = 768")));
}

TEST(NoShellTest, HandsOverAnAddressOrAHostNameAndNothingElse)
{
    const test::WithSafeguards guarded(kNoShell);
    LogCapture::instance().clear();
    EXPECT_TRUE(pingIp("127.0.0.1"));
    EXPECT_TRUE(pingIp("localhost"));
    EXPECT_FALSE(pingIp("no-such-host.invalid"));
    LogCapture::instance().clear();
    for (const char* const refused : {"", "-f", "127.0.0.1; true", "a b", "a..b", "a-.b", "a.", "$(id)"}) {
        EXPECT_FALSE(pingIp(refused));
        EXPECT_TRUE(LogCapture::instance().has(
            test::error(std::string("ping failed: neither an address nor a host name, ip: ") + refused)));
    }
    EXPECT_EQ(safeguards(), unsigned{kNoShell});
}

TEST(NoShellTest, KillsAProcessAndNeverAGroup)
{
    const test::WithSafeguards guarded(kNoShell);
    Child child(uniqueName(11));
    LogCapture::instance().clear();
    cleanProcessById(0);
    cleanProcessById(static_cast<unsigned>(-1));
    EXPECT_TRUE(LogCapture::instance().has(test::error("no process to kill has the id 0")));
    EXPECT_TRUE(LogCapture::instance().has(test::error("no process to kill has the id 4294967295")));
    cleanProcessById(static_cast<unsigned>(child.pid));
    EXPECT_TRUE(test::eventually([&] { return child.killed(); }));
    EXPECT_EQ(LogCapture::instance().countPrefix("system command"), 0u);
}

class ListingTest : public testing::Test
{
protected:
    ~ListingTest() override
    {
        for (const auto& closed : closed_directories) chmod(closed.c_str(), 0700);
        fs::remove_all(root);
    }

    void file(const std::string& name, mode_t mode = 0644)
    {
        fs::create_directories((root / name).parent_path());
        std::ofstream(root / name) << "x";
        chmod((root / name).c_str(), mode);
    }
    void close(const std::string& directory)
    {
        closed_directories.push_back(root / directory);
        chmod((root / directory).c_str(), 0);
    }

    /// @return the names below root that the listing gave, sorted.
    Names list(ListFileType type, const std::string& prefix)
    {
        found.clear();
        LogCapture::instance().clear();
        listFilesRecursively(Poco::Path(root.string()), found, type, prefix);
        Names names;
        for (const auto& path : found) names.push_back(path.substr(root.string().size() + 1));
        std::sort(names.begin(), names.end());
        return names;
    }

    static fs::path makeRoot()
    {
        std::string name = (fs::temp_directory_path() / "kro-listing-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no directory");
        return name;
    }
    const fs::path root = makeRoot();
    std::vector<fs::path> closed_directories;
    std::list<std::string> found;
};

TEST_F(ListingTest, CollectsPluginsByPrefixAndSuffix)
{
    for (const char* name :
         {"libx.so", "libx.so.1", "x.so", ".so", "so", "sub/deep/lib.so", "sub/li", "liba b\nc.so"})
        file(name);
    EXPECT_EQ(list(kPlugin, "lib"), (Names{"liba b\nc.so", "libx.so", "sub/deep/lib.so"}));
    for (const auto& path : found)
        EXPECT_TRUE(LogCapture::instance().has(test::information("pulugin: " + path)));
    EXPECT_EQ(list(kPlugin, "libx.so"), Names{"libx.so"}) << "prefix and suffix may overlap";
    EXPECT_EQ(list(kPlugin, ""), (Names{".so", "liba b\nc.so", "libx.so", "sub/deep/lib.so", "x.so"}));
}

TEST_F(ListingTest, CollectsLogFilesWithoutALine)
{
    for (const char* name : {".log", "log", "a.log", "a.LOG", "b/a.log.gz", "b/ab.log"}) file(name);
    EXPECT_EQ(list(kLogFile, ""), (Names{".log", "a.log", "b/ab.log"}));
    EXPECT_EQ(list(kLogFile, "a"), (Names{"a.log", "b/ab.log"}));
    EXPECT_TRUE(LogCapture::instance().lines().empty());
}

TEST_F(ListingTest, CollectsWhatMayBeExecutedWhateverThePrefix)
{
    file("service", 0755);
    file("sub/data");
    file("sub/a b", 0755);
    EXPECT_EQ(list(kMicroservice, "zzz"), (Names{"service", "sub/a b"}));
    EXPECT_TRUE(
        LogCapture::instance().has(test::information("microservice: " + (root / "sub/a b").string())));
    EXPECT_EQ(LogCapture::instance().lines().size(), 2u);
}

TEST_F(ListingTest, ReturnsNothingForAnUnknownKind)
{
    file("a.log", 0755);
    file("b/c.so");
    EXPECT_EQ(list(static_cast<ListFileType>(3), ""), Names{});
    EXPECT_TRUE(LogCapture::instance().lines().empty());
}

TEST_F(ListingTest, FollowsLinksAndEndsInAnExceptionWhereTheyLeadNowhere)
{
    file("real/a.log");
    fs::create_symlink("real/a.log", root / "link.log");
    fs::create_directory_symlink("real", root / "again");
    EXPECT_EQ(list(kLogFile, ""), (Names{"again/a.log", "link.log", "real/a.log"}));
    fs::create_symlink("nowhere", root / "real/b.log");
    EXPECT_THROW(list(kLogFile, ""), Poco::FileNotFoundException);
}

TEST_F(ListingTest, EndsInAnExceptionInALoopOfLinks)
{
    fs::create_directory_symlink(".", root / "loop");
    EXPECT_THROW(list(kLogFile, ""), Poco::FileException);
}

TEST_F(ListingTest, ThrowsForADirectoryItCannotReadAndKeepsWhatItHas)
{
    file("closed/inside.log");
    close("closed");
    found.push_back("from before");
    const auto listing = [&] { listFilesRecursively(Poco::Path(root.string()), found, kLogFile, ""); };
    // On a thread without root's rights: they belong to a thread, and end with it.
    const auto without_rights = [&] {
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct none[2] = {};
        syscall(SYS_capset, &header, none);
        listing();
    };
    EXPECT_THROW(std::async(std::launch::async, without_rights).get(), Poco::FileException);
    EXPECT_EQ(found, std::list<std::string>{"from before"});
    EXPECT_THROW(listFilesRecursively(Poco::Path((root / "no such").string()), found, kLogFile, ""),
                 Poco::FileNotFoundException);
}

}  // namespace
}  // namespace kro
