/*
 * The same steps of an application in C and over the C++ face, each compiled as users compile.
 */
#pragma once

#include "ruk.hpp"

namespace face_cost {

/* What the application keeps from step to step. */
struct CApp {
    ruk_device_t dev;
    ruk_channel_t channel;
    ruk_send_t handle;
    int error;     /* the errno value of the last step that tells one */
    uint64_t last; /* time of the last datagram that has one */
};
struct FaceApp {
    ruk::endpoint endpoint;
    ruk::channel channel;
    ruk::send_handle handle;
    std::error_code error;
    ruk::time_point last;
};

/* Takes a datagram that waits; the sum of its length and its sender's port, so that they are read. */
uint64_t receive(CApp &app, std::byte *buffer, size_t size);
uint64_t receive(FaceApp &app, std::byte *buffer, size_t size);
uint64_t receive_with_code(CApp &app, std::byte *buffer, size_t size);
uint64_t receive_with_code(FaceApp &app, std::byte *buffer, size_t size);

/* The same, and 0 when nothing waits. */
uint64_t poll(CApp &app, std::byte *buffer, size_t size);
uint64_t poll(FaceApp &app, std::byte *buffer, size_t size);

void send(CApp &app, const void *data, size_t size);
void send(FaceApp &app, const void *data, size_t size);
/* False when there is no room. */
bool try_send(CApp &app, const void *data, size_t size);
bool try_send(FaceApp &app, const void *data, size_t size);
void send_with_code(CApp &app, const void *data, size_t size);
void send_with_code(FaceApp &app, const void *data, size_t size);

void send_to(CApp &app, const sockaddr_in &to, const void *data, size_t size);
void send_to(FaceApp &app, const sockaddr_in &to, const void *data, size_t size);

} // namespace face_cost
