#!/usr/bin/python3
"""Clients of efhost's control socket that never do their part.

stalled_clients.py SOCKET SECONDS

Opens three connections and keeps them for SECONDS (or until killed):
  idle     connects and sends nothing
  noread   asks the module for every VXLAN entry (a long show) and never
           reads the answer
  half     sends the first 14 bytes of an envelope header and nothing more
Prints "ready" once all three are in place, then, for each connection that
efhost closes, "closed KIND after S s" as far as it can tell (the noread
client reads nothing, so its closing shows only in efhost's log).
"""
import select
import socket
import struct
import sys
import time

MAGIC = 0x45464D31
MODULE_VXLAN = 31
FLAG_REPLY = 0x1
EF_SHOW = 65
SHOW_ENTRIES = 1


def envelope(module, flags, payload):
    return struct.pack("=IIIIIII", MAGIC, 1, 0, 0, flags, module, len(payload)) + payload


def show_entries_message():
    tlv = struct.pack("=HH", EF_SHOW, 8) + struct.pack("=HHI", SHOW_ENTRIES, 0, 0)
    return struct.pack("=BHB", 1, 4 + len(tlv), 1) + tlv


def connect(path):
    s = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    s.connect(path)
    return s


def main():
    path, seconds = sys.argv[1], float(sys.argv[2])
    start = time.monotonic()
    idle = connect(path)
    noread = connect(path)
    noread.send(envelope(MODULE_VXLAN, FLAG_REPLY, show_entries_message()))
    half = connect(path)
    half.send(envelope(MODULE_VXLAN, 0, b"")[:14])
    print("ready", flush=True)
    watched = {idle: "idle", half: "half"}
    while watched and time.monotonic() - start < seconds:
        readable, _, _ = select.select(list(watched), [], [], 0.1)
        for s in readable:
            try:
                data = s.recv(70000)
            except OSError:
                data = b""
            if not data:
                print(f"closed {watched.pop(s)} after {time.monotonic() - start:.1f} s", flush=True)
    while time.monotonic() - start < seconds:
        time.sleep(0.1)


main()
