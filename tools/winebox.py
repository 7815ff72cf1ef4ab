# A private Wine prefix that runs the service: create, install, start, stop, read the log.
#
# Used by the whole-program tests and by the demo. Every Wine call gets the same
# environment: the prefix, no debug output, no crash debugger (a crash then always
# exits non-zero), no Mono/Gecko installers.
#
import argparse
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SERVICE_NAME = "WWAN Dorvane"
SERVICE_KEY = r"HKLM\SYSTEM\CurrentControlSet\Services\WWAN\Dorvane"
LOG_PATH = r"C:\Windows\WWAN\DorvaneBin\Dorvane.log"
INSTALL_DIR = r"C:\Program Files\Dorvane"
STOPPED, START_PENDING, STOP_PENDING, RUNNING = 1, 2, 3, 4
OWN_TOOLS = ("dorvanectl.exe", "mbnsimctl.exe")
# The simulator's counters of what a process left behind: all 0 after a clean exit.
LEFTOVERS = ("LiveObjects", "AdvisedSinks", "BadReleases", "BadUnadvises", "PendingCompletions")
ARGS = None  # the options of the running test script (test_main)


class WineBox:
    def __init__(self, prefix, base=None):
        self.prefix = os.path.abspath(prefix)
        if os.path.exists(self.prefix):
            self._wineserver("-k")
            shutil.rmtree(self.prefix)
        # scripts/wine-prefix makes a fresh 64-bit prefix unless one is there already.
        subprocess.run([os.path.join(REPO, "scripts", "wine-prefix"), base or self.prefix], check=True,
                       stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        if base:
            subprocess.run(["cp", "-a", base, self.prefix], check=True)
        self.env = dict(os.environ, WINEPREFIX=self.prefix, WINEDEBUG="-all",
                        WINEDLLOVERRIDES="winedbg.exe=d;mscoree,mshtml=")
        self._keepalive = None
        # A persistent wineserver makes each later Wine call cost milliseconds.
        self._wineserver("-p")
        self.run(["cmd", "/c", "exit"])

    # -- processes -------------------------------------------------------
    def _wineserver(self, flag):
        subprocess.run(["wineserver", flag], env=dict(os.environ, WINEPREFIX=self.prefix),
                       stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def spawn(self, args, cwd=None):
        # Starts a Windows program without waiting; finish() waits. The output
        # goes through files, not pipes: Wine's background processes inherit
        # the handles and would hold a pipe open long after the program ends.
        # `cwd` (a Unix folder) is where the program starts.
        out, err = tempfile.TemporaryFile(), tempfile.TemporaryFile()
        proc = subprocess.Popen(["wine"] + [str(a) for a in args], env=self.env, cwd=cwd,
                                stdin=subprocess.DEVNULL, stdout=out, stderr=err)
        return proc, out, err, cwd

    def finish(self, handle, timeout=120, retries=2):
        # The CompletedProcess, text output with Windows line ends made "\n".
        # Now and then, under load, Wine's launcher does not start a program at
        # all ("ShellExecuteEx failed"), or a tool of ours exits 1 with no output
        # (ours explain every failure in words): it never ran, so it is run again.
        proc, out, err, cwd = handle
        with out, err:
            try:
                proc.wait(timeout=timeout)
            except subprocess.TimeoutExpired:
                proc.kill()
                proc.wait()
                raise
            text = [f.seek(0) or f.read().decode("utf-8", "replace").replace("\r\n", "\n") for f in (out, err)]
        # Wine's own complaint of a thread that a simulator-using process left
        # talking to the wine server as it exited.
        text[1] = "".join(l for l in text[1].splitlines(True) if not l.startswith("wine client error:"))
        result = subprocess.CompletedProcess(proc.args[1:], proc.returncode, *text)
        ours = os.path.basename(proc.args[1].replace("\\", "/")).lower() in OWN_TOOLS
        if retries and result.returncode != 0 and (
                "ShellExecuteEx failed" in text[0] + text[1]
                or (ours and result.returncode == 1 and not text[0] + text[1])):
            sys.stderr.write("winebox: %s not started (exit %d); running it again\n"
                             % (" ".join(proc.args[1:]), result.returncode))
            return self.finish(self.spawn(proc.args[1:], cwd), timeout, retries - 1)
        return result

    def run(self, args, timeout=120, check=False, cwd=None):
        result = self.finish(self.spawn(args, cwd), timeout)
        if check and result.returncode:
            raise AssertionError("%s: exit %d\n%s%s" % (" ".join(result.args), result.returncode, result.stdout,
                                                        result.stderr))
        return result

    def run_all(self, commands, at_once=6, timeout=120, cwd=None):
        # Independent programs, `at_once` at a time; their results in order.
        results = []
        for start in range(0, len(commands), at_once):
            handles = [self.spawn(args, cwd) for args in commands[start:start + at_once]]
            results += [self.finish(h, timeout) for h in handles]
        return results

    def keep_alive(self):
        # Wine ends service processes when the prefix's last ordinary process
        # exits: one such process waits on its input until close().
        self._keepalive = self._keepalive or subprocess.Popen(["wine", "cmd", "/c", "pause"], env=self.env,
                                                              stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                                              stderr=subprocess.DEVNULL)

    def close(self, discard=False):
        # Ends every Wine process of the prefix; `discard` also deletes the prefix.
        if self._keepalive:
            self._keepalive.kill()
            self._keepalive.wait()
            self._keepalive = None
        self._wineserver("-k")
        if discard:
            self._wineserver("-w")
            shutil.rmtree(self.prefix, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    # -- files -----------------------------------------------------------
    def unix_path(self, windows_path):
        path = os.path.realpath(os.path.join(self.prefix, "dosdevices", windows_path[0].lower() + ":"))
        # The prefix's own folders are lower-case; Windows names are not.
        for part in [p for p in windows_path[2:].replace("\\", "/").split("/") if p]:
            names = os.listdir(path) if os.path.isdir(path) else []
            path = os.path.join(path, next((n for n in names if n.lower() == part.lower()), part))
        return path

    def put_file(self, source, windows_dir, name=None):
        # Copies `source` into `windows_dir` (as `name` if given); gives its Windows path.
        target = windows_dir.rstrip("\\") + "\\" + (name or os.path.basename(source))
        os.makedirs(self.unix_path(windows_dir), exist_ok=True)
        shutil.copy(source, self.unix_path(target))
        return target

    def write(self, windows_path, data):
        # Text as UTF-8, bytes as they are; the folders are made. Gives the path.
        path = self.unix_path(windows_path)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as f:
            f.write(data if isinstance(data, bytes) else data.encode())
        return windows_path

    def read(self, windows_path=LOG_PATH):
        # The file's bytes, None when there is no such file.
        path = self.unix_path(windows_path)
        if os.path.isfile(path):
            with open(path, "rb") as f:
                return f.read()

    read_log = read

    def log_messages(self, windows_path=LOG_PATH):
        return messages(parse_log(self.read(windows_path) or b""))

    # -- registry and services ---------------------------------------------
    def reg_add(self, key, value=None, data=None, kind="REG_SZ"):
        return self.run(["reg", "add", key, "/f"] + (["/v", value, "/t", kind, "/d", str(data)] if value else []),
                        check=True)

    def sc(self, *args):
        return self.run(["sc"] + list(args))

    def install_service(self, exe, name=SERVICE_NAME):
        self.sc("create", name, "binPath=", '"%s"' % self.put_file(exe, INSTALL_DIR)).check_returncode()

    def query(self, name=SERVICE_NAME):
        # (state, win32 exit code), or None when the service does not exist.
        found = re.search(r"STATE\s*:\s*(\d+)(?:[\s\S]*?WIN32_EXIT_CODE\s*:\s*(\d+))?", self.sc("query", name).stdout)
        return tuple(int(n) if n else None for n in found.groups()) if found else None

    def wait_state(self, state, name=SERVICE_NAME, timeout=60):
        deadline = time.monotonic() + timeout
        while True:
            now = self.query(name)
            if now is not None and now[0] == state:
                return now
            if time.monotonic() > deadline:
                raise AssertionError("%s did not reach state %d (last: %r)" % (name, state, now))
            time.sleep(0.1)

    # -- the Mobile Broadband simulator -------------------------------------------
    def install_simulator(self, sim_dir):
        # Copies mbnsim.dll and mbnsimctl.exe and registers the simulator
        # under the Mobile Broadband class ids.
        self.put_file(os.path.join(sim_dir, "mbnsim.dll"), INSTALL_DIR)
        self._simctl = self.put_file(os.path.join(sim_dir, "mbnsimctl.exe"), INSTALL_DIR)
        self.simctl("register")

    def simctl_args(self, *args):
        return [self._simctl] + [str(a) for a in args]

    def simctl(self, *args):
        return self.run(self.simctl_args(*args), check=True).stdout

    def sim_counters(self, *names):
        # {pid: {counter: value}} for every process that used the simulator;
        # only the counters `names` if given.
        out = {}
        for m in re.finditer(r"^pid (\d+): (.*)$", self.simctl("counters"), re.M):
            found = dict(kv.split("=") for kv in m.group(2).split())
            out[int(m.group(1))] = {k: int(v) for k, v in found.items() if k in (names or found)}
        return out


# -- the log -----------------------------------------------------------------
BANNER = "---------------log start------------------"
_PREFIX = re.compile(r"(\[ERROR\] |\[WARNING\] |\[DETAIL\]) (\d\d-\d\d \d\d:\d\d:\d\d:\d\d\d): ")


class Record:
    def __init__(self, tag, stamp, message):
        self.tag, self.stamp, self.message = tag, stamp, message

    def millis(self):
        h, m, s, ms = (int(x) for x in self.stamp[6:].split(":"))
        return ((h * 60 + m) * 60 + s) * 1000 + ms


def parse_log(data):
    # The records of a log; a message keeps its own line breaks.
    text = data.decode("latin-1").replace("\r\n", "\n")
    records = []
    for line in text[:-1].split("\n") if text.endswith("\n") else text.split("\n") if text else []:
        m = _PREFIX.match(line)
        if m:
            records.append(Record(m.group(1), m.group(2), line[m.end():]))
        elif line == BANNER:
            records.append(Record("banner", "", ""))
        elif records and records[-1].tag != "banner":
            records[-1].message += "\n" + line
        else:
            records.append(Record("stray", "", line))
    return records


def messages(records):
    return [r.message for r in records if r.tag != "banner"]


class BoxCase(unittest.TestCase):
    # One prefix for the class's tests (a copy of --base under --work, deleted
    # at the end), with dorvanectl in it when the script is given --dorvanectl.
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.box = WineBox(os.path.join(ARGS.work, cls.__name__), base=ARGS.base)
        if getattr(ARGS, "dorvanectl", None):
            cls.ctl_exe = cls.box.put_file(ARGS.dorvanectl, INSTALL_DIR)

    @classmethod
    def tearDownClass(cls):
        cls.box.close(discard=True)

    def ctl(self, *args, **kw):
        return self.box.run([self.ctl_exe] + list(args), **kw)

    def assertRuns(self, rows, program=None, at_once=1, cwd=None, say="dorvanectl: "):
        # Each (arguments, exit status, standard output, standard error) row
        # of `program` (dorvanectl by default), `at_once` rows at a time.
        # Output given as a dict is the JSON object (its "record" left out), as
        # a compiled pattern one that it must match; standard error is given
        # without `say` at its lines' starts and the last line end.
        results = self.box.run_all([(program or [self.ctl_exe]) + list(r[0]) for r in rows], at_once, cwd=cwd)
        for (args, status, out, err), result in zip(rows, results):
            with self.subTest(args=args):
                got = result.stdout
                if isinstance(out, dict):
                    got = {k: v for k, v in json.loads(got).items() if k != "record"}
                elif hasattr(out, "search"):
                    out = got if out.search(got) else out.pattern
                self.assertEqual((status, out, "".join(say + l + "\n" for l in err.split("\n")) if err else ""),
                                 (result.returncode, got, result.stderr), result.stdout)


def json_row(args, status, answer):
    # An assertRuns row of a --json run: the object, whose error (if any) is
    # standard error too.
    return ["--json"] + args, status, answer, answer.get("error", "")


def test_main(*names, plain=()):
    # Parses the required `--name PATH` options (made absolute) and `plain`
    # ones (as given) into ARGS and runs the calling script's cases.
    global ARGS
    parser = argparse.ArgumentParser()
    for name in names + plain:
        parser.add_argument("--" + name, required=True, type=str if name in plain else os.path.abspath)
    ARGS, rest = parser.parse_known_args()
    os.makedirs(ARGS.work, exist_ok=True)
    unittest.main(argv=[sys.argv[0]] + rest, verbosity=2)
