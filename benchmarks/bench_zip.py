"""The extraction benchmark: one firmware-like package unpacked by Info-ZIP's
unzip (native) and by our UnzipAllItems under Wine, in the same run, on the
same archive and file system, alternating, several rounds; then the peak
memory of our process on that package and on a tiny one, and of listing an
archive of many empty entries (what the directory costs).

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
    start = time.perf_counter()
    result = subprocess.run(args, check=True, stdout=subprocess.PIPE, stdin=subprocess.DEVNULL)
    return time.perf_counter() - start, result.stdout


def run_unzip(archive, out):
    shutil.rmtree(out, ignore_errors=True)
    seconds, _ = timed(["unzip", "-q", "-o", archive, "-d", out])
    return seconds


def run_ours(exe, archive, out):
    shutil.rmtree(out, ignore_errors=True)
    wine = os.path.join(REPO, "scripts", "wine-run")
    seconds, stdout = timed([wine, exe, windows_path(archive), windows_path(out) + "\\"])
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
    parser.add_argument("--entries", type=int, default=300000,
                        help="entries of the archive whose listing is measured (0: none)")
    args = parser.parse_args()
    os.makedirs(args.work, exist_ok=True)
    big = os.path.join(args.work, "firmware-%s.zip" % args.size_mib)
    tiny = os.path.join(args.work, "tiny.zip")
    make_archive(big, args.size_mib)
    make_archive(tiny, "tiny")
    out_unzip = os.path.join(args.work, "out-unzip")
    out_ours = os.path.join(args.work, "out-ours")

    unzip_s, ours_s, inside_s, reports = [], [], [], []
    for _ in range(args.rounds):
        unzip_s.append(run_unzip(big, out_unzip))
        seconds, report = run_ours(args.exe, big, out_ours)
        ours_s.append(seconds)
        inside_s.append(report["seconds"])
        reports.append(report)
    same = subprocess.run(["diff", "-rq", out_unzip, out_ours], stdout=subprocess.PIPE).returncode == 0
    _, tiny_report = run_ours(args.exe, tiny, os.path.join(args.work, "out-tiny"))
    for folder in (out_unzip, out_ours, os.path.join(args.work, "out-tiny")):
        shutil.rmtree(folder, ignore_errors=True)

    mib = 1024.0 * 1024.0
    unpacked = reports[0]["bytes"] / mib
    u, o, i = statistics.median(unzip_s), statistics.median(ours_s), statistics.median(inside_s)
    peak_big = max(r["peak_working_set"] for r in reports)
    peak_tiny = tiny_report["peak_working_set"]
    print("package: %s, %.1f MiB, %d entries, %.1f MiB unpacked"
          % (os.path.basename(big), os.path.getsize(big) / mib, reports[0]["entries"], unpacked))
    print("Info-ZIP unzip (native):  median %.3f s over %d rounds (%s) = %.0f MiB/s"
          % (u, args.rounds, ", ".join("%.3f" % s for s in unzip_s), unpacked / u))
    print("UnzipAllItems under Wine: median %.3f s per process (%s) = %.0f MiB/s; "
          "%.3f s inside the call" % (o, ", ".join("%.3f" % s for s in ours_s), unpacked / o, i))
    print("throughput ratio (unzip time / our process time): %.2f (target: at least 1.2)" % (u / o))
    print("peak working set: %.1f MiB on the package, %.1f MiB on the tiny archive: +%.1f MiB "
          "(target: at most +16 MiB)" % (peak_big / mib, peak_tiny / mib, (peak_big - peak_tiny) / mib))
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
    print("unpacked trees identical: %s" % ("yes" if same else "NO"))
    return 0 if same else 1


if __name__ == "__main__":
    sys.exit(main())
