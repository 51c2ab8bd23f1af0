#include "driver_script.h"

#include <algorithm>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

namespace test_support {

namespace {

constexpr size_t file_size = 0x200000;

/* Bytes that the driver reads and writes for each command. */
struct Shape {
    size_t in;
    size_t out;
};
const std::map<unsigned long, Shape> shapes = {
    {0x4D01, {0, 192}}, {0x4D05, {0, 4}},  {0x4D0A, {4, 4}},  {0x4D0D, {4, 16}}, {0x4D29, {8, 32}}, {0x4D32, {0, 4}},
    {0x4D37, {4, 16}},  {0x4D9C, {0, 16}}, {0x4D9D, {16, 0}}, {0x4D9F, {4, 0}},  {0x4DA0, {4, 0}},  {0x5091, {0, 64}},
    {0x5097, {0, 4}},   {0x50B4, {4, 4}},  {0x50E9, {8, 0}},  {0x50EA, {0, 0}},  {0x50EB, {13, 0}},
};

std::string format(const char *form, unsigned long a, unsigned long b = 0)
{
    char text[64];
    snprintf(text, sizeof text, form, a, b);
    return text;
}

int fail_with(int error)
{
    errno = error;
    return -1;
}

bool same_filter(const oxel_rx_filter_t &a, const oxel_rx_filter_t &b)
{
    return a.ip_addr == b.ip_addr && a.port == b.port && a.vlan == b.vlan && a.tag == b.tag && a.tcp == b.tcp;
}

} // namespace

std::string hex(const void *data, size_t size)
{
    std::string text;
    for (size_t i = 0; i < size; i++)
        text += format("%02lx", static_cast<const unsigned char *>(data)[i]);
    return text;
}

ScriptedDriver::ScriptedDriver(SocketTable &table)
{
    block = {};
    block.sendq_offset = 0x10000, block.sendq_len = 0x4000;
    block.recvq_offset = 0x20000, block.recvq_len = 0x8000;
    block.eventq_offset = 0x30000, block.eventq_len = 0x1000; /* nobody is to map this one */
    block.user_mmapped_sram_offset = 0x40000, block.user_mmapped_sram_len = 0x4000;
    block.user_mmapped_zreq_offset = 0x50000, block.user_mmapped_zreq_len = 0x1000;
    block.kernel_window_offset = 0x60000, block.kernel_window_len = 0x1000;
    block.flow_window_offset = 0x70000, block.flow_window_len = 0x1000;
    block.send_compcnt_offset = 0x80000, block.send_compcnt_len = 0x1000;

    libc_->open = [this, next = libc_->open](const char *path, int flags) {
        if (strncmp(path, "/dev/oxel", 9) == 0)
            return do_open(path);
        return next ? next(path, flags) : real::open(path, flags, 0666);
    };
    libc_->mmap = [this](void *start, size_t length, int prot, int flags, int fd, off_t offset) -> void * {
        if (std::find(devices_.begin(), devices_.end(), fd) == devices_.end())
            return real::mmap(start, length, prot, flags, fd, offset);
        const char *access = prot == PROT_READ ? "ro" : prot == (PROT_READ | PROT_WRITE) ? "rw" : "?";
        std::string line = format("mmap %05lx+%lx ", static_cast<unsigned long>(offset), length) + access;
        trace.push_back(line + (start || flags != MAP_SHARED ? " with other arguments" : ""));
        auto error = mmap_errors.find(static_cast<uint32_t>(offset));
        if (error != mmap_errors.end()) {
            errno = error->second;
            return MAP_FAILED;
        }
        void *at = real::mmap(start, length, prot, flags, fd, offset);
        mappings_[reinterpret_cast<uintptr_t>(at)] = {static_cast<uint32_t>(offset), true};
        return at;
    };
    libc_->munmap = [this](void *start, size_t length) {
        auto found = mappings_.find(reinterpret_cast<uintptr_t>(start));
        if (found == mappings_.end()) {
            trace.push_back(start == MAP_FAILED ? format("munmap ffffffff+%lx", length) : "munmap of no region");
            return start == MAP_FAILED ? fail_with(EINVAL) : real::munmap(start, length);
        }
        trace.push_back(format("munmap %05lx+%lx", found->second.offset, length));
        if (!found->second.alive)
            return 0; /* somebody else may have been given the place */
        found->second.alive = false;
        return real::munmap(start, length);
    };
    table.close = [this, &table](int fd) {
        auto found = std::find(devices_.begin(), devices_.end(), fd);
        if (found != devices_.end()) {
            devices_.erase(found);
            trace.push_back("close");
        }
        return table.next_close(fd);
    };
    for (const auto &[request, shape] : shapes)
        table.on_ioctl[request] = [this, request = request](int fd, void *arg) { return command(request, fd, arg); };
}

void ScriptedDriver::fail(unsigned long command, unsigned nth, int error, unsigned howmany)
{
    faults_[command] = {nth - 1, howmany, error};
}

Lines ScriptedDriver::take_trace()
{
    Lines lines;
    lines.swap(trace);
    return lines;
}

unsigned ScriptedDriver::count(const std::string &start) const
{
    return static_cast<unsigned>(
        std::count_if(trace.begin(), trace.end(), [&](const std::string &line) { return line.rfind(start, 0) == 0; }));
}

std::vector<int> ScriptedDriver::handles() const { return devices_; }

/* Files of the "p" form exist, one a board. */
int ScriptedDriver::do_open(const char *path)
{
    trace.push_back(std::string("open ") + path);
    auto error = open_errors.find(path);
    if (error != open_errors.end() && error->second != 0)
        return fail_with(error->second);
    unsigned board;
    char rest;
    bool there =
        error != open_errors.end() || (sscanf(path, "/dev/oxelBp%u%c", &board, &rest) == 1 && board < boards.size());
    if (!there)
        return fail_with(ENOENT);
    int fd = memfd_create("oxel", MFD_CLOEXEC);
    if (fd < 0 || ftruncate(fd, file_size) != 0)
        abort();
    const unsigned char free_byte = 0xFF;
    for (uint32_t slot = 0; slot < block.recvq_len; slot += 64)
        if (pwrite(fd, &free_byte, 1, block.recvq_offset + slot + 63) != 1)
            abort();
    devices_.push_back(fd);
    return fd;
}

int ScriptedDriver::command(unsigned long request, int fd, void *arg)
{
    if (std::find(devices_.begin(), devices_.end(), fd) == devices_.end())
        return fail_with(ENOTTY);
    const Shape &shape = shapes.at(request);
    if ((arg == nullptr) != (shape.in == 0 && shape.out == 0))
        return fail_with(EFAULT);
    trace.push_back(format("%04lX", request) + (shape.in ? " " + hex(arg, shape.in) : ""));
    command_handles.push_back(fd);

    auto fault = faults_.find(request);
    if (fault != faults_.end()) {
        if (fault->second.skip > 0) {
            fault->second.skip--;
        } else {
            int error = fault->second.error;
            if (--fault->second.left == 0)
                faults_.erase(fault);
            if (request == OXEL_RX_FILTER)
                filter_requests.push_back(*static_cast<oxel_rx_filter_t *>(arg));
            return fail_with(error);
        }
    }
    return answer(request, arg);
}

int ScriptedDriver::answer(unsigned long request, void *arg)
{
    uint32_t *word = static_cast<uint32_t *>(arg);
    oxel_get_nic_id_t *id = static_cast<oxel_get_nic_id_t *>(arg);
    oxel_set_endpt_t *claim = static_cast<oxel_set_endpt_t *>(arg);

    switch (request) {
    case 0x4D01:
        memcpy(arg, &version, sizeof version);
        return 0;
    case 0x4D05:
        *word = static_cast<uint32_t>(boards.size());
        return 0;
    case 0x4D0A:
        *word = boards.at(*word).type;
        return 0;
    case 0x4D0D:
        id->nic_id = boards.at(id->board).nic_id;
        return 0;
    case 0x4D37:
        id->nic_id = boards.at(id->board).curr_nic_id;
        return 0;
    case 0x4D29:
        memcpy(arg, &ticks, sizeof ticks);
        return 0;
    case 0x4D32:
        *word = max_endpts;
        return 0;
    case 0x4D9C:
        memcpy(arg, &params, sizeof params);
        return 0;
    case 0x4D9D:
        memcpy(&params, arg, sizeof params);
        return 0;
    case 0x4D9F:
        params.recvq_filter_mode = *word;
        return 0;
    case 0x5091:
        memcpy(arg, &block, sizeof block);
        return 0;
    case 0x5097:
        *word = sreqs_cnt;
        return 0;
    case 0x50B4:
        *word = boards.at(*word).link;
        return 0;
    case 0x50E9:
        if (claim->endpt_type != 200)
            return 0;
        return taken.insert(static_cast<uint32_t>(claim->endpoint)).second ? 0 : fail_with(EBUSY);
    case 0x50EB:
        return change_filter(*static_cast<oxel_rx_filter_t *>(arg));
    default: /* 0x4DA0, 0x50EA: nothing to say */
        return 0;
    }
}

int ScriptedDriver::change_filter(const oxel_rx_filter_t &filter)
{
    filter_requests.push_back(filter);
    if (!filter.remove) {
        filters.push_back(filter);
        return 0;
    }
    auto found = std::find_if(filters.begin(), filters.end(),
                              [&](const oxel_rx_filter_t &other) { return same_filter(filter, other); });
    if (found == filters.end())
        return fail_with(ENOENT);
    filters.erase(found);
    return 0;
}

} // namespace test_support
