"""The extraction benchmark: one firmware-like package unpacked by every peer
at hand (Info-ZIP's unzip, libarchive's bsdtar and 7-Zip's 7z, natively) and by
our UnzipAllItems under Wine, in the same run, on the same archive and file
system, alternating over several rounds, every tree checked identical to ours;
then the peak memory of our process on that package and on a tiny one, and of
listing an archive of many empty entries (what the directory costs).

    bench_zip.py --exe unzip_package.exe --work DIR [--rounds 3] [--size-mib 256]
                 [--entries 300000]

Run through scripts/bench.sh (alone: "scripts/bench.sh zip"), which builds and
prepares the Wine prefix.
"""
import argparse
import json
import os
import shutil
import statistics
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(HERE)


def windows_path(path):
    return "Z:" + os.path.abspath(path).replace("/", "\\")


def make_archive(path, size):
    if not os.path.exists(path):
        print("making %s ..." % path, flush=True)
        subprocess.run([sys.executable, os.path.join(HERE, "make_firmware_zip.py"), path, size],
                       check=True)


def timed(args):
    # What the previous run left to write back would otherwise be written
    # during this one: every tool starts with nothing pending.
    os.sync()
    start = time.perf_counter()
    result = subprocess.run(args, check=True, stdout=subprocess.PIPE, stdin=subprocess.DEVNULL)
    return time.perf_counter() - start, result.stdout


# The peers, each as (name, command line for an archive and an output folder).
PEERS = [
    ("Info-ZIP unzip", lambda archive, out: ["unzip", "-q", "-o", archive, "-d", out]),
    ("libarchive bsdtar", lambda archive, out: ["bsdtar", "-xf", archive, "-C", out]),
    ("7-Zip 7z", lambda archive, out: ["7z", "x", "-y", "-bd", "-o" + out, archive]),
]


def run_peer(command, archive, out):
    shutil.rmtree(out, ignore_errors=True)
    os.makedirs(out)
    seconds, _ = timed(command(archive, out))
    return seconds


def cpu_model():
    """The processor's name as Linux gives it, or "unknown processor"."""
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    return line.split(":", 1)[1].strip()
    except OSError:
        pass
    return "unknown processor"


def run_ours(exe, archive, out, threads=None):
    shutil.rmtree(out, ignore_errors=True)
    wine = os.path.join(REPO, "scripts", "wine-run")
    extra = ["--threads", str(threads)] if threads else []
    seconds, stdout = timed([wine, exe, windows_path(archive), windows_path(out) + "\\"] + extra)
    report = json.loads(stdout.decode().strip().splitlines()[-1])
    if report["result"] != 1:
        raise SystemExit("unzip_package failed: %r" % report)
    return seconds, report


def make_many_entries(path, count):
    if not os.path.exists(path):
        print("making %s ..." % path, flush=True)
        import zipfile
        with zipfile.ZipFile(path + ".part", "w", zipfile.ZIP_STORED) as z:
            for i in range(count):
                z.writestr("entries/%07d.txt" % i, b"")
        os.rename(path + ".part", path)


