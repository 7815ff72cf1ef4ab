# Whole-service tests: the real dorvane.exe under Wine's service manager.
#
# Each class has one prefix and one installed service, which its numbered tests
# start (`sc start`), drive (`reg add`, the simulator) and stop (`sc stop`) in
# turn, reading the log after each step. Without a Mobile Broadband stack in the
# prefix, the sink attach and the SIM query fail with their logged texts and the
# service keeps running.
#
#     test_service.py --exe dorvane.exe --lumarix lumarix_stub.exe --sc-recorder sc_recorder.exe
#                     --mbnsim-dir DIR --dorvanectl dorvanectl.exe --work DIR --base PREFIX
#
import collections
import json
import os
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))
import png  # noqa: E402
import winebox  # noqa: E402
from winebox import INSTALL_DIR, RUNNING, SERVICE_KEY, SERVICE_NAME, STOPPED  # noqa: E402

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
RECOVERY = "service Properties->recovery ,Code="
HOME = "[CStateWork::GetSimInfo] GetHomeProvider str_mccmnc is "
SERVICE_START = "----Service start-------------"
NOTIFIER = "SetSimChangeEvent mccmnc:"
ARRIVAL = "----------------[Info][CMbnChangeEvent::OnInterfaceArrival]"
REMOVAL = "----------------[Info][CMbnChangeEvent::OnInterfaceRemoval]"
SEPARATOR = ("\n\n------------------------[[CStateWork::Work] OnInterfaceArrival "
             "event--------------------\n")
REMOVED = "Service removed successfully"


