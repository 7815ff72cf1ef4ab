"""Writes a service log like the one the service keeps, for the benchmark of
`dorvanectl log`.

    make_service_log.py OUT.log [SIZE_MIB] [--seed N]   (default 50 MiB, seed 2024)
    make_service_log.py OUT.log tiny

The lines are the logger's: "[DETAIL] MM-DD hh:mm:ss:mmm: TEXT", "[ERROR]  ..."
and "[WARNING]  ..." (the tag padded as the logger pads it), every line end CR
LF as the C runtime's text mode writes it (a text's own line breaks too, so a
text ending in "\\r\\n" ends in CR CR LF), and the banner at every opening of
the file. The texts are the service's own: starts and stops, the modem leaving
and coming back, the SIM read (the home provider at the error level), registry
changes, suspend and resume, the reopen of the log every three hours, failures,
and between them many ordinary detail lines of AT exchanges, registry reads and
carrier lookups. Time moves forward over months and through a turn of the year;
a few paths hold ANSI (Windows-1252) bytes; one run ends in a crash that tore
its last line, and the file is cut at exactly SIZE_MIB, so its last line is
torn too. The same seed and size give the same bytes. "tiny" writes one short
run (a few hundred bytes).
"""
import argparse
import datetime
import os
import random
import sys

BANNER = b"---------------log start------------------\r\n"
TAGS = {"D": b"[DETAIL] ", "E": b"[ERROR]  ", "W": b"[WARNING]  "}

# The service's texts (see service/*.cpp, monitor/*.cpp, mbim/*.cpp, util/*.cpp, config/*.cpp).
START = [
    ("D", "[Information][CServiceStart::StartWork] Service start, StartWork Enter  >> "),
    ("D", "[Infomation][CStateWork::TheadWork] Enter TheadWork."),
    ("D", "service Properties->recovery ,Code=42(should >31)"),
    ("D", "CoInitializeEx done"),
    ("D", "[Infomation][CStateWork::ServiceCheckThead] Enter ServiceCheckThead."),
    ("D", "OpenService failed (1060)"),
    ("D", "----Service start-------------"),
    ("D", "SetSimChangeEvent mccmnc:"),
    ("D", "StartService"),
    ("D", "[Information][CServiceStart::StartWork] StartWork Done."),
]
STOP = [
    ("D", "[Infomation][CStateWork::Work] Triger Service Stop Event.\n"),
    ("D", "[Infomation][CServiceStart::StopWork] Stop work success.\r\n\r\n"),
]
SIM_EVENT = "\n\n------------------------[[CStateWork::Work] OnInterfaceArrival event--------------------\n"
REGISTER_EVENT = "\n\n------------------------[CStateWork::Work] register event-------------------\n"
HOME_PROVIDER = "[CStateWork::GetSimInfo] GetHomeProvider str_mccmnc is "
ARRIVAL = "----------------[Info][CMbnChangeEvent::OnInterfaceArrival]"
REMOVAL = "----------------[Info][CMbnChangeEvent::OnInterfaceRemoval]"
SUSPEND = "[Infomation][CStateWork::Work] Into S4 Event.\n"
RESUME = "[Infomation][CStateWork::Work] Resume from S4 Event.\n"
REOPEN = "Set SetLogPath-----"
PROVIDERS = ["310260", "310410", "26201", "23415", "20801", "311480"]
ERRORS = [
    "OnSetCommandComplete-status-not-ok",
    "OnSetCommandComplete-no-match-command",
    "OpenSessionTimeout",
    "RegQueryValueEx error",
    "RegOpenKeyEx error",
    "[error][CStateWork::GetSimInfo] GetHomeProvider Fail.",
    "[error][CStateWork::GetSimInfo] Get All Interface Fail.",
    "[Error][CMbnRegEvent::GetMccInfo] GetProviderID Fail.",
    "CoCreateInstance-CLSID_MbnDeviceServicesManager",
    "Esim disable xml load faild.",
]
# Windows-1252 paths, as the service logs them (its texts are ANSI).
ANSI_PATHS = [
    "C:\\Users\\Jos\xe9\\AppData\\Local\\Dorvane\\esim_region.xml",
    "D:\\Donn\xe9es\\WWAN\\package_info.xml",
    "C:\\Program Files\\M\xfcller GmbH\\Dorvane\\CarrierRules.xml",
    "C:\\ProgramData\\\xc5ngstr\xf6m\\Dorvane\\MCCMNC.xml",
]
REG_KEY = "SYSTEM\\CurrentControlSet\\Services\\WWAN Dorvane\\Parameters"
REG_VALUES = ["CarrierId", "LastMccmnc", "EsimDisable", "FirmwareVersion", "SwitchingRule"]


