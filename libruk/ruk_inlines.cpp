/*
 * Linkable copies of the operations that headers define in line: for programs, debuggers and tests that reach
 * them by name.
 */
#include "oxel_clksync.h"
#include "ruk__libtypes.h"

namespace {

using Operation = void (*)();

template <typename F> Operation linkable(F *function) { return reinterpret_cast<Operation>(function); }

} // namespace

/* Taking an address makes the compiler emit the function. */
[[gnu::used]] static const Operation operations[] = {
    linkable(ruk__ep_lock),
    linkable(ruk__ep_unlock),
    linkable(ruk__ep_rx_lock),
    linkable(ruk__ep_rx_unlock),
    linkable(oxel_clksync_copy_nticks_params),
    linkable(oxel_clksync_nticks_update),
    linkable(__oxel_clksync_convert_nsecs),
    linkable(oxel_clksync_convert_nsecs),
    linkable(oxel_timesync_ticks2nsecs),
    linkable(tov_get_cycles),
};
