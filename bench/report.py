#!/usr/bin/env python3
"""Turns the rows of the bench programs into bench/results/REPORT.md and
the PNG plots (with gnuplot), and prints the report.

    report.py ROWS.tsv OUTDIR NOTES

ROWS.tsv holds one row per line, tab-separated (bench/bench_rows.h):
    key section label value unit cpu_us_per_op ref_key goal [p50 p99 p99.9]
A row's ratio is value / value(ref_key); goal is "<= x", ">= x" or "-".
Where both rows carry the distribution of single operations, the goal is
judged on the ratio of their p50s instead (the value's ratio is shown
beside it). A goal without a ref_key bounds the value itself (in the
row's unit).
NOTES is a file of lines (machine, load, commit) for the report's head.

The report opens with the goals: every figure the library, the service
and the peers' comparison are held to, each with its rows, ratio and
verdict, or why it was not measured in this run.
"""
import os
import subprocess
import sys

# The goals, in the order of the report: the figure, the rows that show it,
# and what measures it (named when none of its rows is there).
GOALS = [
    ("8 threads on one handle vs 1 thread", ["lib.threads.8"], "bench_report"),
    ("8 threads on one handle vs 8 handles", ["lib.threads.8.vs.handles"], "bench_report"),
    ("C++ notification with 100,000 subscriptions on the Client vs none", ["cpp.notify.100000", "cpp.burst.100000"],
     "bench_cpp --rows"),
    ("C++ unsubscribe with 100,000 subscriptions on the Client vs none",
     ["cpp.unsub.100000", "cpp.unsub.answered.100000"], "bench_cpp --rows"),
    ("hspaced put-to-notification, 100,000 subscriptions on other connections vs none", ["svc.notify.100000"],
     "bench_rows_service"),
    ("synchronous get 64 B vs ping-pong floor", ["lib.get.64B"], "bench_report"),
    ("synchronous get 1 MiB vs ping-pong floor", ["lib.get.1MiB"], "bench_report"),
    ("client CPU per get vs hiredis GET", ["lib.cpu.get.64B"], "bench_report and bench_hiredis (--peers)"),
    ("asynchronous gets vs one-write floor", ["lib.get.async"], "bench_report"),
    ("hspaced 1/4/16 connections vs redis-server",
     ["svc.hspaced.get.1", "svc.hspaced.get.4", "svc.hspaced.get.16",
      "svc.hspaced.put.1", "svc.hspaced.put.4", "svc.hspaced.put.16"], "bench_rows_service with redis-server (--peers)"),
    ("hspaced on etcd vs direct gRPC to etcd", ["etcd.rate.1.hspaced", "etcd.rate.2.hspaced", "etcd.rate.3.hspaced"],
     "bench_rows_etcd (etcd and the etcd store)"),
    ("memory to put or get a value of N bytes: client (MiB over N)", ["lib.mem.put", "lib.mem.get"],
     "bench_report"),
    ("memory to put or get a value of N bytes: service (MiB over N)", ["svc.mem.put", "svc.mem.get", "svc.mem.notify"],
     "bench_rows_service"),
    ("synchronous get over TLS vs plain TCP", ["tls.get.64B"], "bench_rows_tls (TLS in the library and hspaced)"),
]


def load(path):
    rows = []
    for line in open(path, encoding="utf-8"):
        f = line.rstrip("\n").split("\t")
        if len(f) not in (8, 9):
            continue
        key, section, label, value, unit, cpu, ref, goal = f[:8]
        try:
            value = float(value)
        except ValueError:
            continue
        dist = f[8].split() if len(f) == 9 and len(f[8].split()) == 3 else None
        rows.append(dict(key=key, section=section, label=label, value=value, unit=unit, cpu=cpu, ref=ref,
                         goal=goal, dist=dist))
    return rows


def ratio_of(row, by_key):
    ref = by_key.get(row["ref"])
    if ref is None or ref["value"] == 0:
        return None
    return row["value"] / ref["value"]


def p50_ratio(row, by_key):
    """The ratio of the single operations' p50 when both rows have a distribution."""
    ref = by_key.get(row["ref"])
    if ref is None or not row["dist"] or not ref["dist"] or float(ref["dist"][0]) <= 0:
        return None
    return float(row["dist"][0]) / float(ref["dist"][0])


def judged_ratio(row, by_key):
    """The ratio a goal is judged on: of the p50s where both rows have a
    distribution (a busy machine's stalls move the means of a few batches
    far more than the typical operation), else of the values."""
    p50 = p50_ratio(row, by_key)
    return p50 if p50 is not None else ratio_of(row, by_key)


def verdict(row, by_key):
    """'met', 'not met', or '' when the row has no goal or lacks its reference."""
    if row["goal"] == "-":
        return ""
    op, bound = row["goal"].split()
    measured = row["value"] if row["ref"] == "-" else judged_ratio(row, by_key)
    if measured is None:
        return ""
    ok = measured <= float(bound) if op == "<=" else measured >= float(bound)
    return "met" if ok else "not met"


