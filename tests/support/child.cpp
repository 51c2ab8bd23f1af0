#include "child.h"
#include "capture.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

/* Where branches are counted: the counts of a process that ends without exit(). */
extern "C" void __gcov_dump(void) __attribute__((weak));

namespace test_support {

namespace {
void keep_counts()
{
    if (__gcov_dump)
        __gcov_dump();
}

void keep_counts_and_die(int signal_number)
{
    keep_counts();
    signal(signal_number, SIG_DFL);
    raise(signal_number);
}
} // namespace

std::ostream &operator<<(std::ostream &os, const ChildResult &result)
{
    if (result.signal)
        os << "killed by signal " << result.signal;
    else
        os << "exit status " << result.exit_status;
    return os << "\nstandard output:\n" << result.out << "\nstandard error:\n" << result.err << "\n";
}

ChildResult run_in_child(const std::function<int()> &piece)
{
    fflush(nullptr);
    int out = memfd_create("out", MFD_CLOEXEC);
    int err = memfd_create("err", MFD_CLOEXEC);
    pid_t pid = fork();
    if (out < 0 || err < 0 || pid < 0)
        abort();

    if (pid == 0) {
        struct rlimit no_core = {0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        signal(SIGALRM, SIG_DFL);
        alarm(60);
        if (__gcov_dump)
            signal(SIGABRT, keep_counts_and_die);
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        int status = piece();
        fflush(nullptr);
        keep_counts();
        _exit(testing::Test::HasFailure() ? child_check_failed : status);
    }

    int status = 0;
    while (waitpid(pid, &status, 0) < 0)
        if (errno != EINTR)
            abort();
    ChildResult result;
    result.exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    result.out = file_contents(out);
    result.err = file_contents(err);
    close(out);
    close(err);
    return result;
}

} // namespace test_support
