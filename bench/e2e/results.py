#!/usr/bin/env python3
"""Figures for compare.sh.

  results.py tcp FILE     iperf3 TCP JSON -> "Mbit/s received, retransmits"
  results.py udp FILE N   iperf3 UDP JSON and the receiving host's socket drops
                          -> "received pps, loss %, offered pps, socket loss %,
                              delivered pps" (delivered: through both VTEPs to the
                              receiving host, whether its socket had room or not)
  results.py ping FILE    ping output     -> "median rtt ms, average rtt ms, loss %"
  results.py capacity FILE
                          pktblast's line and the counters compare.sh appended
                          -> "offered pps, arrived pps, forwarded pps, drops %,
                              delivered pps, CPU s per million forwarded"
  results.py report RAW_CSV OUT_DIR
      medians of every system and metric, one table per offload setting
      (stdout, medians.csv) and efhost's ratios to OVS and to the kernel
      (ratios.dat, for ratios.gp: offloads off if measured, else on)
"""

import csv
import json
import re
import statistics
import sys

SYSTEMS = [("efhost", "efhost"), ("ovs", "OVS"), ("kernel", "kernel")]

# (key, label, unit, plotted). Plotted rows are the ones a ratio says
# something about whichever way round: throughput and idle latency.
METRICS = [
    ("tcp1_enc", "TCP 1 stream h1->h2 (encap)", "Mbit/s", True),
    ("tcp1_dec", "TCP 1 stream h2->h1 (decap)", "Mbit/s", True),
    ("tcp4_enc", "TCP 4 streams h1->h2 (encap)", "Mbit/s", True),
    ("tcp4_dec", "TCP 4 streams h2->h1 (decap)", "Mbit/s", True),
    ("tcp1_enc_retrans", "  retransmits, 1 stream encap", "segments", False),
    ("tcp1_dec_retrans", "  retransmits, 1 stream decap", "segments", False),
    ("tcp4_enc_retrans", "  retransmits, 4 streams encap", "segments", False),
    ("tcp4_dec_retrans", "  retransmits, 4 streams decap", "segments", False),
    ("udp64_enc_pps", "UDP 64B h1->h2 received", "pps", True),
    ("udp64_enc_loss", "  loss", "%", False),
    ("udp64_enc_sockloss", "  of which at h2's socket", "%", False),
    ("udp64_enc_offered", "  offered by the sender", "pps", False),
    ("udp64_enc_delivered", "  delivered to h2 (received + socket drops)", "pps", True),
    ("udp64_dec_pps", "UDP 64B h2->h1 received", "pps", True),
    ("udp64_dec_loss", "  loss", "%", False),
    ("udp64_dec_sockloss", "  of which at h1's socket", "%", False),
    ("udp64_dec_offered", "  offered by the sender", "pps", False),
    ("udp64_dec_delivered", "  delivered to h1 (received + socket drops)", "pps", True),
    ("ping_rtt_median", "ping RTT h1->h2, median", "ms", True),
    ("ping_rtt_avg", "ping RTT h1->h2, average", "ms", False),
    ("cap64_offered", "64B capacity h1->h2 (pktblast): offered", "pps", False),
    ("cap64_arrived", "  arrived at the VTEP's port", "pps", False),
    ("cap64_forwarded", "  forwarded onto the underlay", "pps", True),
    ("cap64_drops", "  dropped (offered - forwarded)", "%", False),
    ("cap64_delivered", "  delivered to h2 (after the far VTEP)", "pps", False),
    ("cap64_cpu_per_mpkt", "  VTEP CPU per Mpkt forwarded (kernel: all softirq)", "s", False),
]

# Names under the plot's bars, on two lines ("\\n" in the data file).
PLOT_LABELS = {
    "tcp1_enc": "TCP 1 stream\\nencap",
    "tcp1_dec": "TCP 1 stream\\ndecap",
    "tcp4_enc": "TCP 4 streams\\nencap",
    "tcp4_dec": "TCP 4 streams\\ndecap",
    "udp64_enc_pps": "UDP 64B encap\\nreceived",
    "udp64_enc_delivered": "UDP 64B encap\\ndelivered",
    "udp64_dec_pps": "UDP 64B decap\\nreceived",
    "udp64_dec_delivered": "UDP 64B decap\\ndelivered",
    "ping_rtt_median": "ping RTT\\nmedian",
    "cap64_forwarded": "64B capacity\\nforwarded",
}


