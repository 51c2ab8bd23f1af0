// Turns a send request into the frame that it asks for.
#pragma once

#include "nuv_requests.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace softnic {

// The rings that payloads lie in. The application writes them; nothing in them is trusted.
struct PayloadRegions {
    const uint8_t *pio = nullptr;
    uint32_t pio_len = 0;
    const uint8_t *dma = nullptr;
    uint32_t dma_len = 0;
};

enum class RequestResult : uint8_t {
    Frame,       // the frame has been built
    UnknownType, // not one of the two kinds that this firmware serves
    BadHeader,   // header length 0 or above 56
    BadPayload,  // payload not wholly inside its ring
};

// Reads a request, any 64 bytes, and replaces *frame by the frame it describes.
RequestResult build_frame(const nuv_ureq_t &request, const PayloadRegions &regions, std::vector<uint8_t> *frame);

} // namespace softnic
