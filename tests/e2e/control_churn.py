#!/usr/bin/python3
"""Run-time tunnel interface churn through efhost's control socket.

control_churn.py SOCKET EFHOST_PID IFX NAME OTHERS WARMUP CYCLES SECONDS

On one connection, the way the EVPN follower asks for them: creates OTHERS
run-time tunnel interfaces beside the churned one (indexes from 20001), then
removes and creates interface IFX again and again: WARMUP cycles, then CYCLES
more or as many as SECONDS seconds allow, whichever is fewer. IFX exists when
it ends. efhost's resident memory is read after the warm-up, every 10,000
cycles and at the end. Prints the figures; exits non-zero when efhost
refuses a request or does not answer within 10 seconds.
"""
import socket
import struct
import sys
import time

MAGIC = 0x45464D31
MODULE_DONE = 0xEF02
MODULE_INTERFACE = 0xEF10
FLAG_REPLY = 0x1
HEADER = struct.Struct("=IIIIIII")
OTHERS_BASE = 20001


def resident_kb(pid):
    with open(f"/proc/{pid}/status") as status:
        for line in status:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    sys.exit(f"no resident size for process {pid}")


class Control:
    def __init__(self, path):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.sock.settimeout(10)
        self.sock.connect(path)
        self.seq = 0

    def request(self, text):
        self.seq += 1
        payload = text.encode()
        self.sock.send(HEADER.pack(MAGIC, self.seq, 0, 0, FLAG_REPLY, MODULE_INTERFACE, len(payload)) + payload)
        while True:
            data = self.sock.recv(70000)
            if not data:
                sys.exit(f"efhost closed the connection during '{text}'")
            _, seq, _, _, _, module, length = HEADER.unpack_from(data)
            if module == MODULE_DONE and seq == self.seq:
                status = data[HEADER.size:HEADER.size + length].decode()
                if not status.startswith("ok"):
                    sys.exit(f"efhost refused '{text}': {status}")
                return


def main():
    path, pid, ifx, name = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), sys.argv[4]
    others, warmup, cycles, seconds = (int(a) for a in sys.argv[5:9])
    control = Control(path)
    for i in range(others):
        control.request(f"create {OTHERS_BASE + i} other-{OTHERS_BASE + i}")

    def cycle():
        control.request(f"remove {ifx}")
        control.request(f"create {ifx} {name}")

    for _ in range(warmup):
        cycle()
    before = resident_kb(pid)
    start = time.monotonic()
    measured = 0
    while measured < cycles and time.monotonic() - start < seconds:
        cycle()
        measured += 1
        if measured % 10000 == 0:
            print(f"resident memory after {measured} cycles past the warm-up: {resident_kb(pid)} kB", flush=True)
    elapsed = time.monotonic() - start
    after = resident_kb(pid)
    done = warmup + measured
    print(f"churn: {done} create/remove cycles with {others} other run-time interfaces, "
          f"{measured} after the warm-up in {elapsed:.1f} s ({measured / elapsed:.0f} per second); "
          f"resident memory {before} kB after the warm-up, {after} kB at the end: "
          f"growth {after - before} kB, {(after - before) * 1024 / max(measured, 1):.1f} bytes per cycle")
    print(f"growth_kb={after - before}")


main()
