# The installer package under Wine's msiexec: a silent install starts the
# service; a newer package replaces an older one in place; installing the same
# version again changes nothing; removal takes the service and the program
# files and leaves the log. Also the package's own tables, read with msitools.
#
#     test_installer.py --msi dorvane-X-x64.msi --previous-msi dorvane-Y-x64.msi
#                       --version X --previous-version Y --work DIR --base PREFIX
#
import os
import re
import shutil
import struct
import subprocess
import sys
import unittest
import zlib

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))
import winebox  # noqa: E402
from winebox import INSTALL_DIR, RUNNING  # noqa: E402

WATCHED_KEY = "HKLM\\SYSTEM\\CurrentControlSet\\Services\\WWAN\\Dorvane"
SERVICE_KEY = "HKLM\\SYSTEM\\CurrentControlSet\\Services\\WWAN Dorvane"
ENVIRONMENT_KEY = "HKLM\\SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment"
UNINSTALL_KEY = "HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall"
START_DONE = "[Information][CServiceStart::StartWork] StartWork Done."
STOP_DONE = "[Infomation][CServiceStart::StopWork] Stop work success.\r\n\r\n"
WINE_REFUSED_BY_LAUNCH_CONDITION = 67  # 1603 (ERROR_INSTALL_FAILURE) on Windows


def file_version(path):
    # The file version of a program's VERSIONINFO resource, as "a.b.c".
    with open(path, "rb") as f:
        data = f.read()
    at = data.find(struct.pack("<I", 0xFEEF04BD))  # VS_FIXEDFILEINFO's signature
    if at < 0:
        return None
    high, low = struct.unpack_from("<II", data, at + 8)
    return "%d.%d.%d" % (high >> 16, high & 0xFFFF, low >> 16)


class Installer(winebox.BoxCase):
    def msiexec(self, expected, *args):
        # msiexec with a verbose log, which is shown when its exit code is not `expected`.
        log = "C:\\pkg\\msiexec-%d.log" % len(os.listdir(self.box.unix_path("C:\\pkg")))
        code = self.box.run(["msiexec"] + list(args) + ["/qn", "/l*v", log], timeout=300).returncode
        if code != expected:
            data = self.box.read(log) or b""
            text = data.decode("utf-16", "replace") if data[:2] == b"\xff\xfe" else data.decode("latin-1")
            self.fail("msiexec %s gave %d, not %d; its log ends:\n%s" % (args, code, expected, text[-4000:]))

    def reg(self, *args):
        return self.box.run(["reg"] + list(args))

    def machine_path(self):
        # The folders of the machine's PATH, as the registry holds it.
        out = self.reg("query", ENVIRONMENT_KEY, "/v", "PATH").stdout
        value = re.search(r"PATH\s+REG_(?:EXPAND_)?SZ\s+(.*)$", out, re.M | re.I).group(1).strip()
        return [part.rstrip("\\").lower() for part in value.split(";") if part]

    def stops_and_starts(self):
        return tuple(self.box.log_messages().count(line) for line in (STOP_DONE, START_DONE))

    def assertInstalled(self, version):
        # Running, exactly one product, both programs of `version`, and dorvanectl says so.
        self.assertEqual((RUNNING, 0), self.box.wait_state(RUNNING))
        out = self.box.run([INSTALL_DIR + "\\dorvanectl.exe", "--version"])
        self.assertEqual((["WWAN Dorvane"], [version] * 2, (0, "dorvanectl " + version)), (
            re.findall(r"(?m)DisplayName\s+REG_SZ\s+(WWAN Dorvane)\s*$", self.reg("query", UNINSTALL_KEY, "/s").stdout),
            [file_version(self.box.unix_path(INSTALL_DIR + "\\" + p)) for p in ("dorvane.exe", "dorvanectl.exe")],
            (out.returncode, out.stdout.strip())))

    def test_install_upgrade_refused_downgrade_reinstall_and_remove(self):
        msi = self.box.put_file(winebox.ARGS.msi, "C:\\pkg")
        previous_msi = self.box.put_file(winebox.ARGS.previous_msi, "C:\\pkg")
        version, previous = winebox.ARGS.version, winebox.ARGS.previous_version
        path_before = self.machine_path()
        self.msiexec(0, "/i", previous_msi)
        self.assertInstalled(previous)
        before = self.box.read()
        self.assertEqual("banner", winebox.parse_log(before)[0].tag, "the log starts with the start banner")
        # The install folder ends the machine's PATH: dorvanectl runs by its
        # name in a new process.
        self.assertEqual(path_before + [INSTALL_DIR.lower()], self.machine_path())
        out = self.box.run(["cmd", "/c", "dorvanectl", "--version"])
        self.assertEqual((0, "dorvanectl " + previous), (out.returncode, out.stdout.strip()), out.stderr)

        self.msiexec(0, "/i", msi)
        self.assertInstalled(version)
        after = self.box.read()
        self.assertTrue(after.startswith(before), "the old log lines are kept")
        self.assertEqual(2, [r.tag for r in winebox.parse_log(after)].count("banner"), "stopped, then started anew")
        self.assertEqual((1, 2), self.stops_and_starts())
        self.assertEqual(path_before + [INSTALL_DIR.lower()], self.machine_path())
        # Wine's sc has no "qc": the service's configuration from its key: own
        # process, automatic, normal error control. Windows Installer writes the
        # path in quotes; Wine 8 writes it bare.
        config = self.reg("query", SERVICE_KEY).stdout
        for pattern in (r"\bType\s+REG_DWORD\s+0x10\b", r"\bStart\s+REG_DWORD\s+0x2\b",
                        r"\bErrorControl\s+REG_DWORD\s+0x1\b", r"\bObjectName\s+REG_SZ\s+LocalSystem\b",
                        r"(?i)\bImagePath\s+REG_(EXPAND_)?SZ\s+\"?C:\\Program Files\\Dorvane\\dorvane\.exe",
                        r"(?m)\bDisplayName\s+REG_SZ\s+WWAN Dorvane\s*$", r"\bDescription\s+REG_SZ\s+\S.*modem"):
            self.assertRegex(config, pattern)

        # A downgrade is refused and changes nothing. Windows' msiexec exits
        # with 1603 when the package's launch condition refuses; Wine 8's
        # exits with 67 for the same refusal (its log shows the condition).
        self.msiexec(WINE_REFUSED_BY_LAUNCH_CONDITION, "/i", previous_msi)
        self.assertInstalled(version)

        # The same version again: one product, one service, running. Windows
        # Installer opens the installed product for maintenance and changes
        # no feature, so the service is left alone; Wine's msiexec reinstalls
        # the components, which stops the service and starts it again.
        self.msiexec(0, "/i", msi)
        self.assertInstalled(version)
        self.assertEqual((2, 3), self.stops_and_starts(), "under Wine: stopped once more and started again")

        self.msiexec(0, "/x", msi)
        self.assertIsNone(self.box.query(), "the service is deleted")
        self.assertNotIn("WWAN Dorvane", self.reg("query", UNINSTALL_KEY, "/s").stdout)
        self.assertEqual(path_before, self.machine_path(), "the PATH as it was")
        self.assertFalse(os.path.exists(self.box.unix_path(INSTALL_DIR)))
        self.assertEqual(STOP_DONE, self.box.log_messages()[-1], "the log stays, ending with the stop")
        self.assertEqual(0, self.reg("query", WATCHED_KEY).returncode, "the watched key stays with its values")


