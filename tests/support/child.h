/*
 * A piece of a test in a process of its own: for globals that are set once, the environment, exit() and abort().
 *
 *     ChildResult child = run_in_child([] {
 *         setenv("RUK_DEBUG", "1", 1);
 *         return ruk_init(3);
 *     });
 *     EXPECT_TRUE(child.exited_with(0)) << child;
 *     EXPECT_EQ(child.err, "...");
 *
 * The child starts as a copy of the test; its end is _exit() with what the piece returns. A failed EXPECT
 * inside makes it child_check_failed instead, with gtest's text in `out`. It is killed after 60 seconds.
 */
#pragma once

#include <functional>
#include <ostream>
#include <string>

namespace test_support {

constexpr int child_check_failed = 86;

struct ChildResult {
    int exit_status = -1; /* -1 when a signal ended it */
    int signal = 0;       /* 0 when it exited */
    std::string out;      /* all bytes of standard output */
    std::string err;      /* and of standard error */

    bool exited_with(int status) const { return signal == 0 && exit_status == status; }
    bool killed_by(int sig) const { return signal == sig; }
};

std::ostream &operator<<(std::ostream &os, const ChildResult &result);

ChildResult run_in_child(const std::function<int()> &piece);

} // namespace test_support
