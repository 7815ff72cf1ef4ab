"""The installer package under Wine's msiexec: a silent install starts the
service; a newer package replaces an older one in place; installing the same
version again changes nothing; removal takes the service and the program
files and leaves the log. Also the package's own tables, read with msitools.

    test_installer.py --msi dorvane-X-x64.msi --previous-msi dorvane-Y-x64.msi
                      --version X --previous-version Y --work DIR --base PREFIX
"""
import argparse
import os
import re
import struct
import subprocess
import sys
import unittest
import zlib

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))
import winebox  # noqa: E402
from winebox import RUNNING, SERVICE_NAME, WineBox  # noqa: E402

ARGS = None
INSTALL_DIR = "C:\\Program Files\\Dorvane"
WATCHED_KEY = "HKLM\\SYSTEM\\CurrentControlSet\\Services\\WWAN\\Dorvane"
SERVICE_KEY = "HKLM\\SYSTEM\\CurrentControlSet\\Services\\WWAN Dorvane"
ENVIRONMENT_KEY = "HKLM\\SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment"
UNINSTALL_KEY = "HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall"
START_DONE = "[Information][CServiceStart::StartWork] StartWork Done."
STOP_DONE = "[Infomation][CServiceStart::StopWork] Stop work success.\r\n\r\n"
WINE_REFUSED_BY_LAUNCH_CONDITION = 67  # 1603 (ERROR_INSTALL_FAILURE) on Windows


def file_version(path):
    """The file version of a program's VERSIONINFO resource, as "a.b.c"."""
    with open(path, "rb") as f:
        data = f.read()
    at = data.find(struct.pack("<I", 0xFEEF04BD))  # VS_FIXEDFILEINFO's signature
    if at < 0:
        return None
    high, low = struct.unpack_from("<II", data, at + 8)
    return "%d.%d.%d" % (high >> 16, high & 0xFFFF, low >> 16)