def output(*args):
    return subprocess.run(args, check=True, stdout=subprocess.PIPE).stdout


class PackageTables(unittest.TestCase):
    # The package as msitools reads it, and the programs in it.

    def test_signed_programs_and_package_and_the_programs_symbols_kept_apart(self):
        msi, work = winebox.ARGS.msi, os.path.join(winebox.ARGS.work, "msi-files")
        self.assertLessEqual(os.path.getsize(msi), 3 * 1024 * 1024)
        shutil.rmtree(work, ignore_errors=True)
        os.makedirs(work)
        output("msiextract", "-C", work, msi)
        found = {name: os.path.join(d, name) for d, _, files in os.walk(work) for name in files}
        programs = {name: found[name] for name in ("dorvane.exe", "dorvanectl.exe")}
        with open(winebox.ARGS.signing_cert) as f:
            used = re.search(r"-----BEGIN CERTIFICATE-----(.*?)-----END", f.read(), re.S).group(1).split()
        def verify(path):
            return subprocess.run(["osslsigncode", "verify", "-CAfile", winebox.ARGS.signing_ca, "-in", path],
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

        for path in [msi] + sorted(programs.values()):
            result = verify(path)
            self.assertEqual(0, result.returncode, path + ":\n" + result.stdout)
            # The signer is the certificate the build was given (or made).
            signature = os.path.join(work, os.path.basename(path) + ".signature")
            output("osslsigncode", "extract-signature", "-in", path, "-out", signature)
            certs = output("openssl", "pkcs7", "-inform", "DER", "-in", signature, "-print_certs")
            self.assertIn("".join(used), "".join(certs.decode().split()), path)
        # A byte changed after signing, in a program's code and in the
        # package's cabinet, fails the verification.
        for path, at in ((programs["dorvane.exe"], 0x1000), (msi, os.path.getsize(msi) // 2)):
            with open(path, "rb") as f:
                data = bytearray(f.read())
            data[at] ^= 0xFF
            changed = os.path.join(work, "changed-" + os.path.basename(path))
            with open(changed, "wb") as f:
                f.write(data)
            self.assertNotEqual(0, verify(changed).returncode, changed)
        for name, path in sorted(programs.items()):
            # No debug sections; a link naming the symbol file, which has them, and its checksum.
            sections = re.findall(rb"(?m)^\s*\d+\s+(\S+)", output("x86_64-w64-mingw32-objdump", "-h", path))
            self.assertEqual(([], True), ([s for s in sections if s.startswith(b".debug")], b".gnu_debuglink" in sections))
            debug = os.path.join(os.path.dirname(msi), "symbols", name + ".debug")
            self.assertIn(b".debug_info", output("x86_64-w64-mingw32-objdump", "-h", debug))
            link = output("x86_64-w64-mingw32-objcopy", "--dump-section", ".gnu_debuglink=/dev/stdout", path,
                          os.path.join(work, "copy"))
            with open(debug, "rb") as f:
                crc = zlib.crc32(f.read())
            self.assertEqual((name + ".debug", crc), (link[:link.index(b"\0")].decode(), struct.unpack("<I", link[-4:])[0]))


if __name__ == "__main__":
    winebox.test_main("msi", "previous-msi", "signing-cert", "signing-ca", "work", "base",
                      plain=("version", "previous-version"))
