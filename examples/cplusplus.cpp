/*
 * C++: sends each whole datagram that arrives back to where it came from, with owners, spans and exceptions of ruk.hpp.
 *
 *     example-cplusplus IF PORT [COUNT]
 */
#include "ruk.hpp"

#include <array>
#include <cstdio>
#include <cstdlib>

int main(int argc, char **argv)
try {
    if (argc < 3) {
        fprintf(stderr, "usage: %s IF PORT [COUNT]\n", argv[0]);
        return 2;
    }
    ruk::init();
    ruk::endpoint endpoint = ruk::endpoint::open_if(argv[1], ruk::open_flags::hw_timestamping);
    ruk::channel channel = endpoint.bind(static_cast<uint16_t>(atoi(argv[2])));

    std::array<std::byte, 1472> buffer; // what a frame holds
    for (long left = argc > 3 ? atol(argv[3]) : -1; left != 0; left--) {
        const ruk::datagram datagram = endpoint.receive(buffer, ruk::wait::sleep);
        printf("%zu bytes%s%s\n", datagram.data().size(), datagram.time() ? ", dated" : "",
               datagram.truncated() ? ", cut" : "");
        fflush(stdout);
        if (!datagram.truncated())
            channel.send_to(datagram.from(), datagram.data());
    }
    return 0;
} catch (const std::system_error &error) {
    fprintf(stderr, "%s\n", error.what());
    return 1;
}