class Installer(unittest.TestCase):
    def setUp(self):
        name = self.id().rsplit(".", 1)[-1]
        self.box = WineBox(os.path.join(ARGS.work, name), base=ARGS.base)
        self.addCleanup(self.box.close, True)
        self.msi = self.box.put_file(ARGS.msi, "C:\\pkg")
        self.previous_msi = self.box.put_file(ARGS.previous_msi, "C:\\pkg")

    def msiexec(self, *args):
        """msiexec with a verbose log; its exit code (the log shown on surprise)."""
        log = "C:\\pkg\\msiexec-%d.log" % len(os.listdir(self.box.unix_path("C:\\pkg")))
        result = self.box.run(["msiexec"] + list(args) + ["/qn", "/l*v", log], timeout=300)
        self.last_log = self.box.unix_path(log)
        return result.returncode

    def assertMsiexec(self, expected, *args):
        code = self.msiexec(*args)
        if code != expected:
            with open(self.last_log, "rb") as f:
                data = f.read()
            text = data.decode("utf-16", "replace") if data[:2] == b"\xff\xfe" else data.decode("latin-1")
            tail = text[-4000:]
            self.fail("msiexec %s gave %d, not %d; its log ends:\n%s" % (args, code, expected, tail))

    def reg(self, *args):
        return self.box.run(["reg"] + list(args))

    def products(self):
        """The display names of the installed products called WWAN Dorvane."""
        out = self.reg("query", UNINSTALL_KEY, "/s").stdout
        return re.findall(r"DisplayName\s+REG_SZ\s+(WWAN Dorvane)\s*$", out, re.M)

    def machine_path(self):
        """The folders of the machine's PATH, as the registry holds it."""
        out = self.reg("query", ENVIRONMENT_KEY, "/v", "PATH").stdout
        value = re.search(r"PATH\s+REG_(?:EXPAND_)?SZ\s+(.*)$", out, re.M | re.I).group(1).strip()
        return [part.rstrip("\\").lower() for part in value.split(";") if part]

    def log_messages(self):
        return winebox.messages(winebox.parse_log(self.box.read_log() or b""))

    def assertInstalled(self, version):
        self.assertEqual((RUNNING, 0), self.box.wait_state(RUNNING))
        self.assertEqual(["WWAN Dorvane"], self.products(), "exactly one product")
        for program in ("dorvane.exe", "dorvanectl.exe"):
            self.assertEqual(version, file_version(self.box.unix_path(INSTALL_DIR + "\\" + program)),
                             program)
        out = self.box.run([INSTALL_DIR + "\\dorvanectl.exe", "--version"])
        self.assertEqual((0, "dorvanectl " + version), (out.returncode, out.stdout.strip()))

    def test_install_again_and_remove(self):
        path_before = self.machine_path()
        self.assertMsiexec(0, "/i", self.msi)
        self.assertInstalled(ARGS.version)
        # The install folder ends the machine's PATH: dorvanectl runs by its
        # name in a new process.
        self.assertEqual(path_before + [INSTALL_DIR.lower()], self.machine_path())
        out = self.box.run(["cmd", "/c", "dorvanectl", "--version"])
        self.assertEqual(0, out.returncode, out.stderr)
        self.assertIn(ARGS.version, out.stdout)
        records = winebox.parse_log(self.box.read_log())
        self.assertEqual("banner", records[0].tag, "the log starts with the start banner")
        # Wine's sc has no "qc": the service's configuration from its key.
        config = self.reg("query", SERVICE_KEY).stdout
        self.assertRegex(config, r"\bType\s+REG_DWORD\s+0x10\b")          # own process
        self.assertRegex(config, r"\bStart\s+REG_DWORD\s+0x2\b")          # automatic
        self.assertRegex(config, r"\bObjectName\s+REG_SZ\s+LocalSystem\b")
        # Windows Installer writes the path in quotes; Wine 8 writes it bare.
        self.assertRegex(config, r"(?i)\bImagePath\s+REG_(EXPAND_)?SZ\s+\"?C:\\Program Files\\Dorvane\\dorvane\.exe")
        self.assertRegex(config, r"(?m)\bDisplayName\s+REG_SZ\s+WWAN Dorvane\s*$")
        self.assertRegex(config, r"\bDescription\s+REG_SZ\s+\S.*modem")
        self.assertEqual(0, self.reg("query", WATCHED_KEY).returncode, "the watched key")

        # The same version again: one product, one service, running. Windows
        # Installer opens the installed product for maintenance and changes
        # no feature, so the service is left alone; Wine's msiexec reinstalls
        # the components, which stops the service and starts it again.
        self.assertMsiexec(0, "/i", self.msi)
        self.assertInstalled(ARGS.version)
        messages = self.log_messages()
        self.assertEqual((1, 2), (messages.count(STOP_DONE), messages.count(START_DONE)),
                         "under Wine: stopped once and started again")

        self.assertMsiexec(0, "/x", self.msi)
        self.assertIsNone(self.box.query(), "the service is deleted")
        self.assertEqual([], self.products())
        self.assertEqual(path_before, self.machine_path(), "the PATH as it was")
        self.assertFalse(os.path.exists(self.box.unix_path(INSTALL_DIR)))
        messages = self.log_messages()
        self.assertIn(START_DONE, messages)
        self.assertEqual(STOP_DONE, messages[-1], "the log stays, ending with the stop")
        self.assertEqual(0, self.reg("query", WATCHED_KEY).returncode,
                         "the watched key stays with whatever values it holds")

    def test_upgrade_from_an_older_version(self):
        self.assertMsiexec(0, "/i", self.previous_msi)
        self.assertInstalled(ARGS.previous_version)
        before = self.box.read_log()

        self.assertMsiexec(0, "/i", self.msi)
        self.assertInstalled(ARGS.version)
        after = self.box.read_log()
        self.assertTrue(after.startswith(before), "the old log lines are kept")
        records = winebox.parse_log(after)
        self.assertEqual(2, [r.tag for r in records].count("banner"), "stopped, then started anew")
        self.assertIn(STOP_DONE, winebox.messages(records))

        # A downgrade is refused and changes nothing. Windows' msiexec exits
        # with 1603 when the package's launch condition refuses; Wine 8's
        # exits with 67 for the same refusal (its log shows the condition).
        self.assertMsiexec(WINE_REFUSED_BY_LAUNCH_CONDITION, "/i", self.previous_msi)
        self.assertInstalled(ARGS.version)

        self.assertMsiexec(0, "/x", self.msi)
        self.assertIsNone(self.box.query())
        self.assertFalse(os.path.exists(self.box.unix_path(INSTALL_DIR)))


