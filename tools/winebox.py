"""A private Wine prefix that runs the service: create, install, start, stop, read the log.

Used by the whole-service tests and by the demo. Every Wine call gets the same
environment: the prefix, no debug output, no crash debugger (a crash then always
exits non-zero), no Mono/Gecko installers.
"""
import argparse
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
NOT_STARTED = "ShellExecuteEx failed"
OWN_TOOLS = ("dorvanectl.exe", "mbnsimctl.exe")


def ensure_base_prefix(path):
    """Creates a fresh 64-bit prefix at `path` unless one is there already."""
    subprocess.run([os.path.join(REPO, "scripts", "wine-prefix"), path], check=True,
                   stdout=subprocess.DEVNULL)


class WineBox:
    def __init__(self, prefix, base=None):
        self.prefix = os.path.abspath(prefix)
        if os.path.exists(self.prefix):
            self._wineserver("-k")
            shutil.rmtree(self.prefix)
        if base:
            ensure_base_prefix(base)
            subprocess.run(["cp", "-a", base, self.prefix], check=True)
        else:
            ensure_base_prefix(self.prefix)
        self.env = dict(os.environ, WINEPREFIX=self.prefix, WINEDEBUG="-all",
                        WINEDLLOVERRIDES="winedbg.exe=d;mscoree,mshtml=")
        self._keepalive = None
        # A persistent wineserver makes each later Wine call cost milliseconds.
        self._wineserver("-p")
        self.run(["cmd", "/c", "exit"])

    # -- processes -------------------------------------------------------
    def _wineserver(self, flag):
        env = dict(os.environ, WINEPREFIX=self.prefix)
        subprocess.run(["wineserver", flag], env=env, stdin=subprocess.DEVNULL,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def run(self, args, timeout=120, check=False, cwd=None):
        """Runs a Windows program; returns the CompletedProcess (text output).

        The output goes through files, not pipes: Wine's background processes
        inherit the handles and would hold a pipe open long after the program ends.
        `cwd` (a Unix folder) is where the program starts; Wine names it by the
        drive that maps it.
        """
        for attempt in range(3):
            result = self._finish_run(self._start_run(args, cwd), timeout)
            if not self._not_started(result):
                break
        if check and result.returncode != 0:
            raise subprocess.CalledProcessError(result.returncode, result.args, result.stdout,
                                                result.stderr)
        return result

    def run_all(self, commands, at_once=6, timeout=120):
        """Runs independent Windows programs (each a list of arguments), `at_once`
        at a time; returns their CompletedProcess results in order, as run() would."""
        results = []
        for start in range(0, len(commands), at_once):
            started = [(args, self._start_run(args)) for args in commands[start:start + at_once]]
            for args, handle in started:
                result = self._finish_run(handle, timeout)
                results.append(self.run(args, timeout) if self._not_started(result) else result)
        return results

    def _start_run(self, args, cwd=None):
        out, err = tempfile.TemporaryFile(), tempfile.TemporaryFile()
        proc = subprocess.Popen(["wine"] + list(args), env=self.env, stdin=subprocess.DEVNULL,
                                stdout=out, stderr=err, cwd=cwd)
        return proc, out, err

    @staticmethod
    def _finish_run(handle, timeout):
        proc, out, err = handle
        with out, err:
            try:
                proc.wait(timeout=timeout)
            except subprocess.TimeoutExpired:
                proc.kill()
                proc.wait()
                raise
            out.seek(0)
            err.seek(0)
            return subprocess.CompletedProcess(
                proc.args, proc.returncode,
                out.read().decode("utf-8", "replace").replace("\r\n", "\n"),
                err.read().decode("utf-8", "replace"))

    @staticmethod
    def _not_started(result):
        """True when Wine's launcher did not run the program.

        Now and then, under load, the launcher fails to start a program at all
        and falls back to ShellExecuteEx, which fails too; the program never
        ran, so running it again is safe. Seen once in CI: the same exit status
        1 with no output at all, from a mbnsimctl command that always names its
        failure on stderr. Our own tools explain every failure in words, so a
        silent 1 from one of them is taken as the launcher's and retried too
        (Wine's own programs may fail silently: `sc query` of a missing
        service does). Each retry is reported on stderr.
        """
        if result.returncode == 0:
            return False
        ours = os.path.basename(str(result.args[1]).replace("\\", "/")).lower() in OWN_TOOLS
        silent = ours and result.returncode == 1 and not (result.stdout or result.stderr)
        if silent or NOT_STARTED in result.stdout + result.stderr:
            sys.stderr.write("winebox: %s not started (exit %d, output %r); running it again\n"
                             % (" ".join(map(str, result.args[1:])), result.returncode,
                                (result.stdout + result.stderr)[:200]))
            return True
        return False

    def spawn(self, args):
        """Starts a Windows program without waiting; returns a handle for finish()."""
        return self._start_run(args)

    def finish(self, handle, timeout=300):
        """Waits for a spawned program; returns (exit code, stdout and stderr text).

        A program the launcher did not start (see _not_started) is run again,
        now in the foreground: it did nothing the first time."""
        proc, out, err = handle
        with out, err:
            proc.wait(timeout=timeout)
            out.seek(0)
            err.seek(0)
            stdout, stderr = (f.read().decode("utf-8", "replace").replace("\r\n", "\n")
                              for f in (out, err))
        if self._not_started(subprocess.CompletedProcess(proc.args, proc.returncode, stdout,
                                                         stderr)):
            again = self.run(proc.args[1:], timeout)
            return again.returncode, again.stdout + again.stderr.replace("\r\n", "\n")
        return proc.returncode, stdout + stderr

    def keep_alive(self):
        """Wine ends service processes when the prefix's last ordinary process exits:
        one such process waits on its input until close()."""
        if self._keepalive is None:
            self._keepalive = subprocess.Popen(["wine", "cmd", "/c", "pause"], env=self.env,
                                               stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                               stderr=subprocess.DEVNULL)

    def close(self, discard=False):
        """Ends every Wine process of the prefix; `discard` also deletes the prefix."""
        if self._keepalive is not None:
            try:
                self._keepalive.stdin.close()
            except OSError:
                pass
            self._keepalive.kill()
            self._keepalive.wait()
            self._keepalive = None
        self._wineserver("-k")
        if discard:
            subprocess.run(["wineserver", "-w"], env=dict(os.environ, WINEPREFIX=self.prefix),
                           stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL)
            shutil.rmtree(self.prefix, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    # -- files -----------------------------------------------------------
    def unix_path(self, windows_path):
        drive, rest = windows_path[0].lower(), windows_path[2:].replace("\\", "/").lstrip("/")
        root = os.path.join(self.prefix, "dosdevices", drive + ":")
        # The prefix's own drive folders are lower-case; Windows names are not.
        path = os.path.realpath(root)
        for part in [p for p in rest.split("/") if p]:
            match = None
            if os.path.isdir(path):
                for entry in os.listdir(path):
                    if entry.lower() == part.lower():
                        match = entry
                        break
            path = os.path.join(path, match or part)
        return path

    def map_drive(self, letter, unix_dir):
        """Makes drive `letter` (say "x") of the prefix the Unix folder `unix_dir`."""
        link = os.path.join(self.prefix, "dosdevices", letter.lower() + ":")
        if os.path.lexists(link):
            os.remove(link)
        os.symlink(os.path.abspath(unix_dir), link)

    def put_file(self, source, windows_dir):
        target_dir = self.unix_path(windows_dir)
        os.makedirs(target_dir, exist_ok=True)
        shutil.copy(source, target_dir)
        return windows_dir.rstrip("\\") + "\\" + os.path.basename(source)

    def read_log(self):
        path = self.unix_path(LOG_PATH)
        if not os.path.exists(path):
            return None
        with open(path, "rb") as f:
            return f.read()

    # -- registry and services ---------------------------------------------
    def reg_add(self, key, value=None, data=None, kind="REG_SZ"):
        args = ["reg", "add", key, "/f"]
        if value is not None:
            args += ["/v", value, "/t", kind, "/d", str(data)]
        return self.run(args, check=True)

    def sc(self, *args):
        return self.run(["sc"] + list(args))

    def install_service(self, exe, name=SERVICE_NAME, args=""):
        path = self.put_file(exe, INSTALL_DIR)
        bin_path = '"%s"%s' % (path, (" " + args) if args else "")
        result = self.sc("create", name, "binPath=", bin_path)
        if result.returncode != 0:
            raise RuntimeError("sc create %s failed: %s%s" % (name, result.stdout, result.stderr))

    # -- the Mobile Broadband simulator -------------------------------------------
    def install_simulator(self, sim_dir):
        """Copies mbnsim.dll and mbnsimctl.exe from `sim_dir` and registers the
        simulator under the Mobile Broadband class ids."""
        self.put_file(os.path.join(sim_dir, "mbnsim.dll"), INSTALL_DIR)
        self._simctl = self.put_file(os.path.join(sim_dir, "mbnsimctl.exe"), INSTALL_DIR)
        self.simctl("register")

    def simctl_args(self, *args):
        return [self._simctl] + [str(a) for a in args]

    def simctl(self, *args):
        result = self.run([self._simctl] + [str(a) for a in args])
        if result.returncode != 0:
            raise RuntimeError("mbnsimctl %s failed: %s%s" % (" ".join(map(str, args)),
                                                             result.stdout, result.stderr))
        return result.stdout

    def sim_counters(self):
        """{pid: {counter: value}} for every process that used the simulator."""
        out = {}
        for line in self.simctl("counters").splitlines():
            m = re.match(r"pid (\d+): (.*)", line)
            if m:
                out[int(m.group(1))] = {k: int(v) for k, v in
                                        (kv.split("=") for kv in m.group(2).split())}
        return out

    def query(self, name=SERVICE_NAME):
        """(state, win32 exit code), or None when the service does not exist."""
        out = self.sc("query", name).stdout
        state = re.search(r"STATE\s*:\s*(\d+)", out)
        code = re.search(r"WIN32_EXIT_CODE\s*:\s*(\d+)", out)
        if not state:
            return None
        return int(state.group(1)), int(code.group(1)) if code else None

    def wait_state(self, state, name=SERVICE_NAME, timeout=60):
        deadline = time.monotonic() + timeout
        while True:
            now = self.query(name)
            if now is not None and now[0] == state:
                return now
            if time.monotonic() > deadline:
                raise AssertionError("%s did not reach state %d (last: %r)" % (name, state, now))
            time.sleep(0.1)


# -- the log -----------------------------------------------------------------
BANNER = "---------------log start------------------"
_PREFIX = re.compile(r"(\[ERROR\] |\[WARNING\] |\[DETAIL\]) (\d\d-\d\d \d\d:\d\d:\d\d:\d\d\d): ")


class Record:
    def __init__(self, tag, stamp, message):
        self.tag, self.stamp, self.message = tag, stamp, message

    def millis(self):
        """Time of day of the line in milliseconds."""
        h, m, s, ms = (int(x) for x in self.stamp[6:].split(":"))
        return ((h * 60 + m) * 60 + s) * 1000 + ms

    def __repr__(self):
        return "%s%r" % (self.tag, self.message)


def parse_log(data):
    """Splits the log into records; a message keeps its own line breaks."""
    text = data.decode("latin-1").replace("\r\n", "\n")
    records = []
    for line in text.split("\n")[:-1] if text.endswith("\n") else text.split("\n"):
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


def test_main(*names):
    """Runs the calling script's unittest cases. Each name is a required
    `--name PATH` option, made absolute; the parsed options are returned for
    the cases to read (assign them before the cases run: unittest.main is
    called by the returned function)."""
    parser = argparse.ArgumentParser()
    for name in names:
        parser.add_argument("--" + name, required=True)
    args, rest = parser.parse_known_args()
    for name in names:
        attr = name.replace("-", "_")
        setattr(args, attr, os.path.abspath(getattr(args, attr)))
    if "work" in names:
        os.makedirs(args.work, exist_ok=True)
    return args, lambda: unittest.main(argv=[sys.argv[0]] + rest, verbosity=2,
                                       testRunner=unittest.TextTestRunner(resultclass=_TimedResult,
                                                                          verbosity=2))


class _TimedResult(unittest.TextTestResult):
    """Also prints the five slowest tests at the end, for keeping the run short."""

    def startTest(self, test):
        self._started = time.monotonic()
        super().startTest(test)

    def stopTest(self, test):
        super().stopTest(test)
        self.__dict__.setdefault("_seconds", []).append((time.monotonic() - self._started, test.id()))

    def printErrors(self):
        super().printErrors()
        slowest = sorted(self.__dict__.get("_seconds", []), reverse=True)[:5]
        self.stream.writeln("slowest: " + ", ".join("%s %.1f s" % (name.rsplit(".", 1)[-1], seconds)
                                                    for seconds, name in slowest))
