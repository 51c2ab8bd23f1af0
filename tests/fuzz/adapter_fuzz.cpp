/*
 * The software adapter against an application that does whatever it likes: any bytes in the request window, in the
 * flow window and the doorbell, any command with any argument, any mapping. Memory that the application names in a
 * command is its own or none. The adapter never leaves a region; the sanitizer and the pages around them see to it.
 */
#include "bytes.h"

#include "nuv_events.h"
#include "nuv_requests.h"
#include "nuv_types.h"
#include "softnic.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <map>
#include <sanitizer/asan_interface.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" {
long __real_syscall(long number, ...);
int __real_ftruncate(int fd, off_t length);
}

namespace {

/*
 * The memory of an endpoint's regions, kept for the next one of their size: making and unmaking it in the kernel
 * would be most of the time. What lies around a region, and one that nobody has, is poisoned.
 */
class RegionMemory {
public:
    static constexpr int kDescriptor = 1 << 20; /* between creation and mapping */

    void *take(size_t length)
    {
        std::vector<uint8_t *> &free = free_[length];
        if (free.empty()) {
            const size_t all = length + 2 * kAround;
            void *memory = mmap(nullptr, all, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
            FUZZ_REQUIRE(memory != MAP_FAILED);
            __asan_poison_memory_region(memory, all);
            free.push_back(static_cast<uint8_t *>(memory) + kAround);
        }
        uint8_t *region = free.back();
        free.pop_back();
        __asan_unpoison_memory_region(region, length);
        memset(region, 0, length);
        taken_[region] = length;
        return region;
    }
    /* False when it is not one of these. */
    bool give_back(void *address, size_t length)
    {
        const auto it = taken_.find(address);
        if (it == taken_.end())
            return false;
        FUZZ_REQUIRE(it->second == length);
        taken_.erase(it);
        __asan_poison_memory_region(address, length);
        free_[length].push_back(static_cast<uint8_t *>(address));
        return true;
    }
    size_t taken() const { return taken_.size(); }

private:
    static constexpr size_t kAround = 65536;
    std::map<size_t, std::vector<uint8_t *>> free_;
    std::map<void *, size_t> taken_;
};

RegionMemory &region_memory()
{
    static RegionMemory memory;
    return memory;
}

bool is_region(const char *name)
{
    for (const char *region : {"oxel-recvq", "oxel-sendq", "oxel-sram", "oxel-zreq", "oxel-flow"})
        if (strcmp(name, region) == 0)
            return true;
    return false; /* the pages that all endpoints share are made once */
}

} // namespace

/* How the adapter makes its system calls. As many arguments are taken as any has. */
extern "C" __attribute__((no_sanitize("address"))) long __wrap_syscall(long number, ...)
{
    long a[6];
    va_list arguments;
    va_start(arguments, number);
    for (long &argument : a)
        argument = va_arg(arguments, long);
    va_end(arguments);
    if (number == SYS_memfd_create && is_region(reinterpret_cast<const char *>(a[0])))
        return RegionMemory::kDescriptor;
    if (number == SYS_mmap && static_cast<int>(a[4]) == RegionMemory::kDescriptor)
        return reinterpret_cast<long>(region_memory().take(static_cast<size_t>(a[1])));
    if (number == SYS_munmap && region_memory().give_back(reinterpret_cast<void *>(a[0]), static_cast<size_t>(a[1])))
        return 0;
    if (number == SYS_close && static_cast<int>(a[0]) == RegionMemory::kDescriptor)
        return 0;
    return __real_syscall(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}

extern "C" int __wrap_ftruncate(int fd, off_t length)
{
    return fd == RegionMemory::kDescriptor ? 0 : __real_ftruncate(fd, length);
}

namespace {

constexpr unsigned long commands[] = {
    OXEL_ARP_RESOLVE,    OXEL_ATTACH_SOFT,     OXEL_GET_NIC_ID,     OXEL_GET_CURR_NIC_ID,
    OXEL_GET_NIC_TICKS,  OXEL_GET_RUK_PARAMS,  OXEL_GET_VERSION,    OXEL_RAW_SEND,
    OXEL_RAW_NEXT_EVENT, OXEL_SET_RUK_PARAMS,  OXEL_GET_NIC_TYPE,   OXEL_GET_LINK_STATE,
    OXEL_RAW_OPEN,       OXEL_SET_ENDPT,       OXEL_ENABLE_ENDPT,   OXEL_RX_FILTER,
    OXEL_GET_COPYBLOCK,  OXEL_GET_SREQS_CNT,   OXEL_POST_SOFT_DATA, OXEL_WAIT_SEND_COMPLETION,
    OXEL_GET_MAX_ENDPTS, OXEL_SET_FILTER_MODE, OXEL_GET_BOARD_CNT,  0x1234,
};
constexpr size_t handles = 4;
constexpr size_t argument_bytes = 256; /* as large as the largest record */

struct Application {
    softnic_t *nic;
    std::array<int, handles> fds;
    std::vector<std::pair<void *, size_t>> maps;
    alignas(8) uint8_t memory[2048];

    Application()
    {
        softnic_board_config_t config;
        softnic_board_defaults(&config, 0);
        config.endpoints = 2;
        config.recvq_size = 16384;
        config.sendq_size = 4096;
        nic = softnic_create(&config, 1, 1700000000000000000);
        FUZZ_REQUIRE(softnic_attach(nic) == 0);
        fds.fill(-1);
    }
    /* All that it has is given back, and the board is as in the beginning, but for counters and clock. */
    void leave()
    {
        for (auto [address, length] : maps)
            munmap(address, length);
        maps.clear();
        for (int &fd : fds) {
            if (fd >= 0)
                close(fd);
            fd = -1;
        }
        softnic_run(nic);
        softnic_clear_commands(nic); /* its log of them only grows */
        static uint8_t frame[2048];
        while (softnic_take_sent(nic, 0, frame, sizeof frame) != 0) {
        }
    }

    /* Its own memory in part or whole, nothing, or an address of nobody's. */
    uint64_t pointer(uint8_t choice)
    {
        switch (choice % 4) {
        case 0:
            return reinterpret_cast<uintptr_t>(memory);
        case 1:
            return 0;
        case 2:
            return reinterpret_cast<uintptr_t>(memory) + 1024;
        default:
            return 4096;
        }
    }

    void command(fuzz::Bytes &in, int fd)
    {
        const unsigned long number = commands[in.u8() % std::size(commands)];
        const auto given = in.stretch(40);
        alignas(8) std::array<uint8_t, argument_bytes> argument = {};
        std::copy(given.begin(), given.end(), argument.begin());
        if (number == OXEL_RAW_SEND) {
            auto *send = reinterpret_cast<oxel_raw_send_t *>(argument.data());
            send->data_pointer = pointer(static_cast<uint8_t>(send->data_pointer));
            send->route_pointer = pointer(static_cast<uint8_t>(send->route_pointer));
            send->data_length %= 1024;
        } else if (number == OXEL_RAW_NEXT_EVENT) {
            auto *event = reinterpret_cast<oxel_raw_next_event_t *>(argument.data());
            event->recv_buffer = pointer(static_cast<uint8_t>(event->recv_buffer));
            event->recv_bytes %= 1024;
        } else if (number == OXEL_ATTACH_SOFT && !given.empty()) {
            *reinterpret_cast<int32_t *>(argument.data()) = given[0] < handles ? fds[given[0]] : -5;
        } else if (number == OXEL_SET_RUK_PARAMS) {
            reinterpret_cast<oxel_ruk_params_t *>(argument.data())->recvq_size &= 0x7fff; /* time, not correctness */
        }
        /* Bad addresses as well, which the command must survive. */
        const uint8_t where = in.u8();
        void *at = where % 16 == 0 ? reinterpret_cast<void *>(pointer(where >> 4)) : argument.data();
        if (at == memory)
            return;
        ioctl(fd, number, at);
    }

    void map(fuzz::Bytes &in, int fd)
    {
        kz_get_copyblock_t block = {};
        ioctl(fd, OXEL_GET_COPYBLOCK, &block);
        const uint32_t *entries = &block.sendq_offset;
        const unsigned entry = in.u8() % 8;
        uint32_t offset = entries[2 * entry], length = entries[2 * entry + 1];
        if (in.u8() % 4 == 0) {
            offset = in.u32();
            length = in.u32() % (1u << 20);
        }
        void *address = mmap(nullptr, length, in.u8() % 2 != 0 ? PROT_READ : PROT_READ | PROT_WRITE, MAP_SHARED, fd,
                             static_cast<off_t>(offset));
        if (address != MAP_FAILED)
            maps.emplace_back(address, length);
    }

    void scribble(fuzz::Bytes &in, unsigned endpoint)
    {
        softnic_regions_t r;
        if (softnic_regions(nic, 0, endpoint, &r) != 0)
            return;
        uint8_t *const at[] = {r.zreq, r.flow, r.sram, r.sendq, r.recvq};
        const size_t length[] = {r.zreq_len, r.flow_len, r.sram_len, r.sendq_len, r.recvq_len};
        const unsigned region = in.u8() % 5;
        if (length[region] == 0)
            return;
        const auto bytes = in.stretch(in.u8());
        size_t offset = in.u16() % length[region];
        if (region == 2)
            offset = in.u8() % 2 != 0 ? NUV_DOORBELL_OFFSET : offset;
        std::copy_n(bytes.data(), std::min(bytes.size(), length[region] - offset), at[region] + offset);
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static Application app;
    fuzz::Bytes in(data, size);
    for (unsigned steps = 0; !in.empty() && steps < 200; steps++) {
        const uint8_t choice = in.u8();
        int &fd = app.fds[(choice >> 4) % handles];
        switch (choice % 12) {
        case 0:
            if (fd < 0)
                fd = open("/dev/oxelB0", O_RDWR);
            break;
        case 1:
            if (fd >= 0)
                close(fd);
            fd = -1;
            break;
        case 2: { /* an endpoint as the library sets it up */
            if (fd < 0)
                fd = open("/dev/oxelB0", O_RDWR);
            oxel_set_endpt_t claim = {in.u8() % 2, OXEL_ES_RUK};
            ioctl(fd, OXEL_SET_ENDPT, &claim);
            ioctl(fd, OXEL_ENABLE_ENDPT, nullptr);
            break;
        }
        case 3:
        case 4:
            app.command(in, fd);
            break;
        case 5:
            if (fd >= 0)
                app.map(in, fd);
            break;
        case 6:
            app.scribble(in, in.u8() % 2);
            break;
        case 7: {
            uint8_t request[sizeof(nuv_ureq_t)];
            in.fill(request, sizeof request);
            softnic_post_request(app.nic, 0, in.u8() % 3, request);
            break;
        }
        case 8: {
            const auto frame = in.stretch(in.u16() % 2000);
            softnic_inject(app.nic, 0, frame.data(), frame.size());
            break;
        }
        case 9:
            softnic_advance(app.nic, in.u32());
            break;
        default:
            softnic_run(app.nic);
            break;
        }
    }
    app.leave();
    FUZZ_REQUIRE(region_memory().taken() == 0);
    softnic_board_counters_t board;
    softnic_board_counters(app.nic, 0, &board);
    FUZZ_REQUIRE(board.arrived == board.matched + board.unmatched + board.malformed);
    for (unsigned ep = 0; ep < 2; ep++) {
        softnic_endpoint_counters_t c;
        softnic_endpoint_counters(app.nic, 0, ep, &c);
        FUZZ_REQUIRE(c.steered == c.delivered + c.disabled + c.ring_full + c.oversize);
        FUZZ_REQUIRE(c.requests == c.frames_sent + c.send_errors + c.bad_type + c.bad_header + c.bad_payload);
    }
    return 0;
}
