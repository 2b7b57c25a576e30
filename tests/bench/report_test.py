#!/usr/bin/env python3
"""How bench/report.py reads the bench programs' rows and judges the goals:
rows as the programs write them (bench_rows.h's Row), hostile lines among
them, ratios on p50s or means, bounds without a reference, goals whose rows
are missing, and the count of goal rows met.

    report_test.py PATH/TO/report.py
"""
import importlib.util
import os
import sys
import tempfile

spec = importlib.util.spec_from_file_location("report", sys.argv[1])
report = importlib.util.module_from_spec(spec)
spec.loader.exec_module(report)

failures = []


def check(what, got, want):
    if got != want:
        failures.append("%s: got %r, want %r" % (what, got, want))


def row(key, value, ref="-", goal="-", dist=None, section="S", unit="us", label=None):
    """A line as bench_rows.h's Row prints it."""
    line = "\t".join([key, section, label or key, "%.2f" % value, unit, "-", ref, goal])
    return line + ("\t%.2f %.2f %.2f" % dist if dist else "") + "\n"


def parse(text):
    with tempfile.NamedTemporaryFile("w", suffix=".tsv", delete=False, encoding="utf-8") as f:
        f.write(text)
    try:
        return report.load(f.name)
    finally:
        os.unlink(f.name)


# Lines that are not rows (a program's stray output, a cut-off line, a value
# that is not a number, a distribution of the wrong arity) are skipped or
# read without a distribution; nothing raises.
rows = parse(
    row("a", 10, dist=(9, 20, 30))
    + "bench_rows_x: cannot open tcp://127.0.0.1:1\n"
    + "b\tS\tb\t12.5\tus\n"
    + "c\tS\tc\tnan?\tus\t-\t-\t-\n"
    + "d\tS\td\t4\tus\t-\t-\t-\t1 2\n"
    + "e\tS\tlabel with spaces\t7\top/s\t1.25\t-\t-\n"
    + "f\tS\tf\t1\tus\t-\t-\t-\t1 2 3\tan extra field\n"
    + "\n")
check("keys read", [r["key"] for r in rows], ["a", "d", "e"])
check("distribution read", rows[0]["dist"], ["9.00", "20.00", "30.00"])
check("distribution of two fields ignored", rows[1]["dist"], None)
check("label keeps its spaces", rows[2]["label"], "label with spaces")
check("cpu column kept as written", rows[2]["cpu"], "1.25")

# Verdicts: (rows, key judged, verdict, ratio shown).
VERDICTS = [
    ("ratio under an upper bound",
     row("r", 105) + row("x", 100, "r", "<= 1.10"), "x", "met", "0.95×"),
    ("ratio over an upper bound",
     row("r", 100) + row("x", 111, "r", "<= 1.10"), "x", "not met", "1.11×"),
    ("a ratio equal to its bound meets it",
     row("r", 100) + row("x", 115, "r", "<= 1.15"), "x", "met", "1.15×"),
    ("lower bound, rates", row("r", 1000, unit="op/s") + row("x", 2600, "r", ">= 2.5", unit="op/s"),
     "x", "met", "2.60×"),
    ("lower bound missed", row("r", 1000, unit="op/s") + row("x", 899, "r", ">= 0.9", unit="op/s"),
     "x", "not met", "0.899×"),
    ("a miss that two decimals would round onto the bound shows three",
     row("r", 1000, unit="op/s") + row("x", 996, "r", ">= 1.00", unit="op/s"), "x", "not met", "0.996×"),
    ("the same for p50s", row("r", 50, dist=(20, 40, 900)) + row("x", 50, "r", "<= 1.10", dist=(22.09, 60, 400)),
     "x", "not met", "1.105× p50 (means 1.00×)"),
    ("and four where three would", row("r", 10000, unit="op/s") + row("x", 9998, "r", ">= 1.00", unit="op/s"),
     "x", "not met", "0.9998×"),
    # Both rows have single operations' latencies: the p50s decide, a stall
    # that moved the means does not.
    ("p50s decide over the means",
     row("r", 50, dist=(20, 40, 900)) + row("x", 120, "r", "<= 1.10", dist=(21, 60, 4000)),
     "x", "met", "1.05× p50 (means 2.40×)"),
    ("p50s decide against the means",
     row("r", 200, dist=(20, 40, 900)) + row("x", 100, "r", "<= 1.10", dist=(30, 60, 400)),
     "x", "not met", "1.50× p50 (means 0.50×)"),
    ("means decide when only one row has a distribution",
     row("r", 100) + row("x", 105, "r", "<= 1.10", dist=(300, 400, 500)), "x", "met", "1.05×"),
    ("a bound without a reference bounds the value", row("m", 15.99, goal="<= 16", unit="MiB"), "m", "met", ""),
    ("the value over its bound", row("m", 16.5, goal="<= 16", unit="MiB"), "m", "not met", ""),
    ("a missing reference judges nothing", row("x", 1, "gone", "<= 1.10"), "x", "", ""),
    ("a reference of zero judges nothing", row("r", 0) + row("x", 1, "r", "<= 1.10"), "x", "", ""),
    ("no goal, no verdict", row("r", 100) + row("x", 300, "r"), "x", "", "3.00×"),
]
for name, text, key, want, shown in VERDICTS:
    rs = parse(text)
    by_key = {r["key"]: r for r in rs}
    check(name + " (verdict)", report.verdict(by_key[key], by_key), want)
    check(name + " (ratio shown)", report.fmt_ratio(by_key[key], by_key), shown)


