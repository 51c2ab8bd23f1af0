#include "../softnic_private.h"
#include "tap_source.h"

extern "C" void softnic_capture_requests(softnic_t *nic)
{
    for (unsigned board = 0; board < nic->driver->boards(); board++) {
        softnic::Card &card = nic->driver->card(board);
        std::lock_guard guard(card.lock());
        card.set_source(softnic::tap_source(softnic::TapMode::exact));
    }
}
