/*
 * A process that defines "krel_setup_socket_funcs", as a companion TCP library does: the table is its. A program
 * of its own, because the symbol is looked up once in the process's global scope.
 */
#include "tov.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdarg.h>
#include <string.h>

namespace {
int setup_calls;
tov_socket_functions_t *setup_argument;
int ioctl_fd;
unsigned long ioctl_request;
void *ioctl_argument;

int their_ioctl(int fd, unsigned long request, ...)
{
    va_list args;
    va_start(args, request);
    ioctl_argument = va_arg(args, void *);
    va_end(args);
    ioctl_fd = fd;
    ioctl_request = request;
    return 0;
}
} // namespace

extern "C" void krel_setup_socket_funcs(tov_socket_functions_t *table);
void krel_setup_socket_funcs(tov_socket_functions_t *table)
{
    setup_calls++;
    setup_argument = table;
    memset(table, 0, sizeof *table);
    table->socket = [](int, int, int) { return 1001; };
    table->bind = [](int, const struct sockaddr *, socklen_t) { return 1002; };
    table->sendto = [](int, const void *, size_t, int, const struct sockaddr *, socklen_t) -> ssize_t { return 1003; };
    table->close = [](int fd) { return fd == 1001 ? 0 : -1; };
    table->getsockname = [](int, struct sockaddr *, socklen_t *) { return 1004; };
    table->setsockopt = [](int, int, int, const void *, socklen_t) { return 1005; };
    table->getsockopt = [](int, int, int, void *, socklen_t *) { return 1006; };
    table->select = [](int, fd_set *, fd_set *, fd_set *, struct timeval *) { return 1007; };
    table->ioctl = their_ioctl;
}

TEST(CompanionLibrary, SymbolDefined_AllCalls_GoThroughItsTable)
{
    char c = 0;
    socklen_t len = 1;
    EXPECT_EQ(tov_socket(AF_INET, SOCK_DGRAM, 0), 1001);
    EXPECT_EQ(setup_argument, &_tov_fops);
    EXPECT_EQ(tov_bind(1001, nullptr, 0), 1002);
    EXPECT_EQ(tov_sendto(1001, &c, 1, 0, nullptr, 0), 1003);
    EXPECT_EQ(tov_getsockname(1001, nullptr, &len), 1004);
    EXPECT_EQ(tov_setsockopt(1001, 0, 0, &c, 1), 1005);
    EXPECT_EQ(tov_getsockopt(1001, 0, 0, &c, &len), 1006);
    EXPECT_EQ(tov_select(0, nullptr, nullptr, nullptr, nullptr), 1007);
    EXPECT_EQ(tov_close(1001), 0);
    EXPECT_EQ(tov_closesocket(1001), 0);

    EXPECT_EQ(tov_ioctl(1001, 0x4D01, &c, 1), 0);
    EXPECT_EQ(ioctl_fd, 1001);
    EXPECT_EQ(ioctl_request, 0x4D01ul);
    EXPECT_EQ(ioctl_argument, &c);
}

TEST(CompanionLibrary, SymbolDefined_InitAgain_LookedUpOnce)
{
    tov_init();
    tov_init();
    EXPECT_EQ(tov_socket(AF_INET, SOCK_DGRAM, 0), 1001);
    tov_handle_t handle;
    EXPECT_EQ(tov_open(0, 0, &handle, 26), EINVAL);
    EXPECT_EQ(setup_calls, 1);
    EXPECT_EQ(init_done, 1);
}

TEST(CompanionLibrary, SymbolDefined_SlotsLeftEmpty_StayEmpty)
{
    tov_init();
    EXPECT_EQ(_tov_fops.dup, nullptr) << "the companion fills the table, libc nothing behind it";
}
