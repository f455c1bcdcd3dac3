#!/usr/bin/python3
"""Input captures for efhost's capture mode, and the check of what it wrote.

make DIR   writes acc-in.pcap (frames a host sends on the access port) and
           up-in.pcap (a VXLAN packet from the first kernel-side VTEP).
check DIR  reads acc-out.pcap and up-out.pcap and compares them field by
           field with what those inputs must produce.
"""
import sys

from scapy.all import ARP, ICMP, IP, UDP, VXLAN, Ether, Raw, rdpcap, wrpcap
from scapy.utils import checksum

HOST_A = "00:00:00:aa:00:01"   # behind efhost's access port
HOST_B = "00:00:00:bb:00:02"   # behind the VTEP 10.99.0.2
EF_UP_MAC = "02:ef:00:00:00:02"
VTEPS = {"10.99.0.2": "02:00:00:00:00:02", "10.99.0.3": "02:00:00:00:00:03"}
VNI = 1000


def inputs():
    arp = Ether(src=HOST_A, dst="ff:ff:ff:ff:ff:ff") / ARP(
        op=1, hwsrc=HOST_A, psrc="192.168.10.1", pdst="192.168.10.2")
    icmp = Ether(src=HOST_A, dst="00:00:00:cc:00:09") / IP(
        src="192.168.10.1", dst="192.168.10.9") / ICMP(id=7, seq=1) / Raw(b"x" * 100)
    inner = Ether(src=HOST_B, dst=HOST_A) / IP(src="192.168.10.2", dst="192.168.10.1") / ICMP(
        type=0, id=7, seq=1) / Raw(b"y" * 64)
    vxlan = Ether(src=VTEPS["10.99.0.2"], dst=EF_UP_MAC) / IP(
        src="10.99.0.2", dst="10.99.0.1", ttl=64) / UDP(sport=50000, dport=4789) / VXLAN(
        vni=VNI, flags=0x08) / inner
    return [arp, icmp], [vxlan], inner


def fail(text):
    print("FAIL: " + text)
    sys.exit(1)


def check_vxlan(pkt, sent_frames):
    raw = bytes(pkt)
    eth = Ether(raw)
    if eth.src != EF_UP_MAC or eth.type != 0x0800:
        fail("outer Ethernet %s -> %s type 0x%04x" % (eth.src, eth.dst, eth.type))
    ip = eth[IP]
    if ip.src != "10.99.0.1" or ip.dst not in VTEPS or eth.dst != VTEPS[ip.dst]:
        fail("outer IP %s -> %s via %s" % (ip.src, ip.dst, eth.dst))
    if checksum(raw[14:14 + ip.ihl * 4]) != 0:
        fail("outer IPv4 header checksum")
    if ip.proto != 17 or ip.flags.MF or ip.frag != 0:
        fail("outer IP protocol/fragment fields")
    udp = ip[UDP]
    # The module stamps its source-port counter in host byte order, so the
    # wire carries the counter byte-swapped.
    counter = int.from_bytes(udp.sport.to_bytes(2, "big"), "little")
    if udp.dport != 4789 or not 49151 <= counter <= 65535:
        fail("UDP ports %d (counter %d) -> %d" % (udp.sport, counter, udp.dport))
    if udp.len != ip.len - ip.ihl * 4:
        fail("UDP length %d for IP length %d" % (udp.len, ip.len))
    if udp.chksum != 0:
        pseudo = raw[26:34] + bytes([0, 17]) + udp.len.to_bytes(2, "big")
        if checksum(pseudo + raw[34:34 + udp.len]) != 0:
            fail("UDP checksum")
    vx = udp[VXLAN]
    if vx.flags != 0x08 or vx.vni != VNI:
        fail("VXLAN flags 0x%02x vni %d" % (vx.flags, vx.vni))
    inner = bytes(vx.payload)
    if inner not in sent_frames:
        fail("inner frame is not one of the frames sent: %s" % inner.hex())
    return ip.dst, inner


def check(directory):
    acc_in, up_in, inner = inputs()
    up_out = rdpcap(directory + "/up-out.pcap")
    acc_out = rdpcap(directory + "/acc-out.pcap")
    sent = [bytes(p) for p in acc_in]
    seen = sorted(check_vxlan(p, sent) for p in up_out)
    want = sorted((vtep, frame) for vtep in VTEPS for frame in sent)
    if seen != want:
        fail("uplink carried %d VXLAN packets %s, expected each access frame to each VTEP"
             % (len(seen), [(d, f[:14].hex()) for d, f in seen]))
    print("uplink: %d VXLAN packets, one per access frame and VTEP, every field checked"
          % len(seen))
    frames = [bytes(p) for p in acc_out]
    if frames != [bytes(inner)]:
        fail("access port got %d frames %s, expected the decapsulated frame"
             % (len(frames), [f.hex() for f in frames]))
    print("access port: the decapsulated frame, byte for byte")


def make(directory):
    acc_in, up_in, _ = inputs()
    wrpcap(directory + "/acc-in.pcap", acc_in)
    wrpcap(directory + "/up-in.pcap", up_in)


if __name__ == "__main__":
    {"make": make, "check": check}[sys.argv[1]](sys.argv[2])
