"""Whole-service tests: the real dorvane.exe under Wine's service manager.

Each test gets a fresh copy of a base prefix, installs the service with
`sc create`, drives it with `sc start/stop` and `reg add`, and reads its log.
Without a Mobile Broadband stack in the prefix, the sink attach and the SIM
query fail with their logged texts and the service keeps running.

    test_service.py --exe dorvane.exe --lumarix lumarix_stub.exe --work DIR --base PREFIX
"""
import json
import os
import shutil
import subprocess
import sys
import time
import unittest
import xml.etree.ElementTree as ET

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))
import png  # noqa: E402
import winebox  # noqa: E402
from winebox import RUNNING, STOP_PENDING, STOPPED, WineBox  # noqa: E402

ARGS = None

START_ENTER = "[Information][CServiceStart::StartWork] Service start, StartWork Enter  >> "
ATTACH_FAIL = ("[Fail][CMbnMonitor::AttachStateMbnRegEvent] CoCreateInstance "
               "CLSID_MbnInterfaceManager Fail.")
START_ATTACH_FAIL = "[Error][CServiceStart::StartWork] AttachStateMbnRegEvent Fail."
START_DONE = "[Information][CServiceStart::StartWork] StartWork Done."
THREAD_ENTER = "[Infomation][CStateWork::TheadWork] Enter TheadWork."
COM_DONE = "CoInitializeEx done"
CHECK_ENTER = "[Infomation][CStateWork::ServiceCheckThead] Enter ServiceCheckThead."
CHECK_DONE = "[Infomation][CStateWork::ServiceCheckThead] ServiceCheckThead done."
SIM_FAIL = "[Fail][CStateWork::GetSimInfo] CoInitializeEx Fail."
REGISTER = "\n\n------------------------[CStateWork::Work] register event-------------------\n"
WORK_STOP = "[Infomation][CStateWork::Work] Triger Service Stop Event.\n"
STOP_DONE = "[Infomation][CServiceStart::StopWork] Stop work success.\r\n\r\n"


class ServiceCase(unittest.TestCase):
    def setUp(self):
        name = self.id().rsplit(".", 1)[-1]
        self.box = WineBox(os.path.join(ARGS.work, name), base=ARGS.base)
        # A passing test's prefix is deleted; a failing one's is kept for a look.
        self.addCleanup(lambda: self.box.close(discard=self._passed()))
        self.box.keep_alive()
        self.box.reg_add(winebox.SERVICE_KEY)

    def _passed(self):
        outcome = getattr(self, "_outcome", None)
        result = getattr(outcome, "result", None)
        if result is None:
            return True
        mine = [t for t, _ in result.failures + result.errors if t is self]
        return not mine and getattr(outcome, "success", True)

    def start_service(self):
        self.box.install_service(ARGS.exe)
        self.box.sc("start", winebox.SERVICE_NAME)
        self.box.wait_state(RUNNING)

    def wait_for(self, text, timeout=30):
        deadline = time.monotonic() + timeout
        while True:
            data = self.box.read_log()
            if data is not None and text in winebox.messages(winebox.parse_log(data)):
                return winebox.parse_log(data)
            if time.monotonic() > deadline:
                self.fail("no log line %r; log so far:\n%s" % (text, (data or b"").decode("latin-1")))
            time.sleep(0.1)

    def assertInOrder(self, msgs, expected):
        """`expected` appears in `msgs` as a subsequence (lines of other threads between)."""
        pos = 0
        for text in expected:
            try:
                pos = msgs.index(text, pos) + 1
            except ValueError:
                self.fail("%r missing or out of order in:\n%s" % (text, "\n".join(map(repr, msgs))))