def iperf_end(path):
    with open(path) as f:
        doc = json.load(f)
    if "error" in doc:
        raise SystemExit(f"{path}: iperf3 error: {doc['error']}")
    return doc["end"]


def tcp(path):
    end = iperf_end(path)
    mbps = end["sum_received"]["bits_per_second"] / 1e6
    retrans = end["sum_sent"].get("retransmits", 0)
    print(f"{mbps:.1f} {retrans}")


# What got through is what the receiver counted (datagrams, over the time it
# measured); with -R the client is the receiver and its sums are its own. The
# loss is taken against what the sender sent, since the receiver's own
# figure misses datagrams lost after the last one it saw.
def udp(path, socket_drops):
    end = iperf_end(path)
    rcv, snd = end["sum_received"], end["sum_sent"]
    got = rcv["packets"] - rcv["lost_packets"]
    pps = got / rcv["seconds"] if rcv["seconds"] else 0.0
    offered = snd["packets"] / snd["seconds"] if snd["seconds"] else 0.0
    sent = snd["packets"]
    loss = 100.0 * (1 - got / sent) if sent else 100.0
    at_socket = 100.0 * int(socket_drops) / sent if sent else 0.0
    delivered = (got + int(socket_drops)) / rcv["seconds"] if rcv["seconds"] else 0.0
    print(f"{pps:.0f} {loss:.2f} {offered:.0f} {at_socket:.2f} {delivered:.0f}")


def ping(path):
    text = open(path).read()
    rtts = [float(m) for m in re.findall(r"time=([0-9.]+) ms", text)]
    sent = re.search(r"(\d+) packets transmitted, (\d+) received", text)
    if not rtts or not sent:
        raise SystemExit(f"{path}: no reply in the ping output")
    avg = statistics.fmean(rtts)
    loss = 100.0 * (1 - int(sent.group(2)) / int(sent.group(1)))
    print(f"{statistics.median(rtts):.3f} {avg:.3f} {loss:.1f}")


def capacity(path):
    fields = {}
    for word in open(path).read().split():
        key, eq, value = word.partition("=")
        if eq:
            fields[key] = float(value)
    need = ("offered", "seconds", "arrived", "forwarded", "delivered", "cpu_ticks", "clk_tck")
    if any(k not in fields for k in need) or not fields["seconds"]:
        raise SystemExit(f"{path}: no pktblast result or counters")
    secs = fields["seconds"]
    offered, forwarded = fields["offered"], fields["forwarded"]
    drops = 100.0 * (1 - forwarded / offered) if offered else 0.0
    cpu = fields["cpu_ticks"] / fields["clk_tck"]
    per_mpkt = cpu / (forwarded / 1e6) if forwarded else 0.0
    print(f"{offered / secs:.0f} {fields['arrived'] / secs:.0f} {forwarded / secs:.0f} "
          f"{max(drops, 0.0):.2f} {fields['delivered'] / secs:.0f} {per_mpkt:.3f}")


# raw.csv: system, offloads (off/on), metric, repetition, value. The metric
# keys of the report are "offloads/metric".
def read_raw(path):
    values = {}
    with open(path) as f:
        for row in csv.DictReader(f):
            key = f"{row['offloads']}/{row['metric']}"
            values.setdefault((row["system"], key), []).append(float(row["value"]))
    return values


def fmt(value, unit):
    if value is None:
        return "-"
    if unit == "ms":
        return f"{value:.3f}"
    if unit in ("%", "s"):
        return f"{value:.2f}" if unit == "s" else f"{value:.1f}"
    if unit in ("pps", "segments"):
        return f"{value:,.0f}".replace(",", " ")
    return f"{value:.0f}" if value >= 100 else f"{value:.1f}"


def ratio(a, b):
    if a is None or b is None or b == 0:
        return None
    return a / b


