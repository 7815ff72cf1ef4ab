"""The log reading benchmark: `dorvanectl log FILE` and `dorvanectl --json log
FILE` under Wine on a generated service log (benchmarks/make_service_log.py,
50 MiB by default), each run several times after a warm-up, with the read
rate (best and median) and the peak memory of the dorvanectl process as
Windows reports it (benchmarks/peak_memory.exe starts it and asks
GetProcessMemoryInfo about it while it runs). A run on a tiny log shows what
the process start and Wine cost without the reading.

    bench_log.py --exe dorvanectl.exe --peak peak_memory.exe --work DIR
                 [--runs 5] [--size-mib 50] [--seed 2024]

Run through scripts/bench.sh (alone: "scripts/bench.sh log"), which builds and
prepares the Wine prefix; it uses the prefix in WINEPREFIX.

The rates are of the whole dorvanectl process, from CreateProcess to its end,
start included; the reading alone is that less the run on the tiny log. The
output goes to a file in DIR, and in runs of their own to NUL: a character
device, as a console is, where the C runtime leaves the standard output
unbuffered. The targets (50 MiB/s, 32 MiB peak) are judged on the runs to a
file; the rate to NUL is told beside them. Peak memory is asked every
millisecond in runs apart, since the asking slows the run down. Before all
that, the peak memory helper is checked: a child that commits and touches 64
MiB must show about 64 MiB more at its peak than one that commits nothing.
"""
import argparse
import hashlib
import json
import os
import statistics
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(HERE)
WINE_RUN = os.path.join(REPO, "scripts", "wine-run")
MIB = 1024.0 * 1024.0
TARGET_RATE = 50.0  # MiB/s
TARGET_PEAK = 32.0  # MiB


def windows_path(path):
    return "Z:" + os.path.abspath(path).replace("/", "\\")


def make_log(path, size, seed):
    """Writes the log unless it is there; the seconds it took, or None."""
    if os.path.exists(path):
        return None
    print("making %s ..." % path, flush=True)
    start = time.perf_counter()
    subprocess.run([sys.executable, os.path.join(HERE, "make_service_log.py"), path, size,
                    "--seed", str(seed)], check=True)
    return time.perf_counter() - start


def measured(peak, command, out="NUL", interval=0):
    """Runs `command` (Windows program and arguments) under peak_memory.exe;
    its report, with "wall" (the whole Wine run) added."""
    os.sync()
    start = time.perf_counter()
    result = subprocess.run([WINE_RUN, peak, "--stdout", out, "--interval", str(interval), "--"]
                            + command, check=True, stdout=subprocess.PIPE,
                            stdin=subprocess.DEVNULL)
    wall = time.perf_counter() - start
    report = json.loads(result.stdout.decode().strip().splitlines()[-1])
    report["wall"] = wall
    return report


def digest(path):
    with open(path, "rb") as f:
        return hashlib.sha256(f.read()).hexdigest()


