#!/usr/bin/env python3
"""A catalogue of small, realistic faults, and which tests catch each.

Each fault is one source change. For each: apply it, build (cmake --build
build), run the CTest tests that could catch it, put the file back exactly
(also on Ctrl-C or an error), and print one table row: the failing tests, or
NOT CAUGHT, or "does not build" (a bad fault). A whole-program test names its
failing cases in brackets. The build in build/ must exist (scripts/build.sh).
A regex that names native tests (native.*) also builds and runs those in
build-native/ (cmake --preset native).

  scripts/faults.py [--only ID[,ID]] [--list]
"""
import argparse
import os
import re
import signal
import subprocess
import sys
import time

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.path.join(REPO, "build")
NATIVE_BUILD = os.path.join(REPO, "build-native")
UNIT_PREFIX = os.path.join(BUILD, "wine", "unit")

SVC, TABLES, DOC, FILES = r"^service\.whole$", r"^dorvanectl\.tables$", r"^dorvanectl\.tables_doc$", r"^dorvanectl\.files$"
ZIP = r"^Zip|^PackageTest\.|^zip_writers$|" + FILES
NATIVE_ZIP = r"^native\.zip_core_test$"
CHANNEL = r"^(SinkTest|AtExchange|ChannelTest|ChannelStress)\.|" + TABLES


def rx(*parts):
    return "|".join(parts)


def first_to_last(loop):
    """A first-match loop and the same loop going on past each match, so the
    last match wins: the (old, new) texts of a fault."""
    return loop, ("  bool found = false;\n" +
                  loop.replace("return true;", "found = true;").replace("  return false;", "  return found;"))


