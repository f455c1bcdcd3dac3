#!/usr/bin/python3
"""A misbehaving client of efhost's control socket.

control_peer.py SOCKET KIND

KIND says what it does before it hangs up:
  hangup     connects and closes at once
  short      sends ten bytes, less than an envelope header
  magic      sends a whole envelope with a wrong magic number
  truncated  sends an envelope whose header promises more payload than follows
  garbage    sends a VXLAN envelope whose payload is no TLV message at all
  noread     asks for the counters and closes before reading the answer
"""
import socket
import struct
import sys

MAGIC = 0x45464D31
MODULE_VXLAN = 31
MODULE_COUNTERS = 0xEF11


def envelope(module, payload, magic=MAGIC, length=None):
    if length is None:
        length = len(payload)
    return struct.pack("=IIIIIII", magic, 1, 0, 0, 1, module, length) + payload


def main():
    path, kind = sys.argv[1], sys.argv[2]
    s = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    s.connect(path)
    if kind == "short":
        s.send(bytes(10))
    elif kind == "magic":
        s.send(envelope(MODULE_VXLAN, bytes(16), magic=0x12345678))
    elif kind == "truncated":
        s.send(envelope(MODULE_VXLAN, bytes(10), length=100))
    elif kind == "garbage":
        s.send(envelope(MODULE_VXLAN, b"\xff" * 64))
    elif kind == "noread":
        s.send(envelope(MODULE_COUNTERS, b""))
    elif kind != "hangup":
        sys.exit("unknown kind " + kind)
    s.close()


main()
