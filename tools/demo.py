"""The service end to end under Wine: install, start, poke, stop, show the log.

    demo.py --exe build/dorvane.exe --prefix build/wine/demo --base build/wine/base

Makes a fresh prefix (a copy of the base prefix), installs dorvane.exe with
`sc create`, starts it, writes a value under its registry key, stops it and
prints the service's log.
"""
import argparse
import os
import sys
import time

import winebox
from winebox import RUNNING, STOPPED, WineBox

LOOP_READY = ("[Fail][CStateWork::GetSimInfo] CoInitializeEx Fail.",
              "[CStateWork::GetSimInfo] GetHomeProvider str_mccmnc is ")
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
    parser.add_argument("--prefix", required=True)
    parser.add_argument("--base", required=True)
    args = parser.parse_args()

    say("preparing a private Wine prefix in %s" % args.prefix)
    with WineBox(os.path.abspath(args.prefix), base=os.path.abspath(args.base)) as box:
        box.keep_alive()
        box.reg_add(winebox.SERVICE_KEY)
        say('sc create "%s" binPath= "%s\\dorvane.exe"' % (winebox.SERVICE_NAME, winebox.INSTALL_DIR))
        box.install_service(os.path.abspath(args.exe))
        say('sc start "%s"' % winebox.SERVICE_NAME)
        box.sc("start", winebox.SERVICE_NAME)
        box.wait_state(RUNNING)
        say("state: RUNNING")
        wait_for_log(box, lambda m: m.startswith(LOOP_READY), "the worker reaching its loop")

        say(r"reg add %s /v DemoValue /t REG_DWORD /d 1" % winebox.SERVICE_KEY)
        box.reg_add(winebox.SERVICE_KEY, "DemoValue", 1, "REG_DWORD")
        wait_for_log(box, lambda m: REGISTER in m, "the registry change")

        say('sc stop "%s"' % winebox.SERVICE_NAME)
        box.sc("stop", winebox.SERVICE_NAME)
        state, code = box.wait_state(STOPPED)
        say("state: STOPPED, exit code %d" % code)
        wait_for_log(box, lambda m: m.startswith(STOP_DONE), "the stop work")

        log = box.read_log()
        say("the service's log, %s:" % winebox.LOG_PATH)
        print("-" * 78)
        sys.stdout.write(log.decode("latin-1").replace("\r\n", "\n"))
        print("-" * 78)


if __name__ == "__main__":
    main()
