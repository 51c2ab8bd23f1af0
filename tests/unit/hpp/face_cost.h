/*
 * The same steps of an application in C and over the C++ face, each compiled as users compile.
 */
#pragma once

#include "ruk.hpp"

namespace face_cost {

/* Takes a datagram that waits; its length, sender's port and time together, so that they are read. */
uint64_t c_receive(ruk_device_t dev, std::byte *buffer, size_t size);
uint64_t face_receive(ruk::endpoint &endpoint, std::byte *buffer, size_t size);
uint64_t face_receive_with_code(ruk::endpoint &endpoint, std::byte *buffer, size_t size, std::error_code &ec);

/* The same, and 0 when nothing waits. */
uint64_t c_poll(ruk_device_t dev, std::byte *buffer, size_t size);
uint64_t face_poll(ruk::endpoint &endpoint, std::byte *buffer, size_t size);

void c_send(ruk_send_t handle, const void *data, size_t size);
void face_send(ruk::send_handle &handle, const void *data, size_t size);
void face_send_with_code(ruk::send_handle &handle, const void *data, size_t size, std::error_code &ec);

void c_send_to(ruk_channel_t channel, const sockaddr_in &to, const void *data, size_t size);
void face_send_to(ruk::channel &channel, const sockaddr_in &to, const void *data, size_t size);

} // namespace face_cost