def fmt_value(r):
    unit = r["unit"]
    if unit == "op/s":
        return "%.0f op/s" % r["value"]
    if unit == "us":
        return "%.1f µs" % r["value"]
    if unit in ("MiB", "B/B"):
        return "%.2f %s" % (r["value"], unit)
    return "%.1f %s" % (r["value"], unit)


def fmt_goal(r):
    if r["goal"] == "-":
        return ""
    g = r["goal"].replace("<=", "≤").replace(">=", "≥")
    return g + (" " + r["unit"] if r["ref"] == "-" else "×")


def fmt_ratio(r, by_key):
    """Two decimals, or as many more as it takes not to round the judged
    ratio onto its bound (0.996 against "≥ 1.00" is not met, and says so)."""
    ratio, p50 = ratio_of(r, by_key), p50_ratio(r, by_key)
    judged = p50 if p50 is not None else ratio
    digits = 2
    if judged is not None and r["goal"] != "-" and r["ref"] != "-":
        bound = float(r["goal"].split()[1])
        while judged != bound and digits < 6 and "%.*f" % (digits, judged) == "%.*f" % (digits, bound):
            digits += 1
    if p50 is not None:
        return "%.*f× p50 (means %.2f×)" % (digits, p50, ratio)
    return "%.*f×" % (digits, ratio) if ratio is not None else ""


def fmt_dist(r):
    return " / ".join("%.1f" % float(x) for x in r["dist"]) if r["dist"] else ""


def goals_table(rows):
    by_key = {r["key"]: r for r in rows}
    out = ["", "## Goals", "",
           "| Goal | Row | Value | Ratio | to | Goal | |",
           "|---|---|---:|---:|---|---|---|"]
    met = total = 0
    for figure, keys, producer in GOALS:
        present = [by_key[k] for k in keys if k in by_key]
        if not present:
            out.append("| %s | | | | | | not measured: needs %s |" % (figure, producer))
            total += 1
            continue
        for r in present:
            v = verdict(r, by_key)
            ratio = judged_ratio(r, by_key)
            ref = by_key.get(r["ref"])
            if r["goal"] == "-":
                v = "not measured: nothing to compare with (needs %s)" % producer
            elif r["ref"] != "-" and ratio is None:
                v = "not measured: no row %s (needs %s)" % (r["ref"], producer)
            total += 1
            met += v == "met"
            out.append("| %s | %s | %s | %s | %s | %s | %s |" % (
                figure, r["label"], fmt_value(r), fmt_ratio(r, by_key), ref["label"] if ref else "", fmt_goal(r), v))
    out.insert(3, "%d of %d goal rows met in this run. A ratio compares the rows' values (means: the median "
               "batch's), except where both rows have the distribution of their single operations: there the "
               "goal is judged on the ratio of the p50s, which a busy machine's stalls move far less, and the "
               "means' ratio follows in brackets." % (met, total))
    out.insert(4, "")
    return out


# Sections in this order when present; any other after them, as they come.
SECTIONS = [
    "Floors",
    "Library against hspaced, by value size",
    "Client CPU",
    "Threads sharing one handle, against a handle per thread",
    "Service alone against redis-server (raw clients)",
    "C++ API against the C API",
    "C++ Client: 100,000 subscriptions",
    "Subscriptions on the handle, against hspaced",
    "Subscriptions on the handle, against the constant-time responder",
    "hspaced: subscriptions on other connections",
    "Notification fan-out",
    "hspaced on etcd against etcd itself",
    "TLS",
    "Client: memory for one large value",
    "hspaced: memory for one large value",
    "Memory per stored byte",
    "Allocations and system calls",
    "Peer: redis-server + hiredis",
]


def section_tables(rows):
    by_key = {r["key"]: r for r in rows}
    order = [s for s in SECTIONS if any(r["section"] == s for r in rows)]
    for r in rows:
        if r["section"] not in order:
            order.append(r["section"])
    out = ["", "## All figures"]
    for section in order:
        srows = [r for r in rows if r["section"] == section]
        with_dist = any(r["dist"] for r in srows)
        out += ["", "**%s**" % section, ""]
        head = "| Figure | Value | Client CPU µs/op |" + (" p50 / p99 / p99.9 µs |" if with_dist else "")
        out.append(head + " Ratio | to | Goal | |")
        out.append("|---|---:|---:|" + ("---:|" if with_dist else "") + "---:|---|---|---|")
        for r in srows:
            cpu = r["cpu"] if r["cpu"] != "-" else ""
            ref_label = by_key[r["ref"]]["label"] if r["ref"] in by_key else ""
            cells = [r["label"], fmt_value(r), cpu]
            if with_dist:
                cells.append(fmt_dist(r))
            cells += [fmt_ratio(r, by_key), ref_label, fmt_goal(r), verdict(r, by_key)]
            out.append("| " + " | ".join(cells) + " |")
    return out


