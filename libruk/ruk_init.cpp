/*
 * Initialisation, version checks and the process-wide diagnostics.
 */
#include "ruk_core.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#define RUK_LIB_API_VERSION 0x0004
#define RUK_LIB_MAJOR       4
#define RUK_LIB_MINOR       0
#define RUK_VENDOR_NOTICE   "user-space UDP for Oxel adapters"

extern "C" {

extern const char *__progname; /* libc's short program name */

int __ruk_debug = 0;
int __ruk_verbose = 0;
uint32_t ruk__api_version = 0;
int ruk__init_ext = 0;
int banner = 1;
int show_once = 1;

const char ruk__lib_version[] = RUK_LIB_VERSION;
const char ruk__lib_build[] = "libruk " RUK_LIB_VERSION " revision " RUK_REVISION " built " __DATE__ " " __TIME__;

void ruk__assertion_failed(const char *expr, int line, const char *file)
{
    printf("ruk: assertion: <<%s>>  failed at line %d, file %s\n", expr, line, file);
    fflush(stdout); /* abort() does not */
    abort();
}

void ruk__debug_line(const char *func, const char *fmt, ...)
{
    char message[128];
    va_list args;
    va_start(args, fmt);
    vsnprintf(message, sizeof message, fmt, args);
    va_end(args);
    fprintf(stderr, "RUK (%s): %s\n", func, message);
}

/* Process-wide switches have no lock: each is read and written whole, and two threads may do so at once. */
static int switch_is(const int *which) { return __atomic_load_n(which, __ATOMIC_RELAXED); }
static void set_switch(int *which, int value) { __atomic_store_n(which, value, __ATOMIC_RELAXED); }

/* Two threads that open at the same moment may both print it. */
static void show_banner_once(int *once)
{
    const char *value = getenv("RUK_BANNER");
    if (value && *value) {
        /* Numerically 0 means a number was there: a word leaves the banner on. */
        char *end;
        long number = strtol(value, &end, 0);
        if (end != value && number == 0) {
            set_switch(&banner, 0);
            return;
        }
    }
    if (!switch_is(&banner) || switch_is(&ruk__init_ext) != 1 || !switch_is(once))
        return;
    set_switch(once, 0);

    char name[128] = {};
    strncpy(name, __progname, sizeof name - 1);
    if (strcmp(name, "rukrun") == 0)
        return;
    fprintf(stderr, "%s[%d] RUK %s " RUK_VENDOR_NOTICE "\n", name, (int)getpid(), ruk__lib_version);
}

void show_banner(void) { show_banner_once(&show_once); }

void show_banner_by_mac(void)
{
    static int show_once_by_mac = 1;
    show_banner_once(&show_once_by_mac);
}

/* The driver's major interface version must be the library's; any minor one will do. */
static int check_driver_version(const oxel_get_version_t *version)
{
    uint32_t magic = version->driver_api_magic;
    if (magic - 0x400 <= 0xFF)
        return 0;
    fprintf(stderr,
            "RUK library and driver API mismatch (lib=%d.%d, kernel=%d.%d\n"
            "\t RUK lib version=%s\n\t RUK lib build=%s\n"
            "\t RUK kernel version=%.*s\n\t RUK kernel build=%.*s\n",
            RUK_LIB_MAJOR, RUK_LIB_MINOR, (int)(magic >> 8), (int)(magic & 0xFF), ruk__lib_version, ruk__lib_build,
            (int)sizeof version->version_str, version->version_str, (int)sizeof version->build_str, version->build_str);
    return ENXIO;
}

int ruk_init(uint16_t api_version)
{
    if (getenv("RUK_IP_VERBOSE"))
        __ruk_verbose = 1;
    if (getenv("RUK_DEBUG"))
        __ruk_debug = 1;

    if (ruk__api_version != 0) {
        if ((ruk__api_version & 0xFFFF) == api_version)
            return 0;
        puts("RUK API Version mismatch");
        return EINVAL;
    }

    tov_init();

    if (api_version & 0xFF00) {
        fprintf(stderr, "RUK user API %#06x is incompatible with library API %#06x\n", api_version,
                RUK_LIB_API_VERSION);
        return EINVAL;
    }

    tov_handle_t handle;
    int rc = tov_open_any_board(&handle, TOV_PRODUCT);
    if (rc != 0)
        return rc;
    oxel_get_version_t version = {};
    rc = tov_ioctl(handle, OXEL_GET_VERSION, &version, sizeof version);
    tov_close(handle);
    if (rc != 0)
        return rc;
    rc = check_driver_version(&version);
    if (rc != 0)
        return rc;

    ruk__api_version = api_version;
    return 0;
}

int ruk__init(uint16_t api_version)
{
    set_switch(&ruk__init_ext, 1);
    return ruk_init(api_version);
}

int ruk_getticks(ruk_device_t dev, ruk_ticks_t *t)
{
    oxel_get_nic_ticks_t record = {};
    int rc = tov_ioctl(dev->rep_handle, OXEL_GET_NIC_TICKS, &record, sizeof record);
    if (rc != 0) {
        *t = {};
        return rc;
    }
    t->nic_ticks = record.nic_ticks;
    t->host_nsecs = record.host_nsecs;
    t->host_nsecs_delay = record.host_nsecs_delay;
    return 0;
}

tov_handle_t ruk_device_handle(ruk_device_t dev) { return dev->rep_handle; }

} /* extern "C" */