def check_helper(peak):
    """The helper's peaks for a child of a known size: (ok, text)."""
    exe = windows_path(peak)
    runs = {mib: measured(peak, [exe, "--allocate", str(mib)], interval=1) for mib in (0, 64)}
    ws = (runs[64]["peak_working_set"] - runs[0]["peak_working_set"]) / MIB
    private = (runs[64]["peak_pagefile"] - runs[0]["peak_pagefile"]) / MIB
    after = runs[64]["at_exit"]
    ok = all(abs(x - 64) < 4 for x in (ws, private))
    return ok, ("peak memory helper: a child committing 64 MiB peaks +%.1f MiB working set, "
                "+%.1f MiB private bytes (%s); asked again once it ended: %s"
                % (ws, private, "plausible" if ok else "NOT PLAUSIBLE",
                   "%.1f MiB working set, %.1f MiB private bytes"
                   % (after["peak_working_set"] / MIB, after["peak_pagefile"] / MIB)
                   if after["ok"] else "no answer"))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--exe", required=True, help="dorvanectl.exe")
    parser.add_argument("--peak", required=True, help="peak_memory.exe")
    parser.add_argument("--work", required=True)
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--size-mib", default="50")
    parser.add_argument("--seed", type=int, default=2024)
    args = parser.parse_args()
    os.makedirs(args.work, exist_ok=True)
    big = os.path.join(args.work, "service-%s-seed%d.log" % (args.size_mib, args.seed))
    tiny = os.path.join(args.work, "tiny.log")
    made = make_log(big, args.size_mib, args.seed)
    make_log(tiny, "tiny", args.seed)
    size = os.path.getsize(big)
    exe = windows_path(args.exe)
    modes = [("text", []), ("json", ["--json"])]

    helper_ok, helper_text = check_helper(args.peak)

    def command(options, log):
        return [exe] + options + ["log", windows_path(log)]

    # The rates: a warm-up, then the runs, the modes and outputs taking turns.
    # NUL is a character device, as a console is: the C runtime leaves the
    # standard output unbuffered there, so it is timed apart.
    outs = {name: os.path.join(args.work, "out-%s.txt" % name) for name, _ in modes}
    targets = [(name, where) for name, _ in modes for where in ("file", "NUL")]
    seconds = {key: [] for key in targets}
    walls = {key: [] for key in targets}
    digests = {name: set() for name, _ in modes}
    for round_ in range(args.runs + 1):
        for name, options in modes:
            for where in ("file", "NUL"):
                report = measured(args.peak, command(options, big),
                                  windows_path(outs[name]) if where == "file" else "NUL")
                if report["exit_code"] != 0:
                    raise SystemExit("dorvanectl %s log failed: %r" % (name, report))
                if where == "file":
                    digests[name].add(digest(outs[name]))
                if round_ > 0:
                    seconds[name, where].append(report["seconds"])
                    walls[name, where].append(report["wall"])
    # What the process start and Wine take without the reading.
    baseline = {name: statistics.median(measured(args.peak, command(options, tiny),
                                                 windows_path(outs[name] + ".tiny"))["seconds"]
                                        for _ in range(args.runs)) for name, options in modes}

    # Peak memory, sampled every millisecond (apart from the timed runs, which
    # the sampling would slow down).
    memory = {}
    for name, options in modes:
        for which, log in (("big", big), ("tiny", tiny)):
            reports = [measured(args.peak, command(options, log), windows_path(outs[name] + ".mem"),
                                interval=1) for _ in range(3)]
            memory[name, which] = (max(r["peak_working_set"] for r in reports),
                                   max(r["peak_pagefile"] for r in reports))

    with open(outs["json"], "rb") as f:
        summary = json.loads(f.read().decode("utf-8").strip().splitlines()[-1])["summary"]
    json_lines = sum(1 for _ in open(outs["json"], "rb"))

    mib = size / MIB
    print("log: %s, %.1f MiB, %d records, %d unreadable lines, %s to %s; %s; "
          "%d runs after a warm-up; %d CPUs"
          % (os.path.basename(big), mib, summary["records"], summary["unreadable_lines"],
             summary["first"], summary["last"],
             "generated in %.1f s" % made if made is not None else "generated before",
             args.runs, os.cpu_count()))
    print(helper_text)
    ok = helper_ok
    nul_ok = True
    for name, where in targets:
        s = seconds[name, where]
        best, median = min(s), statistics.median(s)
        rate = mib / median
        if where == "file":
            ok = ok and rate >= TARGET_RATE and len(digests[name]) == 1
        else:
            nul_ok = nul_ok and rate >= TARGET_RATE
        print("%-22s to %-4s best %.3f s = %3.0f MiB/s, median %.3f s = %3.0f MiB/s (%s s); "
              "whole Wine run median %.3f s%s"
              % ("dorvanectl %slog" % ("--json " if name == "json" else ""), where, best, mib / best,
                 median, rate, ", ".join("%.3f" % x for x in s),
                 statistics.median(walls[name, where]),
                 "; output %.2f MiB%s" % (os.path.getsize(outs[name]) / MIB,
                                          "" if len(digests[name]) == 1 else
                                          ", DIFFERS BETWEEN RUNS") if where == "file" else ""))
    text_file = statistics.median(seconds["text", "file"])
    json_file = statistics.median(seconds["json", "file"])
    print("time split (medians, output to a file): process start and Wine on the tiny log "
          "%.3f s (text), %.3f s (json); reading and summing up the log %.3f s (%.0f MiB/s); "
          "the %d JSON lines %.3f s more; to NUL instead of a file: %+.3f s (text), %+.3f s (json)"
          % (baseline["text"], baseline["json"], text_file - baseline["text"],
             mib / (text_file - baseline["text"]), json_lines, json_file - text_file,
             statistics.median(seconds["text", "NUL"]) - text_file,
             statistics.median(seconds["json", "NUL"]) - json_file))
    for name, _ in modes:
        ws, private = memory[name, "big"]
        ws0, private0 = memory[name, "tiny"]
        ok = ok and ws / MIB <= TARGET_PEAK and private / MIB <= TARGET_PEAK
        print("peak memory, %-6s peak working set %.1f MiB (tiny log %.1f MiB: +%.1f MiB), "
              "peak private bytes %.1f MiB (tiny log %.1f MiB: +%.1f MiB)"
              % (name + ":", ws / MIB, ws0 / MIB, (ws - ws0) / MIB, private / MIB, private0 / MIB,
                 (private - private0) / MIB))
    print("targets: at least %.0f MiB/s (median, start included), at most %.0f MiB peak "
          "(working set and private bytes, Wine's share included), output to a file: %s; "
          "the rate with the output to NUL: %s"
          % (TARGET_RATE, TARGET_PEAK, "met" if ok else "MISSED", "met" if nul_ok else "MISSED"))
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