class Log:
    """The file's bytes as the logger writes them, with its own clock."""

    def __init__(self, rng, start, limit):
        self.rng = rng
        self.limit = limit
        self.parts = []
        self.size = 0
        self.ms = 0  # since `start`
        self.start = start
        self.day = -1
        self.date = b""
        self.torn = False  # the previous line was cut: the next write follows it on its line

    def full(self):
        return self.size >= self.limit

    def put(self, data):
        self.parts.append(data)
        self.size += len(data)

    def banner(self):
        self.put(BANNER)

    def line(self, level, text, step=None):
        """One write: the prefix, the text with its line breaks as CR LF, CR LF."""
        self.ms += self.rng.randint(0, 3) if step is None else step
        day, rest = divmod(self.ms, 86400000)
        if day != self.day:
            self.day = day
            self.date = (self.start + datetime.timedelta(days=day)).strftime("%m-%d ").encode()
        hour, rest = divmod(rest, 3600000)
        minute, rest = divmod(rest, 60000)
        second, milli = divmod(rest, 1000)
        body = text.replace("\n", "\r\n").encode("latin-1")
        self.put(b"%s%s%02d:%02d:%02d:%03d: %s\r\n" % (TAGS[level], self.date, hour, minute, second,
                                                       milli, body))

    def tear(self):
        """The process died in the middle of its last write."""
        last = self.parts.pop()
        self.size -= len(last)
        cut = last[:self.rng.randint(12, len(last) - 3)]
        self.put(cut)

    def wait(self, seconds):
        self.ms += int(seconds * 1000)


def at_exchange(log, rng, ids):
    """One AT command through the device service, as the channel logs it."""
    session = rng.random() < 0.35
    log.line("D", "get_IsCommandSessionOpen: Open = %d" % (0 if session else 1))
    if session:
        ids[0] += 1
        log.line("D", "OpenCommandSession: requestID = %d" % ids[0])
        log.line("D", "Wait event", 1)
        log.line("D", "OnOpenCommandSessionComplete, requestID = %d" % ids[0], rng.randint(5, 40))
        log.line("D", "WaitForOpenEventFinish done")
    ids[0] += 1
    log.line("D", "SetCommand: requestID = %d" % ids[0])
    log.line("D", "Wait event", 1)
    log.line("D", "OnSetCommandComplete, requestID = %d" % ids[0], rng.randint(10, 250))
    if rng.random() < 0.004:
        log.line("E", rng.choice(ERRORS[:3]))
    log.line("D", "Set event")
    log.line("D", "WaitForSetEventFinish done")
    if session:
        ids[0] += 1
        log.line("D", "CloseCommandSession: requestID = %d" % ids[0])
        log.line("D", "OnCloseCommandSessionComplete, requestID = %d" % ids[0], rng.randint(5, 40))


def registry_read(log, rng):
    value = rng.choice(REG_VALUES)
    log.line("D", "GetRegKeyValue enter.")
    log.line("D", REG_KEY)
    log.line("D", value)
    if rng.random() < 0.01:
        log.line("E", "RegQueryValueEx error")
    log.line("D", "GetRegKeyValue done.")


def carrier_lookup(log, rng, mccmnc):
    log.line("D", "GetCarrierId by Mccmnc enter.")
    if rng.random() < 0.02:
        log.line("E", "load xml error.")
        log.line("E", rng.choice(ANSI_PATHS))
    else:
        log.line("D", "Carrier id:")
        log.line("D", "%d" % (100 + PROVIDERS.index(mccmnc)))
    log.line("D", "GetCarrierId by Mccmnc done.")


def esim_check(log, rng):
    log.line("D", "getEsimDisableType enter.")
    log.line("D", rng.choice(ANSI_PATHS))
    log.line("D", "FlagValue is false,not need to set esim disable.")


