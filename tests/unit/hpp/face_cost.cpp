#include "face_cost.h"

#include <algorithm>
#include <cstdlib>

namespace face_cost {

namespace {

/* What an application takes from a datagram: its time, or that of the one before; how much there is, who sent it, and
 * how it begins. */
uint64_t read(CApp &app, const ruk_recv_info &info, const std::byte *buffer, size_t size)
{
    app.last = info.timestamp != 0 ? info.timestamp : app.last;
    return std::min<size_t>(info.msg_len, size) + info.sin_from.sin_port + std::to_integer<uint64_t>(buffer[0]);
}

uint64_t read(FaceApp &app, const ruk::datagram &d)
{
    app.last = d.time().value_or(app.last);
    return d.data().size() + d.from().sin_port + std::to_integer<uint64_t>(d.data()[0]);
}

/* What a C program does about an error that it does not expect. */
[[gnu::cold, gnu::noinline]] void give_up() { abort(); }

} // namespace

uint64_t receive(CApp &app, std::byte *buffer, size_t size)
{
    ruk_recv_info info;
    if (ruk_recvfrom(app.dev, RUK_RECV_NONBLOCK, buffer, size, &info) != 0)
        give_up();
    return read(app, info, buffer, size);
}

uint64_t receive(FaceApp &app, std::byte *buffer, size_t size)
{
    return read(app, app.endpoint.receive({buffer, size}, ruk::wait::none));
}

uint64_t receive_with_code(CApp &app, std::byte *buffer, size_t size)
{
    ruk_recv_info info;
    app.error = ruk_recvfrom(app.dev, RUK_RECV_NONBLOCK, buffer, size, &info);
    if (app.error != 0)
        give_up();
    return read(app, info, buffer, size);
}

uint64_t receive_with_code(FaceApp &app, std::byte *buffer, size_t size)
{
    const ruk::datagram d = app.endpoint.receive({buffer, size}, ruk::wait::none, app.error);
    if (app.error)
        give_up();
    return read(app, d);
}

uint64_t poll(CApp &app, std::byte *buffer, size_t size)
{
    ruk_recv_info info;
    const int rc = ruk_recvfrom(app.dev, RUK_RECV_NONBLOCK, buffer, size, &info);
    if (rc == EAGAIN)
        return 0;
    if (rc != 0)
        give_up();
    return read(app, info, buffer, size);
}

uint64_t poll(FaceApp &app, std::byte *buffer, size_t size)
{
    const auto d = app.endpoint.try_receive({buffer, size});
    return d ? read(app, *d) : 0;
}

void send(CApp &app, const void *data, size_t size)
{
    if (ruk_send(app.handle, data, static_cast<int>(size), 0) != 0)
        give_up();
}

void send(FaceApp &app, const void *data, size_t size) { app.handle.send({data, size}); }

bool try_send(CApp &app, const void *data, size_t size)
{
    const int rc = ruk_send(app.handle, data, static_cast<int>(size), RUK_NONBLOCK);
    if (rc == 0)
        return true;
    if (rc != EAGAIN)
        give_up();
    return false;
}

bool try_send(FaceApp &app, const void *data, size_t size) { return app.handle.try_send({data, size}); }

void send_with_code(CApp &app, const void *data, size_t size)
{
    app.error = ruk_send(app.handle, data, static_cast<int>(size), 0);
    if (app.error != 0)
        give_up();
}

void send_with_code(FaceApp &app, const void *data, size_t size)
{
    app.handle.send({data, size}, app.error);
    if (app.error)
        give_up();
}

void send_to(CApp &app, const sockaddr_in &to, const void *data, size_t size)
{
    if (ruk_sendto(app.channel, &to, data, static_cast<int>(size), 0) != 0)
        give_up();
}

void send_to(FaceApp &app, const sockaddr_in &to, const void *data, size_t size)
{
    app.channel.send_to(to, {data, size});
}

} // namespace face_cost
