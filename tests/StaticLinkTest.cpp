// A host that links the library as an archive and uses it in its own initialisers. Nothing here refers to the
// web hook: the linker brings its defaults only if the library makes it.
#include "Config.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <sstream>
#include <string>

#include "NotificationCenter.h"
#include "ThreadPool.h"

namespace
{
std::string treeText()
{
    std::ostringstream text;
    kro::configInstance()->save(text, 0);
    return text.str();
}

// Initialisers of a host, in the object file that the link line names first.
const std::map<std::string, std::string> s_hook_at_load = [] {
    Poco::Util::AbstractConfiguration::Keys keys;
    kro::configInstance()->keys("hook", keys);
    std::map<std::string, std::string> values;
    for (const auto& key : keys) values[key] = kro::configInstance()->getString("hook." + key);
    return values;
}();
const std::string s_http_at_load = [] {
    kro::initHttpOption();
    kro::initSSLOption();
    kro::initRpcOption();
    return treeText();
}();
const std::string s_key_at_load = kro::http::kPort;
const kro::ThreadPool* const s_pool_at_load = &kro::ThreadPool::defaultPool();
const bool s_entry_at_load = [] {
    kro::NotificationCenter::defaultCenter().set("at load", std::make_shared<int>(5));
    return kro::NotificationCenter::defaultCenter().find<int>("at load") != nullptr;
}();

TEST(StaticLinkTest, HasTheHookDefaultsBeforeAnyInitialiserOfTheHost)
{
    const std::map<std::string, std::string> expected = {
        {"admin_params", "secret=7d1e4a90-2c36-4f58-9b17-e05ac3d86f21"},
        {"alive_interval", "30"},
        {"enable", "false"},
        {"on_server_keepalive", "http://127.0.0.1/index/api/on_server_keepalive"},
        {"on_server_started", "http://127.0.0.1/index/api/on_server_started"},
        {"retry", "1"},
        {"retry_delay", "3"},
        {"timeoutSec", "10"}};
    EXPECT_EQ(s_hook_at_load, expected);
}

TEST(StaticLinkTest, HasItsKeysBeforeAnyInitialiserOfTheHost)
{
    EXPECT_EQ(s_key_at_load, "http.port");
    EXPECT_NE(s_http_at_load.find(R"("http":{"apiDebug":true,"port":9528,"sslport":443})"),
              std::string::npos);
    EXPECT_NE(s_http_at_load.find(R"("rpc":{"port":9527})"), std::string::npos);
    EXPECT_NE(s_http_at_load.find(R"("verificationDepth":9)"), std::string::npos);
    EXPECT_EQ(treeText(), s_http_at_load) << "no later initialiser may write over the host's values";
}

TEST(StaticLinkTest, KeepsThePoolAndTheEntriesThatAnInitialiserOfTheHostHasMade)
{
    EXPECT_EQ(s_pool_at_load, &kro::ThreadPool::defaultPool());
    EXPECT_TRUE(s_entry_at_load);
    const auto entry = kro::NotificationCenter::defaultCenter().find<int>("at load");
    ASSERT_TRUE(entry);
    EXPECT_EQ(*entry, 5);
}
}  // namespace