class ServiceCase(winebox.BoxCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.box.keep_alive()
        cls.box.reg_add(SERVICE_KEY)

    def records(self, run=None):
        # The log's records; of one run (its banner onwards, 1 the first) if given.
        records = winebox.parse_log(self.box.read() or b"")
        starts = [i for i, r in enumerate(records) if r.tag == "banner"] + [len(records)]
        return records[starts[run - 1]:starts[run]] if run else records

    def wait_for(self, text, count=1, timeout=30):
        # Waits until the log holds `text` `count` times; gives its records.
        deadline = time.monotonic() + timeout
        while True:
            records = self.records()
            if winebox.messages(records).count(text) >= count:
                return records
            if time.monotonic() > deadline:
                self.fail("no %d× log line %r; log so far:\n%s" % (count, text, "\n".join(
                    "%s%r" % (r.tag, r.message) for r in records)))
            time.sleep(0.1)

    def assertInOrder(self, msgs, expected):
        # `expected` appears in `msgs` as a subsequence (lines of other threads between).
        pos = 0
        for text in expected:
            self.assertIn(text, msgs[pos:], "missing or out of order in:\n%s" % "\n".join(map(repr, msgs)))
            pos = msgs.index(text, pos) + 1

    def start(self):
        self.box.sc("start", SERVICE_NAME)
        self.box.wait_state(RUNNING)

    def stop(self, run):
        # Stops the service after its `run`-th start; gives that run's messages.
        self.box.sc("stop", SERVICE_NAME)
        self.assertEqual((STOPPED, 0), self.box.wait_state(STOPPED))
        self.wait_for(STOP_DONE, run)
        return winebox.messages(self.records(run))


class NoModem(ServiceCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        # WinExec looks for sc.exe beside the program first: this one records
        # the recovery command (Wine's sc stores no failure actions).
        cls.box.put_file(winebox.ARGS.sc_recorder, INSTALL_DIR, "sc.exe")
        cls.box.install_service(winebox.ARGS.exe)

    def lumarix(self, stop_seconds):
        exe = self.box.put_file(winebox.ARGS.lumarix, INSTALL_DIR)
        self.box.sc("create", "Lumarix", "binPath=", '"%s" %d' % (exe, stop_seconds)).check_returncode()

    def test_2_start_beside_a_stopped_legacy_service_then_registry_change_then_stop(self):
        self.lumarix(stop_seconds=0)
        self.start()
        records = self.wait_for(SIM_FAIL)
        msgs = winebox.messages(records)
        # The service main thread: attach fails, so no start notification follows.
        self.assertInOrder(msgs, [START_ENTER, ATTACH_FAIL, START_ATTACH_FAIL, START_DONE])
        # The worker: the recovery command run, then the legacy service, which
        # does not stop (it is not running), so it stays installed.
        [recovery] = [m for m in msgs if m.startswith(RECOVERY) and m.endswith("(should >31)")]
        self.assertGreater(int(recovery[len(RECOVERY):].split("(")[0]), 31, "WinExec must have started sc")
        self.assertEqual(['sc failure "WWAN Dorvane" reset= 86400 actions= restart/30000/restart/30000/restart/30000'],
                         self.box.read("C:\\sc-calls.txt").decode("latin-1").splitlines())
        self.assertInOrder(msgs, [THREAD_ENTER, recovery, COM_DONE, CHECK_ENTER, "Service stop Failed.", SIM_FAIL])
        self.assertEqual(("banner", [], STOPPED), (records[0].tag, [m for m in msgs if m in (
            SERVICE_START, NOTIFIER, REMOVED, CHECK_DONE)], self.box.query("Lumarix")[0]), "the legacy service stays")
        tags = {r.message: r.tag for r in records}
        self.assertEqual(("[ERROR] ", "[ERROR] ", "[DETAIL]"), (tags[ATTACH_FAIL], tags[SIM_FAIL], tags[START_DONE]))
        # One registry notification per run, however many writes follow.
        self.box.reg_add(SERVICE_KEY, "Probe", 1, "REG_DWORD")
        self.wait_for(REGISTER)
        self.box.reg_add(SERVICE_KEY, "Probe", 2, "REG_DWORD")
        time.sleep(1.0)
        msgs = self.stop(1)
        self.assertEqual((1, STOP_DONE), (msgs.count(REGISTER), msgs[-1]))
        self.assertInOrder(msgs, [SIM_FAIL, REGISTER, WORK_STOP, STOP_DONE])

    def test_3_restart_polls_a_slow_stopping_legacy_service_and_deletes_it(self):
        self.box.sc("delete", "Lumarix")
        self.lumarix(stop_seconds=3)
        self.box.sc("start", "Lumarix")
        self.box.wait_state(RUNNING, name="Lumarix")
        self.start()
        # The SIM query's line follows the check thread's last one, under load
        # well after it: wait for both.
        self.wait_for(CHECK_DONE)
        self.wait_for(SIM_FAIL, 2)
        records = self.records(2)
        msgs = winebox.messages(records)
        self.assertEqual("banner", records[0].tag, "a new banner per start")
        self.assertInOrder(msgs, [START_ENTER, CHECK_ENTER, "Service dwCurrentState == SERVICE_STOPPED",
                                  REMOVED, CHECK_DONE, SIM_FAIL])
        by_text = {r.message: r for r in records}
        self.assertGreaterEqual(by_text[REMOVED].millis() - by_text[CHECK_ENTER].millis(), 3000,
                                "removal must wait out the stop-pending state")
        self.assertEqual((False, None), ("Service stop Failed." in msgs, self.box.query("Lumarix")))
        self.stop(2)


class WithModem(ServiceCase):
    # The simulator registered in the prefix stands in for the modem's stack.

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.box.install_simulator(winebox.ARGS.mbnsim_dir)
        cls.box.install_service(winebox.ARGS.exe)

    def assertNothingLeft(self, bad_unadvises=0):
        left = list(self.box.sim_counters(*winebox.LEFTOVERS).values())
        self.assertTrue(left, "the service never used the simulator")
        self.assertEqual([dict(dict.fromkeys(winebox.LEFTOVERS, 0), BadUnadvises=bad_unadvises)] * len(left), left)

    def test_1_the_sim_is_read_at_start_and_after_arrivals_and_a_removal_is_only_logged(self):
        self.box.simctl("reset", 1)
        # The SIM query answers late, so two arrivals land while the worker is
        # still busy and all three SIM changes make one wake-up.
        self.box.simctl("delay", "GetInterfaces", 4000)
        self.start()
        self.wait_for("OpenService failed (1060)")
        self.box.simctl("arrive")
        self.box.simctl("arrive")
        records = self.wait_for(SEPARATOR)
        msgs = winebox.messages(records)
        self.assertNotIn(ATTACH_FAIL, msgs)
        self.assertInOrder(msgs, [START_ENTER, SERVICE_START, NOTIFIER, "StartService", START_DONE])
        self.assertInOrder(msgs, [THREAD_ENTER, COM_DONE, CHECK_ENTER, "OpenService failed (1060)",
                                  HOME + "26201", SEPARATOR])
        self.assertEqual("[ERROR] ", {r.message: r.tag for r in records}[HOME + "26201"])
        self.assertEqual((2, 2, 3), (msgs.count(ARRIVAL), msgs.count("OnInterfaceArrival"), msgs.count(NOTIFIER)),
                         "an arrival line and a notifier pair per arrival, and the start's notifier")
        time.sleep(1.0)
        self.assertEqual(1, self.box.log_messages().count(SEPARATOR))
        # One more arrival later: its own wake-up. A registry change. A
        # removal: its line, nothing else.
        self.box.simctl("delay", "GetInterfaces", 0)
        self.box.simctl("arrive")
        self.wait_for(SEPARATOR, 2)
        self.box.reg_add(SERVICE_KEY, "Probe", 1, "REG_DWORD")
        self.wait_for(REGISTER)
        self.box.simctl("remove", 0)
        self.wait_for(REMOVAL)
        time.sleep(1.0)
        msgs = self.stop(1)
        self.assertEqual((2, 1), (msgs.count(SEPARATOR), msgs.count(REMOVAL)))
        self.assertEqual(msgs.index(REMOVAL) + 1, msgs.index(WORK_STOP),
                         "the removal is followed by nothing but the stop")
        self.assertNothingLeft()

    def test_2_injected_failures_are_logged_and_the_service_keeps_running(self):
        self.box.simctl("reset", 1)
        self.box.simctl("inject", "Advise", "0x80040202")
        self.box.simctl("inject", "GetHomeProvider", "0x8000000A")
        self.start()
        self.wait_for("[error][CStateWork::GetSimInfo] GetHomeProvider Fail.")
        msgs = winebox.messages(self.records(2))
        self.assertInOrder(msgs, [START_ENTER, "[Fail][CMbnMonitor::AttachStateMbnRegEvent] IConnectionPoint "
                                  "Advise Fail.", START_ATTACH_FAIL, START_DONE])
        self.assertNotIn(SERVICE_START, msgs)
        self.box.reg_add(SERVICE_KEY, "Probe", 2, "REG_DWORD")
        self.wait_for(REGISTER, 2)
        self.assertNotIn(SEPARATOR, self.stop(2))
        # The stop still unadvises, with the cookie 0 the failed Advise left.
        self.assertNothingLeft(bad_unadvises=1)

    def test_3_dorvanectl_log_reads_what_the_service_wrote(self):
        *found, summary = [json.loads(line) for line in self.ctl("--json", "log", check=True).stdout.splitlines()]
        summary = summary["summary"]
        # A SIM is one happening until another comes; the second run's error lines are each one.
        self.assertEqual(["service-start", "modem-arrival", "modem-arrival", "sim", "modem-arrival",
                          "registry-change", "modem-removal", "service-stop",
                          "service-start", "error", "error", "error", "registry-change", "service-stop"],
                         [h["happening"] for h in found])
        self.assertEqual(("26201", 0, ["stopped", "stopped"]), (found[3]["mccmnc"], summary["unreadable_lines"],
                                                                [r["ended"] for r in summary["runs"]]))
        # The errors are the error lines but the home provider's.
        self.assertEqual(collections.Counter(r.message for r in self.records() if r.tag == "[ERROR] " and not
                                             r.message.startswith(HOME)), {e["text"]: e["count"] for e in summary["errors"]})
        self.assertIn("Modem: 3 arrivals, 1 removal\n", self.ctl("log").stdout)
        # The log page as a person sees it: self-contained, rendered by Chromium
        # into a picture whose lanes lie from top to bottom: service, modem,
        # SIM, marks; the two runs span the 1000-pixel timeline.
        self.ctl("log", "--html", "C:\\log.html", check=True)
        html_path, shot_path = self.box.unix_path("C:\\log.html"), self.box.unix_path("C:\\log.png")
        with open(html_path, encoding="utf-8") as f:
            html = f.read()
        self.assertEqual([], [outside for outside in ("<script", "src=", "href=", "@import", "url(") if outside in html])
        shot = subprocess.run(
            ["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
             "--disable-background-networking", "--no-first-run", "--hide-scrollbars",
             "--user-data-dir=" + self.box.unix_path("C:\\chromium-profile"), "--window-size=1200,900",
             "--screenshot=" + shot_path, "file://" + html_path],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=120)
        self.assertTrue(os.path.exists(shot_path), shot.stdout.decode("latin-1")[-2000:])
        lanes = [png.find(png.read_png(shot_path), colour) for colour in ("2e7d32", "1565c0", "8e24aa", "ef6c00")]
        self.assertNotIn([], lanes, "a lane's colour is not in the picture")
        for upper, lower in zip(lanes, lanes[1:]):
            self.assertLess(max(y for y, _ in upper), min(y for y, _ in lower))
        span = max(x for _, x in lanes[0]) - min(x for _, x in lanes[0])
        self.assertTrue(1000 - 4 < span < 1000 + 2, span)

    def test_4_churn_the_modem_comes_and_goes_while_the_sim_changes_from_two_processes(self):
        cycles = 500
        self.box.simctl("reset", 1)
        self.box.simctl("option", "DeliveryThreads", 4)
        self.start()
        self.wait_for(SEPARATOR, 3)
        # Run from a command prompt meanwhile, the program waits 10 s for a service
        # manager's pipe (the running service's, busy), then exits silently.
        prompt = self.box.spawn([INSTALL_DIR + "\\dorvane.exe"])
        churn = [self.box.spawn(self.box.simctl_args(command, cycles)) for command in ("cycle", "swap-sim")]
        said = [self.box.finish(handle, timeout=300) for handle in churn]
        self.assertEqual([(0, True), (0, True)], [(r.returncode, m in r.stdout) for r, m in zip(said, (
            "%d arrival(s) announced" % cycles, "SIM change(s)"))], said)
        # Every announced arrival reaches the sink while the service runs.
        self.wait_for(ARRIVAL, 3 + cycles, timeout=120)
        result = self.box.finish(prompt)
        self.assertEqual((RUNNING, 0, "", 3), (self.box.query()[0], result.returncode, result.stdout, [
            r.tag for r in self.records()].count("banner")), "nothing logged outside the service")
        msgs = self.stop(3)
        self.assertNothingLeft()
        [counters] = self.box.sim_counters("ArrivalsDelivered", "RemovalsDelivered").values()
        self.assertEqual((cycles, cycles, counters["RemovalsDelivered"], cycles, STOP_DONE),
                         (counters["ArrivalsDelivered"], msgs.count(ARRIVAL), msgs.count(REMOVAL),
                          msgs.count("OnInterfaceArrival"), msgs[-1]), "a line (and notifier pair) per delivered event")


if __name__ == "__main__":
    winebox.test_main("exe", "lumarix", "sc-recorder", "mbnsim-dir", "dorvanectl", "work", "base")
