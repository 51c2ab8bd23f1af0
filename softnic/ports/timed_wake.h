// A descriptor that polls readable when another one does, or when a moment has come.
#pragma once

#include "../driver/sys.h"

#include <cstdint>
#include <sys/epoll.h>
#include <sys/timerfd.h>

namespace softnic {

class TimedWake {
public:
    TimedWake() = default;
    ~TimedWake()
    {
        if (timer_fd_ >= 0)
            sys::close(timer_fd_);
        if (epoll_fd_ >= 0)
            sys::close(epoll_fd_);
    }
    TimedWake(const TimedWake &) = delete;
    TimedWake &operator=(const TimedWake &) = delete;

    // Watches fd (a negative one is none) beside a timer of that clock.
    void create(int fd, clockid_t clock)
    {
        timer_fd_ = sys::keep(timerfd_create(clock, TFD_NONBLOCK | TFD_CLOEXEC));
        epoll_fd_ = sys::keep(epoll_create1(EPOLL_CLOEXEC));
        for (int watched : {timer_fd_, fd}) {
            epoll_event event = {};
            event.events = EPOLLIN;
            if (watched >= 0)
                epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, watched, &event);
        }
    }

    // -1 before create().
    int fd() const { return epoll_fd_; }

    // All ones for never. Also ends the timer's being readable.
    void at(uint64_t when_ns)
    {
        if (timer_fd_ < 0)
            return;
        itimerspec when = {};
        if (when_ns != UINT64_MAX) {
            when.it_value.tv_sec = static_cast<time_t>(when_ns / 1000000000u);
            when.it_value.tv_nsec = static_cast<long>(when_ns % 1000000000u);
            if (when_ns == 0)
                when.it_value.tv_nsec = 1; // 0 would be never
        }
        timerfd_settime(timer_fd_, TFD_TIMER_ABSTIME, &when, nullptr);
    }

private:
    int timer_fd_ = -1;
    int epoll_fd_ = -1;
};

} // namespace softnic
