// The request tap as a card's source of requests.
#pragma once

#include "../driver/request_source.h"
#include "tap.h"

namespace softnic {

MakeRequestSource tap_source(TapMode preferred);

} // namespace softnic
