#include "fork_guard.h"

#include "../driver/sys.h"

#include <mutex>
#include <pthread.h>

namespace softnic {
namespace {

std::mutex g_mutex;
ForkGuard *g_guards;

} // namespace

void ForkGuard::lock() { g_mutex.lock(); }
void ForkGuard::unlock() { g_mutex.unlock(); }

void ForkGuard::close_all()
{
    for (ForkGuard *g = g_guards; g != nullptr; g = g->next_) {
        sys::close(*g->fd_);
        *g->fd_ = -1;
    }
    g_mutex.unlock();
}

void ForkGuard::guard(int *fd)
{
    release();
    static const int registered = pthread_atfork(lock, unlock, close_all);
    static_cast<void>(registered);
    const std::lock_guard hold(g_mutex);
    fd_ = fd;
    next_ = g_guards;
    g_guards = this;
}

void ForkGuard::release()
{
    if (fd_ == nullptr)
        return;
    const std::lock_guard hold(g_mutex);
    for (ForkGuard **g = &g_guards; *g != nullptr; g = &(*g)->next_) {
        if (*g == this) {
            *g = next_;
            break;
        }
    }
    fd_ = nullptr;
}

} // namespace softnic
