#ifndef KRO_TESTS_IN_CHILD_H
#define KRO_TESTS_IN_CHILD_H

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>

#include "support/Eventually.h"

namespace kro::test
{
/// Runs `host` in the child of a fork, which ends as by a return from main(). What fails there fails here.
/// @param console  the child's standard error.
inline void inChild(const std::function<void()>& host, const char* console = "/dev/null")
{
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (std::freopen(console, "a", stderr) == nullptr) _exit(2);
        host();
        std::exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    const bool has_ended =
        eventually([&] { return waitpid(child, &status, WNOHANG) == child; }, std::chrono::seconds(100));
    if (!has_ended) kill(child, SIGKILL), waitpid(child, nullptr, 0);
    EXPECT_TRUE(has_ended && status == 0) << status;
}
}  // namespace kro::test

#endif
