#include "driver.h"

#include "sys.h"

#include <cstring>
#include <new>

namespace softnic {
namespace {

uint64_t mac_to_id(const std::array<uint8_t, 6> &mac)
{
    uint64_t id = 0;
    for (uint8_t byte : mac)
        id = id << 8 | byte;
    return id;
}

void copy_text(char *to, size_t size, const std::string &from)
{
    const size_t n = std::min(from.size(), size - 1);
    memcpy(to, from.data(), n);
    to[n] = '\0';
}

// Reads a command's argument, lets the command work on it, and writes it back.
template <typename Record, typename Work> int in_out(uint64_t arg, Work &&work)
{
    Record record;
    if (int rc = sys::copy_in(&record, arg, sizeof(record)))
        return rc;
    if (int rc = work(record))
        return rc;
    return sys::copy_out(arg, &record, sizeof(record));
}

template <typename Record, typename Work> int in(uint64_t arg, Work &&work)
{
    Record record;
    if (int rc = sys::copy_in(&record, arg, sizeof(record)))
        return rc;
    return work(record);
}

template <typename Record, typename Work> int out(uint64_t arg, Work &&work)
{
    Record record = {};
    if (arg == 0)
        return EFAULT;
    if (int rc = work(record))
        return rc;
    return sys::copy_out(arg, &record, sizeof(record));
}

} // namespace

Driver::~Driver() { close_all(); }

int Driver::open(unsigned board, bool close_on_exec)
{
    if (board >= cards_.size())
        return -ENOENT;
    if (before_command)
        if (int rc = before_command(board, 0))
            return -rc;
    auto handle = std::make_shared<Handle>();
    if (int rc = handle->device.create(close_on_exec))
        return -rc;
    const int fd = handle->device.fd();
    std::lock_guard guard(mutex_);
    drop(fd); // an earlier open of this number was closed behind our back
    opens_[fd] = Open{std::move(handle), cards_[board].get(), board};
    if (on_descriptor)
        on_descriptor(fd, true);
    return fd;
}

// With mutex_ held.
void Driver::drop(int fd)
{
    auto it = opens_.find(fd);
    if (it == opens_.end())
        return;
    Open gone = std::move(it->second);
    opens_.erase(it);
    if (on_descriptor)
        on_descriptor(fd, false);
    std::lock_guard card(gone.card->lock());
    gone.card->release(*gone.handle);
}

Driver::Open Driver::find(int fd)
{
    std::lock_guard guard(mutex_);
    auto it = opens_.find(fd);
    if (it == opens_.end())
        return {};
    if (it->second.handle->device.is(fd))
        return it->second;
    drop(fd);
    return {};
}

bool Driver::owns(int fd) { return find(fd).card != nullptr; }

bool Driver::unmapping(const void *addr, size_t len)
{
    for (auto &card : cards_) {
        if (card->config().one_address) {
            if (card->lock().held_by_this_thread())
                continue; // a thread checker's own, in the middle of a report about the adapter
            std::lock_guard guard(card->lock());
            if (card->keeps(addr, len))
                return false;
        }
        if (!card->window_in(addr, len))
            continue; // most of what a program unmaps is not ours, and may be unmapped while a lock is held
        std::lock_guard guard(card->lock());
        card->unmapping(addr, len);
    }
    return true;
}

int Driver::close(int fd)
{
    Open open = find(fd);
    if (open.card == nullptr) {
        errno = EBADF;
        return -1;
    }
    std::lock_guard guard(mutex_);
    drop(fd);
    open.handle->device.close();
    return 0;
}

void Driver::close_all()
{
    std::lock_guard guard(mutex_);
    while (!opens_.empty()) {
        const int fd = opens_.begin()->first;
        const std::shared_ptr<Handle> handle = opens_.begin()->second.handle;
        drop(fd);
        handle->device.close();
    }
}

void Driver::forget()
{
    new (&mutex_) std::mutex; // may be held by a thread that the child does not have
    for (auto &[fd, open] : opens_) {
        if (on_descriptor)
            on_descriptor(fd, false);
        new std::shared_ptr<Handle>(open.handle); // never destroyed: its card still points at it
    }
    opens_.clear();
    for (auto &card : cards_)
        card->restart_in_child();
}

void *Driver::mmap(int fd, void *addr, size_t len, int prot, int flags, uint64_t offset)
{
    Open open = find(fd);
    if (open.card == nullptr) {
        errno = EBADF;
        return MAP_FAILED;
    }
    std::lock_guard card(open.card->lock());
    return open.card->map(*open.handle, addr, len, prot, flags, offset);
}

int Driver::ioctl(int fd, unsigned long cmd, void *arg)
{
    Open open = find(fd);
    int rc = EBADF;
    if (open.card != nullptr) {
        rc = before_command ? before_command(open.board, cmd) : 0;
        if (rc == 0)
            rc = command(open, cmd, reinterpret_cast<uintptr_t>(arg));
    }
    if (rc == 0)
        return 0;
    errno = rc;
    return -1;
}

// The commands, in the order of the driver interface's list. 0 or an errno value.
int Driver::command(Open &open, unsigned long cmd, uint64_t arg)
{
    Card &card = *open.card;
    Handle &handle = *open.handle;
    const auto board_of = [this](uint64_t board) { return board < cards_.size() ? cards_[board].get() : nullptr; };

    // Those that need nothing of the handle's card but what never changes.
    switch (cmd) {
    case OXEL_GET_VERSION:
        return out<oxel_get_version_t>(arg, [&](oxel_get_version_t &version) {
            version.driver_api_magic = card.config().api_magic;
            copy_text(version.version_str, sizeof(version.version_str), card.config().version);
            copy_text(version.build_str, sizeof(version.build_str), card.config().build);
            return 0;
        });
    case OXEL_GET_BOARD_CNT:
        return out<uint32_t>(arg, [&](uint32_t &num) {
            num = boards();
            return 0;
        });
    case OXEL_GET_NIC_TYPE:
        return in_out<uint32_t>(arg, [&](uint32_t &word) {
            Card *named = board_of(word);
            if (named == nullptr)
                return ENODEV;
            word = named->config().nic_type;
            return 0;
        });
    case OXEL_GET_NIC_ID:
    case OXEL_GET_CURR_NIC_ID:
        return in_out<oxel_get_nic_id_t>(arg, [&](oxel_get_nic_id_t &id) {
            Card *named = board_of(id.board);
            if (named == nullptr)
                return ENODEV;
            id.nic_id = mac_to_id(named->config().board.mac);
            if (cmd == OXEL_GET_CURR_NIC_ID && mac_to_id(named->config().current_mac) != 0)
                id.nic_id = mac_to_id(named->config().current_mac);
            return 0;
        });
    case OXEL_GET_MAX_ENDPTS:
        return out<uint32_t>(arg, [&](uint32_t &num) {
            num = card.board().endpoints();
            return 0;
        });
    case OXEL_GET_LINK_STATE:
        return in_out<uint32_t>(arg, [&](uint32_t &word) {
            Card *named = board_of(word);
            if (named == nullptr)
                return ENODEV;
            word = named->port().link_up() ? 1 : 0;
            return 0;
        });
    case OXEL_ATTACH_SOFT:
        return in<uint32_t>(arg, [&](uint32_t &fd) {
            Open soft = find(static_cast<int>(fd));
            if (soft.card == nullptr)
                return EBADF;
            if (soft.card != &card)
                return EINVAL;
            std::lock_guard guard(card.lock());
            return card.attach_soft(handle, *soft.handle);
        });
    default:
        break;
    }

    std::unique_lock<CardLock> lock(card.lock());
    switch (cmd) {
    case OXEL_GET_NIC_TICKS:
        return in_out<oxel_get_nic_ticks_t>(arg, [&](oxel_get_nic_ticks_t &ticks) {
            const Now now = card.runner().now();
            ticks.nic_ticks = card.board().clock().ticks(now.mono_ns);
            ticks.host_nsecs = now.real_ns;
            ticks.host_nsecs_delay = card.runner().reading_delay();
            return 0;
        });
    case OXEL_RAW_SEND:
        return in<oxel_raw_send_t>(arg, [&](oxel_raw_send_t &send) { return card.raw_send(handle, send); });
    case OXEL_RAW_NEXT_EVENT:
        return in_out<oxel_raw_next_event_t>(
            arg, [&](oxel_raw_next_event_t &event) { return card.raw_next_event(lock, handle, &event); });
    case OXEL_WAIT_SEND_COMPLETION:
        return in<int32_t>(arg, [&](int32_t &timeo) { return card.wait_send(lock, handle, timeo); });
    case OXEL_GET_RUK_PARAMS:
        return out<oxel_ruk_params_t>(arg, [&](oxel_ruk_params_t &params) { return card.get_params(handle, &params); });
    case OXEL_SET_RUK_PARAMS:
        return in<oxel_ruk_params_t>(arg, [&](oxel_ruk_params_t &params) { return card.set_params(handle, params); });
    case OXEL_SET_FILTER_MODE:
        return in<uint32_t>(arg, [&](uint32_t &mode) { return card.set_filter_mode(handle, mode); });
    case OXEL_POST_SOFT_DATA:
        return card.post_soft(handle);
    case OXEL_GET_COPYBLOCK:
        return out<kz_get_copyblock_t>(arg, [&](kz_get_copyblock_t &block) { return card.copyblock(handle, &block); });
    case OXEL_GET_SREQS_CNT:
        return out<uint32_t>(arg, [&](uint32_t &count) {
            if (handle.kind != HandleKind::Ruk)
                return EINVAL;
            count = card.config().sreqs;
            return 0;
        });
    case OXEL_RAW_OPEN:
        return card.raw_open(handle);
    case OXEL_SET_ENDPT:
        return in<oxel_set_endpt_t>(
            arg, [&](oxel_set_endpt_t &set) { return card.claim(handle, set.endpoint, set.endpt_type); });
    case OXEL_ENABLE_ENDPT:
        return card.enable(handle);
    case OXEL_RX_FILTER:
        return in<oxel_rx_filter_t>(arg, [&](oxel_rx_filter_t &filter) { return card.rx_filter(handle, filter); });
    default:
        // OXEL_ARP_RESOLVE too: the library prompts the host's resolution itself.
        return ENOTTY;
    }
}

} // namespace softnic