def fmt_ratio(r):
    return "-" if r is None else (f"{r:.2f}" if r >= 0.1 else f"{r:.3f}")


def report(raw_path, out_dir):
    values = read_raw(raw_path)
    med = {k: statistics.median(v) for k, v in values.items()}
    reps = {k: len(v) for k, v in values.items()}
    present = [(s, name) for s, name in SYSTEMS if any(k[0] == s for k in values)]
    modes = [m for m in ("off", "on") if any(k[1].startswith(m + "/") for k in values)]

    header = ["metric", "unit"] + [name for _, name in present] + ["efhost/OVS", "efhost/kernel"]
    csv_rows, plot_rows = [], []
    for mode in modes:
        rows = []
        for key, label, unit, plotted in METRICS:
            row = table_row(med, reps, present, f"{mode}/{key}", label, unit)
            if row is None:
                continue
            cells, csv_row, r_ovs, r_kernel = row
            rows.append(cells)
            csv_rows.append([mode] + csv_row)
            if plotted and mode == modes[0] and (r_ovs is not None or r_kernel is not None):
                plot_rows.append((PLOT_LABELS[key], r_ovs, r_kernel))
        print(f"offloads {mode} ({'TSO, GSO and checksum offload off on every veth' if mode == 'off' else 'the kernel defaults on every veth'}):")
        print_table(header, rows)
        print()
    print("(medians; higher is better except retransmits, loss, drops, CPU and RTT; "
          "a ratio compares the same metric)")

    with open(f"{out_dir}/medians.csv", "w", newline="") as f:
        w = csv.writer(f)
        w.writerow(["offloads", "metric", "unit"] + [s for s, _ in SYSTEMS]
                   + ["efhost_over_ovs", "efhost_over_kernel"]
                   + [f"reps_{s}" for s, _ in SYSTEMS])
        w.writerows(csv_rows)
    # One column per other system that ran, in the order of SYSTEMS; gnuplot
    # reads "?" as a missing value: a bar that is not drawn.
    others = [s for s, _ in present if s != "efhost"]
    with open(f"{out_dir}/ratios.dat", "w") as f:
        f.write("# metric " + " ".join(f"efhost/{s}" for s in others) + "\n")
        for label, r_ovs, r_kernel in plot_rows:
            r = {"ovs": r_ovs, "kernel": r_kernel}
            cells = ["?" if r[s] is None else f"{r[s]:.4g}" for s in others]
            f.write(f'"{label}" ' + " ".join(cells) + "\n")


def table_row(med, reps, present, key, label, unit):
    m = {s: med.get((s, key)) for s, _ in SYSTEMS}
    if all(m[s] is None for s, _ in present):
        return None
    r_ovs, r_kernel = ratio(m["efhost"], m["ovs"]), ratio(m["efhost"], m["kernel"])
    cells = ([label, unit] + [fmt(m[s], unit) for s, _ in present]
             + [fmt_ratio(r_ovs), fmt_ratio(r_kernel)])
    csv_row = ([key.split("/", 1)[1], unit] + ["" if m[s] is None else f"{m[s]:.6g}" for s, _ in SYSTEMS]
               + ["" if r is None else f"{r:.4g}" for r in (r_ovs, r_kernel)]
               + [reps.get((s, key), 0) for s, _ in SYSTEMS])
    return cells, csv_row, r_ovs, r_kernel


def print_table(header, rows):
    widths = [max(len(str(row[i])) for row in [header] + rows) for i in range(len(header))]
    line = lambda row: "  ".join(str(c).ljust(w) if i < 2 else str(c).rjust(w)
                                 for i, (c, w) in enumerate(zip(row, widths)))
    print(line(header))
    print("  ".join("-" * w for w in widths))
    for row in rows:
        print(line(row))


def main(argv):
    commands = {"tcp": (tcp, 1), "udp": (udp, 2), "ping": (ping, 1), "capacity": (capacity, 1),
                "report": (report, 2)}
    if len(argv) < 2 or argv[1] not in commands or len(argv) != 2 + commands[argv[1]][1]:
        sys.exit(__doc__)
    fn, _ = commands[argv[1]]
    fn(*argv[2:])


if __name__ == "__main__":
    main(sys.argv)
