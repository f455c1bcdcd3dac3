#!/usr/bin/python3
"""A file copied over one TCP connection, for the end-to-end transfer test.

recv ADDR PORT OUT   accepts one connection and writes everything to OUT
send ADDR PORT IN    connects and sends IN, then prints bytes, seconds, Mbit/s
"""
import socket
import sys
import time

CHUNK = 1 << 20


def recv(addr, port, out):
    family = socket.AF_INET6 if ":" in addr else socket.AF_INET
    with socket.socket(family, socket.SOCK_STREAM) as srv:
        srv.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        srv.bind((addr, int(port)))
        srv.listen(1)
        conn, _ = srv.accept()
        with conn, open(out, "wb") as f:
            while True:
                data = conn.recv(CHUNK)
                if not data:
                    break
                f.write(data)


def send(addr, port, path):
    family = socket.AF_INET6 if ":" in addr else socket.AF_INET
    with socket.socket(family, socket.SOCK_STREAM) as s, open(path, "rb") as f:
        for _ in range(50):
            try:
                s.connect((addr, int(port)))
                break
            except ConnectionRefusedError:
                time.sleep(0.1)
        start = time.monotonic()
        total = 0
        while True:
            data = f.read(CHUNK)
            if not data:
                break
            s.sendall(data)
            total += len(data)
        s.shutdown(socket.SHUT_WR)
        s.recv(1)
        seconds = time.monotonic() - start
    print("copied %d bytes in %.2f s: %.0f Mbit/s" % (total, seconds, total * 8 / seconds / 1e6))


if __name__ == "__main__":
    {"recv": recv, "send": send}[sys.argv[1]](*sys.argv[2:])