class StartAndStop(ServiceCase):
    def test_start_without_modem_then_registry_change_then_stop(self):
        # WinExec looks for sc.exe beside the program first: this one records
        # the recovery command (Wine's sc stores no failure actions).
        recorder = os.path.join(self.box.unix_path("C:\\"), "sc.exe")
        shutil.copy(ARGS.sc_recorder, recorder)
        self.box.put_file(recorder, winebox.INSTALL_DIR)
        self.start_service()
        records = self.wait_for(SIM_FAIL)
        self.assertEqual("banner", records[0].tag)
        msgs = winebox.messages(records)
        # The service main thread: attach fails, so no start notification follows.
        self.assertInOrder(msgs, [START_ENTER, ATTACH_FAIL, START_ATTACH_FAIL, START_DONE])
        self.assertNotIn("----Service start-------------", msgs)
        self.assertNotIn("SetSimChangeEvent mccmnc:", msgs)
        # The worker thread.
        recovery = [m for m in msgs if m.startswith("service Properties->recovery ,Code=")]
        self.assertEqual(1, len(recovery))
        code = int(recovery[0][len("service Properties->recovery ,Code="):].split("(")[0])
        self.assertGreater(code, 31, "WinExec must have started sc")
        self.assertEqual("(should >31)", recovery[0][recovery[0].index("("):])
        with open(self.box.unix_path("C:\\sc-calls.txt"), encoding="latin-1") as f:
            self.assertEqual(['sc failure "WWAN Dorvane" reset= 86400 actions= '
                              'restart/30000/restart/30000/restart/30000'], f.read().splitlines())
        self.assertInOrder(msgs, [THREAD_ENTER, recovery[0], COM_DONE, CHECK_ENTER,
                                  "OpenService failed (1060)", SIM_FAIL])
        tags = {r.message: r.tag for r in records}
        self.assertEqual("[ERROR] ", tags[ATTACH_FAIL])
        self.assertEqual("[ERROR] ", tags[SIM_FAIL])
        self.assertEqual("[DETAIL]", tags[START_DONE])

        # One registry notification per run, however many writes follow.
        self.box.reg_add(winebox.SERVICE_KEY, "Probe", 1, "REG_DWORD")
        self.wait_for(REGISTER)
        self.box.reg_add(winebox.SERVICE_KEY, "Probe", 2, "REG_DWORD")
        time.sleep(1.0)

        self.box.sc("stop", winebox.SERVICE_NAME)
        self.assertEqual((STOPPED, 0), self.box.wait_state(STOPPED))
        msgs = winebox.messages(self.wait_for(STOP_DONE))
        self.assertEqual(1, msgs.count(REGISTER))
        self.assertInOrder(msgs, [SIM_FAIL, REGISTER, WORK_STOP, STOP_DONE])
        self.assertEqual(STOP_DONE, msgs[-1])

    def test_restart_appends_a_new_banner(self):
        self.start_service()
        self.wait_for(SIM_FAIL)
        self.box.sc("stop", winebox.SERVICE_NAME)
        self.box.wait_state(STOPPED)
        self.box.sc("start", winebox.SERVICE_NAME)
        self.box.wait_state(RUNNING)
        deadline = time.monotonic() + 30
        while winebox.messages(winebox.parse_log(self.box.read_log())).count(SIM_FAIL) < 2:
            self.assertLess(time.monotonic(), deadline, "second start never reached the SIM query")
            time.sleep(0.1)
        records = winebox.parse_log(self.box.read_log())
        self.assertEqual(2, [r.tag for r in records].count("banner"))
        self.assertEqual(2, winebox.messages(records).count(START_ENTER))

    def test_run_from_a_command_prompt_exits_silently(self):
        exe = self.box.put_file(ARGS.exe, winebox.INSTALL_DIR)
        result = self.box.run([exe], timeout=60)
        self.assertEqual(0, result.returncode)
        self.assertEqual("", result.stdout)
        self.assertIsNone(self.box.read_log(), "nothing is logged outside the service")


