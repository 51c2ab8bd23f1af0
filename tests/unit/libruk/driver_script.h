/*
 * The driver side of a test that pins what the library asks of it: every answer is a member that the test may
 * change, and every request is written down in the order in which it came.
 *
 *     ScriptedDriver driver(host.sockets);
 *     driver.fail(OXEL_GET_COPYBLOCK, 1, EIO);        // the next such command fails
 *     EXPECT_EQ(ruk_open(&addr, 0, &dev), EIO);
 *     EXPECT_EQ(driver.trace, (Lines{"open /dev/oxelBp0", "4D05", ...}));
 *
 * Lines of the trace: "open PATH", "close", "mmap OFFSET+LENGTH rw" (or ro), "munmap OFFSET+LENGTH" (the offset of
 * the region that was mapped there, or the address), and commands as "CODE" with their argument's bytes when the
 * driver reads any. A device's descriptor is a memory file, its regions lie in that file at the offsets told.
 */
#pragma once

#include "libc_seam.h"
#include "nuv_types.h"
#include "socket_seam.h"

#include <map>
#include <set>
#include <string>
#include <vector>

namespace test_support {

using Lines = std::vector<std::string>;

/* Lower-case hexadecimal digits of bytes. */
std::string hex(const void *data, size_t size);

class ScriptedDriver {
public:
    struct Board {
        uint64_t nic_id = 0x026f78000001;
        uint64_t curr_nic_id = 0x026f78000001;
        uint32_t type = 7;
        uint32_t link = 1;
    };

    explicit ScriptedDriver(SocketTable &table);
    ScriptedDriver(const ScriptedDriver &) = delete;
    ScriptedDriver &operator=(const ScriptedDriver &) = delete;

    /* Answers. */
    oxel_get_version_t version = {0x0400, "4.0.1", "scripted driver"};
    std::vector<Board> boards = {Board()};
    uint32_t max_endpts = 4;
    uint32_t sreqs_cnt = 16;
    oxel_ruk_params_t params = {1400, 32768, 0, 0};
    kz_get_copyblock_t block;
    oxel_get_nic_ticks_t ticks = {0, 1001, 2002, 3003};
    std::set<uint32_t> taken;                      /* endpoints that others have claimed */
    std::map<std::string, int> open_errors;        /* by path */
    std::map<uint32_t, int> mmap_errors;           /* by offset */
    std::vector<oxel_rx_filter_t> filters;         /* now installed; removing another one is ENOENT */
    std::vector<oxel_rx_filter_t> filter_requests; /* all, in order */

    /* The nth such command from now, and the howmany - 1 after it, fail. */
    void fail(unsigned long command, unsigned nth, int error, unsigned howmany = 1);

    Lines trace;
    Lines take_trace();                             /* and start anew */
    unsigned count(const std::string &start) const; /* lines of the trace that begin so */
    std::vector<int> handles() const;               /* open device descriptors, oldest first */
    std::vector<int> command_handles;               /* descriptor of every command, in order */

private:
    struct Fault {
        unsigned skip;
        unsigned left;
        int error;
    };
    struct Mapping {
        uint32_t offset;
        bool alive;
    };
    int do_open(const char *path);
    int command(unsigned long request, int fd, void *arg);
    int answer(unsigned long request, void *arg);
    int change_filter(const oxel_rx_filter_t &filter);

    LibcHookGuard libc_;
    std::vector<int> devices_;
    std::map<unsigned long, Fault> faults_;
    std::map<uintptr_t, Mapping> mappings_;
};

} // namespace test_support
