"""mbnsimctl under Wine: what it accepts and stores, and what it refuses with
exit status 2 and a message that names the bad argument, leaving the
scenario in the registry as it was.

    test_mbnsimctl.py --mbnsim-dir DIR --work DIR --base PREFIX
"""
import os
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))
import winebox  # noqa: E402
from winebox import WineBox  # noqa: E402

ARGS = None

# The scenario (MbnSim) and what the simulator records (MbnSimState).
SCENARIO_ROOT = r"HKLM\SOFTWARE\Dorvane"

# What `calls` lists: each call and what its WHAT may be; ", INDEX" marks the
# calls of an interface's objects, which may fail for one interface only.
HRESULT_NULL = "HRESULT null"
COMPLETION = "HRESULT none wrongid empty early twice split, INDEX"
CALLS = {
    "CreateInstance": HRESULT_NULL,
    "QueryInterface.IConnectionPointContainer": HRESULT_NULL,
    "FindConnectionPoint": HRESULT_NULL,
    "Advise": "HRESULT",
    "Unadvise": "HRESULT",
    "GetInterface": HRESULT_NULL,
    "GetInterfaces": "HRESULT null wrongtype nullelement",
    "QueryInterface.IMbnRegistration": "HRESULT null, INDEX",
    "get_InterfaceID": "HRESULT, INDEX",
    "GetSubscriberInformation": "HRESULT null, INDEX",
    "GetReadyState": "HRESULT, INDEX",
    "GetHomeProvider": "HRESULT, INDEX",
    "GetRegisterState": "HRESULT, INDEX",
    "GetProviderID": "HRESULT, INDEX",
    "get_SubscriberID": "HRESULT, INDEX",
    "get_SimIccID": "HRESULT, INDEX",
    "DeviceServices.CreateInstance": HRESULT_NULL,
    "DeviceServices.QueryInterface.IConnectionPointContainer": HRESULT_NULL,
    "DeviceServices.FindConnectionPoint": HRESULT_NULL,
    "DeviceServices.Advise": "HRESULT",
    "DeviceServices.Unadvise": "HRESULT",
    "GetDeviceServicesContext": HRESULT_NULL,
    "GetDeviceService": "HRESULT null, INDEX",
    "get_IsCommandSessionOpen": "HRESULT, INDEX",
    "OpenCommandSession": "HRESULT, INDEX",
    "OpenCommandSession.Complete": COMPLETION,
    "CloseCommandSession": "HRESULT, INDEX",
    "CloseCommandSession.Complete": COMPLETION,
    "SetCommand": "HRESULT, INDEX",
    "SetCommand.Complete": COMPLETION,
}
COMMANDS = ("register", "unregister", "reset", "set", "inject", "delay", "option", "reply",
            "session", "last", "arrive", "remove", "cycle", "swap-sim", "show", "counters",
            "calls", "help")