# (id, what it breaks, file, old text (exactly once in the file), new text, ctest -R regex)
FAULTS = [
    ("log-rotate-size", "log rotated only above 50 MiB, not at it", "log/logger.cpp",
     "if (FileSize(path) >= kLogRotateSize) {", "if (FileSize(path) > kLogRotateSize) {", r"^Logger"),
    ("log-error-tag", "error tag one column short", "log/logger.cpp",
     'return "[ERROR] ";', 'return "[ERROR]";', rx(r"^(Logger|LogRecords|LogHappenings|Worker|SimTest)", SVC)),
    ("worker-wait-order", "SIM change waited on before the registry change", "monitor/state_work.h",
     "enum EventIndex { REG_CHANGE = 0, SIM_CHANGE,", "enum EventIndex { SIM_CHANGE = 0, REG_CHANGE,",
     rx(r"^Worker", SVC)),
    ("worker-log-check", "log size checked after 1081 wakes, not 1080", "monitor/state_work.cpp",
     "if (wakes * kWakeSeconds >= kLogCheckSeconds) {", "if (wakes * kWakeSeconds > kLogCheckSeconds) {",
     r"^Worker"),
    ("worker-resume-event", "resume taken from the automatic resume event", "monitor/state_work.cpp",
     "} else if (type == PBT_APMRESUMESUSPEND) {", "} else if (type == PBT_APMRESUMEAUTOMATIC) {", r"^Worker"),
    ("sim-change-source", "a service start stores its source as the MCC-MNC", "monitor/state_work.cpp",
     'if (source != "StartService") {', 'if (source != "StartWork") {', r"^Worker"),
    ("home-provider-level", "home provider line logged as detail", "monitor/sim_info.cpp",
     'out->Write(kLogError, "[CStateWork::GetSimInfo] GetHomeProvider',
     'out->Write(kLogDetail, "[CStateWork::GetSimInfo] GetHomeProvider', rx(r"^SimTest\.", SVC)),
    ("status-check-point", "pending status check-point never advances", "service/service_host.cpp",
     "status_.dwCheckPoint = check_point_++;", "status_.dwCheckPoint = check_point_;",
     rx(r"^ServiceHostTest\.", SVC)),
    ("legacy-delete", "legacy service deleted although its stop failed", "service/housekeeping.cpp",
     'LogText("Service stop Failed.");\n    return 0;\n', 'LogText("Service stop Failed.");\n', SVC),
    ("recovery-command", "recovery failure count reset hourly", "service/housekeeping.cpp",
     'reset= 86400 actions= ', 'reset= 3600 actions= ', SVC),
    ("at-wait", "AT completions waited for 3 s, not 5", "monitor/state_work.h",
     "DWORD mbim_wait_ms = 5000;", "DWORD mbim_wait_ms = 3000;",
     rx(r"^(SinkTest|AtExchange|ChannelTest)\.", TABLES)),
    ("reset-events", "ResetEvents clears the set and close events too", "mbim/services_events.cpp",
     "open_event_.get());\n  ::ResetEvent(open_event_.get());\n  ::ResetEvent(open_event_.get());",
     "open_event_.get());\n  ::ResetEvent(set_event_.get());\n  ::ResetEvent(close_event_.get());", CHANNEL),
    ("pending-last-match", "completion fills the last entry with its id", "mbim/services_events.cpp",
     "      entry = &candidate;\n      break;\n", "      entry = &candidate;\n", CHANNEL),
    ("carrier-last-match", "MCC-MNC/MCC item lookup: last match wins", "config/carrier_rules.cpp",
     *first_to_last(
     "  for (XMLElement* item = table::FirstEntry(table, \"Item\"); item; item = table::NextEntry(item)) {\n"
     "    const char* text = item->GetText();  // read for every visited item, as deployed\n"
     "    if (table::KeyIs(item, key_name, key)) {\n"
     "      carrier_id = text == nullptr ? std::string() : std::string(text);\n      return true;\n    }\n  }\n"
     "  return false;"),
     rx(r"^(RulesTest|MalformedTest|LintDifferential)\.", TABLES, DOC)),
    ("iccid-max-bound", "ICCID range excludes its max", "config/carrier_rules.cpp",
     "value <= Tail(max, p);", "value < Tail(max, p);",
     rx(r"^(RulesTest|LintDifferential)\.", TABLES, DOC)),
    ("esim-sku-case", "SKU black list compared with case", "config/esim_region.cpp",
     'table::EqualsIgnoringCase(table::Attr(e, "SKUValue"), sku)', 'table::Attr(e, "SKUValue") == sku',
     rx(r"^(RulesTableTest|LintDifferential)\.", TABLES, DOC)),
    ("device-config-last-match", "later ProductID row in another case wins", "config/device_config.cpp",
     *first_to_last(
     "  for (XMLElement* row = table::FirstEntry(mapping, \"UniqueSkuID\"); row; row = table::NextEntry(row)) {\n"
     "    if (row->Attribute(\"ProductID\") != nullptr &&\n"
     "        table::EqualsIgnoringCase(table::Attr(row, \"ProductID\"), product)) {\n"
     "      config_id = table::Attr(row, \"WwanDeviceConfigID\");\n      return true;\n    }\n  }\n  return false;"),
     rx(r"^(DeviceConfigTest|LintDifferential)\.", TABLES, DOC)),
    ("cfg-package-count", "package Count read from the Standard", "config/device_config.cpp",
     'LeadingDecimal(table::Attr(firmware, "Count"))', 'LeadingDecimal(table::Attr(standard, "Count"))',
     rx(r"^(CfgPackageTest|LintDifferential)\.", TABLES, DOC)),
    ("scatter-flag", "scatter writes the opposite flag", "config/scatter.cpp",
     '? "true" : "false");', '? "false" : "true");', rx(r"^(ScatterTest|LintDifferential)\.", TABLES, DOC)),
    ("registry-32-bit-view", "registry read without the 32-bit view", "util/registry.cpp",
     "OpenKey(key_path, kRegReadAccess);", "OpenKey(key_path, KEY_READ);",
     rx(r"^(RegistryTest|DeviceConfigTest)\.", TABLES, DOC)),
    ("zip-crc-unchecked", "entry CRC not checked", "util/zip_extract.cpp",
     "out.written() == entry.size && out.crc() == entry.crc ?", "out.written() == entry.size ?", ZIP),
    ("zip-crc-fold", "CRC fold drops its last lane", "util/zip_crc.cpp",
     "x0 = Fold(x0, by128, x3);", "x0 = Fold(x0, by128, x2);", ZIP),
    ("zip-dotdot", "a \"..\" entry segment accepted", "util/zip_names.cpp",
     'if (segment == ".") return true;', 'if (segment == "." || segment == "..") return true;', ZIP),
    ("zip-device-name", "device name with extension (nul.txt) accepted", "util/zip_names.cpp",
     "std::string base = segment.substr(0, segment.find('.'));", "std::string base = segment;", ZIP),
    ("zip-dos-host", "VFAT-made names not read as OEM", "util/zip_directory.cpp",
     "host == 11 || host == 14;", "host == 11;", rx(ZIP, NATIVE_ZIP)),
    ("unzip-folder-link", "unpacking follows a link among its folders", "util/placed_file.cpp",
     "    if (IsLinkAttributes(attributes)) return Placing::kLink;\n", "",
     rx(ZIP, r"^FileOpsTest\.")),
    ("delete-dir-link", "delete-dir follows folder links", "util/file_ops.cpp",
     "if (IsLinkAttributes(found.dwFileAttributes)) {\n      if (preview",
     "if (IsLinkAttributes(found.dwFileAttributes) && !(found.dwFileAttributes & "
     "FILE_ATTRIBUTE_DIRECTORY)) {\n      if (preview", rx(r"^(FileOpsTest|PackageTest|UsbDriverTest)\.", FILES)),
    ("copy-empty-result", "CopyFileInDir gives 1 for an empty argument", "util/file_ops.cpp",
     "return kCopyEmptyArgument;", "return kCopyWalked;",
     rx(r"^(FileOpsTest|PackageTest|UsbDriverTest)\.", FILES)),
    ("process-not-started", "process runner gives -1, not -999", "util/process.cpp",
     "return kProcessNotStarted;", "return -1;",
     rx(r"^(FileOpsTest|PackageTest|UsbDriverTest)\.", FILES)),
    ("ctl-file-exists-exit", "file-exists exits 0 for a missing file", "tools/dorvanectl/file_commands.cpp",
     '.Finish(result, path + " does not exist: "', '.Finish(true, path + " does not exist: "', FILES),
    ("ctl-guard-link", "path guard ignores where a link leads", "tools/dorvanectl/path_guard.cpp",
     "{&spellings.path, spellings.linked ? &*spellings.linked : nullptr};", "{&spellings.path, nullptr};",
     FILES),
    ("ctl-log-reopen", "dorvanectl log counts the reopen's banner as a start",
     "tools/dorvanectl/log_happenings.cpp", "reopen_pending_ || h.kind == Kind::kLogReopen;",
     "reopen_pending_;",
     rx(r"^(LogHappenings|LogRecords)\.", SVC, DOC)),
    ("lint-case-warning", "lint no longer warns of keys differing only in case",
     "tools/dorvanectl/lint_checks.cpp", "if (!rule.ignore_case) {\n    auto like",
     "if (rule.ignore_case) {\n    auto like", rx(r"^Lint", TABLES, DOC)),
    ("simctl-hresult", "mbnsimctl refuses -2147483648", "tools/mbnsim/ctl_input.cpp",
     "negative ? 0x80000000u : 0xFFFFFFFFu", "negative ? 0x7FFFFFFFu : 0xFFFFFFFFu",
     r"^SimulatorControlInput\.|^mbnsimctl\.whole$"),
    ("msi-service-start", "installer registers the service as demand-start", "installer/dorvane.wxs",
     'Start="auto"', 'Start="demand"', r"^installer\.msi$"),
]