def plot(rows, outdir):
    by_key = {r["key"]: r for r in rows}

    def val(key):
        r = by_key.get(key)
        return "%.4g" % r["value"] if r else "NaN"

    with open(os.path.join(outdir, "subscriptions.dat"), "w") as f:
        for i, n in enumerate((1000, 10000, 100000)):
            keys = ("lib.subs.get.%d", "lib.subs.get.base.%d", "lib.subs.post.%d", "lib.subs.post.base.%d",
                    "lib.resp.subs.get.%d", "lib.resp.subs.get.base.%d", "lib.resp.subs.post.%d",
                    "lib.resp.subs.post.base.%d")
            f.write("%d %s %s\n" % (i, "1k 10k 100k".split()[i], " ".join(val(k % n) for k in keys)))
    # One block per series (separated by two blank lines), so each line joins its own points.
    with open(os.path.join(outdir, "throughput.dat"), "w") as f:
        for k in ("lib.threads.%d", "lib.handles.%d", "peer.conns.%d"):
            for n in (1, 2, 4, 8):
                if (k % n) in by_key:
                    f.write("%d %s\n" % (n, val(k % n)))
            f.write("\n\n")
    def p50(key):
        r = by_key.get(key)
        return r["dist"][0] if r and r["dist"] else "NaN"

    keys = ("floor.pingpong.", "lib.get.", "lib.put.", "peer.get.", "peer.set.")
    with open(os.path.join(outdir, "sizes.dat"), "w") as f:
        f.write("# index size, means: floor lib.get lib.put peer.get peer.set, then their p50s\n")
        for i, tag in enumerate(("64B", "1KiB", "64KiB", "1MiB")):
            f.write("%d %s %s %s\n" % (i, tag, " ".join(val(k + tag) for k in keys),
                                       " ".join(p50(k + tag) for k in keys)))
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
set output '{o}/sizes.png'
set multiplot layout 1,2 title 'Synchronous operations by value size'
set title 'latency (median batch means)'
set xlabel 'value size'
set ylabel 'microseconds (log)'
set logscale y
set yrange [*:*]
set xrange [-0.3:3.3]
plot '{o}/sizes.dat' using 1:3:xtic(2) with linespoints lw 2 title 'raw TCP ping-pong (floor)', \\
     '' using 1:4 with linespoints lw 2 title 'qel_hspace get', \\
     '' using 1:5 with linespoints lw 2 title 'qel_hspace put', \\
     '' using 1:6 with linespoints lw 1 dt 2 title 'hiredis GET', \\
     '' using 1:7 with linespoints lw 1 dt 2 title 'hiredis SET'
unset logscale y
set key bottom left
set title 'against the floor (p50 of single operations)'
set ylabel 'times the ping-pong floor'
set yrange [0:*]
plot '{o}/sizes.dat' using 1:($9/$8):xtic(2) with linespoints lt 2 lw 2 title 'qel_hspace get', \\
     '' using 1:($10/$8) with linespoints lt 3 lw 2 title 'qel_hspace put', \\
     '' using 1:($11/$8) with linespoints lt 4 lw 1 dt 2 title 'hiredis GET', \\
     1.1 with lines dt 3 lc rgb 'gray' title 'goal 64 B: 1.10', \\
     1.2 with lines dt 4 lc rgb 'gray' title 'goal 1 MiB: 1.20'
unset multiplot
set output '{o}/throughput.png'
set title 'Synchronous gets of 64 bytes per second'
set xlabel 'threads on one handle / handles (a thread each) / connections'
set ylabel 'operations per second'
set logscale x 2
set xrange [0.8:10]
set xtics (1,2,4,8)
set yrange [0:*]
plot '{o}/throughput.dat' index 0 using 1:2 with linespoints lw 2 title 'qel_hspace: threads sharing one handle', \\
     '' index 1 using 1:2 with linespoints lw 2 title 'qel_hspace + hspaced: a handle per thread', \\
     '' index 2 using 1:2 with linespoints lw 2 title 'hiredis + redis-server: a connection per thread'
""".format(o=outdir)
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def main():
    rows_path, outdir, notes_path = sys.argv[1:4]
    rows = load(rows_path)
    notes = [l.rstrip("\n") for l in open(notes_path, encoding="utf-8") if l.strip()]
    lines = ["# Benchmark report", "", "Made by `scripts/bench` in one run; every ratio compares figures of this run."]
    lines += [""] + ["- " + n for n in notes]
    lines += goals_table(rows)
    lines += section_tables(rows)
    lines += ["", "![Throughput against threads and handles](throughput.png)", "",
              "![Synchronous operations by value size](sizes.png)", "",
              "![Cost against subscriptions](subscriptions.png)", ""]
    with open(os.path.join(outdir, "REPORT.md"), "w", encoding="utf-8") as f:
        f.write("\n".join(lines))
    plot(rows, outdir)
    print("\n".join(lines[3:]))


if __name__ == "__main__":
    main()
