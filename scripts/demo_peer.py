#!/usr/bin/env python3
"""The other host of the demo: an ordinary program over a kernel UDP socket.

    demo_peer.py LOCAL:PORT DEST:PORT REPLIES SIZE...

Sends one datagram of each size, then prints the replies that arrive within ten seconds. The last line is
"replies N of REPLIES".
"""
import socket
import sys
import time


def address(text):
    host, port = text.rsplit(":", 1)
    return host, int(port)


def payload(size):
    """Text that says how long it is, repeated up to its length."""
    text = b"%d bytes from a kernel socket. " % size
    return (text * (size // len(text) + 1))[:size]


def main():
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.bind(address(sys.argv[1]))
    wanted = int(sys.argv[3])
    sizes = [int(size) for size in sys.argv[4:]]
    for size in sizes:
        sock.sendto(payload(size), address(sys.argv[2]))
    print(f"sent {len(sizes)}", flush=True)

    got = 0
    end = time.monotonic() + 10
    while got < wanted and (left := end - time.monotonic()) > 0:
        sock.settimeout(left)
        try:
            data, (host, port) = sock.recvfrom(65536)
        except socket.timeout:
            break
        got += 1
        print(f'{host}:{port} len {len(data)} "{data.decode(errors="replace")}"', flush=True)
    print(f"replies {got} of {wanted}", flush=True)
    return 0 if got == wanted else 1


sys.exit(main())
