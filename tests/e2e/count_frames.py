#!/usr/bin/python3
"""Counts the frames of one kind that a device receives for a while.

count_frames.py DEVICE SECONDS vxlan-to INNER_DEST_MAC
count_frames.py DEVICE SECONDS arp-request TARGET_IP

vxlan-to counts IPv4 UDP datagrams to port 4789 whose inner frame is
addressed to INNER_DEST_MAC (the copies of one host's unicast arriving at a
VTEP's underlay port: flooding, where they should not arrive at all);
arp-request counts ARP requests asking for TARGET_IP.
Prints "ready" once listening, then the count when the time is up.
"""
import select
import socket
import struct
import sys
import time

ETH_P_ALL = 0x0003


def is_vxlan_to(frame, inner_dest):
    if len(frame) < 38 or frame[12:14] != b"\x08\x00" or frame[23] != 17:
        return False
    ihl = (frame[14] & 0x0F) * 4
    inner = 14 + ihl + 8 + 8
    return len(frame) >= inner + 6 and struct.unpack("!H", frame[14 + ihl + 2:14 + ihl + 4])[0] == 4789 \
        and frame[inner:inner + 6] == inner_dest


def is_arp_request(frame, target):
    return len(frame) >= 42 and frame[12:14] == b"\x08\x06" and frame[20:22] == b"\x00\x01" and frame[38:42] == target


def main():
    device, seconds, kind = sys.argv[1], float(sys.argv[2]), sys.argv[3]
    if kind == "vxlan-to" and len(sys.argv) == 5:
        inner_dest = bytes.fromhex(sys.argv[4].replace(":", ""))
        match = lambda frame: is_vxlan_to(frame, inner_dest)
    elif kind == "arp-request" and len(sys.argv) == 5:
        target = socket.inet_aton(sys.argv[4])
        match = lambda frame: is_arp_request(frame, target)
    else:
        sys.exit("count_frames.py: kind must be 'vxlan-to INNER_DEST_MAC' or 'arp-request TARGET_IP'")
    sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
    sock.bind((device, 0))
    print("ready", flush=True)
    deadline = time.monotonic() + seconds
    count = 0
    while (left := deadline - time.monotonic()) > 0:
        if not select.select([sock], [], [], left)[0]:
            continue
        frame, address = sock.recvfrom(65535)
        if address[2] != socket.PACKET_OUTGOING and match(frame):
            count += 1
    print(count, flush=True)


if __name__ == "__main__":
    main()
