# Packages from every zip writer at hand, unpacked by dorvanectl under Wine and
# by Info-ZIP's unzip natively: the same names (as characters) and bytes for
# every name the Western code page can hold, the others never unpacked. (Names
# in the OEM code page and the Unicode Path field are the zip reader's unit tests'.)
#
#     test_zip_writers.py --dorvanectl dorvanectl.exe --work DIR --base PREFIX
#
import json
import os
import shutil
import subprocess
import sys
import zipfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))
import winebox  # noqa: E402

UTF8 = dict(os.environ, LANG="C.UTF-8", LC_ALL="C.UTF-8")
# File names of the source tree: ASCII, Western letters, and one that the
# Western code page cannot hold.
NAMES = ["plain.txt", "C\u00f4te d'Ivoire.txt", "\u00c6r\u00f8/fil.txt", "na\u00efve.bin",
         "sub/\u00fcber.txt", "\u65e5\u672c.txt"]
WESTERN = [n for n in NAMES if all(ord(c) < 0x100 for c in n)]


def content(name):
    return ("%s\n" % name).encode("utf-8") * 50


def names_of(folder):
    # {relative name as characters: bytes} of every file under `folder`.
    out = {}
    for root, _, files in os.walk(os.fsencode(folder)):
        for path in (os.path.join(root, f) for f in files):
            rel = os.path.relpath(path, os.fsencode(folder))
            try:
                text = rel.decode("utf-8")
            except UnicodeDecodeError:
                text = rel.decode("latin-1")  # unzip writes names it reads as OEM in Latin-1 bytes
            with open(path, "rb") as fh:
                out[text.replace(os.sep, "/")] = fh.read()
    return out


class Writers(winebox.BoxCase):
    def test_every_writer(self):
        work = os.path.join(winebox.ARGS.work, "writers")
        shutil.rmtree(work, ignore_errors=True)
        src = os.path.join(work, "src")
        for name in NAMES:
            os.makedirs(os.path.dirname(os.path.join(src, name)), exist_ok=True)
            with open(os.path.join(src, name), "wb") as f:
                f.write(content(name))
        for tool, command in (("python", None), ("infozip", ["zip", "-q", "-r"]), ("7z", ["7z", "a", "-bd", "-tzip"]),
                              ("bsdtar", ["bsdtar", "--format", "zip", "-cf"])):
            with self.subTest(tool=tool):
                archive = os.path.join(work, tool + ".zip")
                if command:
                    subprocess.run(command + [archive] + NAMES, cwd=src, env=UTF8, check=True, stdout=subprocess.DEVNULL)
                else:
                    with zipfile.ZipFile(archive, "w", zipfile.ZIP_DEFLATED) as z:
                        for n in NAMES:
                            z.write(os.path.join(src, n), n)
                subprocess.run(["unzip", "-q", "-o", archive, "-d", os.path.join(work, "unzip-" + tool)], env=UTF8,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                theirs = names_of(os.path.join(work, "unzip-" + tool))
                target = "C:\\out\\%s\\" % tool
                result = self.ctl("--json", "unzip-all-items", target, self.box.put_file(archive, r"C:\pkg"))
                # A name with no exact form in the code page (日本) is not
                # unpacked, and the command names it: exit 1.
                failed = json.loads(result.stdout).get("failed", [])
                self.assertEqual((1, [0x200] * (len(NAMES) - len(WESTERN))),
                                 (result.returncode, [f["result"] for f in failed]), result.stdout + result.stderr)
                ours = names_of(self.box.unix_path(target))
                self.assertEqual(sorted(WESTERN), sorted(ours))
                self.assertEqual([(content(n), content(n)) for n in WESTERN], [(ours[n], theirs.get(n)) for n in WESTERN])


if __name__ == "__main__":
    winebox.test_main("dorvanectl", "work", "base")
