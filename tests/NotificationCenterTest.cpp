#include "NotificationCenter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

namespace kro
{
namespace
{
using Names = std::vector<std::string>;

struct Station
{
    virtual ~Station() = default;
};
struct Outpost : Station
{};

TEST(NotificationCenterTest, IsOneForAllThreads)
{
    std::vector<std::future<NotificationCenter*>> found;
    for (int i = 0; i < 8; ++i)
        found.push_back(std::async(std::launch::async, [] { return &NotificationCenter::defaultCenter(); }));
    for (auto& center : found) EXPECT_EQ(center.get(), &NotificationCenter::defaultCenter());
}

TEST(NotificationCenterTest, SharesAnObjectUntilItIsReplacedOrRemoved)
{
    NotificationCenter center;
    const auto first = std::make_shared<int>(1);
    center.set("number", first);
    EXPECT_EQ(center.find<int>("number"), first);
    center.set("number", std::make_shared<std::string>("two"));
    EXPECT_EQ(*center.find<std::string>("number"), "two");
    EXPECT_EQ(first.use_count(), 1) << "a replaced object is let go";
    center.set("a", first);
    EXPECT_EQ(center.names(), (Names{"a", "number"}));
    EXPECT_TRUE(center.remove("a"));
    EXPECT_FALSE(center.remove("a"));
    EXPECT_EQ(first.use_count(), 1);
    EXPECT_EQ(center.find<int>("a"), nullptr);
    EXPECT_THROW(center.set("number", std::shared_ptr<int>()), std::invalid_argument);
    EXPECT_EQ(*center.find<std::string>("number"), "two") << "a null pointer replaces nothing";
}

TEST(NotificationCenterTest, TellsAWrongTypeAndNeverReinterprets)
{
    NotificationCenter center;
    center.set("outpost", std::make_shared<Outpost>());
    center.set("fixed", std::shared_ptr<const int>(std::make_shared<int>(1)));
    center.setCallable("callable", [] {});
    EXPECT_THROW(center.find<int>("outpost"), std::invalid_argument);
    EXPECT_THROW(center.find<Station>("outpost"), std::invalid_argument) << "nor its base";
    EXPECT_THROW(center.find<int>("fixed"), std::invalid_argument) << "const is part of the type";
    EXPECT_EQ(*center.find<const int>("fixed"), 1);
    EXPECT_THROW(center.find<void()>("callable"), std::invalid_argument);
}

TEST(NotificationCenterTest, FiresByPrefixInTheOrderOfNamesPastOnesThatThrow)
{
    NotificationCenter center;
    std::string fired;
    center.setCallable("on.b", [&]() -> void { throw std::runtime_error("b"); });
    center.setCallable("on.c", [&] { fired += 'c'; });
    center.setCallable("on.a", [&] { fired += 'a'; });
    center.setCallable("on.d", {});
    center.setCallable("off.a", [&] { fired += 'x'; });
    center.set("on.object", std::make_shared<int>(1));
    const auto failures = center.fire("on.");
    EXPECT_EQ(fired, "ac");
    ASSERT_EQ(failures.size(), 2u);
    EXPECT_EQ(failures[0].name, "on.b");
    EXPECT_THROW(std::rethrow_exception(failures[0].error), std::runtime_error);
    EXPECT_EQ(failures[1].name, "on.d");
    EXPECT_THROW(std::rethrow_exception(failures[1].error), std::bad_function_call);
}

TEST(NotificationCenterTest, LetsFiredCallablesAndDestructorsCallBack)
{
    NotificationCenter center;
    std::string fired;
    center.setCallable("a", [&] {
        fired += 'a';
        center.remove("a");
        center.remove("b");
        center.setCallable("c", [&] { fired += 'c'; });
    });
    center.setCallable("b", [&] { fired += 'b'; });
    center.fire("");
    EXPECT_EQ(fired, "ab") << "what is fired is settled at the start";
    center.fire("");
    EXPECT_EQ(fired, "abc");
    const auto watched = [&] {
        return std::shared_ptr<int>(new int, [&](const int* number) {
            delete number;
            center.names();
            fired += '~';
        });
    };
    center.set("d", watched());
    center.set("d", watched());
    center.remove("d");
    EXPECT_EQ(fired, "abc~~");
}

TEST(NotificationCenterTest, TakesCallsFromAllThreadsAtOnce)
{
    NotificationCenter center;
    std::atomic<int> fired{0};
    center.setCallable("always", [&] { ++fired; });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&center, name = std::to_string(t % 2)] {
            for (int i = 0; i < 500; ++i) {
                center.set(name, std::make_shared<int>(i));
                const auto number = center.find<int>(name);
                if (number && *number >= 500) ADD_FAILURE() << *number;
                center.remove(name);
                center.fire("al");
                center.names();
            }
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(fired, 2000);
    EXPECT_EQ(center.names(), Names{"always"});
}

}  // namespace
}  // namespace kro
