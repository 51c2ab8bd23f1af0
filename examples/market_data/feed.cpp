#include "feed.h"

#include <cerrno>
#include <cstring>
#include <endian.h>

void Feed::take(uint64_t number, uint64_t price, uint64_t time_ns)
{
    if (number > state_.last) {
        for (uint64_t gap = state_.last + 1; gap < number; gap++)
            gaps_.insert(gap);
        state_.last = number;
        state_.price = price;
        state_.time_ns = time_ns;
    } else if (gaps_.erase(number) != 0) {
        state_.late++;
    } else {
        state_.duplicates++;
        return;
    }
    state_.messages++;
    state_.missing = gaps_.size();
}

int Feed::poll()
{
    int count = 0;
    for (;;) {
        uint64_t fields[2];
        ruk_recv_info info;
        const int rc = ruk_recvfrom(dev_, RUK_RECV_NONBLOCK, fields, sizeof fields, &info);
        if (rc == EAGAIN)
            return count;
        if (rc != 0)
            return -1;
        count++;
        const uint64_t number = be64toh(fields[0]);
        if (info.msg_len < sizeof fields || number == 0 || number > state_.last + longest_gap)
            state_.damaged++;
        else
            take(number, be64toh(fields[1]), info.timestamp);
    }
}
