/*
 * The device files and the listing commands of the driver, answered at the open() and ioctl() seams.
 */
#pragma once

#include "libc_seam.h"
#include "nuv_types.h"
#include "socket_seam.h"

#include <errno.h>
#include <fcntl.h>
#include <map>
#include <string.h>
#include <string>
#include <sys/eventfd.h>
#include <vector>

namespace test_support {

/* What the driver says of one adapter. */
struct FakeBoard {
    uint64_t nic_id = 0x026f78000001;
    uint64_t curr_nic_id = 0x026f78000001;
    uint32_t type = 7;
    uint32_t link = 1;
    int curr_error = 0; /* errno of the command for the address in use, 0 when it works */
};

class FakeDriver {
public:
    FakeDriver()
    {
        libc_->open = [this, next = libc_->open](const char *path, int flags) {
            if (strncmp(path, "/dev/oxel", 9) != 0)
                return next ? next(path, flags) : real::open(path, flags, 0666);
            opens.push_back(path);
            open_flags.push_back(flags);
            auto file = files.find(path);
            int error = file == files.end() ? missing_error : file->second;
            if (error) {
                errno = error;
                return -1;
            }
            handle = eventfd(0, EFD_CLOEXEC);
            return handle;
        };
        table.on_ioctl[OXEL_GET_BOARD_CNT] = [this](int, void *arg) {
            *static_cast<uint32_t *>(arg) = static_cast<uint32_t>(boards.size());
            return 0;
        };
        table.on_ioctl[OXEL_GET_NIC_ID] = [this](int, void *arg) {
            return identity(arg, [](const FakeBoard &b) { return b.nic_id; });
        };
        table.on_ioctl[OXEL_GET_CURR_NIC_ID] = [this](int, void *arg) {
            oxel_get_nic_id_t id;
            memcpy(&id, arg, sizeof id);
            if (id.board < boards.size() && boards[id.board].curr_error)
                return refuse(boards[id.board].curr_error);
            return identity(arg, [](const FakeBoard &b) { return b.curr_nic_id; });
        };
        table.on_ioctl[OXEL_GET_NIC_TYPE] = [this](int, void *arg) {
            return word(arg, [](const FakeBoard &b) { return b.type; });
        };
        table.on_ioctl[OXEL_GET_LINK_STATE] = [this](int, void *arg) {
            return word(arg, [](const FakeBoard &b) { return b.link; });
        };
        table.on_ioctl[OXEL_GET_MAX_ENDPTS] = [this](int, void *arg) {
            *static_cast<uint32_t *>(arg) = max_endpts;
            return 0;
        };
    }

    std::map<std::string, int> files; /* path to errno of open(), 0 when it opens */
    int missing_error = ENOENT;       /* of all other device files */
    std::vector<FakeBoard> boards = {FakeBoard()};
    uint32_t max_endpts = 16;

    std::vector<std::string> opens; /* paths asked for, in order */
    std::vector<int> open_flags;
    int handle = -1; /* descriptor given last */
    SocketTable table;

private:
    static int refuse(int error)
    {
        errno = error;
        return -1;
    }
    template <typename Get> int identity(void *arg, Get get)
    {
        oxel_get_nic_id_t id;
        memcpy(&id, arg, sizeof id);
        if (id.board >= boards.size())
            return refuse(ENODEV);
        id.nic_id = get(boards[id.board]);
        memcpy(arg, &id, sizeof id);
        return 0;
    }
    template <typename Get> int word(void *arg, Get get)
    {
        uint32_t *w = static_cast<uint32_t *>(arg);
        if (*w >= boards.size())
            return refuse(ENODEV);
        *w = get(boards[*w]);
        return 0;
    }

    LibcHookGuard libc_;
};

} // namespace test_support
