"""The service end to end under Wine: install, start, poke, stop, show the log.

    demo.py --exe build/dorvane.exe --mbnsim-dir build/tools/mbnsim \
            --dorvanectl build/tools/dorvanectl/dorvanectl.exe \
            --prefix build/wine/demo --base build/wine/base

Makes a fresh prefix (a copy of the base prefix), registers the Mobile
Broadband simulator with one modem, installs dorvane.exe with `sc create` and
starts it; while it runs, the modem leaves and comes back, dorvanectl sends two
AT commands to it, and a value is written under the service's registry key;
then the service is stopped and its log printed.
"""
import argparse
import os
import sys
import time

import winebox
from winebox import RUNNING, STOPPED, WineBox

HOME = "[CStateWork::GetSimInfo] GetHomeProvider str_mccmnc is "
REMOVAL = "[Info][CMbnChangeEvent::OnInterfaceRemoval]"
ARRIVAL = "[Info][CMbnChangeEvent::OnInterfaceArrival]"
REGISTER = "register event"
STOP_DONE = "[Infomation][CServiceStart::StopWork] Stop work success."


def wait_for_log(box, predicate, what, timeout=30):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        data = box.read_log()
        if data is not None and any(predicate(m) for m in winebox.messages(winebox.parse_log(data))):
            return
        time.sleep(0.1)
    raise SystemExit("demo: the log never showed %s" % what)


def say(text):
    print("demo: " + text, flush=True)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--exe", required=True)
    parser.add_argument("--mbnsim-dir", required=True)
    parser.add_argument("--dorvanectl", required=True)
    parser.add_argument("--prefix", required=True)
    parser.add_argument("--base", required=True)
    args = parser.parse_args()

    say("preparing a private Wine prefix in %s" % args.prefix)
    with WineBox(os.path.abspath(args.prefix), base=os.path.abspath(args.base)) as box:
        box.keep_alive()
        say("registering the Mobile Broadband simulator, one modem")
        box.install_simulator(os.path.abspath(args.mbnsim_dir))
        box.simctl("reset", 1)
        say(box.simctl("show").strip().replace("\n", "\ndemo:   "))
        box.reg_add(winebox.SERVICE_KEY)
        say('sc create "%s" binPath= "%s\\dorvane.exe"' % (winebox.SERVICE_NAME, winebox.INSTALL_DIR))
        box.install_service(os.path.abspath(args.exe))
        say('sc start "%s"' % winebox.SERVICE_NAME)
        box.sc("start", winebox.SERVICE_NAME)
        box.wait_state(RUNNING)
        say("state: RUNNING")
        wait_for_log(box, lambda m: m.startswith(HOME), "the SIM query")

        say("mbnsimctl remove 0   (the modem leaves)")
        box.simctl("remove", 0)
        wait_for_log(box, lambda m: m.endswith(REMOVAL), "the removal")
        say("mbnsimctl arrive     (the modem comes back)")
        box.simctl("arrive")
        wait_for_log(box, lambda m: m.endswith(ARRIVAL), "the arrival")

        ctl = box.put_file(os.path.abspath(args.dorvanectl), winebox.INSTALL_DIR)
        for command in ("AT+CGMI", "AT+CIMI"):
            say('dorvanectl at "%s"' % command)
            answer = box.run([ctl, "at", command])
            for line in answer.stdout.replace("\r", "").splitlines():
                if line:
                    say("  " + line)
            say("  (exit status %d)" % answer.returncode)

        say(r"reg add %s /v DemoValue /t REG_DWORD /d 1" % winebox.SERVICE_KEY)
        box.reg_add(winebox.SERVICE_KEY, "DemoValue", 1, "REG_DWORD")
        wait_for_log(box, lambda m: REGISTER in m, "the registry change")

        say('sc stop "%s"' % winebox.SERVICE_NAME)
        box.sc("stop", winebox.SERVICE_NAME)
        state, code = box.wait_state(STOPPED)
        say("state: STOPPED, exit code %d" % code)
        wait_for_log(box, lambda m: m.startswith(STOP_DONE), "the stop work")
        say("simulator's counters after the stop (one line per process that used it):")
        for line in box.simctl("counters").strip().splitlines():
            say("  " + line)

        log = box.read_log()
        say("the service's log, %s:" % winebox.LOG_PATH)
        print("-" * 78)
        sys.stdout.write(log.decode("latin-1").replace("\r\n", "\n"))
        print("-" * 78)


if __name__ == "__main__":
    main()