def goal_lines(text):
    """The goals table's rows, keyed by their row's label (or the goal when unmeasured)."""
    lines = report.goals_table(parse(text))
    table = [l for l in lines if l.startswith("| ") and not l.startswith("| Goal ")]
    cells = [[c.strip() for c in l.strip("|").split("|")] for l in table]
    return lines, {(c[1] or c[0]): c for c in cells}


# Every goal is in the table: measured ones with their verdict, the others
# saying what would measure them.
lines, cells = goal_lines("")
check("every goal listed when no row exists", len(cells), len(report.GOALS))
check("unmeasured goal names its program", cells["synchronous get over TLS vs plain TCP"][6],
      "not measured: needs bench_rows_tls (TLS in the library and hspaced)")
check("count with nothing measured", lines[3].split(" goal rows met")[0], "0 of %d" % len(report.GOALS))

# The TLS rows exactly as bench_rows_tls writes them join the goals.
tls = (row("tls.get.plain.64B", 40.0, section="TLS", label="synchronous get, 64B, plain TCP (same run)")
       + row("tls.get.64B", 45.0, "tls.get.plain.64B", "<= 1.15", section="TLS",
             label="synchronous get, 64B, TLS 1.3"))
lines, cells = goal_lines(tls)
c = cells["synchronous get, 64B, TLS 1.3"]
check("TLS row: goal", c[0], "synchronous get over TLS vs plain TCP")
check("TLS row: ratio, reference, bound, verdict", c[3:], ["1.12×", "synchronous get, 64B, plain TCP (same run)",
                                                          "≤ 1.15×", "met"])
check("count with the TLS row met", lines[3].split(" goal rows met")[0], "1 of %d" % len(report.GOALS))

# A goal's row present without its reference, or without a goal, says so
# instead of a verdict; a goal with several rows counts each.
lines, cells = goal_lines(row("lib.get.64B", 30, "floor.pingpong.64B", "<= 1.10")
                          + row("lib.threads.8", 9000, unit="op/s")
                          + row("svc.mem.put", 1, goal="<= 16", unit="MiB")
                          + row("svc.mem.get", 17, goal="<= 16", unit="MiB"))
check("reference missing", cells["lib.get.64B"][6],
      "not measured: no row floor.pingpong.64B (needs bench_report)")
check("row without a goal", cells["lib.threads.8"][6],
      "not measured: nothing to compare with (needs bench_report)")
check("several rows of one goal", (cells["svc.mem.put"][6], cells["svc.mem.get"][6]), ("met", "not met"))
check("count of several rows", lines[3].split(" goal rows met")[0], "1 of %d" % (len(report.GOALS) + 1))

# Sections: the known ones in their order, any other after them as it comes.
out = report.section_tables(parse(row("z", 1, section="Zeta") + row("t", 1, section="TLS")
                                  + row("f", 1, section="Floors") + row("y", 1, section="Ypsilon")))
check("section order", [l for l in out if l.startswith("**")], ["**Floors**", "**TLS**", "**Zeta**", "**Ypsilon**"])

for f in failures:
    print("FAIL " + f)
print("%d failure(s)" % len(failures))
sys.exit(1 if failures else 0)
