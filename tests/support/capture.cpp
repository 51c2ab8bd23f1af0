#include "capture.h"

#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

/* Of a sanitizer's run time, where there is one. */
extern "C" __attribute__((weak)) void __sanitizer_set_report_fd(void *fd);

namespace test_support {

static int captures; /* that are nested at present */

/* A report ends the process, and what was captured with it: it goes where standard error went before. */
static void report_to(int fd)
{
    if (__sanitizer_set_report_fd)
        __sanitizer_set_report_fd(reinterpret_cast<void *>(static_cast<intptr_t>(fd)));
}

static void flush()
{
    fflush(stdout);
    fflush(stderr);
}

std::string file_contents(int fd)
{
    std::string text;
    char buf[4096];
    ssize_t n;
    while ((n = pread(fd, buf, sizeof buf, static_cast<off_t>(text.size()))) > 0)
        text.append(buf, static_cast<size_t>(n));
    return text;
}

StreamCapture::StreamCapture()
{
    flush();
    for (int i = 0; i < 2; i++) {
        saved_[i] = fcntl(i + 1, F_DUPFD_CLOEXEC, 3);
        file_[i] = memfd_create("captured", MFD_CLOEXEC);
        if (saved_[i] < 0 || file_[i] < 0 || fcntl(file_[i], F_SETFL, O_APPEND) < 0 || dup2(file_[i], i + 1) < 0)
            abort();
    }
    if (captures++ == 0)
        report_to(saved_[1]);
}

StreamCapture::~StreamCapture()
{
    flush();
    if (--captures == 0)
        report_to(STDERR_FILENO);
    for (int i = 0; i < 2; i++) {
        dup2(saved_[i], i + 1);
        close(saved_[i]);
        close(file_[i]);
    }
}

std::string StreamCapture::out()
{
    flush();
    return file_contents(file_[0]);
}

std::string StreamCapture::err()
{
    flush();
    return file_contents(file_[1]);
}

void StreamCapture::clear()
{
    flush();
    if (ftruncate(file_[0], 0) || ftruncate(file_[1], 0))
        abort();
}

} // namespace test_support