class LegacyService(ServiceCase):
    def install_lumarix(self, stop_seconds):
        exe = self.box.put_file(ARGS.lumarix, winebox.INSTALL_DIR)
        result = self.box.sc("create", "Lumarix", "binPath=", '"%s" %d' % (exe, stop_seconds))
        self.assertEqual(0, result.returncode, result.stdout)

    def test_slow_stopping_legacy_service_is_polled_and_deleted(self):
        self.install_lumarix(stop_seconds=3)
        self.box.sc("start", "Lumarix")
        self.box.wait_state(RUNNING, name="Lumarix")
        self.start_service()
        # The SIM query's line follows the check thread's last one, under load
        # well after it: wait for both.
        self.wait_for(CHECK_DONE)
        records = self.wait_for(SIM_FAIL)
        msgs = winebox.messages(records)
        self.assertInOrder(msgs, [CHECK_ENTER, "Service dwCurrentState == SERVICE_STOPPED",
                                  "Service removed successfully", CHECK_DONE, SIM_FAIL])
        self.assertNotIn("Service stop Failed.", msgs)
        by_text = {r.message: r for r in records}
        waited = by_text["Service removed successfully"].millis() - by_text[CHECK_ENTER].millis()
        self.assertGreaterEqual(waited, 3000, "removal must wait out the stop-pending state")
        self.assertIsNone(self.box.query("Lumarix"), "Lumarix must be deleted")

    def test_stopped_legacy_service_stays_installed(self):
        self.install_lumarix(stop_seconds=0)
        self.start_service()
        msgs = winebox.messages(self.wait_for(SIM_FAIL))
        self.assertInOrder(msgs, [CHECK_ENTER, "Service stop Failed.", SIM_FAIL])
        self.assertNotIn("Service removed successfully", msgs)
        self.assertNotIn(CHECK_DONE, msgs)
        self.assertEqual(STOPPED, self.box.query("Lumarix")[0])


HOME = "[CStateWork::GetSimInfo] GetHomeProvider str_mccmnc is "
SERVICE_START = "----Service start-------------"
NOTIFIER = "SetSimChangeEvent mccmnc:"
ARRIVAL = "----------------[Info][CMbnChangeEvent::OnInterfaceArrival]"
REMOVAL = "----------------[Info][CMbnChangeEvent::OnInterfaceRemoval]"
SEPARATOR = ("\n\n------------------------[[CStateWork::Work] OnInterfaceArrival "
             "event--------------------\n")
NO_INTERFACE = "[error][CStateWork::GetSimInfo] Get mbim interface fail."


class ModemCase(ServiceCase):
    """The simulator registered in the prefix stands in for the modem's stack."""

    def setUp(self):
        super().setUp()
        self.box.install_simulator(ARGS.mbnsim_dir)

    def stop_service(self):
        self.box.sc("stop", winebox.SERVICE_NAME)
        self.assertEqual((STOPPED, 0), self.box.wait_state(STOPPED))
        return winebox.messages(self.wait_for(STOP_DONE))

    def ctl(self, *args):
        """Runs dorvanectl.exe, copied beside the service, with `args`."""
        if not hasattr(self, "_ctl"):
            self._ctl = self.box.put_file(ARGS.dorvanectl, winebox.INSTALL_DIR)
        return self.box.run([self._ctl] + list(args))

    LEFTOVERS = ("LiveObjects", "AdvisedSinks", "BadReleases", "BadUnadvises",
                 "PendingCompletions")

    def assertNothingLeft(self, bad_unadvises=0):
        counters = self.box.sim_counters()
        self.assertTrue(counters, "the service never used the simulator")
        for pid, c in counters.items():
            self.assertEqual({"LiveObjects": 0, "AdvisedSinks": 0, "BadReleases": 0,
                              "BadUnadvises": bad_unadvises, "PendingCompletions": 0},
                             {k: c[k] for k in self.LEFTOVERS}, "process %d" % pid)
        return counters