def quiet(args, **kw):
    return subprocess.run(args, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL, **kw)


def check(fault):
    """The file's bytes; exits when the old text is not there exactly once."""
    fid, _, path, old, _, _ = fault
    with open(os.path.join(REPO, path), "rb") as f:
        data = f.read()
    count = data.count(old.encode())
    if count != 1:
        raise SystemExit("%s: the old text occurs %d times in %s (it must occur once)" % (fid, count, path))
    return data


def builds(regex):
    """The build folders whose tests `regex` may name."""
    return [BUILD] + ([NATIVE_BUILD] if "native" in regex else [])


def build(log, regex=""):
    with open(log, "w") as out:
        return all(subprocess.run(["cmake", "--build", folder], stdin=subprocess.DEVNULL, stdout=out,
                                  stderr=subprocess.STDOUT).returncode == 0 for folder in builds(regex))


def failed_tests(log):
    """The tests that failed by ctest's summary; a unittest script's failing
    cases in brackets."""
    lines = open(log, errors="replace").read().splitlines()
    failed, cases, current, summary = [], {}, None, False
    for line in lines:
        m = re.match(r"\s*\d+/\d+ Test\s+#\d+: (\S+) ", line)
        if m:
            current = None if " Passed " in line else m.group(1)
        m = re.match(r"(?:FAIL|ERROR): (test\w+)", line)
        if m and current:
            cases.setdefault(current, set()).add(m.group(1))
        summary = summary or line.startswith("The following tests FAILED")
        m = re.match(r"\s*\d+ - (\S+) \((.*)\)", line)
        if summary and m:
            name = m.group(1) + ("[%s]" % ",".join(sorted(cases[m.group(1)])) if m.group(1) in cases else "")
            failed.append(name + ("" if m.group(2) == "Failed" else " (%s)" % m.group(2)))
    return failed, sum(1 for line in lines if re.match(r"\s*\d+/\d+ Test\s+#\d+: ", line))


