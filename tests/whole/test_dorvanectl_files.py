# dorvanectl's file, package and process commands under Wine: --json results,
# exit statuses, what standard error says, and the effects on disk; and the
# rails: delete-dir, copy-dir, unzip-package, unzip-all-items and
# install-usb-driver refuse protected folders unless given --force.
#
# Every root that a rails case names is drive X:, which the prefix maps to a
# scratch folder of the test's own, and those programs start in it: a broken rail
# reaches nothing but scratch files. The Windows, profile and Program Files
# cases name the prefix's own folders, whose sentinel files must survive.
#
#     test_dorvanectl_files.py --dorvanectl dorvanectl.exe --work DIR --base PREFIX
#
import io
import json
import os
import re
import shutil
import sys
import zipfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))
import winebox  # noqa: E402

DRIVER = "C:\\Windows\\WWAN\\FwSwitchBin\\FirmwareData\\USBDriver\\"
LOG = "C:\\ctl\\files.log"
PROFILE_LIST = "HKLM\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList"
KEPT = ("%s is a link that the system cannot remove by itself here (a Unix link under Wine): it stays, and so "
        "do the folders that hold it")


def zip_bytes(entries):
    data = io.BytesIO()
    with zipfile.ZipFile(data, "w", zipfile.ZIP_DEFLATED) as z:
        for name, content in entries:
            z.writestr(zipfile.ZipInfo(name), content)
    return data.getvalue()


j = winebox.json_row  # a --json row


def refusal(command, action, path, argument, given, why="it is a drive root"):
    return '%s: refused to %s %s (%s "%s"): %s. Give --force to do it anyway.' % (
        command, action, path, argument, given, why)


