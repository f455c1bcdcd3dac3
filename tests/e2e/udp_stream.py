#!/usr/bin/python3
"""A steady UDP stream from one host to another, without a handshake.

udp_stream.py DEST_IP PORT BYTES PER_SECOND SECONDS

Sends datagrams of BYTES payload bytes at PER_SECOND for SECONDS and prints
how many it sent. Nothing needs to listen: what arrives is counted by the
forwarding path it crosses.
"""
import socket
import sys
import time


def main():
    dest, port, size, rate, seconds = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), int(sys.argv[4]), \
        float(sys.argv[5])
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    payload = bytes(size)
    start = time.monotonic()
    sent = 0
    while True:
        elapsed = time.monotonic() - start
        if elapsed >= seconds:
            break
        due = int(elapsed * rate)
        while sent < due:
            try:
                sock.sendto(payload, (dest, port))
            except OSError:
                pass  # no route or neighbour for a moment: the stream goes on
            sent += 1
        time.sleep(0.001)
    print(f"{sent} datagrams of {size} bytes to {dest}:{port}")


main()