def run_fault(fault, logs):
    fid, _, path, old, new, regex = fault
    original = check(fault)
    full = os.path.join(REPO, path)
    start = time.monotonic()
    try:
        with open(full, "wb") as f:
            f.write(original.replace(old.encode(), new.encode()))
        if not build(os.path.join(logs, fid + ".build.log"), regex):
            return "does not build", time.monotonic() - start
        built = time.monotonic()
        failed, ran = [], 0
        for folder in builds(regex):
            log = os.path.join(logs, "%s.%s.ctest.log" % (fid, os.path.basename(folder)))
            with open(log, "w") as out:
                subprocess.run(["ctest", "--test-dir", folder, "-R", regex, "--output-on-failure"],
                               stdin=subprocess.DEVNULL, stdout=out, stderr=subprocess.STDOUT)
            failing, count = failed_tests(log)
            failed, ran = failed + failing, ran + count
        result = ", ".join(failed) if failed else "NOT CAUGHT" if ran else "NO TESTS MATCH"
        return "%s (build %ds)" % (result, built - start), time.monotonic() - start
    finally:
        with open(full, "wb") as f:
            f.write(original)


def interrupted(*_):
    raise KeyboardInterrupt


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--only", help="comma-separated fault ids")
    parser.add_argument("--list", action="store_true", help="list the faults (and check each)")
    args = parser.parse_args()
    faults = FAULTS
    if args.only:
        wanted = args.only.split(",")
        unknown = set(wanted) - {f[0] for f in FAULTS}
        if unknown:
            raise SystemExit("unknown fault ids: " + ", ".join(sorted(unknown)))
        faults = [f for f in FAULTS if f[0] in wanted]
    if len({f[0] for f in FAULTS}) != len(FAULTS):
        raise SystemExit("fault ids repeat")
    for fault in faults:
        check(fault)
    if args.list:
        for fid, what, path, _, _, regex in faults:
            print("%-26s %-52s %s\n%26s %s" % (fid, what, path, "", regex))
        return
    if not os.path.exists(os.path.join(BUILD, "build.ninja")):
        raise SystemExit("no build in %s: run scripts/build.sh first" % BUILD)
    native = any("native" in f[5] for f in faults)
    if native and not os.path.exists(os.path.join(NATIVE_BUILD, "build.ninja")):
        raise SystemExit("no build in %s: run cmake --preset native first" % NATIVE_BUILD)
    signal.signal(signal.SIGTERM, interrupted)  # reverts like Ctrl-C does
    logs = os.path.join(BUILD, "faults")
    os.makedirs(logs, exist_ok=True)
    if not build(os.path.join(logs, "clean.build.log"), "native" if native else ""):
        raise SystemExit("the unchanged sources do not build: see %s/clean.build.log" % logs)
    # The unit tests' prefix with a persistent wineserver, as scripts/test.sh prepares it.
    for prefix in (UNIT_PREFIX, os.path.join(BUILD, "wine", "base")):
        quiet([os.path.join(REPO, "scripts", "wine-prefix"), prefix], check=True)
    os.environ.update(WINEPREFIX=UNIT_PREFIX, WINEDEBUG="-all")
    quiet(["wineserver", "-p"])
    quiet([os.path.join(REPO, "scripts", "wine-run"), "cmd", "/c", "exit"])
    rows, total = [], time.monotonic()
    try:
        for fault in faults:
            result, seconds = run_fault(fault, logs)
            rows.append((fault[0], fault[1], seconds, result))
            print("%-26s %-52s %5.0f  %s" % rows[-1], flush=True)
    finally:
        quiet(["wineserver", "-k"])
        build(os.path.join(logs, "clean.build.log"), "native" if native else "")  # the unchanged binaries again
    print("\n%-26s %-52s %5s  %s" % ("fault", "what it breaks", "s", "failing tests"))
    for row in rows:
        print("%-26s %-52s %5.0f  %s" % row)
    missed = [r[0] for r in rows if r[3].startswith("NOT CAUGHT")]
    print("\n%d faults, %d not caught%s; %.0f s in all" % (
        len(rows), len(missed), (": " + ", ".join(missed)) if missed else "", time.monotonic() - total))


if __name__ == "__main__":
    sys.exit(main())
