// A host that links the library as an archive and uses it in its own initialisers. Nothing here refers to the
// web hook: the linker brings its defaults only if the library makes it.
#include <gtest/gtest.h>

#include <sstream>

#include "Config.h"
#include "Logger.h"
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
const std::string s_hook_at_load = treeText();
const std::string s_all_at_load = [] {
    kro::initHttpOption();
    kro::initRpcOption();
    return treeText();
}();
const bool s_logger_at_load = kro::logName().empty() && !kro::canLog(1);  // of a null logger it would crash
const kro::ThreadPool* const s_pool_at_load = &kro::ThreadPool::defaultPool();
const auto s_entry_at_load = std::make_shared<int>(5);
const bool s_is_set = (kro::NotificationCenter::defaultCenter().set("at load", s_entry_at_load), true);

TEST(StaticLinkTest, StandsBeforeAnyInitialiserOfTheHostAndKeepsWhatThatHasMade)
{
    const std::string hook =
        R"({"hook":{"admin_params":"secret=7d1e4a90-2c36-4f58-9b17-e05ac3d86f21","alive_interval":30,)"
        R"("enable":false,"on_server_keepalive":"http://127.0.0.1/index/api/on_server_keepalive",)"
        R"("on_server_started":"http://127.0.0.1/index/api/on_server_started","retry":1,"retry_delay":3,)"
        R"("timeoutSec":10})";
    EXPECT_EQ(s_hook_at_load, hook + "}");
    EXPECT_EQ(s_all_at_load,
              hook + R"(,"http":{"apiDebug":true,"port":9528,"sslport":443},"rpc":{"port":9527}})");
    EXPECT_EQ(treeText(), s_all_at_load) << "no later initialiser may write over the host's values";
    EXPECT_EQ(s_pool_at_load, &kro::ThreadPool::defaultPool());
    EXPECT_TRUE(s_is_set && s_logger_at_load);
    EXPECT_EQ(kro::NotificationCenter::defaultCenter().find<int>("at load"), s_entry_at_load);
}
}  // namespace