def section_names(path):
    """The names of a PE file's sections; long ones ("/4") from its string table."""
    with open(path, "rb") as f:
        data = f.read()
    pe = struct.unpack_from("<I", data, 0x3C)[0]
    count, = struct.unpack_from("<H", data, pe + 6)
    symbols, symbol_count = struct.unpack_from("<II", data, pe + 12)
    optional, = struct.unpack_from("<H", data, pe + 20)
    strings = symbols + 18 * symbol_count
    names = []
    for i in range(count):
        raw = data[pe + 24 + optional + 40 * i:][:8].rstrip(b"\0").decode("ascii")
        if raw.startswith("/"):
            start = strings + int(raw[1:])
            raw = data[start:data.index(b"\0", start)].decode("ascii")
        names.append(raw)
    return names


class PackageTables(unittest.TestCase):
    """The package as msitools reads it."""

    def extracted(self):
        """The programs as the package holds them, by name."""
        work = os.path.join(ARGS.work, "msi-files")
        subprocess.run(["rm", "-rf", work], check=True)
        os.makedirs(work)
        subprocess.run(["msiextract", "-C", work, ARGS.msi], check=True, stdout=subprocess.DEVNULL)
        found = {name: os.path.join(d, name) for d, _, files in os.walk(work) for name in files}
        return work, {name: found[name] for name in ("dorvane.exe", "dorvanectl.exe")}

    def verify(self, path):
        return subprocess.run(["osslsigncode", "verify", "-CAfile", ARGS.signing_ca, "-in", path],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    def test_programs_and_package_carry_the_build_signature(self):
        work, programs = self.extracted()
        with open(ARGS.signing_cert) as f:
            used = re.search(r"-----BEGIN CERTIFICATE-----(.*?)-----END", f.read(), re.S).group(1).split()
        for path in [ARGS.msi] + sorted(programs.values()):
            result = self.verify(path)
            self.assertEqual(0, result.returncode, path + ":\n" + result.stdout)
            # The signer is the certificate the build was given (or made).
            signature = os.path.join(work, os.path.basename(path) + ".signature")
            subprocess.run(["osslsigncode", "extract-signature", "-in", path, "-out", signature],
                           check=True, stdout=subprocess.DEVNULL)
            certs = subprocess.run(["openssl", "pkcs7", "-inform", "DER", "-in", signature, "-print_certs"],
                                   check=True, stdout=subprocess.PIPE, text=True).stdout
            self.assertIn("".join(used), "".join(certs.split()), path)
        # A byte changed after signing, in a program's code and in the
        # package's cabinet, fails the verification.
        for path, at in ((programs["dorvane.exe"], 0x1000), (ARGS.msi, os.path.getsize(ARGS.msi) // 2)):
            with open(path, "rb") as f:
                data = bytearray(f.read())
            data[at] ^= 0xFF
            changed = os.path.join(work, "changed-" + os.path.basename(path))
            with open(changed, "wb") as f:
                f.write(data)
            self.assertNotEqual(0, self.verify(changed).returncode, changed)

    def test_small_programs_whose_symbols_are_kept_apart(self):
        self.assertLessEqual(os.path.getsize(ARGS.msi), 3 * 1024 * 1024)
        work, programs = self.extracted()
        symbols = os.path.join(os.path.dirname(ARGS.msi), "symbols")
        for name, path in sorted(programs.items()):
            sections = section_names(path)
            self.assertEqual([], [s for s in sections if s.startswith(".debug")], name)
            self.assertIn(".gnu_debuglink", sections, name)
            debug = os.path.join(symbols, name + ".debug")
            self.assertIn(".debug_info", section_names(debug), debug)
            # The link names the symbol file, and its checksum matches.
            out = subprocess.run(["x86_64-w64-mingw32-objcopy", "--dump-section", ".gnu_debuglink=/dev/stdout",
                                  path, os.path.join(work, "copy")], check=True,
                                 stdout=subprocess.PIPE).stdout
            linked = out[:out.index(b"\0")].decode("ascii")
            self.assertEqual(name + ".debug", linked)
            with open(debug, "rb") as f:
                crc = zlib.crc32(f.read()) & 0xFFFFFFFF
            self.assertEqual(crc, struct.unpack_from("<I", out, len(out) - 4)[0], name)

    def table(self, name):
        out = subprocess.run(["msiinfo", "export", ARGS.msi, name], check=True,
                             stdout=subprocess.PIPE, text=True).stdout
        lines = out.splitlines()
        header = lines[0].split("\t")
        return [dict(zip(header, line.split("\t"))) for line in lines[3:]]

    def test_service_tables_files_and_version(self):
        [service] = self.table("ServiceInstall")
        self.assertEqual(("WWAN Dorvane", "WWAN Dorvane", "16", "2", "1", "LocalSystem"),
                         (service["Name"], service["DisplayName"], service["ServiceType"],
                          service["StartType"], service["ErrorControl"], service["StartName"]))
        self.assertIn("modem", service["Description"])
        [control] = self.table("ServiceControl")
        # Start at install (0x1), stop at install and removal (0x2, 0x20),
        # delete at removal (0x80); waiting for each.
        self.assertEqual(("WWAN Dorvane", "163", "1"),
                         (control["Name"], control["Event"], control["Wait"]))
        [path] = self.table("Environment")
        self.assertEqual(("=-*PATH", "[~];[INSTALLDIR]", "Ctl"), (path["Name"], path["Value"], path["Component_"]))
        actions = {row["Action"] for row in self.table("InstallExecuteSequence")}
        self.assertLessEqual({"WriteEnvironmentStrings", "RemoveEnvironmentStrings"}, actions)
        [key] = self.table("Registry")
        self.assertEqual(("2", "SYSTEM\\CurrentControlSet\\Services\\WWAN\\Dorvane", "+"),
                         (key["Root"], key["Key"], key["Name"]))
        files = sorted(row["FileName"] for row in self.table("File"))
        self.assertEqual(["dorvane.exe", "dorvanectl.exe"], files)
        directories = {row["Directory"]: row for row in self.table("Directory")}
        self.assertEqual(("ProgramFiles64Folder", "Dorvane"),
                         (directories["INSTALLDIR"]["Directory_Parent"],
                          directories["INSTALLDIR"]["DefaultDir"]))
        properties = {row["Property"]: row["Value"] for row in self.table("Property")}
        self.assertEqual((ARGS.version, "WWAN Dorvane"),
                         (properties["ProductVersion"], properties["ProductName"]))
        summary = subprocess.run(["msiinfo", "suminfo", ARGS.msi], check=True,
                                 stdout=subprocess.PIPE, text=True).stdout
        self.assertRegex(summary, r"Template: x64;1033")


def main():
    global ARGS
    versions = argparse.ArgumentParser()
    versions.add_argument("--version", required=True)
    versions.add_argument("--previous-version", required=True)
    known, rest = versions.parse_known_args()
    sys.argv = [sys.argv[0]] + rest
    ARGS, run = winebox.test_main("msi", "previous-msi", "signing-cert", "signing-ca", "work", "base")
    ARGS.version, ARGS.previous_version = known.version, known.previous_version
    run()


if __name__ == "__main__":
    main()
