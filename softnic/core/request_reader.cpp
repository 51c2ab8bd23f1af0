#include "request_reader.h"

#include "tov_io.h"

namespace softnic {

RequestResult build_frame(const nuv_ureq_t &request, const PayloadRegions &regions, std::vector<uint8_t> *frame)
{
    const nuv_ureq_ruk_t &ruk = request.ruk;
    const uint8_t *ring;
    uint32_t ring_len;
    if (ruk.type == NUV_UREQ_RUK_PIO) {
        ring = regions.pio;
        ring_len = regions.pio_len;
    } else if (ruk.type == NUV_UREQ_RUK_DMA) {
        ring = regions.dma;
        ring_len = regions.dma_len;
    } else {
        return RequestResult::UnknownType;
    }
    if (ruk.header_length == 0 || ruk.header_length > NUV_UREQ_MAX_HEADER)
        return RequestResult::BadHeader;
    const uint32_t offset = tov_be32(ruk.ruk_data_offset);
    const uint32_t length = tov_be16(ruk.ruk_data_length);
    if (offset > ring_len || length > ring_len - offset)
        return RequestResult::BadPayload;

    frame->assign(ruk.ruk_header, ruk.ruk_header + ruk.header_length);
    if (length != 0)
        frame->insert(frame->end(), ring + offset, ring + offset + length);
    return RequestResult::Frame;
}

} // namespace softnic
