#include "NotificationCenter.h"

#include <gtest/gtest.h>

#include <thread>

namespace kro
{
namespace
{
TEST(NotificationCenterTest, SharesAnObjectOfItsExactTypeUntilItIsReplacedOrRemoved)
{
    NotificationCenter center;
    const auto first = std::make_shared<int>(1);
    center.set("a", first);
    EXPECT_THROW(center.set("a", std::shared_ptr<int>()), std::invalid_argument);
    EXPECT_EQ(center.find<int>("a"), first) << "a null pointer replaces nothing";
    EXPECT_THROW(center.find<const int>("a"), std::invalid_argument) << "const is part of the type";
    center.setCallable("a", [] {});
    EXPECT_EQ(first.use_count(), 1) << "a replaced object is let go";
    EXPECT_THROW(center.find<int>("a"), std::invalid_argument);
    EXPECT_TRUE(center.remove("a") && !center.remove("a"));
    EXPECT_EQ(center.find<int>("a"), nullptr);
}

TEST(NotificationCenterTest, FiresByPrefixInTheOrderOfNamesPastOnesThatThrow)
{
    NotificationCenter center;
    std::string fired;
    center.setCallable("on.b", []() -> void { throw 5; });
    for (const char* const name : {"on.d", "on.a", "on.e", "on.c", "off.on."})
        center.setCallable(name, [&fired, name] { fired += name; });
    center.set("on.object", std::make_shared<int>(1));
    EXPECT_EQ(center.names().front(), "off.on.") << "they are sorted";
    const auto failures = center.fire("on.");
    EXPECT_EQ(fired, "on.aon.con.don.e");
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].name, "on.b");
    EXPECT_THROW(std::rethrow_exception(failures[0].error), int);
}

TEST(NotificationCenterTest, LetsFiredCallablesAndDestructorsCallBack)
{
    NotificationCenter center;
    int watched = 0;
    std::string called;
    center.setCallable("a", [&] {
        center.remove("b");
        center.setCallable("c", [&] { called += 'c'; });
    });
    center.setCallable("b", [&] { called += 'b'; });
    const auto watch = [&](const int*) { called += std::to_string(center.names().size()); };
    for (int i = 0; i < 2; ++i) center.set("d", std::shared_ptr<int>(&watched, watch));
    center.fire("");
    center.remove("d");
    EXPECT_EQ(called, "3b2") << "what is fired is settled at the start";
}

TEST(NotificationCenterTest, TakesCallsFromAllThreadsAtOnce)
{
    const auto storm = [] {
        auto& center = NotificationCenter::defaultCenter();
        for (int i = 0; i < 20000; ++i) {
            center.set("a", std::make_shared<int>(i));
            center.find<int>("a");
            center.remove("a");
            EXPECT_TRUE(center.fire("").empty());
        }
    };
    std::thread other(storm);
    storm();
    other.join();
}

}  // namespace
}  // namespace kro