class Files(winebox.BoxCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.scratch = os.path.join(winebox.ARGS.work, "files-scratch")
        os.symlink(cls.scratch, os.path.join(cls.box.prefix, "dosdevices", "x:"))
        # A profile of another user, in the scratch drive, as the profile list
        # names every profile that a user has logged on with.
        cls.box.reg_add(PROFILE_LIST + "\\S-1-5-21-1-2-3-1001", "ProfileImagePath", "X:\\home\\bob")
        cls.profile = cls.box.run(["cmd", "/c", "echo %USERPROFILE%"]).stdout.strip()
        cls.program_files_short = re.search(r"<DIR>\s+(\S+)\s+Program Files\s*$", cls.box.run(
            ["cmd", "/c", "dir", "/x", "C:\\"]).stdout, re.M).group(1)
        cls.sentinels = [folder + "\\rails-sentinel.txt" for folder in (
            "C:\\windows", "C:\\windows\\system32", "C:\\users", cls.profile, "C:\\users\\Public",
            "C:\\ProgramData", "C:\\Program Files", "C:\\Program Files (x86)")]

    @classmethod
    def tearDownClass(cls):
        super().tearDownClass()
        shutil.rmtree(cls.scratch, ignore_errors=True)

    def setUp(self):
        shutil.rmtree(self.scratch, ignore_errors=True)
        for name, data in (("a-first.txt", "first"), ("keep\\inner\\s.txt", "s"), ("home\\bob\\ntuser.txt", "bob"),
                           ("src\\f.txt", "f"), ("pkg\\a.zip", zip_bytes([("a.txt", b"a")]))):
            self.box.write("X:\\" + name, data)
        for sentinel in self.sentinels:
            self.box.write(sentinel, "sentinel")

    def rows(self, rows):
        # The rows in turn, run in X:\ with the log in LOG.
        self.assertRuns(rows, [self.ctl_exe, "--log", LOG], cwd=self.scratch)

    def x(self, windows_path, data=None):
        # The Unix path of an X: path; with `data`, what the file must hold.
        path = os.path.join(self.scratch, *windows_path[3:].split("\\"))
        if data is not None:
            with open(path, "rb") as f:
                self.assertEqual(data, f.read(), windows_path)
        return path

    def snapshot(self):
        # Every file, folder and link of the scratch drive, the sentinels, and the log.
        tree = {}
        for top, dirs, files in os.walk(self.scratch):
            for path in (os.path.join(top, name) for name in dirs + files):
                tree[path] = ("-> " + os.readlink(path) if os.path.islink(path) else
                              open(path, "rb").read() if os.path.isfile(path) else "folder")
        tree.update((s, os.path.exists(self.box.unix_path(s))) for s in self.sentinels)
        return tree, self.box.log_messages(LOG)

    def assertRefused(self, refusals):
        # Each (arguments, line) is refused with exactly `line`, in text and in
        # JSON, touches nothing and writes no log line (the library was not called).
        before = self.snapshot()
        self.rows([r for args, line in refusals for r in ((args, 2, "", line),
                                                          j(args, 2, {"result": None, "error": line}))])
        self.assertEqual(before, self.snapshot())

    def test_prefix_user_folders_stay_inside_the_prefix(self):
        # Wine links Desktop, Documents, ... to the home directory; the test
        # prefixes make them plain folders, so no test can reach outside.
        walked = list(os.walk(self.box.unix_path("C:\\users")))
        self.assertTrue(any(top.endswith("Desktop") for top, _, _ in walked))
        self.assertEqual([], [os.path.join(top, n) for top, dirs, files in walked for n in dirs + files
                              if os.path.islink(os.path.join(top, n))])

    def test_folders_existence_and_processes(self):
        self.box.write("X:\\dst\\.keep", "")
        chain = ["X:", "X:\\m", "X:\\m\\n", "X:\\m\\n\\o"]
        absent = ["X:\\dst\\f.txt", "X:\\dst\\f.txt\\x"]
        self.rows([
            j(["copy-dir", "X:\\dst", "X:\\src"], 0, {"result": 1}),
            j(["copy-dir", "X:\\dst", ""], 1, {"result": -1, "error": "copy-dir: an argument is empty: nothing was "
                                                                      "copied"}),
            # Into a folder that is not there: the walk runs (1), and nothing is copied.
            (["copy-dir", "X:\\nowhere", "X:\\src"], 1, "result: 1\n", "copy-dir: X:\\src\\f.txt not copied to "
             "X:\\nowhere\\f.txt: Path not found (error 3)"),
            j(["file-exists", "X:\\dst\\f.txt"], 0, {"result": True}),
            j(["file-exists", "X:\\dst\\b.txt"], 1, {"result": False, "error": "file-exists: X:\\dst\\b.txt does not "
                                                                              "exist: File not found (error 2)"}),
            j(["make-folders", "X:\\m/n\\o/"], 0, {"result": True, "folders": chain, "made": chain[1:]}),
            (["make-folders", "X:\\dst\\f.txt\\x\\"], 1, "result: false\n" + "".join(
                "folders: %s\n" % f for f in ["X:", "X:\\dst"] + absent) + "made:\n",
             "\n".join("make-folders: %s is not a folder afterwards" % f for f in absent)),
            j(["delete-dir", "X:\\dst"], 0, {"result": 1}),
            j(["delete-dir", "X:\\dst"], 1, {"result": 0, "error": "delete-dir: folder X:\\dst not removed: File not "
                                                                   "found (error 2)", "failed": [
                {"kind": "remove-folder", "path": "X:\\dst", "error": 2, "text": "File not found (error 2)"}]}),
            j(["run-process", "C:\\windows\\system32\\cmd.exe", "cmd /c exit 3"], 0, {"result": 3}),
            j(["run-process", "C:\\none.exe", ""], 1, {"result": -999, "error": "run-process: C:\\none.exe could not "
                                                                                "be started: C:\\none.exe: no such file"}),
            (["zip-result-text", "01792", "--size", "8"], 0, "result: 35\ntext: Zipfile\n", "")])
        self.assertTrue(os.path.isdir(self.x("X:\\m\\n\\o")))

    def test_packages_names_and_archives_that_cannot_be_read(self):
        self.box.write("X:\\pkg\\fw.zip", zip_bytes([("img/a.bin", b"A" * 5000), ("..\\..\\up.txt", b"up"),
                                                    ("d/../../x", b"x")]))
        self.box.write("X:\\bad.zip", b"PK not really")
        # Control characters in names: one entry a line in the text listing,
        # nothing for the terminal to act on; the JSON form has them exactly.
        odd = ["readme.txt\r\nsetup.exe", "\x1b[2J\x1b[31mred\x7f", "tab\there\x01"]
        self.box.write("X:\\odd.zip", zip_bytes([(name, b"x") for name in odd]))
        self.rows([
            (["zip-items", "X:\\pkg\\fw.zip"], 0, "result: 0\ntext: Success\ncount: 3\nentry: img/a.bin\n"
                                                  "entry: up.txt\nentry: ../x\n", ""),
            # ../x is not unpacked, and the command says so.
            (["unzip-package", "X:\\pkg\\", "fw.zip", "X:\\out\\", "fw"], 1, "result: 1\n", "unzip-package: entry "
             "../x not unpacked to X:\\out\\fw\\../x: Couldn't create/open file (0x200)"),
            j(["unzip-package", "X:\\pkg\\", "no.zip", "X:\\out\\", "fw"], 1, {"result": 0, "error": "unzip-package: "
              "X:\\pkg\\no.zip: no such file (unzip-package gives 0 for a package that does not exist)"}),
            # Not an archive: the library's 1 means only that the file exists.
            j(["unzip-all-items", "X:\\b\\", "X:\\bad.zip"], 1, {"result": 1, "error": "unzip-all-items: X:\\bad.zip: "
              "its entries cannot be listed: Zipfile is corrupt or not a zipfile (0x700)", "failed": [
                  {"kind": "archive", "path": "X:\\bad.zip", "result": 0x700,
                   "text": "Zipfile is corrupt or not a zipfile"}]}),
            (["zip-items", "X:\\odd.zip"], 0, "result: 0\ntext: Success\ncount: 3\nentry: readme.txt\\r\\nsetup.exe\n"
             "entry: \\x1B[2J\\x1B[31mred\\x7F\nentry: tab\\there\\x01\n", "")])
        self.x("X:\\out\\fw\\img\\a.bin", b"A" * 5000)
        self.assertFalse(os.path.exists(self.x("X:\\out\\x")), "listed as ../x, never unpacked there")
        self.assertIn("Unzip Package not exist.", self.box.log_messages(LOG), "the library ran and gave its 0")
        self.assertEqual(odd, [i["name"] for i in json.loads(self.ctl("--json", "zip-items", "X:\\odd.zip",
                                                                      cwd=self.scratch).stdout)["items"]])
        # Files that are no archive at all are refused before the library is asked.
        self.box.write("X:\\empty.zip", b"")
        os.makedirs(self.x("X:\\folder.zip"))
        before = self.snapshot()
        self.rows([j(args, 2, {"result": None, "error": args[0] + ": " + problem}) for args, problem in [
            (["zip-items", "X:\\none.zip"], "X:\\none.zip: no such file"),
            (["unzip-all-items", "X:\\o\\", "X:\\folder.zip"], "X:\\folder.zip: is a folder, not a file"),
            (["unzip-package", "X:\\", "empty.zip", "X:\\", "o"], "X:\\empty.zip: is empty")]])
        self.assertEqual(before, self.snapshot(), "nothing unpacked, no folder made, the library not asked")

    def test_usb_driver_installation(self):
        self.rows([j(["install-usb-driver"], 1, {"result": 0, "error": "install-usb-driver: %sUninstall_Inf.bat does "
                                                                       "not exist: nothing was run" % DRIVER})])
        self.box.write(DRIVER + "Uninstall_Inf.bat", "@exit /b 0\r\n")
        self.box.write(DRIVER + "Install_Inf.bat", "@exit /b 7\r\n")
        try:
            # A batch file that fails is named with its exit code; the library's 1 stays.
            self.rows([(["install-usb-driver"], 1, "result: 1\n", "install-usb-driver: %sInstall_Inf.bat ended with "
                                                                  "exit code 7" % DRIVER)])
        finally:
            shutil.rmtree(self.box.unix_path(DRIVER), ignore_errors=True)

    def test_roots_shares_and_windows_profile_and_program_folders_are_refused_however_spelled(self):
        share = "\\\\server\\share"
        on_share = "it is on the network share %s, whose protected folders cannot be checked from this machine" % share
        self.assertRefused([(["delete-dir", given], refusal("delete-dir", "delete from", path, "folder", given, why))
                            for given, path, why in [
            ("X:", "X:\\", "it is a drive root"), ("x:\\keep\\..", "x:\\", "it is a drive root"),
            ("X:/keep/inner/../..", "X:\\", "it is a drive root"), ("X:\\keep.\\..", "X:\\", "it is a drive root"),
            (".", "X:\\", "it is a drive root"), ("\\\\?\\X:\\", "X:\\", "it is a drive root"),
            (share + "/dir/..", share, "it is the root of a network share"),
            # Below a share's root the folders are another machine's, which
            # the rails cannot know: refused unless --force, however spelled.
            (share + "\\fw", share + "\\fw", on_share), ("\\\\?\\UNC\\server\\share\\fw", share + "\\fw", on_share),
            ("C:/Windows/", "C:\\windows", "it is the Windows folder"),
            ("C:\\windows\\system32\\..\\.", "C:\\windows", "it is the Windows folder"),
            ("C:\\windows\\system32", "C:\\windows\\system32", "it is the system folder"),
            ("C:\\users\\Public ", "C:\\users\\Public", "it is the public profile folder"),
            (self.profile + "\\Desktop\\..", self.profile, "it is a user's profile folder"),
            ("C:\\" + self.program_files_short, "C:\\Program Files", "it is a Program Files folder"),
            ("X:\\home\\bob\\..", "X:\\home", "it holds a user's profile folder X:\\home\\bob")]] + [
            (["copy-dir", "X:\\keep", "X:"], refusal("copy-dir", "copy from and write into", "X:\\", "source", "X:")),
            (["copy-dir", "C:\\windows", "X:\\src"], refusal("copy-dir", "write into", "C:\\windows", "destination",
                                                             "C:\\windows", "it is the Windows folder")),
            # Without its closing backslash, the target's last name runs into
            # the entries' names: X:\keepa.txt lies in X:\.
            (["unzip-all-items", "X:\\keep", "X:\\pkg\\a.zip"],
             refusal("unzip-all-items", "write into", "X:\\", "target-folder", "X:\\keep")),
            (["unzip-package", "X:\\pkg\\", "a.zip", "X:\\keep\\", ".."],
             refusal("unzip-package", "write into", "X:\\", "target-folder + sub-folder", "X:\\keep\\..\\")),
            (["unzip-package", "X:\\pkg\\", "a.zip", "C:\\", "ProgramData"], refusal(
                "unzip-package", "write into", "C:\\ProgramData", "target-folder + sub-folder", "C:\\ProgramData\\",
                "it is the ProgramData folder"))])

    def test_links_are_followed_to_what_they_lead_to_but_never_walked(self):
        os.symlink(self.x("X:\\home\\bob"), self.x("X:\\keep\\x"))
        self.assertRefused([(["copy-dir", "X:\\keep\\x", "X:\\src"], 'copy-dir: refused to write into X:\\home\\bob '
                             '(destination "X:\\keep\\x", through a link): it is a user\'s profile folder. Give --force '
                             'to do it anyway.')])
        # A folder that holds such a link is not refused: the deletion never
        # follows the link (and under Wine cannot remove it, so gives 0). Nor
        # is a copy or an unpacking: they do not go through it either.
        self.box.write("X:\\pkg\\links.zip", zip_bytes([("x/pwn.txt", b"pwn"), ("ok.txt", b"ok")]))
        self.box.write("X:\\dst\\x\\pwn.txt", "pwn")
        self.rows([
            (["delete-dir", "X:\\keep"], 1, "result: 0\n", "delete-dir: %s\ndelete-dir: folder X:\\keep not removed: "
             "Directory is not empty (error 145)" % (KEPT % "X:\\keep\\x")),
            (["unzip-all-items", "X:\\keep\\", "X:\\pkg\\links.zip"], 1, "result: 1\n", "unzip-all-items: entry "
             "x/pwn.txt not unpacked to X:\\keep\\x/pwn.txt: Couldn't create/open file (0x200)"),
            (["copy-dir", "X:\\dst", "X:\\keep"], 1, "result: 1\n", "copy-dir: X:\\keep\\x is a link: not followed, "
                                                                   "nothing copied through it")])
        self.assertEqual((["ok.txt", "x"], ["ntuser.txt"]), (sorted(os.listdir(self.x("X:\\keep"))),
                                                            os.listdir(self.x("X:\\home\\bob"))))
        # install-usb-driver's folders are fixed, under the Windows folder; only
        # a link can make them lead to a protected folder.
        driver = self.box.unix_path(DRIVER)
        os.makedirs(os.path.dirname(driver), exist_ok=True)
        os.symlink(self.scratch, driver)
        try:
            self.box.write("X:\\Uninstall_Inf.bat", "@echo uninstall>>order.txt\r\n")
            self.box.write("X:\\Install_Inf.bat", "@echo install>>order.txt\r\n")
            self.assertRefused([(["install-usb-driver"], 'install-usb-driver: refused to write into X:\\ (driver '
                                 'folder "%s", through a link): it is a drive root. Give --force to do it anyway.'
                                 % DRIVER)])
            self.rows([j(["install-usb-driver", "--force"], 0, {"result": 1})])
            self.x("X:\\order.txt", b"uninstall\r\ninstall\r\n")
        finally:
            os.remove(driver)

    def test_force_and_the_dry_run(self):
        self.box.write("X:\\outside\\o.txt", "o")
        for name in ("alpha\\Deep\\d.txt", "alpha\\z.txt", "Beta.txt"):
            self.box.write("X:\\t\\" + name, name)
        os.symlink(self.x("X:\\outside"), self.x("X:\\t\\link-out"))
        # Wine lists a folder by name, case ignored, after "." and "..".
        steps = [("file", "X:\\t\\alpha\\Deep\\d.txt"), ("folder", "X:\\t\\alpha\\Deep"),
                 ("file", "X:\\t\\alpha\\z.txt"), ("folder", "X:\\t\\alpha"), ("file", "X:\\t\\Beta.txt"),
                 ("keep", "X:\\t\\link-out"), ("folder", "X:\\t")]
        self.rows([j(["unzip-all-items", "X:\\", "X:\\pkg\\a.zip", "--force"], 0, {"result": 1}),
                   j(["delete-dir", "keep\\inner"], 0, {"result": 1})])
        self.x("X:\\a.txt", b"a")
        self.assertFalse(os.path.exists(self.x("X:\\keep\\inner")))
        before = self.snapshot()
        self.rows([(["delete-dir", "--dry-run", "X:\\t"], 0, "".join("%-6s %s\n" % step for step in steps), "dry "
                    "run: would delete 3 files, 3 folders and 0 links; would keep 1 link that cannot be removed alone "
                    "here, and the folders holding them; nothing was deleted")])
        self.assertEqual(before, self.snapshot(), "nothing deleted, the library not called")
        # The root with --force: everything it can delete, and never the root itself.
        self.assertEqual(1, self.ctl("--json", "delete-dir", "X:\\", "--force", cwd=self.scratch).returncode)
        # A root has no "." to be the listing's first entry, which is skipped all the same.
        self.assertEqual(["a-first.txt", "t"], sorted(os.listdir(self.scratch)))
        self.assertEqual([], [s for s in self.sentinels if not os.path.exists(self.box.unix_path(s))])


if __name__ == "__main__":
    winebox.test_main("dorvanectl", "work", "base")
