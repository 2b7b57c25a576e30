#!/usr/bin/env python3
"""Turns the rows of the bench binaries into bench/results/REPORT.md and
the PNG plots (with gnuplot), and prints the table.

    report.py ROWS.tsv OUTDIR NOTES

ROWS.tsv holds one row per line, tab-separated:
    key section label value unit cpu_us_per_op ref_key goal
A row's ratio is value / value(ref_key); goal is "<= x", ">= x" or "-".
NOTES is a file of lines (machine, load, commit) for the report's head.
"""
import os
import subprocess
import sys


def load(path):
    rows = []
    for line in open(path, encoding="utf-8"):
        f = line.rstrip("\n").split("\t")
        if len(f) != 8:
            continue
        key, section, label, value, unit, cpu, ref, goal = f
        rows.append(dict(key=key, section=section, label=label, value=float(value), unit=unit,
                         cpu=cpu, ref=ref, goal=goal))
    return rows


def ratio_of(row, by_key):
    ref = by_key.get(row["ref"])
    if ref is None or ref["value"] == 0:
        return None
    return row["value"] / ref["value"]


def verdict(ratio, goal):
    if goal == "-" or ratio is None:
        return ""
    op, bound = goal.split()
    ok = ratio <= float(bound) if op == "<=" else ratio >= float(bound)
    return "met" if ok else "not met"


def table(rows):
    by_key = {r["key"]: r for r in rows}
    out = []
    section = None
    order = []
    for r in rows:
        if r["section"] not in order:
            order.append(r["section"])
    rows = sorted(rows, key=lambda r: order.index(r["section"]))
    for r in rows:
        if r["section"] != section:
            section = r["section"]
            out.append("")
            out.append("**%s**" % section)
            out.append("")
            out.append("| Figure | Value | Client CPU µs/op | Ratio | to | Goal | |")
            out.append("|---|---:|---:|---:|---|---|---|")
        ratio = ratio_of(r, by_key)
        value = ("%.0f" % r["value"]) if r["unit"] == "op/s" else ("%.1f" % r["value"])
        cpu = r["cpu"] if r["cpu"] != "-" else ""
        ref_label = by_key[r["ref"]]["label"] if r["ref"] in by_key else ""
        out.append("| %s | %s %s | %s | %s | %s | %s | %s |" % (
            r["label"], value, "µs" if r["unit"] == "us" else r["unit"], cpu,
            "%.2f×" % ratio if ratio is not None else "", ref_label,
            r["goal"].replace("<=", "≤").replace(">=", "≥") if r["goal"] != "-" else "", verdict(ratio, r["goal"])))
    return out


def plot(rows, outdir):
    by_key = {r["key"]: r for r in rows}
    with open(os.path.join(outdir, "subscriptions.dat"), "w") as f:
        for i, n in enumerate((1000, 10000, 100000)):
            vals = []
            for k in ("lib.subs.get.%d", "lib.subs.get.base.%d", "lib.subs.post.%d", "lib.subs.post.base.%d",
                      "lib.resp.subs.get.%d", "lib.resp.subs.get.base.%d", "lib.resp.subs.post.%d",
                      "lib.resp.subs.post.base.%d"):
                r = by_key.get(k % n)
                vals.append("%.2f" % r["value"] if r else "NaN")
            f.write("%d %s %s\n" % (i, "1k 10k 100k".split()[i], " ".join(vals)))
    # One block per series (separated by two blank lines), so each line joins its own points.
    with open(os.path.join(outdir, "throughput.dat"), "w") as f:
        for k in ("lib.threads.%d", "lib.handles.%d", "peer.conns.%d"):
            for n in (1, 2, 4, 8, 16):
                r = by_key.get(k % n)
                if r:
                    f.write("%d %.0f\n" % (n, r["value"]))
            f.write("\n\n")
    script = """
set terminal pngcairo size 900,540 font ",11" noenhanced
set grid
set key top left
set output '{o}/subscriptions.png'
set title 'Cost against live subscriptions on one handle'
set xlabel 'subscriptions on the handle (N)'
set ylabel 'microseconds'
set yrange [0:*]
set xrange [-0.3:2.3]
plot '{o}/subscriptions.dat' using 1:3:xtic(2) with linespoints lw 2 title 'get, N subscriptions (hspaced)', \\
     '' using 1:4 with linespoints lw 1 dt 2 title 'get, none, same batches (hspaced)', \\
     '' using 1:5 with linespoints lw 2 title 'post, N subscriptions (hspaced)', \\
     '' using 1:6 with linespoints lw 1 dt 2 title 'post, none, same batches (hspaced)', \\
     '' using 1:7 with linespoints lw 2 title 'get, N subscriptions (responder)', \\
     '' using 1:8 with linespoints lw 1 dt 2 title 'get, none, same batches (responder)', \\
     '' using 1:9 with linespoints lw 2 title 'post, N subscriptions (responder)', \\
     '' using 1:10 with linespoints lw 1 dt 2 title 'post, none, same batches (responder)'
set output '{o}/throughput.png'
set title 'Synchronous gets of 64 bytes per second'
set xlabel 'threads (one handle) / handles (a thread each) / connections'
set ylabel 'operations per second'
set logscale x 2
set xrange [0.8:20]
set xtics (1,2,4,8,16)
plot '{o}/throughput.dat' index 0 using 1:2 with linespoints lw 2 title 'qel_hspace: threads sharing one handle', \\
     '' index 1 using 1:2 with linespoints lw 2 title 'qel_hspace + hspaced: handles', \\
     '' index 2 using 1:2 with linespoints lw 2 title 'hiredis + redis-server: connections'
""".format(o=outdir)
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def main():
    rows_path, outdir, notes_path = sys.argv[1:4]
    rows = load(rows_path)
    notes = [l.rstrip("\n") for l in open(notes_path, encoding="utf-8")]
    lines = ["# Benchmark report", "", "Made by `scripts/bench` in one run; every ratio compares figures of this run."]
    lines += [""] + ["- " + n for n in notes]
    lines += table(rows)
    lines += ["", "![Cost against subscriptions](subscriptions.png)", "",
              "![Throughput against threads and handles](throughput.png)", ""]
    with open(os.path.join(outdir, "REPORT.md"), "w", encoding="utf-8") as f:
        f.write("\n".join(lines))
    plot(rows, outdir)
    print("\n".join(lines[3:]))


if __name__ == "__main__":
    main()
