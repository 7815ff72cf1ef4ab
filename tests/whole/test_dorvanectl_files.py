"""dorvanectl's file, package and process commands under Wine: arguments in the
operations' order, --json results, exit statuses, and the effects on disk.

    test_dorvanectl_files.py --dorvanectl dorvanectl.exe --work DIR --base PREFIX
"""
import io
import json
import os
import re
import shutil
import sys
import unittest
import zipfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))
import winebox  # noqa: E402
from winebox import WineBox  # noqa: E402

ARGS = None
DRIVER = "C:\\Windows\\WWAN\\FwSwitchBin\\FirmwareData\\USBDriver\\"
LOG = "C:\\ctl\\files.log"


def put(box, windows_path, data):
    path = box.unix_path(windows_path)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(data if isinstance(data, bytes) else data.encode())


def zip_bytes(entries):
    data = io.BytesIO()
    with zipfile.ZipFile(data, "w", zipfile.ZIP_DEFLATED) as z:
        for name, content in entries:
            z.writestr(zipfile.ZipInfo(name), content)
    return data.getvalue()


class FileCommands(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.box = WineBox(os.path.join(ARGS.work, "files"), base=ARGS.base)
        cls.ctl_path = cls.box.put_file(ARGS.dorvanectl, "C:\\ctl")

    @classmethod
    def tearDownClass(cls):
        cls.box.close(discard=True)

    def ctl(self, *args):
        """(exit status, the JSON object printed); what it says on standard
        error must be its "error" and each further failure, a line each."""
        result = self.box.run([self.ctl_path, "--json", "--log", LOG] + list(args))
        answer = json.loads(result.stdout) if result.stdout.strip() else None
        lines = result.stderr.replace("\r\n", "\n").splitlines()
        if answer is not None and "error" in answer:
            self.assertTrue(lines, "the error is also said on standard error")
            self.assertTrue(answer["error"].startswith(lines[0][len("dorvanectl: "):]), lines)
        else:
            self.assertEqual([], lines)
        return result.returncode, answer

    def text(self, *args):
        """(exit status, standard output's lines, standard error's lines) of a text run."""
        result = self.box.run([self.ctl_path, "--log", LOG] + list(args))
        return (result.returncode, result.stdout.splitlines(),
                result.stderr.replace("\r\n", "\n").splitlines())

    def put(self, windows_path, data):
        put(self.box, windows_path, data)

    def exists(self, windows_path):
        return os.path.exists(self.box.unix_path(windows_path))

    def read(self, windows_path):
        with open(self.box.unix_path(windows_path), "rb") as f:
            return f.read()

    def log_text(self):
        return self.read(LOG).decode("latin-1") if self.exists(LOG) else ""

    def log_messages(self):
        text = self.log_text()
        return winebox.messages(winebox.parse_log(text.encode("latin-1"))) if text else []

    def test_folders_existence_and_processes(self):
        self.put("C:\\t1\\src\\a.txt", "a")
        self.box.run(["cmd", "/c", "mkdir", "C:\\t1\\dst"])
        self.assertEqual((0, {"result": 1}), self.ctl("copy-dir", "C:\\t1\\dst", "C:\\t1\\src"))
        self.assertEqual(b"a", self.read("C:\\t1\\dst\\a.txt"))
        self.assertEqual((1, {"result": -1, "error": "copy-dir: an argument is empty: nothing was copied"}),
                         self.ctl("copy-dir", "C:\\t1\\dst", ""))
        self.assertEqual((1, {"result": -3, "error": "copy-dir: the source C:\\t1\\none cannot be listed: "
                                                      "Path not found (error 3)"}),
                         self.ctl("copy-dir", "C:\\t1\\dst", "C:\\t1\\none"))
        # Into a folder that is not there: the walk runs (1), and nothing is copied.
        self.assertEqual((1, ["result: 1"], ["dorvanectl: copy-dir: C:\\t1\\src\\a.txt not copied to "
                                             "C:\\t1\\nowhere\\a.txt: Path not found (error 3)"]),
                         self.text("copy-dir", "C:\\t1\\nowhere", "C:\\t1\\src"))

        self.assertEqual((0, {"result": True}), self.ctl("file-exists", "C:\\t1\\dst\\a.txt"))
        self.assertEqual((1, {"result": False, "error": "file-exists: C:\\t1\\dst\\b.txt does not exist: "
                                                         "File not found (error 2)"}),
                         self.ctl("file-exists", "C:\\t1\\dst\\b.txt"))
        chain = ["C:", "C:\\t1", "C:\\t1\\m", "C:\\t1\\m\\n", "C:\\t1\\m\\n\\o"]
        self.assertEqual((0, {"result": True, "folders": chain, "made": chain[2:]}),
                         self.ctl("make-folders", "C:\\t1\\m/n\\o/"))
        self.assertTrue(self.exists("C:\\t1\\m\\n\\o"))
        self.assertEqual((0, {"result": True, "folders": chain[:3], "made": []}),
                         self.ctl("make-folders", "C:\\t1\\m\\not-made"))
        absent = ["C:\\t1\\dst\\a.txt", "C:\\t1\\dst\\a.txt\\x"]
        self.assertEqual((1, {"result": False, "folders": chain[:2] + ["C:\\t1\\dst"] + absent,
                              "made": [], "failed": absent,
                              "error": "make-folders: C:\\t1\\dst\\a.txt is not a folder afterwards (and 1 more)"}),
                         self.ctl("make-folders", "C:\\t1\\dst\\a.txt\\x\\"))
        self.assertEqual((1, ["result: false"] + ["folders: " + f for f in chain[:2] + ["C:\\t1\\dst"] + absent]
                          + ["made:"], ["dorvanectl: make-folders: %s is not a folder afterwards" % f for f in absent]),
                         self.text("make-folders", "C:\\t1\\dst\\a.txt\\x\\"))
        self.assertEqual((0, {"result": 1}), self.ctl("delete-dir", "C:\\t1"))
        self.assertFalse(self.exists("C:\\t1"))
        self.assertEqual((1, {"result": 0, "error": "delete-dir: folder C:\\t1 not removed: File not found (error 2)",
                              "failed": [{"kind": "remove-folder", "path": "C:\\t1", "error": 2,
                                          "text": "File not found (error 2)"}]}),
                         self.ctl("delete-dir", "C:\\t1"))
        log = self.read(LOG).decode("latin-1")
        self.assertIn("C:\\t1\\dst\\b.txt file is not exist error=2", log)
        self.assertIn("Delete dir failed", log)

        cmd = "C:\\windows\\system32\\cmd.exe"
        self.assertEqual((0, {"result": 3}), self.ctl("run-process", cmd, "cmd /c exit 3"))
        self.assertEqual((1, {"result": -999, "error": "run-process: C:\\none.exe could not be started: "
                                                        "C:\\none.exe: no such file"}),
                         self.ctl("run-process", "C:\\none.exe", ""))

    def test_delete_dir_leaves_what_links_point_to(self):
        # Links made from Linux are what Wine's own links (a prefix's user
        # folders) are: Unix symbolic links. delete-dir must not enter them.
        # Wine has no call that removes such a link alone, so the link stays,
        # and with it the folder that holds it.
        self.put("C:\\t5\\keep\\f.txt", "keep")
        self.put("C:\\t5\\old\\x.txt", "x")
        os.makedirs(self.box.unix_path("C:\\t5\\empty"))
        old = self.box.unix_path("C:\\t5\\old")
        os.symlink(self.box.unix_path("C:\\t5\\keep"), os.path.join(old, "keep-link"))
        os.symlink("../empty", os.path.join(old, "empty-link"))
        top = os.path.join(os.path.dirname(old), "top-link")
        os.symlink("keep", top)
        failed_before = self.log_text().count("Delete dir failed")

        kept = ("%s is a link that the system cannot remove by itself here (a Unix link under "
                "Wine): it stays, and so do the folders that hold it")
        self.assertEqual((1, ["result: 0"], ["dorvanectl: delete-dir: " + kept % ("C:\\t5\\old\\" + name)
                                             for name in ("empty-link", "keep-link")] +
                          ["dorvanectl: delete-dir: folder C:\\t5\\old not removed: Directory is not "
                           "empty (error 145)"]),
                         self.text("delete-dir", "C:\\t5\\old"))
        self.assertEqual((1, {"result": 0, "error": "delete-dir: " + kept % "C:\\t5\\top-link",
                              "failed": [{"kind": "link-kept", "path": "C:\\t5\\top-link"}]}),
                         self.ctl("delete-dir", "C:\\t5\\top-link"))
        self.assertEqual(b"keep", self.read("C:\\t5\\keep\\f.txt"))
        self.assertTrue(os.path.isdir(self.box.unix_path("C:\\t5\\empty")))
        self.assertEqual(["empty-link", "keep-link"], sorted(os.listdir(old)))
        self.assertTrue(os.path.islink(top))
        self.assertEqual(failed_before + 2, self.log_text().count("Delete dir failed"))

    def test_a_package_cannot_replace_the_driver_batch_file(self):
        # The chain: a package entry that would replace the USB driver's
        # install batch file beside the image folder, which install-usb-driver
        # then runs. The genuine batch file must be the one that runs.
        self.put(DRIVER + "Uninstall_Inf.bat", "@echo uninstall>>order.txt\r\n")
        self.put(DRIVER + "Install_Inf.bat", "@echo genuine>>order.txt\r\n")
        data = "C:\\Windows\\WWAN\\FwSwitchBin\\FirmwareData\\"
        self.put("C:\\t6\\pkg.zip", zip_bytes([
            ("fw.bin", b"firmware"), ("../USBDriver/Install_Inf.bat", b"@echo owned>>order.txt\r\n")]))
        try:
            # Not unpacked, and named: exit 1.
            status, answer = self.ctl("unzip-package", "C:\\t6\\", "pkg.zip", data, "image")
            self.assertEqual((1, 1, [{"kind": "entry", "name": "../USBDriver/Install_Inf.bat",
                                      "path": data + "image\\../USBDriver/Install_Inf.bat", "result": 0x200,
                                      "text": "Couldn't create/open file"}]),
                             (status, answer["result"], answer["failed"]))
            self.assertEqual(b"firmware", self.read(data + "image\\fw.bin"))
            self.assertEqual((0, {"result": 1}), self.ctl("install-usb-driver"))
            self.assertEqual(b"uninstall\r\ngenuine\r\n", self.read(DRIVER + "order.txt"))
        finally:
            shutil.rmtree(self.box.unix_path(data), ignore_errors=True)

    def test_prefix_user_folders_stay_inside_the_prefix(self):
        # Wine links Desktop, Documents, ..., and deeper down Templates, to the
        # home directory; the test prefixes make them plain folders, so
        # delete-dir and unpacked packages under test cannot reach outside.
        users = self.box.unix_path("C:\\users")
        folders = [os.path.join(users, u, f) for u in os.listdir(users)
                   for f in os.listdir(os.path.join(users, u))]
        self.assertTrue(any(f.endswith("Desktop") for f in folders), folders)
        links = [os.path.join(top, name) for top, dirs, files in os.walk(users)
                 for name in dirs + files if os.path.islink(os.path.join(top, name))]
        self.assertEqual([], links)
        self.assertTrue(any(top.endswith("Templates") for top, _, _ in os.walk(users)))

    def test_packages_and_names(self):
        self.put("C:\\t2\\pkg\\fw.zip", zip_bytes([
            ("img/a.bin", b"A" * 5000), ("..\\..\\up.txt", b"up"), ("d/../../x", b"x")]))
        status, listing = self.ctl("zip-items", "C:\\t2\\pkg\\fw.zip")
        self.assertEqual(0, status)
        self.assertEqual((0, "Success", 3), (listing["result"], listing["text"], listing["count"]))
        self.assertEqual(["img/a.bin", "up.txt", "../x"], [i["name"] for i in listing["items"]])
        self.assertEqual(5000, listing["items"][0]["size"])
        self.assertEqual((0, ["result: 0", "text: Success", "count: 3", "entry: img/a.bin", "entry: up.txt",
                              "entry: ../x"], []),
                         self.text("zip-items", "C:\\t2\\pkg\\fw.zip"))

        # ../x is not unpacked, and the command says so.
        self.assertEqual((1, ["result: 1"], ["dorvanectl: unzip-package: entry ../x not unpacked to "
                                             "C:\\t2\\out\\fw\\../x: Couldn't create/open file (0x200)"]),
                         self.text("unzip-package", "C:\\t2\\pkg\\", "fw.zip", "C:\\t2\\out\\", "fw"))
        self.assertEqual(b"A" * 5000, self.read("C:\\t2\\out\\fw\\img\\a.bin"))
        self.assertEqual(b"up", self.read("C:\\t2\\out\\fw\\up.txt"))
        self.assertFalse(self.exists("C:\\t2\\out\\x"), "listed as ../x, never unpacked there")
        missing = ("unzip-package: C:\\t2\\pkg\\no.zip: no such file (unzip-package gives 0 for a package "
                   "that does not exist)")
        self.assertEqual((1, {"result": 0, "error": missing}),
                         self.ctl("unzip-package", "C:\\t2\\pkg\\", "no.zip", "C:\\t2\\out\\", "fw"))
        self.assertIn("Unzip Package not exist.", self.log_text(), "the library ran and gave its 0")

        self.assertEqual(1, self.ctl("unzip-all-items", "C:\\t2\\all\\", "C:\\t2\\pkg\\fw.zip")[0])
        self.assertTrue(self.exists("C:\\t2\\all\\img\\a.bin"))
        # A target that the 259-character cut would shorten: nothing anywhere.
        long_target = "C:\\t2\\long\\" + "\\".join(["folder-%02d" % i for i in range(30)]) + "\\"
        status, answer = self.ctl("unzip-package", "C:\\t2\\pkg\\", "fw.zip", long_target[:255], "image")
        self.assertEqual((1, 1, [0x200] * 3), (status, answer["result"], [f["result"] for f in answer["failed"]]))
        self.assertFalse(self.exists("C:\\t2\\long"))
        self.put("C:\\t2\\bad.zip", b"PK not really")
        # Not an archive: the library's 1 means only that the file exists.
        self.assertEqual((1, {"result": 1, "error": "unzip-all-items: C:\\t2\\bad.zip: its entries cannot be "
                                                     "listed: Zipfile is corrupt or not a zipfile (0x700)",
                              "failed": [{"kind": "archive", "path": "C:\\t2\\bad.zip", "result": 0x700,
                                          "text": "Zipfile is corrupt or not a zipfile"}]}),
                         self.ctl("unzip-all-items", "C:\\t2\\b\\", "C:\\t2\\bad.zip"))
        self.assertIn("GetZipItem failed.", self.read(LOG).decode("latin-1"))
        status, listing = self.ctl("zip-items", "C:\\t2\\bad.zip")
        self.assertEqual((1, 0x700, "Zipfile is corrupt or not a zipfile"),
                         (status, listing["result"], listing["text"]))

        # Control characters in names: one entry a line in the text listing,
        # nothing for the terminal to act on; the JSON form has them exactly.
        odd = ["readme.txt\r\nsetup.exe", "\x1b[2J\x1b[31mred\x7f", "tab\there\x01"]
        self.put("C:\\t2\\odd.zip", zip_bytes([(name, b"x") for name in odd]))
        self.assertEqual((0, ["entry: readme.txt\\r\\nsetup.exe", "entry: \\x1B[2J\\x1B[31mred\\x7F",
                              "entry: tab\\there\\x01"], []),
                         (lambda t: (t[0], t[1][3:], t[2]))(self.text("zip-items", "C:\\t2\\odd.zip")))
        self.assertEqual(odd, [i["name"] for i in self.ctl("zip-items", "C:\\t2\\odd.zip")[1]["items"]])

    def test_archives_that_cannot_be_read(self):
        self.put("C:\\t7\\empty.zip", b"")
        os.makedirs(self.box.unix_path("C:\\t7\\folder.zip"))
        before = self.log_messages()
        for args, problem in [
                (["zip-items", "C:\\t7\\none.zip"], "C:\\t7\\none.zip: no such file"),
                (["zip-items", "C:\\t7\\folder.zip"], "C:\\t7\\folder.zip: is a folder, not a file"),
                (["zip-items", "C:\\t7\\empty.zip"], "C:\\t7\\empty.zip: is empty"),
                (["unzip-all-items", "C:\\t7\\out\\", "C:\\t7\\folder.zip"],
                 "C:\\t7\\folder.zip: is a folder, not a file"),
                (["unzip-package", "C:\\t7\\", "empty.zip", "C:\\t7\\", "out"], "C:\\t7\\empty.zip: is empty")]:
            with self.subTest(args=args):
                result = self.box.run([self.ctl_path, "--log", LOG] + args)
                problem = args[0] + ": " + problem
                self.assertEqual((2, "", "dorvanectl: %s" % problem),
                                 (result.returncode, result.stdout, result.stderr.strip()))
                self.assertEqual((2, {"result": None, "error": problem}), self.ctl(*args))
        self.assertFalse(self.exists("C:\\t7\\out"), "nothing unpacked, no folder made")
        self.assertEqual(before, self.log_messages(),
                         "the library was not asked")
        # A package that is not there: the library's documented 0, with the reason.
        result = self.box.run([self.ctl_path, "--log", LOG, "unzip-all-items", "C:\\t7\\out\\", "C:\\t7\\none.zip"])
        self.assertEqual((1, "result: 0\n", "dorvanectl: unzip-all-items: C:\\t7\\none.zip: no such file "
                                             "(unzip-all-items gives 0 for a package that does not exist)"),
                         (result.returncode, result.stdout, result.stderr.strip()))
        self.assertIn("unZip file not exist.", self.log_text())

    def test_usb_driver_installation(self):
        self.assertEqual((1, {"result": 0, "error": "install-usb-driver: %sUninstall_Inf.bat does not exist: "
                                                     "nothing was run" % DRIVER}),
                         self.ctl("install-usb-driver"))
        self.put(DRIVER + "Uninstall_Inf.bat", "@echo uninstall>>order.txt\r\n")
        self.put(DRIVER + "Install_Inf.bat",
                 "@if exist drv.inf echo install-after-copy>>order.txt\r\n")
        self.put(DRIVER + "x64\\drv.inf", "inf")
        self.assertEqual((0, {"result": 1}), self.ctl("install-usb-driver"))
        self.assertEqual(b"uninstall\r\ninstall-after-copy\r\n", self.read(DRIVER + "order.txt"))
        # A batch file that fails is named with its exit code; the library's 1 stays.
        self.put(DRIVER + "Install_Inf.bat", "@exit /b 7\r\n")
        self.assertEqual((1, ["result: 1"], ["dorvanectl: install-usb-driver: %sInstall_Inf.bat ended with "
                                             "exit code 7" % DRIVER]),
                         self.text("install-usb-driver"))

    def test_result_texts_and_usage(self):
        self.assertEqual((0, {"result": 35, "text": "Zipfile is corrupt or not a zipfile"}),
                         self.ctl("zip-result-text", "0x700"))
        self.assertEqual((0, {"result": 35, "text": "Zipfile"}),
                         self.ctl("zip-result-text", "1792", "--size", "8"))
        self.assertEqual((0, {"result": 24, "text": "Culdn't duplicate handle"}),
                         self.ctl("zip-result-text", "256"))
        self.assertEqual((0, {"result": 7, "text": "Success"}), self.ctl("zip-result-text", "1"))
        self.assertEqual((2, {"result": None, "error": "zip-result-text: not a result code: 0x7G"}),
                         self.ctl("zip-result-text", "0x7G"))
        self.assertEqual((0, ["result: 35", "text: Zipfile is corrupt or not a zipfile"], []),
                         self.text("zip-result-text", "0x700"))
        self.assertEqual((0, {"result": 35, "text": "Zipfile is corrupt or not a zipfile"}),
                         self.ctl("zip-result-text", "01792"), "decimal, also after a zero")
        self.assertEqual(2, self.ctl("zip-result-text", "-1")[0])
        self.assertEqual(2, self.ctl("zip-result-text", "1", "--size", "010x")[0])
        self.assertEqual(2, self.ctl("copy-dir", "C:\\only-one")[0])
        self.assertEqual(2, self.ctl("unzip-package", "a", "b", "c")[0])


PROFILE_LIST = "HKLM\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList"
FORCE = ". Give --force to do it anyway."


class Rails(unittest.TestCase):
    """delete-dir, copy-dir, unzip-package, unzip-all-items and install-usb-driver
    refuse protected folders unless given --force; delete-dir --dry-run.

    Every root that a case names is drive X:, which the prefix maps to a scratch
    folder of the test's own, and every program starts in it: a broken rail
    reaches nothing but scratch files. The Windows, profile and Program Files
    cases name the prefix's own folders, whose sentinel files must survive.
    """

    @classmethod
    def setUpClass(cls):
        cls.box = WineBox(os.path.join(ARGS.work, "rails"), base=ARGS.base)
        cls.ctl_path = cls.box.put_file(ARGS.dorvanectl, "C:\\ctl")
        cls.scratch = os.path.join(ARGS.work, "rails-scratch")
        cls.box.map_drive("x", cls.scratch)
        # A profile of another user, in the scratch drive, as the profile list
        # names every profile that a user has logged on with.
        cls.box.reg_add(PROFILE_LIST + "\\S-1-5-21-1-2-3-1001", "ProfileImagePath",
                        "X:\\home\\bob")
        cls.profile = cls.box.run(["cmd", "/c", "echo %USERPROFILE%"]).stdout.strip()
        listing = cls.box.run(["cmd", "/c", "dir", "/x", "C:\\"]).stdout
        cls.program_files_short = re.search(r"<DIR>\s+(\S+)\s+Program Files\s*$", listing,
                                            re.M).group(1)
        cls.sentinels = [folder + "\\rails-sentinel.txt" for folder in (
            "C:\\windows", "C:\\windows\\system32", "C:\\users", cls.profile, "C:\\users\\Public",
            "C:\\ProgramData", "C:\\Program Files", "C:\\Program Files (x86)")]

    @classmethod
    def tearDownClass(cls):
        cls.box.close(discard=True)
        shutil.rmtree(cls.scratch, ignore_errors=True)

    def setUp(self):
        shutil.rmtree(self.scratch, ignore_errors=True)
        for name, data in (("a-first.txt", "first"), ("keep\\inner\\s.txt", "s"),
                           ("home\\bob\\ntuser.txt", "bob"), ("src\\f.txt", "f"),
                           ("pkg\\a.zip", zip_bytes([("a.txt", b"a")]))):
            self.put("X:\\" + name, data)
        for sentinel in self.sentinels:
            self.put(sentinel, "sentinel")

    def put(self, windows_path, data):
        put(self.box, windows_path, data)

    def x(self, windows_path):
        """The Unix path of a path on drive X:."""
        return os.path.join(self.scratch, *windows_path[3:].split("\\"))

    def read_x(self, windows_path):
        with open(self.x(windows_path), "rb") as f:
            return f.read()

    def ctl(self, *args, cwd="X:\\"):
        """(exit status, stdout, stderr), run in folder `cwd` of drive X:."""
        result = self.box.run([self.ctl_path, "--log", LOG] + list(args), cwd=self.x(cwd))
        return result.returncode, result.stdout, result.stderr.replace("\r\n", "\n")

    def ctl_json(self, *args, cwd="X:\\"):
        """(exit status, the JSON object) without what failed, which the file
        commands' own tests check."""
        status, out, _ = self.ctl("--json", *args, cwd=cwd)
        answer = json.loads(out)
        answer.pop("failed", None)
        answer.pop("error", None)
        return status, answer

    def records(self):
        path = self.box.unix_path(LOG)
        if not os.path.exists(path):
            return []
        with open(path, "rb") as f:
            return winebox.messages(winebox.parse_log(f.read()))

    def snapshot(self):
        """Every file, folder and link of the scratch drive, and the sentinels."""
        tree = {}
        for top, dirs, files in os.walk(self.scratch):
            for name in dirs + files:
                path = os.path.join(top, name)
                if os.path.islink(path):
                    tree[path] = "-> " + os.readlink(path)
                elif os.path.isfile(path):
                    with open(path, "rb") as f:
                        tree[path] = f.read()
                else:
                    tree[path] = "folder"
        for sentinel in self.sentinels:
            tree[sentinel] = os.path.exists(self.box.unix_path(sentinel))
        return tree

    def assertRefused(self, args, line, cwd="X:\\"):
        """The command refuses with exactly `line` (without "dorvanectl: "),
        in text and in JSON, touches nothing and writes no log line."""
        before, records = self.snapshot(), self.records()
        self.assertEqual((2, "", "dorvanectl: " + line + "\n"), self.ctl(*args, cwd=cwd))
        status, out, err = self.ctl("--json", *args, cwd=cwd)
        self.assertEqual((2, {"result": None, "error": line}, "dorvanectl: " + line + "\n"),
                         (status, json.loads(out), err))
        self.assertEqual(before, self.snapshot())
        self.assertEqual(records, self.records(), "the library was not called")

    def test_drive_roots_are_refused_however_spelled(self):
        def line(command, action, path, argument, given):
            return '%s: refused to %s %s (%s "%s"): it is a drive root%s' % (
                command, action, path, argument, given, FORCE)

        for given, path, cwd in (("X:\\", "X:\\", "X:\\"), ("X:", "X:\\", "X:\\"),
                                 ("X:/", "X:\\", "X:\\"), ("x:\\keep\\..", "x:\\", "X:\\"),
                                 ("X:/keep/inner/../..", "X:\\", "X:\\"),
                                 ("X:\\keep.\\..", "X:\\", "X:\\"),
                                 ("..", "X:\\", "X:\\keep"), ("..\\..", "X:\\", "X:\\keep\\inner"),
                                 (".", "X:\\", "X:\\"), ("\\\\?\\X:\\", "X:\\", "X:\\"),
                                 ("\\\\.\\X:", "X:\\", "X:\\")):
            with self.subTest(given=given, cwd=cwd):
                self.assertRefused(["delete-dir", given],
                                   line("delete-dir", "delete from", path, "folder", given), cwd)
        self.assertRefused(["copy-dir", "X:\\keep\\..", "X:\\src"],
                           line("copy-dir", "write into", "X:\\", "destination", "X:\\keep\\.."))
        self.assertRefused(["copy-dir", "X:\\keep", "X:"],
                           line("copy-dir", "copy from and write into", "X:\\", "source", "X:"))
        self.assertRefused(["unzip-all-items", "X:\\", "X:\\pkg\\a.zip"],
                           line("unzip-all-items", "write into", "X:\\", "target-folder", "X:\\"))
        # Without its closing backslash, the target's last name runs into the
        # entries' names: X:\keepa.txt lies in X:\.
        self.assertRefused(["unzip-all-items", "X:\\keep", "X:\\pkg\\a.zip"],
                           line("unzip-all-items", "write into", "X:\\", "target-folder", "X:\\keep"))
        self.assertRefused(["unzip-package", "X:\\pkg\\", "a.zip", "X:\\keep\\", ".."],
                           line("unzip-package", "write into", "X:\\", "target-folder + sub-folder",
                                "X:\\keep\\..\\"))
        share = ('delete-dir: refused to delete from \\\\server\\share (folder "%s"): it is the root '
                 'of a network share' + FORCE)
        for given in ("\\\\server\\share\\", "\\\\server\\share\\dir\\..",
                      "\\\\server/share/dir/.."):
            self.assertRefused(["delete-dir", given], share % given)
        # Below a share's root the folders are another machine's, which the
        # rails cannot know: refused unless --force, however spelled.
        unc = ('%s: refused to %s \\\\server\\share\\fw (%s "%s"): it is on the network share '
               '\\\\server\\share, whose protected folders cannot be checked from this machine' + FORCE)
        for given in ("\\\\server\\share\\fw", "\\\\server/share/fw/", "\\\\?\\UNC\\server\\share\\fw",
                      "\\\\server\\share\\fw\\sub\\.."):
            self.assertRefused(["delete-dir", given], unc % ("delete-dir", "delete from", "folder", given))
        self.assertRefused(["unzip-all-items", "\\\\server\\share\\fw\\", "X:\\pkg\\a.zip"],
                           unc % ("unzip-all-items", "write into", "target-folder",
                                  "\\\\server\\share\\fw\\"))

    def test_windows_profile_and_program_folders_are_refused(self):
        def line(given, path, why, command="delete-dir", action="delete from", argument="folder"):
            return '%s: refused to %s %s (%s "%s"): it %s%s' % (
                command, action, path, argument, given, why, FORCE)

        profile = self.profile
        cases = [
            ("C:\\windows", "C:\\windows", "is the Windows folder"),
            ("C:/Windows/", "C:\\windows", "is the Windows folder"),
            ("C:\\WINDOWS.", "C:\\windows", "is the Windows folder"),
            ("C:\\windows\\system32\\..\\.", "C:\\windows", "is the Windows folder"),
            ("C:\\windows\\system32", "C:\\windows\\system32", "is the system folder"),
            ("C:\\users", "C:\\users", "is the Users folder"),
            ("C:\\users\\Public ", "C:\\users\\Public", "is the public profile folder"),
            (profile, profile, "is a user's profile folder"),
            (profile + "\\Desktop\\..", profile, "is a user's profile folder"),
            ("C:\\ProgramData", "C:\\ProgramData", "is the ProgramData folder"),
            ("C:\\Program Files (x86)", "C:\\Program Files (x86)", "is a Program Files folder"),
            ("C:\\" + self.program_files_short, "C:\\Program Files", "is a Program Files folder"),
            ("X:\\home\\bob", "X:\\home\\bob", "is a user's profile folder"),
            ("X:\\home", "X:\\home", "holds a user's profile folder X:\\home\\bob"),
            ("X:\\home\\bob\\..", "X:\\home", "holds a user's profile folder X:\\home\\bob"),
        ]
        for given, path, why in cases:
            with self.subTest(given=given):
                self.assertRefused(["delete-dir", given], line(given, path, why))
        self.assertRefused(["copy-dir", "C:\\windows", "X:\\src"],
                           line("C:\\windows", "C:\\windows", "is the Windows folder", "copy-dir",
                                "write into", "destination"))
        self.assertRefused(["copy-dir", "X:\\keep", "X:\\home"],
                           line("X:\\home", "X:\\home", "holds a user's profile folder X:\\home\\bob",
                                "copy-dir", "copy from and write into", "source"))
        self.assertRefused(["unzip-package", "X:\\pkg\\", "a.zip", "C:\\", "ProgramData"],
                           line("C:\\ProgramData\\", "C:\\ProgramData", "is the ProgramData folder",
                                "unzip-package", "write into", "target-folder + sub-folder"))
        self.assertRefused(["unzip-all-items", profile + "\\", "X:\\pkg\\a.zip"],
                           line(profile + "\\", profile, "is a user's profile folder",
                                "unzip-all-items", "write into", "target-folder"))

    def test_links_are_followed_to_what_they_lead_to(self):
        os.symlink(self.x("X:\\home\\bob"), self.x("X:\\keep\\x"))
        self.assertRefused(
            ["copy-dir", "X:\\keep\\x", "X:\\src"],
            'copy-dir: refused to write into X:\\home\\bob (destination "X:\\keep\\x", through '
            "a link): it is a user's profile folder" + FORCE)
        # A folder that holds such a link is not refused: the deletion never
        # follows the link (and under Wine cannot remove it, so gives 0).
        self.assertEqual((1, {"result": 0}), self.ctl_json("delete-dir", "X:\\keep"))
        self.assertEqual(["x"], os.listdir(self.x("X:\\keep")))
        self.assertEqual(b"bob", self.read_x("X:\\home\\bob\\ntuser.txt"))
        # Nor is a folder that holds one refused for a copy or an unpacking:
        # they do not go through it either, in the source (the sub-folder is
        # copied back into it) or the target.
        self.put("X:\\pkg\\links.zip", zip_bytes([("x/pwn.txt", b"pwn"), ("ok.txt", b"ok")]))
        self.put("X:\\dst\\x\\pwn.txt", "pwn")
        status, out, err = self.ctl("unzip-all-items", "X:\\keep\\", "X:\\pkg\\links.zip")
        self.assertEqual((1, "result: 1\n", "dorvanectl: unzip-all-items: entry x/pwn.txt not unpacked to "
                                              "X:\\keep\\x/pwn.txt: Couldn't create/open file (0x200)\n"),
                         (status, out, err))
        self.assertEqual((1, "result: 1\n", "dorvanectl: copy-dir: X:\\keep\\x is a link: not followed, "
                                              "nothing copied through it\n"),
                         self.ctl("copy-dir", "X:\\dst", "X:\\keep"))
        self.assertEqual(["ntuser.txt"], os.listdir(self.x("X:\\home\\bob")))
        self.assertEqual(b"ok", self.read_x("X:\\keep\\ok.txt"))
        self.assertIn("CopyFileInDir skipped link X:\\keep\\x", self.records())
        # install-usb-driver's folders are fixed, under the Windows folder; only
        # a link can make them lead to a protected folder.
        driver = self.box.unix_path(DRIVER)
        os.makedirs(os.path.dirname(driver), exist_ok=True)
        os.symlink(self.scratch, driver)
        try:
            self.put("X:\\Uninstall_Inf.bat", "@echo uninstall>>order.txt\r\n")
            self.put("X:\\Install_Inf.bat", "@echo install>>order.txt\r\n")
            self.put("X:\\x64\\drv.inf", "inf")
            self.assertRefused(
                ["install-usb-driver"],
                'install-usb-driver: refused to write into X:\\ (driver folder "%s", through a '
                "link): it is a drive root%s" % (DRIVER, FORCE))
            status, result = self.ctl_json("install-usb-driver", "--force")
            self.assertEqual((0, {"result": 1}), (status, result))
            self.assertEqual(b"uninstall\r\ninstall\r\n", self.read_x("X:\\order.txt"))
            self.assertEqual(b"inf", self.read_x("X:\\drv.inf"))
        finally:
            os.remove(driver)

    def test_force_acts_on_the_scratch_drive(self):
        self.assertEqual((0, {"result": 1}), self.ctl_json("copy-dir", "--force", "X:\\", "X:\\src"))
        self.assertEqual(b"f", self.read_x("X:\\f.txt"))
        self.assertEqual((0, {"result": 1}),
                         self.ctl_json("unzip-all-items", "X:\\", "X:\\pkg\\a.zip", "--force"))
        self.assertEqual(b"a", self.read_x("X:\\a.txt"))
        os.remove(self.x("X:\\a.txt"))
        self.assertEqual((0, {"result": 1}),
                         self.ctl_json("unzip-package", "--force", "X:\\pkg\\", "a.zip", "X:\\", ""))
        self.assertEqual(b"a", self.read_x("X:\\a.txt"))

        # The dry run of the root: everything but the listing's first entry
        # (a root has no "." to be that entry), the root last; then the
        # deletion does just that, and cannot remove the root itself. The
        # paths are the walk's own: the root and "\" + name.
        listed = [(kind, "X:\\" + ("\\" + name if name else "")) for kind, name in (
            ("file", "a.txt"), ("file", "f.txt"), ("file", "home\\bob\\ntuser.txt"),
            ("folder", "home\\bob"), ("folder", "home"), ("file", "keep\\inner\\s.txt"),
            ("folder", "keep\\inner"), ("folder", "keep"), ("file", "pkg\\a.zip"),
            ("folder", "pkg"), ("file", "src\\f.txt"), ("folder", "src"), ("folder", ""))]
        status, out, err = self.ctl("delete-dir", "--dry-run", "X:\\")
        self.assertEqual(0, status)
        self.assertEqual(["%-6s %s" % step for step in listed], out.splitlines())
        note = ('dorvanectl: note: delete-dir would need --force to delete from X:\\ (folder '
                '"X:\\"): it is a drive root.')
        self.assertEqual(["dorvanectl: dry run: would delete 6 files, 7 folders and 0 links; "
                          "nothing was deleted", note], err.splitlines())
        status, preview = self.ctl_json("delete-dir", "--dry-run", "X:\\")
        self.assertEqual([{"kind": k, "path": p} for k, p in listed], preview["would_delete"])
        self.assertEqual(note[len("dorvanectl: note: "):], preview["needs_force"])

        self.assertEqual((1, {"result": 0}), self.ctl_json("delete-dir", "X:\\", "--force"))
        self.assertEqual(["a-first.txt"], os.listdir(self.scratch))
        for sentinel in self.sentinels:
            self.assertTrue(os.path.exists(self.box.unix_path(sentinel)), sentinel)

    def test_ordinary_folders_work_as_before(self):
        self.assertEqual((0, {"result": 1}), self.ctl_json("copy-dir", "X:\\keep", "X:\\src"))
        self.assertEqual(b"f", self.read_x("X:\\keep\\f.txt"))
        self.assertEqual((0, {"result": 1}),
                         self.ctl_json("unzip-package", "X:\\pkg\\", "a.zip", "X:\\keep\\", "out"))
        self.assertEqual(b"a", self.read_x("X:\\keep\\out\\a.txt"))
        self.assertEqual((0, {"result": 1}), self.ctl_json("delete-dir", "keep\\inner"))
        self.assertFalse(os.path.exists(self.x("X:\\keep\\inner")))
        self.assertEqual((0, {"result": 1}), self.ctl_json("delete-dir", "--force", "X:\\keep"))
        self.assertFalse(os.path.exists(self.x("X:\\keep")))
        self.assertEqual((1, {"result": 0}), self.ctl_json("delete-dir", "X:\\keep"))
        status, out, err = self.ctl("delete-dir", "X:\\src")
        self.assertEqual((0, "result: 1\n", ""), (status, out, err))

    def test_dry_run_lists_the_walk_and_deletes_nothing(self):
        for name in ("alpha\\Deep\\d.txt", "alpha\\z.txt", "Beta.txt", "gamma.txt",
                     "outside\\o.txt"):
            self.put("X:\\" + ("" if name.startswith("outside") else "t\\") + name, name)
        os.symlink(self.x("X:\\outside"), self.x("X:\\t\\link-out"))
        # Wine lists a folder by name, case ignored, after "." and "..".
        steps = [("file", "X:\\t\\alpha\\Deep\\d.txt"), ("folder", "X:\\t\\alpha\\Deep"),
                 ("file", "X:\\t\\alpha\\z.txt"), ("folder", "X:\\t\\alpha"),
                 ("file", "X:\\t\\Beta.txt"), ("file", "X:\\t\\gamma.txt"),
                 ("keep", "X:\\t\\link-out"), ("folder", "X:\\t")]
        before, records = self.snapshot(), self.records()
        status, out, err = self.ctl("delete-dir", "--dry-run", "X:\\t")
        self.assertEqual((0, ["%-6s %s" % step for step in steps]), (status, out.splitlines()))
        self.assertEqual("dorvanectl: dry run: would delete 4 files, 3 folders and 0 links; would "
                         "keep 1 link that cannot be removed alone here, and the folders holding "
                         "them; nothing was deleted\n", err)
        status, preview = self.ctl_json("delete-dir", "X:\\t", "--dry-run")
        self.assertEqual(0, status)
        self.assertEqual({
            "result": None,
            "would_delete": [{"kind": k, "path": p} for k, p in steps if k != "keep"],
            "would_keep": [{"kind": "link", "path": "X:\\t\\link-out"}],
            "files": 4, "folders": 3, "links": 0, "kept_links": 1, "needs_force": None}, preview)
        self.assertEqual(before, self.snapshot())
        self.assertEqual(records, self.records(), "the library was not called")

        # The deletion walks the same way: it logs each sub-folder as it
        # enters it, in the order the dry run's folders begin; it removes
        # what was listed, keeps the link (and so the folder holding it) and
        # what the link leads to.
        self.assertEqual((1, {"result": 0}), self.ctl_json("delete-dir", "X:\\t"))
        entered = [m for m in self.records()[len(records):] if m.startswith("X:\\t\\")]
        self.assertEqual(["X:\\t\\alpha", "X:\\t\\alpha\\Deep"], entered)
        self.assertEqual(["link-out"], os.listdir(self.x("X:\\t")))
        self.assertEqual(b"outside\\o.txt", self.read_x("X:\\outside\\o.txt"))

        # Nothing to walk: a missing folder, a file.
        for given in ("X:\\none", "X:\\a-first.txt"):
            status, preview = self.ctl_json("delete-dir", "--dry-run", given)
            self.assertEqual((1, [], 0), (status, preview["would_delete"], preview["folders"]))


def main():
    global ARGS
    ARGS, run = winebox.test_main("dorvanectl", "work", "base")
    run()


if __name__ == "__main__":
    main()