class Mbnsimctl(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.box = WineBox(os.path.join(ARGS.work, "mbnsimctl"), base=ARGS.base)
        cls.box.install_simulator(ARGS.mbnsim_dir)

    @classmethod
    def tearDownClass(cls):
        cls.box.close(discard=True)

    def setUp(self):
        self.box.simctl("reset", 2)

    def ctl(self, *args):
        return self.box.run(self.box.simctl_args(*args))

    def scenario(self):
        """The scenario and the simulator's state as `reg query` prints them."""
        return self.box.run(["reg", "query", SCENARIO_ROOT, "/s"]).stdout

    def values(self, sub):
        """{name: data} of the values under MbnSim\\<sub>, as `reg query` prints them."""
        out = {}
        result = self.box.run(["reg", "query", SCENARIO_ROOT + "\\MbnSim\\" + sub])
        for line in result.stdout.splitlines():
            parts = line.split(None, 2)
            if len(parts) == 3 and parts[1].startswith("REG_"):
                out[parts[0]] = parts[2]
        return out

    def ctl_all(self, commands):
        """Runs the mbnsimctl `commands` (lists of arguments) side by side."""
        return self.box.run_all([self.box.simctl_args(*args) for args in commands])

    def assertAccepted(self, commands):
        for args, result in zip(commands, self.ctl_all(commands)):
            self.assertEqual((0, ""), (result.returncode, result.stderr), args)

    def assertRefused(self, cases):
        """Each (args, message) of `cases` exits with 2, prints nothing on stdout
        and `message` as its first line on stderr; together they change nothing.
        Returns the results."""
        before = self.scenario()
        results = self.ctl_all([args for args, _ in cases])
        for (args, message), result in zip(cases, results):
            shown = " ".join(args)
            self.assertEqual(2, result.returncode, shown + "\n" + result.stdout + result.stderr)
            self.assertEqual("", result.stdout, shown)
            self.assertEqual(message, (result.stderr.splitlines() or [""])[0], shown)
        self.assertEqual(before, self.scenario(), "the scenario changed")
        return results

    def test_help_goes_to_stdout_with_0_and_no_command_to_stderr_with_2(self):
        usage = self.ctl("--help")
        self.assertEqual(0, usage.returncode)
        self.assertEqual("", usage.stderr)
        lines = usage.stdout.splitlines()
        self.assertEqual("usage: mbnsimctl COMMAND [ARGS]", lines[0])
        self.assertEqual(list(COMMANDS), [line.split()[0] for line in lines if line.startswith("  ")
                                          and not line.startswith("   ")])
        for args in (["-h"], ["help"]):
            again = self.ctl(*args)
            self.assertEqual((0, usage.stdout, ""), (again.returncode, again.stdout, again.stderr),
                             args)
        bare = self.ctl()
        self.assertEqual((2, ""), (bare.returncode, bare.stdout))
        self.assertEqual(usage.stdout, bare.stderr.replace("\r\n", "\n"))

        one = self.ctl("help", "delay")
        self.assertEqual(0, one.returncode)
        self.assertEqual("usage: mbnsimctl delay CALL MS\n"
                         "    make CALL (or CALL.Complete) MS milliseconds late\n"
                         "    (0 clears)\n", one.stdout)

    def test_unknown_commands_are_refused_with_the_nearest_one(self):
        listing = " ('mbnsimctl help' lists the commands)"
        self.assertRefused([
            (["injct", "GetInterfaces", "null"],
             'mbnsimctl: unknown command "injct"; did you mean "inject"?' + listing),
            (["Show"], 'mbnsimctl: unknown command "Show"; did you mean "show"?' + listing),
            (["frobnicate"], 'mbnsimctl: unknown command "frobnicate"' + listing),
            (["help", "swapsim"],
             'mbnsimctl: help: unknown command "swapsim"; did you mean "swap-sim"?' + listing)])

    def test_unknown_calls_are_refused_with_the_nearest_one_and_nothing_stored(self):
        listing = " ('mbnsimctl calls' lists every call)"
        cases = [([command, call, what], 'mbnsimctl: %s: unknown call "%s"; did you mean '
                  '"GetHomeProvider"?%s' % (command, call, listing))
                 for command, call, what in (("inject", "GetHomeProvidr", "0x80004005"),
                                             ("inject", "gethomeprovider", "clear"),
                                             ("delay", "GetHomeProvidor", "100"))]
        cases += [(["delay", "IsCommandSessionOpen", "100"],
                   'mbnsimctl: delay: unknown call "IsCommandSessionOpen"; did you mean '
                   '"get_IsCommandSessionOpen"?' + listing),
                  (["inject", "Complete", "none"], 'mbnsimctl: inject: unknown call "Complete"' + listing)]
        self.assertRefused(cases)
        self.assertEqual({}, self.values("Inject"))
        self.assertEqual({}, self.values("Delay"))

    def test_calls_lists_what_each_call_takes_and_inject_and_delay_take_them_all(self):
        result = self.ctl("calls")
        self.assertEqual((0, ""), (result.returncode, result.stderr))
        listed = {}
        for line in result.stdout.splitlines():
            name, notes = line.split(None, 1)
            listed[name] = notes
        self.assertEqual(CALLS, listed)

        self.assertAccepted([["inject", name, "0x80004005"] for name in CALLS] +
                            [["delay", name, "7"] for name in CALLS])
        self.assertEqual({name: "0x80004005" for name in CALLS}, self.values("Inject"))
        self.assertEqual({name: "0x7" for name in CALLS}, self.values("Delay"))
        self.assertAccepted([["inject", name, "clear"] for name in CALLS] +
                            [["delay", name, "0"] for name in CALLS])
        self.assertEqual({}, self.values("Inject"))
        self.assertEqual({}, self.values("Delay"))

        # INDEX: taken by the calls of an interface's objects, refused by the others.
        own = [name for name, notes in CALLS.items() if notes.endswith(", INDEX")]
        self.assertAccepted([["inject", name, "0x1", "1"] for name in own])
        self.assertEqual({name: "0x00000001" for name in own}, self.values(r"Interfaces\1\Inject"))
        self.assertRefused([(["inject", name, "0x1", "1"], "mbnsimctl: inject: %s is a call of no "
                             "interface: it takes no INDEX" % name)
                            for name in CALLS if name not in own])

    def test_what_is_an_hresult_or_a_word_the_call_honours(self):
        # Each call's forms in turn, the calls side by side: (WHAT, stored as).
        accepted = {
            "GetHomeProvider": [("0x8000000A", "0x8000000A"), ("2147500037", "0x80004005"),
                                ("-2147467259", "0x80004005"), ("010", "0x0000000A"),
                                ("clear", None)],
            "FindConnectionPoint": [("null", "null")],
            "GetInterfaces": [("wrongtype", "wrongtype"), ("nullelement", "nullelement")],
            "SetCommand.Complete": [(w, w) for w in ("none", "wrongid", "empty", "early", "twice",
                                                     "split")] + [("0x1", "0x00000001")],
        }
        for turn in range(max(len(forms) for forms in accepted.values())):
            now = {call: forms[turn] for call, forms in accepted.items() if turn < len(forms)}
            self.assertAccepted([["inject", call, what] for call, (what, _) in now.items()])
            stored = self.values("Inject")
            for call, (what, expected) in now.items():
                self.assertEqual(expected, stored.get(call), (call, what))

        plain = "an HRESULT (0x80004005, or decimal) or clear"
        cases = [(["inject", "GetHomeProvider", what], 'mbnsimctl: inject: WHAT "%s" is none of '
                  "what GetHomeProvider takes: %s" % (what, plain))
                 for what in ("0x", "0x123456789", "0x8000400G", "4294967296", "-2147483649",
                              "E_FAIL", "", "0x1 ")]
        for call, what, takes in (
                ("GetHomeProvider", "null", plain),
                ("Advise", "none", plain),
                ("GetInterface", "wrongtype", "an HRESULT (0x80004005, or decimal), null or clear"),
                ("SetCommand.Complete", "null", "an HRESULT (0x80004005, or decimal), none, wrongid, "
                                                "empty, early, twice, split or clear")):
            cases.append((["inject", call, what], 'mbnsimctl: inject: %s does not honour "%s"; '
                           "its WHAT is %s" % (call, what, takes)))
        self.assertRefused(cases)

    def test_malformed_numbers_are_refused_for_every_command(self):
        whole = 'mbnsimctl: %s: %s "%s" is not a whole number from %d to %d'
        big = 2147483647
        cases = []
        for bad in ("-1", "abc", "1x", "257", " 1", "0x10"):
            cases.append((["reset", bad], whole % ("reset", "N", bad, 0, 256)))
        for bad in ("x", "-1", "0x0", "1.0", "2147483648", "99999999999999999999999"):
            cases += [(["remove", bad], whole % ("remove", "INDEX", bad, 0, big)),
                      (["set", bad, "ICCID", "1"], whole % ("set", "INDEX", bad, 0, big)),
                      (["session", bad, "open"], whole % ("session", "INDEX", bad, 0, big)),
                      (["inject", "GetHomeProvider", "0x1", bad],
                       whole % ("inject", "INDEX", bad, 0, big))]
        for bad in ("soon", "-5", "2147483648", "1e3", "0x10"):
            cases.append((["delay", "GetInterfaces", bad], whole % ("delay", "MS", bad, 0, big)))
        for command in ("cycle", "swap-sim"):
            for bad in ("abc", "-1", "1.5", "4294967296"):
                cases.append(([command, bad], whole % (command, "COUNT", bad, 0, big)))
        for bad in ("0", "17", "two"):
            cases.append((["option", "DeliveryThreads", bad],
                          whole % ("option", "VALUE", bad, 1, 16)))
        for bad in ("0x40", "-1", "4294967296"):
            cases.append((["option", "MaxCommandSize", bad],
                          whole % ("option", "VALUE", bad, 0, 4294967295)))
        for bad in ("2", "yes", "-1"):
            cases.append((["option", "UnadviseWaits", bad], whole % ("option", "VALUE", bad, 0, 1)))
        for bad in ("ready", "-1", "0x1", "4294967296"):
            cases += [(["set", "0", "ReadyState", bad],
                       whole % ("set", "ReadyState", bad, 0, 4294967295)),
                      (["arrive", "ReadyState=" + bad],
                       whole % ("arrive", "ReadyState", bad, 0, 4294967295))]
        self.assertRefused(cases)
        self.assertIn("2 interface(s)", self.box.simctl("show"), "remove x removed nothing")

    def test_unknown_names_and_words_are_refused(self):
        fields = ("(the fields are InterfaceID, ReadyState, ICCID, SubscriberID, HomeProviderID, "
                  "HomeProviderName and RegisteredProviderID)")
        self.assertRefused([
            (["set", "0", "HomeProvider", "1"], 'mbnsimctl: set: unknown FIELD "HomeProvider"; '
             'did you mean "HomeProviderID"? ' + fields),
            (["arrive", "ICCID=1", "Colour=red"],
             'mbnsimctl: arrive: unknown FIELD "Colour" ' + fields),
            (["arrive", "ICCID"], 'mbnsimctl: arrive: "ICCID" is not FIELD=VALUE'),
            (["option", "MaxCmdSize", "64"], 'mbnsimctl: option: unknown option "MaxCmdSize"; '
             'did you mean "MaxCommandSize"? (the options are DeliveryThreads, MaxCommandSize and '
             'UnadviseWaits)'),
            (["session", "0", "ajar"], 'mbnsimctl: session: state "ajar" is neither open nor '
             "closed"),
            (["reply", "AT+X", "\\q"], 'mbnsimctl: reply: TEXT "\\q" has a backslash that is '
             "none of \\r \\n \\t \\\\ \\xHH"),
            (["reply", "AT+X", "\\x4"], 'mbnsimctl: reply: TEXT "\\x4" has a backslash that is '
             "none of \\r \\n \\t \\\\ \\xHH"),
            (["reply", " ", "OK"], 'mbnsimctl: reply: COMMAND " " is empty')])

    def test_wrong_argument_counts_print_that_commands_usage(self):
        cases = ((["remove"], "remove INDEX"), (["remove", "0", "1"], "remove INDEX"),
                 (["inject", "GetInterfaces"], "inject CALL WHAT [INDEX]"),
                 (["inject", "GetReadyState", "0x1", "0", "0"], "inject CALL WHAT [INDEX]"),
                 (["delay", "GetInterfaces"], "delay CALL MS"),
                 (["set", "0", "ICCID"], "set INDEX FIELD VALUE"),
                 (["reset", "1", "2"], "reset [N]"), (["register", "a", "b"], "register [DLL]"),
                 (["option", "DeliveryThreads"], "option NAME VALUE|clear"),
                 (["session", "0"], "session INDEX open|closed"),
                 (["cycle"], "cycle COUNT"), (["last", "x"], "last"), (["show", "x"], "show"),
                 (["counters", "x"], "counters"), (["calls", "x"], "calls"),
                 (["help", "a", "b"], "help [COMMAND]"))
        results = self.assertRefused([(args, "mbnsimctl: %s: wrong number of arguments" % args[0])
                                      for args, _ in cases])
        for (args, usage), result in zip(cases, results):
            self.assertEqual("usage: mbnsimctl " + usage, result.stderr.splitlines()[1], args)

    def test_good_input_still_works_and_a_missing_interface_fails_with_1(self):
        self.assertEqual(0, self.ctl("set", "1", "ReadyState", "5").returncode)
        self.assertEqual(0, self.ctl("session", "1", "open").returncode)
        self.assertEqual(0, self.ctl("arrive", "ICCID=8901", "ReadyState=007").returncode)
        self.assertEqual(0, self.ctl("option", "DeliveryThreads", "16").returncode)
        self.assertEqual(0, self.ctl("option", "MaxCommandSize", "clear").returncode)
        self.assertEqual(0, self.ctl("option", "UnadviseWaits", "0").returncode)
        self.assertEqual(0, self.ctl("remove", "0").returncode)
        lines = self.box.simctl("show").splitlines()
        self.assertEqual("2 interface(s)", lines[0])
        self.assertIn(" ReadyState=5 ", lines[1])
        self.assertIn(" ReadyState=7 ICCID=8901 ", lines[2])
        self.assertEqual({"DeliveryThreads": "0x10", "UnadviseWaits": "0x0"}, self.values("Options"))
        for args in (["remove", "2"], ["session", "2", "open"], ["set", "2", "ICCID", "1"],
                     ["inject", "GetReadyState", "0x1", "2"]):
            result = self.ctl(*args)
            self.assertEqual((1, "mbnsimctl: no such interface\n"), (result.returncode,
                                                                    result.stderr.replace("\r\n", "\n")),
                             (args, result.stdout))


def main():
    global ARGS
    ARGS, run = winebox.test_main("mbnsim-dir", "work", "base")
    run()


if __name__ == "__main__":
    main()
