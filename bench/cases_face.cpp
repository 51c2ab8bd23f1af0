/*
 * The C++ face beside the C calls, doing the same.
 */
#include "cases.h"
#include "memory_endpoint.h"

#include "ruk.hpp"

namespace bench {

namespace {

constexpr size_t message = 64;
constexpr unsigned batch = 60;

/* An owner of what is the memory endpoint's. */
template <typename Owner> struct Borrowed {
    explicit Borrowed(auto handle) : owner(handle) {}
    ~Borrowed() { (void)owner.release(); }
    Borrowed(const Borrowed &) = delete;
    Borrowed &operator=(const Borrowed &) = delete;
    Owner owner;
};

/* Nanoseconds a datagram; `receive` gives the length of one that waits. */
template <typename Receive> Measure receiving(size_t datagrams, Receive receive)
{
    auto endpoint = std::make_shared<MemoryEndpoint>();
    return [=] {
        auto *const buffer = reinterpret_cast<std::byte *>(receive_buffer);
        Borrowed<ruk::endpoint> face(endpoint->device());
        double ns = 0;
        size_t done = 0, bytes = 0;
        for (; done < datagrams; done += batch) {
            for (unsigned i = 0; i < batch; ++i)
                endpoint->ring.write_event(1, message, endpoint->tag(), endpoint->port());
            const double began = now_ns();
            for (unsigned i = 0; i < batch; ++i)
                bytes += receive(face.owner, buffer);
            ns += now_ns() - began - reading_ns();
        }
        if (bytes != done * message)
            wrong("a datagram did not arrive as it was sent");
        return ns / double(done);
    };
}

template <typename Send> Measure sending(size_t datagrams, Send send)
{
    auto endpoint = std::make_shared<MemoryEndpoint>();
    auto count = std::make_shared<uint16_t>(uint16_t(0));
    return [=] {
        auto *const payload = reinterpret_cast<const std::byte *>(send_payload);
        Borrowed<ruk::send_handle> face(endpoint->connected());
        bool sent = true;
        const double began = now_ns();
        for (size_t i = 0; i < datagrams; ++i) {
            endpoint->complete((*count)++);
            sent &= send(face.owner, payload);
        }
        const double ns = now_ns() - began;
        if (!sent)
            wrong("a datagram was refused");
        return ns / double(datagrams);
    };
}

size_t c_receive(ruk::endpoint &endpoint, std::byte *buffer)
{
    ruk_recv_info info;
    return ruk_recvfrom(endpoint.get(), RUK_RECV_NONBLOCK, buffer, 2048, &info) == 0 ? info.msg_len : 0;
}

size_t face_receive(ruk::endpoint &endpoint, std::byte *buffer)
{
    return endpoint.receive({buffer, 2048}, ruk::wait::none).length();
}

bool c_send(ruk::send_handle &handle, const std::byte *payload)
{
    return ruk_send(handle.get(), payload, message, RUK_NONBLOCK) == 0;
}

bool face_send(ruk::send_handle &handle, const std::byte *payload) { return handle.try_send({payload, message}); }

} // namespace

void add_face_cases(std::vector<Case> &cases, Effort effort)
{
    const size_t many = effort.of(60000);
    cases.push_back({"face_receive_64", "64 B by ruk.hpp, against the C call", one_thread, Compare::ratio, 1.15, 1.0, 0,
                     "", 0, [=] {
                         return Measured{receiving(many, face_receive), receiving(many, c_receive)};
                     }});
    cases.push_back({"face_send_64", "connected, 64 B by ruk.hpp, against the C call", one_thread, Compare::ratio, 1.1,
                     1.0, 0, "", 0, [=] {
                         return Measured{sending(many, face_send), sending(many, c_send)};
                     }});
}

} // namespace bench