class WithModem(ModemCase):

    def test_one_interface_is_read_and_the_sink_attaches(self):
        self.box.simctl("reset", 1)
        self.start_service()
        msgs = winebox.messages(self.wait_for(SEPARATOR))
        self.assertNotIn(ATTACH_FAIL, msgs)
        self.assertNotIn(START_ATTACH_FAIL, msgs)
        self.assertInOrder(msgs, [START_ENTER, SERVICE_START, NOTIFIER, "StartService", START_DONE])
        self.assertInOrder(msgs, [THREAD_ENTER, COM_DONE, CHECK_ENTER, "OpenService failed (1060)",
                                  HOME + "310260", SEPARATOR])
        tags = {r.message: r.tag for r in winebox.parse_log(self.box.read_log())}
        self.assertEqual("[ERROR] ", tags[HOME + "310260"])
        time.sleep(1.0)
        msgs = self.stop_service()
        self.assertEqual(1, msgs.count(SEPARATOR), "the start is one SIM change")
        self.assertNothingLeft()

    def test_the_last_of_two_interfaces_is_read_and_none_is_reported(self):
        self.box.simctl("reset", 2)
        self.start_service()
        self.wait_for(HOME + "26201")
        self.stop_service()
        self.box.simctl("reset", 0)
        self.box.sc("start", winebox.SERVICE_NAME)
        self.box.wait_state(RUNNING)
        msgs = winebox.messages(self.wait_for(NO_INTERFACE))
        self.assertEqual(1, msgs.count(HOME + "26201"))
        self.stop_service()
        self.assertNothingLeft()

    def test_arrivals_and_removal_while_running(self):
        self.box.simctl("reset", 1)
        # The SIM query answers late, so two arrivals land while the worker is
        # still busy and all three SIM changes make one wake-up.
        self.box.simctl("delay", "GetInterfaces", 4000)
        self.start_service()
        self.wait_for("OpenService failed (1060)")
        self.box.simctl("arrive")
        self.box.simctl("arrive")
        msgs = winebox.messages(self.wait_for(SEPARATOR))
        self.assertEqual(2, msgs.count(ARRIVAL))
        self.assertEqual(2, msgs.count("OnInterfaceArrival"), "one notifier pair per arrival")
        self.assertEqual(3, msgs.count(NOTIFIER))
        self.assertEqual(HOME + "26201", [m for m in msgs if m.startswith(HOME)][0],
                         "the arrived interfaces are in the array")
        time.sleep(1.0)
        self.assertEqual(1, winebox.messages(winebox.parse_log(self.box.read_log())).count(SEPARATOR))

        # One more arrival later: its own wake-up. A removal: its line, nothing else.
        self.box.simctl("delay", "GetInterfaces", 0)
        self.box.simctl("arrive")
        deadline = time.monotonic() + 30
        while winebox.messages(winebox.parse_log(self.box.read_log())).count(SEPARATOR) < 2:
            self.assertLess(time.monotonic(), deadline, "no wake-up for the third arrival")
            time.sleep(0.1)
        self.box.simctl("remove", 0)
        self.wait_for(REMOVAL)
        time.sleep(1.0)
        msgs = self.stop_service()
        self.assertEqual(2, msgs.count(SEPARATOR))
        self.assertEqual(1, msgs.count(REMOVAL))
        self.assertEqual(msgs.index(REMOVAL) + 1, msgs.index(WORK_STOP),
                         "the removal is followed by nothing but the stop")
        self.assertNothingLeft()

    def test_injected_failures_are_logged_and_the_service_keeps_running(self):
        self.box.simctl("reset", 1)
        self.box.simctl("inject", "Advise", "0x80040202")
        self.box.simctl("inject", "GetHomeProvider", "0x8000000A")
        self.start_service()
        msgs = winebox.messages(self.wait_for("[error][CStateWork::GetSimInfo] GetHomeProvider Fail."))
        self.assertInOrder(msgs, [START_ENTER,
                                  "[Fail][CMbnMonitor::AttachStateMbnRegEvent] IConnectionPoint "
                                  "Advise Fail.", START_ATTACH_FAIL, START_DONE])
        self.assertNotIn(SERVICE_START, msgs)
        self.box.reg_add(winebox.SERVICE_KEY, "Probe", 1, "REG_DWORD")
        self.wait_for(REGISTER)
        msgs = self.stop_service()
        self.assertNotIn(SEPARATOR, msgs)
        # The stop still unadvises, with the cookie 0 the failed Advise left.
        self.assertNothingLeft(bad_unadvises=1)