def list_ours(exe, archive):
    wine = os.path.join(REPO, "scripts", "wine-run")
    _, stdout = timed([wine, exe, windows_path(archive), "--list"])
    return json.loads(stdout.decode().strip().splitlines()[-1])


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--exe", required=True)
    parser.add_argument("--work", required=True)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--size-mib", default="256")
    parser.add_argument("--huge", action="store_true",
                        help="also time a package of one huge entry on one thread and on all")
    parser.add_argument("--entries", type=int, default=300000,
                        help="entries of the archive whose listing is measured (0: none)")
    args = parser.parse_args()
    os.makedirs(args.work, exist_ok=True)
    big = os.path.join(args.work, "firmware-%s.zip" % args.size_mib)
    tiny = os.path.join(args.work, "tiny.zip")
    make_archive(big, args.size_mib)
    make_archive(tiny, "tiny")
    peers = [(name, command) for name, command in PEERS if shutil.which(command("a", "o")[0])]
    outs = {name: os.path.join(args.work, "out-" + name.split()[-1]) for name, _ in peers}
    out_ours = os.path.join(args.work, "out-ours")

    out_one = os.path.join(args.work, "out-one")
    times = {name: [] for name, _ in peers}
    ours_s, inside_s, reports = [], [], []
    one_s, one_inside_s = [], []
    same = {}
    for round_ in range(args.rounds):
        # Each round starts with another tool, so that none always runs first.
        order = [None, "one"] + peers
        order = order[round_ % len(order):] + order[:round_ % len(order)]
        for tool in order:
            if tool is None:
                seconds, report = run_ours(args.exe, big, out_ours)
                ours_s.append(seconds)
                inside_s.append(report["seconds"])
                reports.append(report)
            elif tool == "one":
                seconds, report = run_ours(args.exe, big, out_one, threads=1)
                one_s.append(seconds)
                one_inside_s.append(report["seconds"])
            else:
                name, command = tool
                times[name].append(run_peer(command, big, outs[name]))
    for name, _ in peers:
        same[name] = subprocess.run(["diff", "-rq", outs[name], out_ours],
                                    stdout=subprocess.PIPE).returncode == 0
    same["ours on one thread"] = subprocess.run(["diff", "-rq", out_one, out_ours],
                                                stdout=subprocess.PIPE).returncode == 0
    _, tiny_report = run_ours(args.exe, tiny, os.path.join(args.work, "out-tiny"))
    for folder in list(outs.values()) + [out_ours, out_one, os.path.join(args.work, "out-tiny")]:
        shutil.rmtree(folder, ignore_errors=True)

    mib = 1024.0 * 1024.0
    unpacked = reports[0]["bytes"] / mib
    o, i = statistics.median(ours_s), statistics.median(inside_s)
    peak_big = max(r["peak_working_set"] for r in reports)
    peak_tiny = tiny_report["peak_working_set"]
    threads = reports[0].get("threads", 1)
    print("machine: %d cores, %s" % (os.cpu_count(), cpu_model()))
    print("package: %s, %.1f MiB, %d entries, %.1f MiB unpacked; %d rounds, %d cores"
          % (os.path.basename(big), os.path.getsize(big) / mib, reports[0]["entries"], unpacked,
             args.rounds, os.cpu_count()))
    print("%-28s median %.3f s (%s) = %.0f MiB/s; %.3f s inside the call; %d threads"
          % ("UnzipAllItems under Wine:", o, ", ".join("%.3f" % s for s in ours_s), unpacked / o, i,
             threads))
    fastest = None
    for name, _ in peers:
        m = statistics.median(times[name])
        fastest = m if fastest is None else min(fastest, m)
        print("%-28s median %.3f s (%s) = %.0f MiB/s; ours is %.2fx as fast; tree %s"
              % (name + " (native):", m, ", ".join("%.3f" % s for s in times[name]), unpacked / m,
                 m / o, "identical" if same[name] else "DIFFERENT"))
    one = statistics.median(one_s)
    print("%-28s median %.3f s (%s) = %.0f MiB/s; %.3f s inside the call; tree %s"
          % ("... on one thread:", one, ", ".join("%.3f" % s for s in one_s), unpacked / one,
             statistics.median(one_inside_s),
             "identical" if same["ours on one thread"] else "DIFFERENT"))
    if fastest is not None:
        print("against the fastest peer: %.2fx (target: at least 1.5); on one thread %.2fx "
              "(target: at least 1.0)" % (fastest / o, fastest / one))
    print("peak working set: %.1f MiB on the package, %.1f MiB on the tiny archive: +%.1f MiB "
          "(target: at most +16 MiB per thread, %d MiB here)"
          % (peak_big / mib, peak_tiny / mib, (peak_big - peak_tiny) / mib, 16 * threads))
    print("peak pagefile usage: %.1f MiB on the package, %.1f MiB on the tiny archive"
          % (max(r["peak_pagefile"] for r in reports) / mib, tiny_report["peak_pagefile"] / mib))
    if args.entries > 0:
        many = os.path.join(args.work, "entries-%d.zip" % args.entries)
        make_many_entries(many, args.entries)
        listed = list_ours(args.exe, many)
        tiny_listed = list_ours(args.exe, tiny)
        print("listing %d entries: peak working set %.1f MiB, tiny archive %.1f MiB: +%.1f MiB "
              "for the directory" % (listed["entries"], listed["peak_working_set"] / mib,
                                     tiny_listed["peak_working_set"] / mib,
                                     (listed["peak_working_set"] - tiny_listed["peak_working_set"])
                                     / mib))
    if args.huge:
        huge = os.path.join(args.work, "huge.zip")
        make_archive(huge, "huge")
        out_huge = os.path.join(args.work, "out-huge")
        single, every = [], []
        for _ in range(args.rounds):
            single.append(run_ours(args.exe, huge, out_huge, threads=1)[0])
            seconds, report = run_ours(args.exe, huge, out_huge)
            every.append(seconds)
        shutil.rmtree(out_huge, ignore_errors=True)
        print("one huge entry (%s, %.0f MiB unpacked): median %.3f s on one thread, %.3f s on %d"
              % (os.path.basename(huge), report["bytes"] / mib, statistics.median(single),
                 statistics.median(every), report["threads"]))
    all_same = all(same.values())
    print("unpacked trees identical: %s" % ("yes" if all_same else "NO"))
    return 0 if all_same else 1


if __name__ == "__main__":
    sys.exit(main())
