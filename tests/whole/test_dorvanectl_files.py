"""dorvanectl's file, package and process commands under Wine: arguments in the
operations' order, --json results, exit statuses, and the effects on disk.

    test_dorvanectl_files.py --dorvanectl dorvanectl.exe --work DIR --base PREFIX
"""
import io
import json
import os
import shutil
import struct
import sys
import unittest
import zipfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))
import winebox  # noqa: E402
from winebox import WineBox  # noqa: E402

ARGS = None
DRIVER = "C:\\Windows\\WWAN\\FwSwitchBin\\FirmwareData\\USBDriver\\"
LOG = "C:\\ctl\\files.log"


class FileCommands(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.box = WineBox(os.path.join(ARGS.work, "files"), base=ARGS.base)
        cls.ctl_path = cls.box.put_file(ARGS.dorvanectl, "C:\\ctl")

    @classmethod
    def tearDownClass(cls):
        cls.box.close(discard=True)

    def ctl(self, *args):
        """(exit status, the JSON object printed)."""
        result = self.box.run([self.ctl_path, "--json", "--log", LOG] + list(args))
        return result.returncode, json.loads(result.stdout) if result.stdout.strip() else None

    def put(self, windows_path, data):
        path = self.box.unix_path(windows_path)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as f:
            f.write(data if isinstance(data, bytes) else data.encode())

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

    def zip_bytes(self, entries):
        data = io.BytesIO()
        with zipfile.ZipFile(data, "w", zipfile.ZIP_DEFLATED) as z:
            for name, content in entries:
                z.writestr(zipfile.ZipInfo(name), content)
        return data.getvalue()

    def test_folders_existence_and_processes(self):
        self.put("C:\\t1\\src\\a.txt", "a")
        self.box.run(["cmd", "/c", "mkdir", "C:\\t1\\dst"])
        self.assertEqual((0, {"result": 1}), self.ctl("copy-dir", "C:\\t1\\dst", "C:\\t1\\src"))
        self.assertEqual(b"a", self.read("C:\\t1\\dst\\a.txt"))
        self.assertEqual((1, {"result": -1}), self.ctl("copy-dir", "C:\\t1\\dst", ""))
        self.assertEqual((1, {"result": -3}), self.ctl("copy-dir", "C:\\t1\\dst", "C:\\t1\\none"))

        self.assertEqual((0, {"result": True}), self.ctl("file-exists", "C:\\t1\\dst\\a.txt"))
        self.assertEqual((1, {"result": False}), self.ctl("file-exists", "C:\\t1\\dst\\b.txt"))
        chain = ["C:", "C:\\t1", "C:\\t1\\m", "C:\\t1\\m\\n", "C:\\t1\\m\\n\\o"]
        self.assertEqual((0, {"result": True, "folders": chain, "made": chain[2:]}),
                         self.ctl("make-folders", "C:\\t1\\m/n\\o/"))
        self.assertTrue(self.exists("C:\\t1\\m\\n\\o"))
        self.assertEqual((0, {"result": True, "folders": chain[:3], "made": []}),
                         self.ctl("make-folders", "C:\\t1\\m\\not-made"))
        self.assertEqual((1, {"result": False, "folders": chain[:2] + ["C:\\t1\\dst", "C:\\t1\\dst\\a.txt",
                                                                    "C:\\t1\\dst\\a.txt\\x"],
                              "made": [], "error": "make-folders: C:\\t1\\dst\\a.txt is not a folder afterwards"}),
                         self.ctl("make-folders", "C:\\t1\\dst\\a.txt\\x\\"))
        self.assertEqual((0, {"result": 1}), self.ctl("delete-dir", "C:\\t1"))
        self.assertFalse(self.exists("C:\\t1"))
        self.assertEqual((1, {"result": 0}), self.ctl("delete-dir", "C:\\t1"))
        log = self.read(LOG).decode("latin-1")
        self.assertIn("C:\\t1\\dst\\b.txt file is not exist error=2", log)
        self.assertIn("Delete dir failed", log)

        cmd = "C:\\windows\\system32\\cmd.exe"
        self.assertEqual((0, {"result": 3}), self.ctl("run-process", cmd, "cmd /c exit 3"))
        self.assertEqual((1, {"result": -999}), self.ctl("run-process", "C:\\none.exe", ""))

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

        self.assertEqual((1, {"result": 0}), self.ctl("delete-dir", "C:\\t5\\old"))
        self.assertEqual((1, {"result": 0}), self.ctl("delete-dir", "C:\\t5\\top-link"))
        self.assertEqual(b"keep", self.read("C:\\t5\\keep\\f.txt"))
        self.assertTrue(os.path.isdir(self.box.unix_path("C:\\t5\\empty")))
        self.assertEqual(["empty-link", "keep-link"], sorted(os.listdir(old)))
        self.assertTrue(os.path.islink(top))
        self.assertEqual(failed_before + 2, self.log_text().count("Delete dir failed"))

    def test_hostile_packages(self):
        # The chain: a package entry that would replace the USB driver's
        # install batch file beside the image folder, which install-usb-driver
        # then runs. The genuine batch file must be the one that runs.
        self.put(DRIVER + "Uninstall_Inf.bat", "@echo uninstall>>order.txt\r\n")
        self.put(DRIVER + "Install_Inf.bat", "@echo genuine>>order.txt\r\n")
        data = "C:\\Windows\\WWAN\\FwSwitchBin\\FirmwareData\\"
        self.put("C:\\t6\\pkg.zip", self.zip_bytes([
            ("fw.bin", b"firmware"), ("../USBDriver/Install_Inf.bat", b"@echo owned>>order.txt\r\n")]))
        try:
            self.assertEqual((0, {"result": 1}),
                             self.ctl("unzip-package", "C:\\t6\\", "pkg.zip", data, "image"))
            self.assertEqual(b"firmware", self.read(data + "image\\fw.bin"))
            self.assertEqual((0, {"result": 1}), self.ctl("install-usb-driver"))
            self.assertEqual(b"uninstall\r\ngenuine\r\n", self.read(DRIVER + "order.txt"))
        finally:
            shutil.rmtree(self.box.unix_path(data), ignore_errors=True)

        # Look-alike names: listed with stand-ins, never unpacked.
        self.put("C:\\t6\\wide.zip", self.zip_bytes([("a\uff0f\uff0e\uff0e\uff0fx", b"1")]))
        status, listing = self.ctl("zip-items", "C:\\t6\\wide.zip")
        self.assertEqual((0, ["a????x"]), (status, [i["name"] for i in listing["items"]]))
        self.assertEqual((0, {"result": 1}),
                         self.ctl("unzip-all-items", "C:\\t6\\w\\", "C:\\t6\\wide.zip"))
        self.assertFalse(self.exists("C:\\t6\\w"), "nothing made, not even the folder")

        # A Zip64 end record with an absurd entry count: a result, not an abort.
        good = self.zip_bytes([("a.txt", b"a")])
        end = good.rindex(b"PK\x05\x06")
        cd_size, cd_offset = struct.unpack("<II", good[end + 12:end + 20])
        record = struct.pack("<IQHHIIQQQQ", 0x06064B50, 44, 45, 45, 0, 0, 1 << 62, 1 << 62,
                             cd_size, cd_offset)
        locator = struct.pack("<IIQI", 0x07064B50, 0, end, 1)
        classic = struct.pack("<IHHHHIIH", 0x06054B50, 0, 0, 0xFFFF, 0xFFFF, cd_size, 0xFFFFFFFF, 0)
        self.put("C:\\t6\\count.zip", good[:end] + record + locator + classic)
        status, listing = self.ctl("zip-items", "C:\\t6\\count.zip")
        self.assertEqual((1, 0x700), (status, listing["result"]))

        # One stored block of 1 MiB named 60 times: nothing is unpacked.
        block = b"z" * (1 << 20)
        one = io.BytesIO()
        with zipfile.ZipFile(one, "w", zipfile.ZIP_STORED) as z:
            z.writestr("f00", block)
        one = one.getvalue()
        cd = one.rindex(b"PK\x01\x02")
        end = one.rindex(b"PK\x05\x06")
        central = one[cd:end]
        copies = b"".join(central.replace(b"f00", b"f%02d" % i) for i in range(60))
        trailer = (one[end:end + 8] + (60).to_bytes(2, "little") * 2
                   + (len(copies)).to_bytes(4, "little") + one[end + 16:])
        self.put("C:\\t6\\bomb.zip", one[:cd] + copies + trailer)
        self.assertEqual((0, {"result": 1}),
                         self.ctl("unzip-package", "C:\\t6\\", "bomb.zip", "C:\\t6\\", "bomb"))
        self.assertEqual([], os.listdir(self.box.unix_path("C:\\t6\\bomb")))
        status, listing = self.ctl("zip-items", "C:\\t6\\bomb.zip")
        self.assertEqual((1, 0x700), (status, listing["result"]))

    def test_prefix_user_folders_stay_inside_the_prefix(self):
        # Wine links Desktop, Documents, ... to the home directory; the test
        # prefixes make them plain folders, so delete-dir and unpacked packages
        # under test cannot reach outside.
        users = self.box.unix_path("C:\\users")
        folders = [os.path.join(users, u, f) for u in os.listdir(users)
                   for f in os.listdir(os.path.join(users, u))]
        self.assertTrue(any(f.endswith("Desktop") for f in folders), folders)
        self.assertEqual([], [f for f in folders if os.path.islink(f)])

    def test_packages_and_names(self):
        self.put("C:\\t2\\pkg\\fw.zip", self.zip_bytes([
            ("img/a.bin", b"A" * 5000), ("..\\..\\up.txt", b"up"), ("d/../../x", b"x")]))
        status, listing = self.ctl("zip-items", "C:\\t2\\pkg\\fw.zip")
        self.assertEqual(0, status)
        self.assertEqual((0, "Success", 3), (listing["result"], listing["text"], listing["count"]))
        self.assertEqual(["img/a.bin", "up.txt", "../x"], [i["name"] for i in listing["items"]])
        self.assertEqual(5000, listing["items"][0]["size"])

        self.assertEqual((0, {"result": 1}),
                         self.ctl("unzip-package", "C:\\t2\\pkg\\", "fw.zip", "C:\\t2\\out\\", "fw"))
        self.assertEqual(b"A" * 5000, self.read("C:\\t2\\out\\fw\\img\\a.bin"))
        self.assertEqual(b"up", self.read("C:\\t2\\out\\fw\\up.txt"))
        self.assertFalse(self.exists("C:\\t2\\out\\x"), "listed as ../x, never unpacked there")
        missing = "C:\\t2\\pkg\\no.zip: no such file (unzip-package gives 0 for a package that does not exist)"
        self.assertEqual((1, {"result": 0, "error": missing}),
                         self.ctl("unzip-package", "C:\\t2\\pkg\\", "no.zip", "C:\\t2\\out\\", "fw"))
        self.assertIn("Unzip Package not exist.", self.log_text(), "the library ran and gave its 0")

        self.assertEqual((0, {"result": 1}),
                         self.ctl("unzip-all-items", "C:\\t2\\all\\", "C:\\t2\\pkg\\fw.zip"))
        self.assertTrue(self.exists("C:\\t2\\all\\img\\a.bin"))
        self.put("C:\\t2\\bad.zip", b"PK not really")
        self.assertEqual((0, {"result": 1}), self.ctl("unzip-all-items", "C:\\t2\\b\\", "C:\\t2\\bad.zip"))
        self.assertIn("GetZipItem failed.", self.read(LOG).decode("latin-1"))
        status, listing = self.ctl("zip-items", "C:\\t2\\bad.zip")
        self.assertEqual((1, 0x700, "Zipfile is corrupt or not a zipfile"),
                         (status, listing["result"], listing["text"]))

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
                self.assertEqual((2, "", "dorvanectl: %s" % problem),
                                 (result.returncode, result.stdout, result.stderr.strip()))
                self.assertEqual((2, {"result": None, "error": problem}), self.ctl(*args))
        self.assertFalse(self.exists("C:\\t7\\out"), "nothing unpacked, no folder made")
        self.assertEqual(before, self.log_messages(),
                         "the library was not asked")
        # A package that is not there: the library's documented 0, with the reason.
        result = self.box.run([self.ctl_path, "--log", LOG, "unzip-all-items", "C:\\t7\\out\\", "C:\\t7\\none.zip"])
        self.assertEqual((1, "0\n", "dorvanectl: C:\\t7\\none.zip: no such file (unzip-all-items gives 0 for a "
                                     "package that does not exist)"),
                         (result.returncode, result.stdout, result.stderr.strip()))
        self.assertIn("unZip file not exist.", self.log_text())

    def test_usb_driver_installation(self):
        self.assertEqual((1, {"result": 0}), self.ctl("install-usb-driver"))
        self.put(DRIVER + "Uninstall_Inf.bat", "@echo uninstall>>order.txt\r\n")
        self.put(DRIVER + "Install_Inf.bat",
                 "@if exist drv.inf echo install-after-copy>>order.txt\r\n")
        self.put(DRIVER + "x64\\drv.inf", "inf")
        self.assertEqual((0, {"result": 1}), self.ctl("install-usb-driver"))
        self.assertEqual(b"uninstall\r\ninstall-after-copy\r\n", self.read(DRIVER + "order.txt"))

    def test_result_texts_and_usage(self):
        self.assertEqual((0, {"result": 35, "text": "Zipfile is corrupt or not a zipfile"}),
                         self.ctl("zip-result-text", "0x700"))
        self.assertEqual((0, {"result": 35, "text": "Zipfile"}),
                         self.ctl("zip-result-text", "1792", "--size", "8"))
        self.assertEqual((0, {"result": 24, "text": "Culdn't duplicate handle"}),
                         self.ctl("zip-result-text", "256"))
        self.assertEqual((0, {"result": 7, "text": "Success"}), self.ctl("zip-result-text", "1"))
        self.assertEqual((2, {"result": None, "error": "not a result code: 0x7G"}), self.ctl("zip-result-text", "0x7G"))
        self.assertEqual((0, {"result": 35, "text": "Zipfile is corrupt or not a zipfile"}),
                         self.ctl("zip-result-text", "01792"), "decimal, also after a zero")
        self.assertEqual(2, self.ctl("zip-result-text", "-1")[0])
        self.assertEqual(2, self.ctl("zip-result-text", "1", "--size", "010x")[0])
        self.assertEqual(2, self.ctl("copy-dir", "C:\\only-one")[0])
        self.assertEqual(2, self.ctl("unzip-package", "a", "b", "c")[0])


def main():
    global ARGS
    ARGS, run = winebox.test_main("dorvanectl", "work", "base")
    run()


if __name__ == "__main__":
    main()