class LogReader(ModemCase):
    """dorvanectl log on the log this service wrote: the reader never drifts
    from the writer."""

    def happenings(self, *args):
        result = self.ctl("--json", "log", *args)
        self.assertEqual(0, result.returncode, result.stderr)
        objects = [json.loads(line) for line in result.stdout.splitlines()]
        self.assertIn("summary", objects[-1])
        return objects[:-1], objects[-1]["summary"]

    def test_a_week_of_the_service_read_back(self):
        self.box.simctl("reset", 1)
        self.start_service()
        self.wait_for(SEPARATOR)
        self.box.simctl("remove", 0)
        self.wait_for(REMOVAL)
        self.box.simctl("arrive")
        self.wait_for(ARRIVAL)
        self.box.reg_add(winebox.SERVICE_KEY, "Probe", int(time.time()) % 100000, "REG_DWORD")
        self.wait_for(REGISTER)
        self.stop_service()
        self.box.sc("start", winebox.SERVICE_NAME)
        self.box.wait_state(RUNNING)
        deadline = time.monotonic() + 30
        while winebox.messages(winebox.parse_log(self.box.read_log())).count(SEPARATOR) < 2:
            self.assertLess(time.monotonic(), deadline, "the second run never read the SIM")
            time.sleep(0.1)
        self.stop_service()

        raw = self.box.read_log().decode("latin-1").split("\r\n")
        homes = [m[len(HOME):] for m in winebox.messages(winebox.parse_log(self.box.read_log()))
                 if m.startswith(HOME)]
        self.assertEqual(2, len(homes))

        # Without a file: the service's own log (there is no backup yet).
        found, summary = self.happenings()
        self.assertEqual(["service-start", "sim", "modem-removal", "modem-arrival", "registry-change",
                          "service-stop", "service-start", "sim", "service-stop"],
                         [h["happening"] for h in found])
        self.assertEqual(homes, [h["mccmnc"] for h in found if h["happening"] == "sim"])
        for h in found:
            self.assertEqual(winebox.LOG_PATH, h["file"])
            line = raw[h["line"] - 1]
            if h["happening"] == "service-start":
                self.assertEqual(winebox.BANNER, line)
                line = raw[h["line"]]  # its time is the first line's after it
                self.assertIn(START_ENTER, line)
            stamp = line.split(": ", 1)[0][-18:]
            self.assertEqual(stamp[:14] + "." + stamp[15:], h["time"], line)
            self.assertEqual(0, h["year"])
        self.assertEqual(0, summary["unreadable_lines"])
        self.assertEqual(["stopped", "stopped"], [r["ended"] for r in summary["runs"]])
        self.assertEqual([], summary["errors"])
        self.assertEqual(1, summary["counts"]["registry-change"])

        text = self.ctl("log")
        self.assertEqual(0, text.returncode, text.stderr)
        self.assertIn("Service runs: 2\n", text.stdout)
        self.assertEqual(2, text.stdout.count(" stopped\n"), text.stdout)
        self.assertIn("Modem: 1 arrival, 1 removal\n", text.stdout)
        self.assertIn("Errors: 0 texts, 0 lines\n", text.stdout)
        self.assertIn("Registry changes: 1 (first %s" % found[4]["time"], text.stdout)

        self.see_the_page(found)

        # Just after a rotation the backup stands alone until the next line.
        log = self.box.unix_path(winebox.LOG_PATH)
        os.rename(log, log + "bk")
        rotated, summary = self.happenings()
        self.assertEqual([winebox.LOG_PATH + "bk"], [f["file"] for f in summary["files"]])
        self.assertEqual([h["happening"] for h in found], [h["happening"] for h in rotated])

    def see_the_page(self, found):
        """The page as a person sees it: rendered by Chromium into a picture."""
        page = "C:\\log.html"
        result = self.ctl("log", "--html", page)
        self.assertEqual(0, result.returncode, result.stderr)
        html_path = self.box.unix_path(page)
        with open(html_path, encoding="utf-8") as f:
            html = f.read()
        for outside in ("<script", "src=", "href=", "@import", "url("):
            self.assertNotIn(outside, html, "the page is self-contained")
        svg = ET.fromstring(html[html.index("<svg"):html.index("</svg>") + 6])
        ns = "{http://www.w3.org/2000/svg}"
        runs = [e for e in svg.iter(ns + "rect") if e.get("class") == "run"]
        self.assertEqual(2, len(runs))
        sims = [e for e in svg.iter(ns + "rect") if e.get("class") == "sim"]
        self.assertEqual(2, len(sims), "a segment per SIM run")
        marks = [g for g in svg.iter(ns + "g") if "registry-change" in g.get("class", "")]
        self.assertEqual(1, len(marks))
        raw = self.box.read_log().decode("latin-1").split("\r\n")
        registry = [h for h in found if h["happening"] == "registry-change"][0]
        self.assertEqual(str(registry["line"]), marks[0].get("data-line"))
        # Its hover text is the line as logged (the text's own line breaks included).
        self.assertEqual("\n".join(raw[registry["line"] - 1:registry["line"] + 3]),
                         marks[0].find(ns + "title").text)

        shot_path = self.box.unix_path("C:\\log.png")
        profile = self.box.unix_path("C:\\chromium-profile")
        shot = subprocess.run(
            ["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
             "--disable-background-networking", "--no-first-run", "--hide-scrollbars",
             "--user-data-dir=" + profile, "--window-size=1200,900", "--screenshot=" + shot_path,
             "file://" + html_path],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=120)
        self.assertTrue(os.path.exists(shot_path), shot.stdout.decode("latin-1")[-2000:])
        width, height, rows = png.read_png(shot_path)

        def where(colour):
            """The rows and columns of the pixels of `colour` (hex) in the picture."""
            rgb = bytes(int(colour[i:i + 2], 16) for i in (1, 3, 5))
            ys, xs = [], []
            for y, row in enumerate(rows):
                at = row.find(rgb)
                while at >= 0:
                    if at % 3 == 0:
                        ys.append(y)
                        xs.append(at // 3)
                    at = row.find(rgb, at + 1)
            self.assertTrue(ys, "no %s in the picture" % colour)
            return ys, xs

        service_rows, service_cols = where("#2e7d32")
        modem_rows, _ = where("#1565c0")
        sim_rows, _ = where("#8e24aa")
        registry_rows, _ = where("#ef6c00")
        # The lanes from top to bottom: service, modem, SIM, marks.
        self.assertLess(max(service_rows), min(modem_rows))
        self.assertLess(max(modem_rows), min(sim_rows))
        self.assertLess(max(sim_rows), min(registry_rows))
        # The runs span the timeline: the first starts at its left end and the
        # second ends at its right end.
        self.assertLess(max(service_cols) - min(service_cols), 1000 + 2)
        self.assertGreater(max(service_cols) - min(service_cols), 1000 - 4)

    def test_failures_are_the_error_lines_but_the_home_provider(self):
        self.box.simctl("reset", 1)
        self.box.simctl("inject", "Advise", "0x80040202")
        self.start_service()
        self.wait_for(HOME + "310260")
        self.stop_service()
        logged = [r.message for r in winebox.parse_log(self.box.read_log())
                  if r.tag == "[ERROR] " and not r.message.startswith(HOME)]
        self.assertEqual(2, len(logged))
        found, summary = self.happenings("--errors")
        self.assertEqual(logged, [h["text"] for h in found])
        self.assertEqual({"error"}, {h["happening"] for h in found})
        self.assertEqual([(t, 1) for t in logged], [(e["text"], e["count"]) for e in summary["errors"]])


class Churn(ModemCase):
    CYCLES = 500

    def test_modem_comes_and_goes_while_the_sim_changes_from_two_processes(self):
        self.box.simctl("reset", 1)
        self.box.simctl("option", "DeliveryThreads", 4)
        self.start_service()
        self.wait_for(SEPARATOR)
        cycler = self.box.spawn(self.box.simctl_args("cycle", self.CYCLES))
        swapper = self.box.spawn(self.box.simctl_args("swap-sim", self.CYCLES))
        code, out = self.box.finish(cycler)
        self.assertEqual(0, code, out)
        self.assertIn("%d arrival(s) announced" % self.CYCLES, out)
        code, out = self.box.finish(swapper)
        self.assertEqual(0, code, out)
        self.assertIn("SIM change(s)", out)

        # Every announced arrival reaches the sink while the service runs.
        deadline = time.monotonic() + 120
        while winebox.messages(winebox.parse_log(self.box.read_log())).count(ARRIVAL) < self.CYCLES:
            self.assertLess(time.monotonic(), deadline, "arrivals still missing after 120 s")
            time.sleep(0.5)
        self.assertEqual(RUNNING, self.box.query()[0])
        msgs = self.stop_service()
        (pid, counters), = self.assertNothingLeft().items()
        self.assertEqual(counters["ArrivalsDelivered"], msgs.count(ARRIVAL),
                         "one arrival line per arrival event delivered")
        self.assertEqual(counters["RemovalsDelivered"], msgs.count(REMOVAL))
        self.assertEqual(self.CYCLES, counters["ArrivalsDelivered"])
        self.assertEqual(self.CYCLES, msgs.count("OnInterfaceArrival"), "one notifier pair each")
        self.assertEqual(STOP_DONE, msgs[-1])


class AtTool(ModemCase):
    """dorvanectl at: the AT command line against the simulated module."""

    def test_answers_exit_status_and_json(self):
        self.box.simctl("reset", 1)
        result = self.ctl("at", "AT+CGMI")
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertEqual("result: true\nexchange: 0\nanswer: DorvaneLabs\nanswer: OK\n", result.stdout,
                         "blanks are removed")
        self.assertEqual("id=1 type=17 count=1 bytes=41542B43474D490D0A", self.box.simctl("last").strip(),
                         "command id 1, VT_UI1 bytes, CR LF, no terminator")

        result = self.ctl("--json", "at", "AT+CIMI", "--hex")
        self.assertEqual(0, result.returncode, result.stderr)
        answer = json.loads(result.stdout)
        self.assertTrue(answer["result"])
        self.assertEqual("\r\n310260123456789\r\n\r\nOK\r\n", answer["output"])
        self.assertTrue(answer["hex"].startswith("0D 0A 33 31 30 "), answer["hex"])

        self.box.simctl("reply", "AT+CME", "\\r\\n+CME ERROR: 10\\r\\n")
        log = r"C:\ctl\dorvanectl.log"
        result = self.ctl("--log", log, "at", "AT+CME")
        self.assertEqual(1, result.returncode)
        self.assertIn("no good answer", result.stderr)
        with open(self.box.unix_path(log), "rb") as f:
            msgs = winebox.messages(winebox.parse_log(f.read()))
        self.assertIn("Send Error result:", msgs)
        self.assertEqual("CoUninitialize", msgs[-1], "the channel is freed")

        self.assertEqual(2, self.ctl("at").returncode)
        self.assertEqual(2, self.ctl("frobnicate").returncode)
        self.box.simctl("reset", 0)
        result = self.ctl("at", "AT")
        self.assertEqual(3, result.returncode)
        self.assertIn("no WWAN modem found", result.stderr)
        self.assertNothingLeft()


class Faults(ServiceCase):
    def test_unwritable_log_folder_stalls_the_service_without_a_crash(self):
        # A file where the log folder should be: the log cannot be opened, and the
        # first write leaves the logger locked for good.
        windows = self.box.unix_path(r"C:\Windows")
        with open(os.path.join(windows, "WWAN"), "w") as f:
            f.write("not a folder")
        self.start_service()
        time.sleep(2.0)
        self.assertIsNone(self.box.read_log())
        self.box.sc("stop", winebox.SERVICE_NAME)
        time.sleep(2.0)
        state, code = self.box.query()
        self.assertEqual(STOP_PENDING, state, "the stalled start work never reaches the stop work")
        self.assertEqual(0, code)


def main():
    global ARGS
    ARGS, run = winebox.test_main("exe", "lumarix", "sc-recorder", "mbnsim-dir", "dorvanectl", "work",
                                   "base")
    run()


if __name__ == "__main__":
    main()
