// Preloaded: a host that allows a program no more threads, but for the first RUK_TEST_THREADS of them.
#include <pthread.h>

#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>

extern "C" int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *),
                              void *argument) noexcept
{
    static std::atomic<int> made{0};
    const char *allowed = getenv("RUK_TEST_THREADS");
    if (made.fetch_add(1) >= (allowed != nullptr ? atoi(allowed) : 0))
        return EAGAIN;
    static const auto next = reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
    return next(thread, attributes, body, argument);
}
