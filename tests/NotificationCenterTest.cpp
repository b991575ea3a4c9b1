#include "NotificationCenter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace kro
{
namespace
{
using Names = std::vector<std::string>;

TEST(NotificationCenterTest, SharesAnObjectOfItsExactTypeUntilItIsReplacedOrRemoved)
{
    struct Outpost : std::exception
    {};
    NotificationCenter center;
    const auto first = std::make_shared<int>(1);
    center.set("number", first);
    EXPECT_EQ(center.find<int>("number"), first);
    center.set("number", std::make_shared<Outpost>());
    EXPECT_EQ(first.use_count(), 1) << "a replaced object is let go";
    EXPECT_THROW(center.find<int>("number"), std::invalid_argument);
    EXPECT_THROW(center.find<std::exception>("number"), std::invalid_argument) << "nor its base";
    EXPECT_THROW(center.find<const Outpost>("number"), std::invalid_argument) << "const is part of the type";
    EXPECT_THROW(center.set("number", std::shared_ptr<int>()), std::invalid_argument);
    EXPECT_NE(center.find<Outpost>("number"), nullptr) << "a null pointer replaces nothing";
    center.setCallable("a", [] {});
    EXPECT_THROW(center.find<void()>("a"), std::invalid_argument);
    EXPECT_EQ(center.names(), (Names{"a", "number"}));
    EXPECT_TRUE(center.remove("a"));
    EXPECT_FALSE(center.remove("a"));
    EXPECT_EQ(center.find<int>("a"), nullptr);
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
    EXPECT_EQ(failures[0].name + failures[1].name, "on.bon.d");
    EXPECT_THROW(std::rethrow_exception(failures[0].error), std::runtime_error);
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
    int watched = 0;
    const auto watch = [&](const int*) { fired += std::to_string(center.names().size()); };
    for (int i = 0; i < 2; ++i) center.set("d", std::shared_ptr<int>(&watched, watch));
    center.remove("d");
    EXPECT_EQ(fired, "abc21");
}

TEST(NotificationCenterTest, TakesCallsFromAllThreadsAtOnce)
{
    std::atomic<int> fired{0};
    const auto storm = [&fired](const std::string& name) {
        auto& center = NotificationCenter::defaultCenter();
        center.setCallable("always" + name, [&fired] { ++fired; });
        for (int i = 0; i < 500; ++i) {
            center.set(name, std::make_shared<int>(i));
            const auto number = center.find<int>(name);
            EXPECT_TRUE(!number || *number < 500);
            center.remove(name);
            center.fire("always" + name);
        }
    };
    std::thread threads[] = {std::thread(storm, "0"), std::thread(storm, "0"), std::thread(storm, "1")};
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(fired, 1500);
    EXPECT_EQ(NotificationCenter::defaultCenter().names(), (Names{"always0", "always1"}));
}

}  // namespace
}  // namespace kro
