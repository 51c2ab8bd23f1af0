#include "face_cost.h"

#include <algorithm>
#include <cstdlib>

namespace face_cost {

namespace {

/* What is in the buffer, and the time where there is one. */
uint64_t read(const ruk_recv_info &info, size_t size)
{
    return std::min<size_t>(info.msg_len, size) + info.sin_from.sin_port + (info.timestamp != 0 ? info.timestamp : 0);
}

uint64_t read(const ruk::datagram &d)
{
    const auto time = d.time();
    return d.data().size() + d.from().sin_port + (time ? static_cast<uint64_t>(time->time_since_epoch().count()) : 0);
}

/* What a C program does about an error that it does not expect. */
[[gnu::cold, gnu::noinline]] void give_up() { abort(); }

} // namespace

uint64_t c_receive(ruk_device_t dev, std::byte *buffer, size_t size)
{
    ruk_recv_info info;
    if (ruk_recvfrom(dev, RUK_RECV_NONBLOCK, buffer, size, &info) != 0)
        give_up();
    return read(info, size);
}

uint64_t face_receive(ruk::endpoint &endpoint, std::byte *buffer, size_t size)
{
    return read(endpoint.receive({buffer, size}, ruk::wait::none));
}

uint64_t face_receive_with_code(ruk::endpoint &endpoint, std::byte *buffer, size_t size, std::error_code &ec)
{
    const ruk::datagram d = endpoint.receive({buffer, size}, ruk::wait::none, ec);
    if (ec)
        give_up();
    return read(d);
}

uint64_t c_poll(ruk_device_t dev, std::byte *buffer, size_t size)
{
    ruk_recv_info info;
    const int rc = ruk_recvfrom(dev, RUK_RECV_NONBLOCK, buffer, size, &info);
    if (rc == EAGAIN)
        return 0;
    if (rc != 0)
        give_up();
    return read(info, size);
}

uint64_t face_poll(ruk::endpoint &endpoint, std::byte *buffer, size_t size)
{
    const auto d = endpoint.try_receive({buffer, size});
    return d ? read(*d) : 0;
}

void c_send(ruk_send_t handle, const void *data, size_t size)
{
    if (ruk_send(handle, data, static_cast<int>(size), 0) != 0)
        give_up();
}

void face_send(ruk::send_handle &handle, const void *data, size_t size) { handle.send({data, size}); }

void face_send_with_code(ruk::send_handle &handle, const void *data, size_t size, std::error_code &ec)
{
    handle.send({data, size}, ec);
    if (ec)
        give_up();
}

void c_send_to(ruk_channel_t channel, const sockaddr_in &to, const void *data, size_t size)
{
    if (ruk_sendto(channel, &to, data, static_cast<int>(size), 0) != 0)
        give_up();
}

void face_send_to(ruk::channel &channel, const sockaddr_in &to, const void *data, size_t size)
{
    channel.send_to(to, {data, size});
}

} // namespace face_cost
