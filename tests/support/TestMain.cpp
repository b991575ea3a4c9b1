#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <Poco/Logger.h>

#include "support/LogCapture.h"

namespace kro::test
{

LogCapture& LogCapture::instance()
{
    static auto* const capture = new LogCapture;  // never freed: threads may log until the very end
    return *capture;
}

void LogCapture::log(const Poco::Message& message)
{
    const LogLine line{message.getPriority(), message.getText()};
    captured.add(line);
    std::unique_lock<std::mutex> lock(mutex);
    const auto hook = line_hook;
    lock.unlock();
    if (hook) hook(line);
}

void LogCapture::setHook(std::function<void(const LogLine&)> hook)
{
    const std::lock_guard<std::mutex> lock(mutex);
    line_hook.swap(hook);
}

}  // namespace kro::test

int main(int argc, char** argv)
{
    bool listing = false;
    for (int i = 1; i < argc; ++i) listing = listing || std::strcmp(argv[i], "--gtest_list_tests") == 0;
    if (!listing && std::getenv("KRO_DIRS_ARE_PRIVATE") == nullptr) {
        std::vector<char*> command{const_cast<char*>(KRO_PRIVATE_DIRS)};
        command.insert(command.end(), argv, argv + argc + 1);  // with the null that ends it
        execv(KRO_PRIVATE_DIRS, command.data());
        std::perror(KRO_PRIVATE_DIRS);
        return 1;
    }
    testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Poco::Logger::root().setLevel(Poco::Message::PRIO_TRACE);
    Poco::Logger::root().setChannel(&kro::test::LogCapture::instance());
    return RUN_ALL_TESTS();
}