def sim_read(log, rng, mccmnc):
    log.line("D", SIM_EVENT, rng.randint(1, 30))
    if rng.random() < 0.02:
        log.line("E", "[error][CStateWork::GetSimInfo] GetHomeProvider Fail.", rng.randint(20, 200))
    else:
        log.line("E", HOME_PROVIDER + mccmnc, rng.randint(20, 200))
    carrier_lookup(log, rng, mccmnc)


def one_run(log, rng, ids, state, crash):
    """A run of the service: its start, its work and its end."""
    log.banner()
    for level, text in START:
        log.line(level, text, rng.randint(0, 15))
    sim_read(log, rng, state["mccmnc"])
    opened = log.ms
    end = log.ms + int(rng.uniform(0.3, 3.5) * 86400000)
    while log.ms < end and not log.full():
        if log.ms - opened >= 10800000:
            # Every three hours the log is closed and opened again.
            log.line("D", REOPEN, rng.randint(0, 9000))
            log.banner()
            opened = log.ms
        r = rng.random()
        if r < 0.70:
            at_exchange(log, rng, ids)
        elif r < 0.85:
            registry_read(log, rng)
        elif r < 0.93:
            carrier_lookup(log, rng, state["mccmnc"])
        elif r < 0.965:
            esim_check(log, rng)
        elif r < 0.975:
            log.line("E", rng.choice(ERRORS), rng.randint(0, 500))
        elif r < 0.980:
            log.line("D", "OpenService failed (%d)" % rng.choice((1060, 1060, 1060, 5)))
        elif r < 0.983:
            log.line("W", "CopyFileInDir skipped link %s" % rng.choice(ANSI_PATHS))
        elif r < 0.988:
            # The modem leaves and comes back, maybe with another SIM.
            log.line("D", REMOVAL, rng.randint(0, 60000))
            log.wait(rng.uniform(2, 600))
            log.line("D", ARRIVAL)
            if rng.random() < 0.3:
                state["mccmnc"] = rng.choice(PROVIDERS)
            log.line("D", "SetSimChangeEvent mccmnc:")
            log.line("D", "OnInterfaceArrival")
            sim_read(log, rng, state["mccmnc"])
        elif r < 0.991:
            log.line("D", REGISTER_EVENT, rng.randint(0, 10000))
            registry_read(log, rng)
        elif r < 0.9925:
            log.line("D", SUSPEND, rng.randint(0, 10000))
            log.wait(rng.uniform(600, 8 * 3600))
            log.line("D", RESUME)
        else:
            sim_read(log, rng, state["mccmnc"])
        log.wait(rng.expovariate(1 / 55.0))
    if log.full():
        return
    if crash:
        log.tear()
    else:
        for level, text in STOP:
            log.line(level, text, rng.randint(0, 2000))
    log.wait(rng.uniform(60, 18 * 3600))


def write_log(out, size, seed):
    rng = random.Random(seed)
    log = Log(rng, datetime.date(2025, 10, 20), size)
    log.wait(rng.uniform(0, 86400))
    ids = [rng.randint(1, 5000)]
    state = {"mccmnc": PROVIDERS[0]}
    runs = 0
    while not log.full():
        # The sixth run dies with a torn line; the next banner follows it on its line.
        one_run(log, rng, ids, state, crash=runs == 5)
        runs += 1
    data = b"".join(log.parts)[:size]
    # Cut at the size: the last line is torn, unless it happens to end there.
    tmp = out + ".writing"
    with open(tmp, "wb") as f:
        f.write(data)
    os.replace(tmp, out)


def write_tiny(out):
    rng = random.Random(1)
    log = Log(rng, datetime.date(2025, 12, 30), 1 << 30)
    log.wait(43200.0)
    log.banner()
    for level, text in START[:3]:
        log.line(level, text, 5)
    log.line("E", HOME_PROVIDER + PROVIDERS[0], 40)
    log.line("D", STOP[1][1], 1000)
    with open(out, "wb") as f:
        f.write(b"".join(log.parts))


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("out")
    parser.add_argument("size", nargs="?", default="50", help="MiB (default 50), or \"tiny\"")
    parser.add_argument("--seed", type=int, default=2024)
    args = parser.parse_args()
    if args.size == "tiny":
        write_tiny(args.out)
    else:
        write_log(args.out, int(float(args.size) * 1024 * 1024), args.seed)
    return 0


if __name__ == "__main__":
    sys.exit(main())
