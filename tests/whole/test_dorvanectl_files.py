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
FORCE = ". Give --force to do it anyway."
KEPT = ("%s is a link that the system cannot remove by itself here (a Unix link under Wine): it stays, and so "
        "do the folders that hold it")


def zip_bytes(entries):
    data = io.BytesIO()
    with zipfile.ZipFile(data, "w", zipfile.ZIP_DEFLATED) as z:
        for name, content in entries:
            z.writestr(zipfile.ZipInfo(name), content)
    return data.getvalue()


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

    def run_ctl(self, *args):
        # (exit status, stdout, stderr), run in X:\ with the log in LOG.
        result = self.ctl("--log", LOG, *args, cwd=self.scratch)
        return result.returncode, result.stdout, result.stderr

    def json_of(self, *args):
        # (exit status, the JSON object); its "error" must be standard error's first line.
        status, out, err = self.run_ctl("--json", *args)
        answer = json.loads(out)
        if "error" in answer:
            self.assertTrue(answer["error"].startswith(err.splitlines()[0][len("dorvanectl: "):]), err)
        else:
            self.assertEqual("", err)
        return status, answer

    def x(self, windows_path):
        return os.path.join(self.scratch, *windows_path[3:].split("\\"))

    def records(self):
        return self.box.log_messages(LOG)

    def snapshot(self):
        # Every file, folder and link of the scratch drive, and the sentinels.
        tree = {}
        for top, dirs, files in os.walk(self.scratch):
            for path in (os.path.join(top, name) for name in dirs + files):
                tree[path] = ("-> " + os.readlink(path) if os.path.islink(path) else
                              open(path, "rb").read() if os.path.isfile(path) else "folder")
        tree.update((s, os.path.exists(self.box.unix_path(s))) for s in self.sentinels)
        return tree

    def assertRefused(self, args, line):
        # The command refuses with exactly `line` (without "dorvanectl: "), in
        # text and in JSON, touches nothing and writes no log line.
        before, records = self.snapshot(), self.records()
        self.assertEqual((2, "", "dorvanectl: " + line + "\n"), self.run_ctl(*args))
        self.assertEqual((2, {"result": None, "error": line}), self.json_of(*args))
        self.assertEqual(before, self.snapshot())
        self.assertEqual(records, self.records(), "the library was not called")

    def test_prefix_user_folders_stay_inside_the_prefix(self):
        # Wine links Desktop, Documents, ... to the home directory; the test
        # prefixes make them plain folders, so no test can reach outside.
        walked = list(os.walk(self.box.unix_path("C:\\users")))
        self.assertTrue(any(top.endswith("Desktop") for top, _, _ in walked))
        self.assertEqual([], [os.path.join(top, n) for top, dirs, files in walked for n in dirs + files
                              if os.path.islink(os.path.join(top, n))])

    def test_folders_existence_and_processes(self):
        self.box.write("X:\\dst\\.keep", "")
        self.assertEqual((0, {"result": 1}), self.json_of("copy-dir", "X:\\dst", "X:\\src"))
        self.assertEqual(b"f", open(self.x("X:\\dst\\f.txt"), "rb").read())
        self.assertEqual((1, {"result": -1, "error": "copy-dir: an argument is empty: nothing was copied"}),
                         self.json_of("copy-dir", "X:\\dst", ""))
        self.assertEqual((1, {"result": -3, "error": "copy-dir: the source X:\\none cannot be listed: Path not "
                                                      "found (error 3)"}), self.json_of("copy-dir", "X:\\dst", "X:\\none"))
        # Into a folder that is not there: the walk runs (1), and nothing is copied.
        self.assertEqual((1, "result: 1\n", "dorvanectl: copy-dir: X:\\src\\f.txt not copied to X:\\nowhere\\f.txt: "
                                            "Path not found (error 3)\n"), self.run_ctl("copy-dir", "X:\\nowhere", "X:\\src"))
        self.assertEqual((0, {"result": True}), self.json_of("file-exists", "X:\\dst\\f.txt"))
        self.assertEqual((1, {"result": False, "error": "file-exists: X:\\dst\\b.txt does not exist: File not found "
                                                         "(error 2)"}), self.json_of("file-exists", "X:\\dst\\b.txt"))
        chain = ["X:", "X:\\m", "X:\\m\\n", "X:\\m\\n\\o"]
        self.assertEqual((0, {"result": True, "folders": chain, "made": chain[1:]}),
                         self.json_of("make-folders", "X:\\m/n\\o/"))
        self.assertTrue(os.path.isdir(self.x("X:\\m\\n\\o")))
        absent = ["X:\\dst\\f.txt", "X:\\dst\\f.txt\\x"]
        self.assertEqual((1, "result: false\n" + "".join("folders: %s\n" % f for f in ["X:", "X:\\dst"] + absent) +
                          "made:\n", "".join("dorvanectl: make-folders: %s is not a folder afterwards\n" % f
                                             for f in absent)), self.run_ctl("make-folders", "X:\\dst\\f.txt\\x\\"))
        self.assertEqual((0, {"result": 1}), self.json_of("delete-dir", "X:\\dst"))
        self.assertFalse(os.path.exists(self.x("X:\\dst")))
        self.assertEqual((1, {"result": 0, "error": "delete-dir: folder X:\\dst not removed: File not found (error 2)",
                              "failed": [{"kind": "remove-folder", "path": "X:\\dst", "error": 2,
                                          "text": "File not found (error 2)"}]}), self.json_of("delete-dir", "X:\\dst"))
        log = self.box.read(LOG).decode("latin-1")
        self.assertIn("X:\\dst\\b.txt file is not exist error=2", log)
        self.assertIn("Delete dir failed", log)
        self.assertEqual((0, {"result": 3}), self.json_of("run-process", "C:\\windows\\system32\\cmd.exe",
                                                          "cmd /c exit 3"))
        self.assertEqual((1, {"result": -999, "error": "run-process: C:\\none.exe could not be started: C:\\none.exe: "
                                                        "no such file"}), self.json_of("run-process", "C:\\none.exe", ""))

    def test_packages_names_and_archives_that_cannot_be_read(self):
        self.box.write("X:\\pkg\\fw.zip", zip_bytes([("img/a.bin", b"A" * 5000), ("..\\..\\up.txt", b"up"),
                                                    ("d/../../x", b"x")]))
        self.assertEqual((0, "result: 0\ntext: Success\ncount: 3\nentry: img/a.bin\nentry: up.txt\nentry: ../x\n", ""),
                         self.run_ctl("zip-items", "X:\\pkg\\fw.zip"))
        # ../x is not unpacked, and the command says so.
        self.assertEqual((1, "result: 1\n", "dorvanectl: unzip-package: entry ../x not unpacked to X:\\out\\fw\\../x: "
                                            "Couldn't create/open file (0x200)\n"),
                         self.run_ctl("unzip-package", "X:\\pkg\\", "fw.zip", "X:\\out\\", "fw"))
        self.assertEqual(b"A" * 5000, open(self.x("X:\\out\\fw\\img\\a.bin"), "rb").read())
        self.assertFalse(os.path.exists(self.x("X:\\out\\x")), "listed as ../x, never unpacked there")
        self.assertEqual((1, {"result": 0, "error": "unzip-package: X:\\pkg\\no.zip: no such file (unzip-package gives "
                                                     "0 for a package that does not exist)"}),
                         self.json_of("unzip-package", "X:\\pkg\\", "no.zip", "X:\\out\\", "fw"))
        self.assertIn("Unzip Package not exist.", self.records(), "the library ran and gave its 0")
        # Not an archive: the library's 1 means only that the file exists.
        self.box.write("X:\\bad.zip", b"PK not really")
        self.assertEqual((1, {"result": 1, "error": "unzip-all-items: X:\\bad.zip: its entries cannot be listed: "
                                                     "Zipfile is corrupt or not a zipfile (0x700)",
                              "failed": [{"kind": "archive", "path": "X:\\bad.zip", "result": 0x700,
                                          "text": "Zipfile is corrupt or not a zipfile"}]}),
                         self.json_of("unzip-all-items", "X:\\b\\", "X:\\bad.zip"))
        # Control characters in names: one entry a line in the text listing,
        # nothing for the terminal to act on; the JSON form has them exactly.
        odd = ["readme.txt\r\nsetup.exe", "\x1b[2J\x1b[31mred\x7f", "tab\there\x01"]
        self.box.write("X:\\odd.zip", zip_bytes([(name, b"x") for name in odd]))
        self.assertEqual(["entry: readme.txt\\r\\nsetup.exe", "entry: \\x1B[2J\\x1B[31mred\\x7F",
                          "entry: tab\\there\\x01"], self.run_ctl("zip-items", "X:\\odd.zip")[1].splitlines()[3:])
        self.assertEqual(odd, [i["name"] for i in self.json_of("zip-items", "X:\\odd.zip")[1]["items"]])

        # Files that are no archive at all are refused before the library is asked.
        self.box.write("X:\\empty.zip", b"")
        os.makedirs(self.x("X:\\folder.zip"))
        before = self.records()
        for args, problem in [(["zip-items", "X:\\none.zip"], "X:\\none.zip: no such file"),
                              (["unzip-all-items", "X:\\o\\", "X:\\folder.zip"], "X:\\folder.zip: is a folder, not a file"),
                              (["unzip-package", "X:\\", "empty.zip", "X:\\", "o"], "X:\\empty.zip: is empty")]:
            with self.subTest(args=args):
                self.assertEqual((2, {"result": None, "error": args[0] + ": " + problem}), self.json_of(*args))
        self.assertFalse(os.path.exists(self.x("X:\\o")), "nothing unpacked, no folder made")
        self.assertEqual(before, self.records(), "the library was not asked")

    def test_usb_driver_installation_and_result_texts(self):
        self.assertEqual((1, {"result": 0, "error": "install-usb-driver: %sUninstall_Inf.bat does not exist: nothing "
                                                     "was run" % DRIVER}), self.json_of("install-usb-driver"))
        self.box.write(DRIVER + "Uninstall_Inf.bat", "@echo uninstall>>order.txt\r\n")
        self.box.write(DRIVER + "Install_Inf.bat", "@if exist drv.inf echo install-after-copy>>order.txt\r\n")
        self.box.write(DRIVER + "x64\\drv.inf", "inf")
        try:
            self.assertEqual((0, {"result": 1}), self.json_of("install-usb-driver"))
            self.assertEqual(b"uninstall\r\ninstall-after-copy\r\n", self.box.read(DRIVER + "order.txt"))
            # A batch file that fails is named with its exit code; the library's 1 stays.
            self.box.write(DRIVER + "Install_Inf.bat", "@exit /b 7\r\n")
            self.assertEqual((1, "result: 1\n", "dorvanectl: install-usb-driver: %sInstall_Inf.bat ended with exit "
                                                "code 7\n" % DRIVER), self.run_ctl("install-usb-driver"))
        finally:
            shutil.rmtree(self.box.unix_path(DRIVER), ignore_errors=True)
        self.assertEqual((0, "result: 35\ntext: Zipfile\n", ""), self.run_ctl("zip-result-text", "01792", "--size", "8"))
        for args in (["zip-result-text", "0x7G"], ["copy-dir", "C:\\only-one"]):
            self.assertEqual(2, self.run_ctl(*args)[0], args)

    def test_drive_roots_and_network_shares_are_refused_however_spelled(self):
        def line(command, action, path, argument, given, why="it is a drive root"):
            return '%s: refused to %s %s (%s "%s"): %s%s' % (command, action, path, argument, given, why, FORCE)

        for given, path in (("X:", "X:\\"), ("x:\\keep\\..", "x:\\"), ("X:/keep/inner/../..", "X:\\"),
                            ("X:\\keep.\\..", "X:\\"), (".", "X:\\"), ("\\\\?\\X:\\", "X:\\")):
            with self.subTest(given=given):
                self.assertRefused(["delete-dir", given], line("delete-dir", "delete from", path, "folder", given))
        self.assertRefused(["copy-dir", "X:\\keep", "X:"],
                           line("copy-dir", "copy from and write into", "X:\\", "source", "X:"))
        # Without its closing backslash, the target's last name runs into the
        # entries' names: X:\keepa.txt lies in X:\.
        self.assertRefused(["unzip-all-items", "X:\\keep", "X:\\pkg\\a.zip"],
                           line("unzip-all-items", "write into", "X:\\", "target-folder", "X:\\keep"))
        self.assertRefused(["unzip-package", "X:\\pkg\\", "a.zip", "X:\\keep\\", ".."],
                           line("unzip-package", "write into", "X:\\", "target-folder + sub-folder", "X:\\keep\\..\\"))
        self.assertRefused(["delete-dir", "\\\\server/share/dir/.."], line(
            "delete-dir", "delete from", "\\\\server\\share", "folder", "\\\\server/share/dir/..",
            "it is the root of a network share"))
        # Below a share's root the folders are another machine's, which the
        # rails cannot know: refused unless --force, however spelled.
        for given in ("\\\\server\\share\\fw", "\\\\?\\UNC\\server\\share\\fw"):
            self.assertRefused(["delete-dir", given], line(
                "delete-dir", "delete from", "\\\\server\\share\\fw", "folder", given, "it is on the network share "
                "\\\\server\\share, whose protected folders cannot be checked from this machine"))

    def test_windows_profile_and_program_folders_are_refused(self):
        def line(given, path, why, command="delete-dir", action="delete from", argument="folder"):
            return '%s: refused to %s %s (%s "%s"): it %s%s' % (command, action, path, argument, given, why, FORCE)

        profile = self.profile
        for given, path, why in [
                ("C:/Windows/", "C:\\windows", "is the Windows folder"),
                ("C:\\windows\\system32\\..\\.", "C:\\windows", "is the Windows folder"),
                ("C:\\windows\\system32", "C:\\windows\\system32", "is the system folder"),
                ("C:\\users\\Public ", "C:\\users\\Public", "is the public profile folder"),
                (profile + "\\Desktop\\..", profile, "is a user's profile folder"),
                ("C:\\" + self.program_files_short, "C:\\Program Files", "is a Program Files folder"),
                ("X:\\home\\bob\\..", "X:\\home", "holds a user's profile folder X:\\home\\bob")]:
            with self.subTest(given=given):
                self.assertRefused(["delete-dir", given], line(given, path, why))
        self.assertRefused(["copy-dir", "C:\\windows", "X:\\src"], line(
            "C:\\windows", "C:\\windows", "is the Windows folder", "copy-dir", "write into", "destination"))
        self.assertRefused(["unzip-package", "X:\\pkg\\", "a.zip", "C:\\", "ProgramData"], line(
            "C:\\ProgramData\\", "C:\\ProgramData", "is the ProgramData folder", "unzip-package", "write into",
            "target-folder + sub-folder"))

    def test_links_are_followed_to_what_they_lead_to_but_never_walked(self):
        os.symlink(self.x("X:\\home\\bob"), self.x("X:\\keep\\x"))
        self.assertRefused(["copy-dir", "X:\\keep\\x", "X:\\src"],
                           'copy-dir: refused to write into X:\\home\\bob (destination "X:\\keep\\x", through a link): '
                           "it is a user's profile folder" + FORCE)
        # A folder that holds such a link is not refused: the deletion never
        # follows the link (and under Wine cannot remove it, so gives 0).
        self.assertEqual((1, "result: 0\n", "dorvanectl: delete-dir: %s\ndorvanectl: delete-dir: folder X:\\keep not "
                          "removed: Directory is not empty (error 145)\n" % (KEPT % "X:\\keep\\x")),
                         self.run_ctl("delete-dir", "X:\\keep"))
        self.assertEqual(["x"], os.listdir(self.x("X:\\keep")))
        # Nor is a copy or an unpacking refused: they do not go through it either.
        self.box.write("X:\\pkg\\links.zip", zip_bytes([("x/pwn.txt", b"pwn"), ("ok.txt", b"ok")]))
        self.box.write("X:\\dst\\x\\pwn.txt", "pwn")
        self.assertEqual((1, "result: 1\n", "dorvanectl: unzip-all-items: entry x/pwn.txt not unpacked to "
                                            "X:\\keep\\x/pwn.txt: Couldn't create/open file (0x200)\n"),
                         self.run_ctl("unzip-all-items", "X:\\keep\\", "X:\\pkg\\links.zip"))
        self.assertEqual((1, "result: 1\n", "dorvanectl: copy-dir: X:\\keep\\x is a link: not followed, nothing "
                                            "copied through it\n"), self.run_ctl("copy-dir", "X:\\dst", "X:\\keep"))
        self.assertEqual(["ntuser.txt"], os.listdir(self.x("X:\\home\\bob")))
        self.assertIn("CopyFileInDir skipped link X:\\keep\\x", self.records())
        # install-usb-driver's folders are fixed, under the Windows folder; only
        # a link can make them lead to a protected folder.
        driver = self.box.unix_path(DRIVER)
        os.makedirs(os.path.dirname(driver), exist_ok=True)
        os.symlink(self.scratch, driver)
        try:
            self.box.write("X:\\Uninstall_Inf.bat", "@echo uninstall>>order.txt\r\n")
            self.box.write("X:\\Install_Inf.bat", "@echo install>>order.txt\r\n")
            self.assertRefused(["install-usb-driver"], 'install-usb-driver: refused to write into X:\\ (driver folder '
                               '"%s", through a link): it is a drive root%s' % (DRIVER, FORCE))
            self.assertEqual((0, {"result": 1}), self.json_of("install-usb-driver", "--force"))
            self.assertEqual(b"uninstall\r\ninstall\r\n", open(self.x("X:\\order.txt"), "rb").read())
        finally:
            os.remove(driver)

    def test_force_and_the_dry_run(self):
        self.assertEqual((0, {"result": 1}), self.json_of("unzip-all-items", "X:\\", "X:\\pkg\\a.zip", "--force"))
        self.assertEqual(b"a", open(self.x("X:\\a.txt"), "rb").read())
        self.assertEqual((0, {"result": 1}), self.json_of("delete-dir", "keep\\inner"))
        self.assertFalse(os.path.exists(self.x("X:\\keep\\inner")))
        self.box.write("X:\\outside\\o.txt", "o")
        for name in ("alpha\\Deep\\d.txt", "alpha\\z.txt", "Beta.txt"):
            self.box.write("X:\\t\\" + name, name)
        os.symlink(self.x("X:\\outside"), self.x("X:\\t\\link-out"))
        # Wine lists a folder by name, case ignored, after "." and "..".
        steps = [("file", "X:\\t\\alpha\\Deep\\d.txt"), ("folder", "X:\\t\\alpha\\Deep"),
                 ("file", "X:\\t\\alpha\\z.txt"), ("folder", "X:\\t\\alpha"), ("file", "X:\\t\\Beta.txt"),
                 ("keep", "X:\\t\\link-out"), ("folder", "X:\\t")]
        before, records = self.snapshot(), self.records()
        self.assertEqual((0, "".join("%-6s %s\n" % step for step in steps),
                          "dorvanectl: dry run: would delete 3 files, 3 folders and 0 links; would keep 1 link that "
                          "cannot be removed alone here, and the folders holding them; nothing was deleted\n"),
                         self.run_ctl("delete-dir", "--dry-run", "X:\\t"))
        self.assertEqual((0, {"result": None, "would_delete": [{"kind": k, "path": p} for k, p in steps if k != "keep"],
                              "would_keep": [{"kind": "link", "path": "X:\\t\\link-out"}], "files": 3, "folders": 3,
                              "links": 0, "kept_links": 1, "needs_force": None}),
                         self.json_of("delete-dir", "X:\\t", "--dry-run"))
        self.assertEqual((before, records), (self.snapshot(), self.records()), "nothing deleted, the library not called")
        # The deletion walks the same way: it logs each sub-folder as it enters
        # it, removes what was listed, keeps the link (and so the folder
        # holding it) and what the link leads to.
        status, answer = self.json_of("delete-dir", "X:\\t")
        self.assertEqual((1, 0), (status, answer["result"]))
        self.assertEqual(["X:\\t\\alpha", "X:\\t\\alpha\\Deep"],
                         [m for m in self.records()[len(records):] if m.startswith("X:\\t\\")])
        self.assertEqual(["link-out"], os.listdir(self.x("X:\\t")))
        self.assertEqual(b"o", open(self.x("X:\\outside\\o.txt"), "rb").read())
        # The root with --force: everything it can delete, and never the root itself.
        self.assertEqual(1, self.json_of("delete-dir", "X:\\", "--force")[0])
        # A root has no "." to be the listing's first entry, which is skipped all the same.
        self.assertEqual(["a-first.txt", "t"], sorted(os.listdir(self.scratch)))
        for sentinel in self.sentinels:
            self.assertTrue(os.path.exists(self.box.unix_path(sentinel)), sentinel)


if __name__ == "__main__":
    winebox.test_main("dorvanectl", "work", "base")
