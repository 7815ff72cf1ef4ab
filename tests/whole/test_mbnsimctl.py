# mbnsimctl under Wine: what it accepts and stores, and what it refuses with
# exit status 2 and a message that names the bad argument, leaving the
# scenario in the registry as it was. (How each argument is read is the
# mbnsimctl input unit tests'; here a case or two of each kind.)
#
#     test_mbnsimctl.py --mbnsim-dir DIR --work DIR --base PREFIX
#
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))
import winebox  # noqa: E402

SCENARIO_ROOT = r"HKLM\SOFTWARE\Dorvane"  # the scenario (MbnSim) and the simulator's state (MbnSimState)
COMMANDS = ("register", "unregister", "reset", "set", "inject", "delay", "option", "reply", "session", "last",
            "arrive", "remove", "cycle", "swap-sim", "show", "counters", "calls", "help")
WHOLE = 'mbnsimctl: %s: %s "%s" is not a whole number from %d to %d'
BIG = 2147483647
FIELDS = ("(the fields are InterfaceID, ReadyState, ICCID, SubscriberID, HomeProviderID, "
          "HomeProviderName and RegisteredProviderID)")
LISTING, CALL_LISTING = " ('mbnsimctl help' lists the commands)", " ('mbnsimctl calls' lists every call)"
PLAIN = "an HRESULT (0x80004005, or decimal) or clear"
# (arguments, the first line on standard error); the second line of a wrong
# number of arguments is that command's usage.
REFUSED = [
    (["injct", "GetInterfaces", "null"], 'mbnsimctl: unknown command "injct"; did you mean "inject"?' + LISTING),
    (["frobnicate"], 'mbnsimctl: unknown command "frobnicate"' + LISTING),
    (["help", "swapsim"], 'mbnsimctl: help: unknown command "swapsim"; did you mean "swap-sim"?' + LISTING),
    (["inject", "gethomeprovider", "clear"],
     'mbnsimctl: inject: unknown call "gethomeprovider"; did you mean "GetHomeProvider"?' + CALL_LISTING),
    (["delay", "IsCommandSessionOpen", "100"],
     'mbnsimctl: delay: unknown call "IsCommandSessionOpen"; did you mean "get_IsCommandSessionOpen"?'
     + CALL_LISTING),
    (["inject", "Complete", "none"], 'mbnsimctl: inject: unknown call "Complete"' + CALL_LISTING),
    (["inject", "GetHomeProvider", "-2147483649"],
     'mbnsimctl: inject: WHAT "-2147483649" is none of what GetHomeProvider takes: ' + PLAIN),
    (["inject", "GetHomeProvider", "0x1 "], 'mbnsimctl: inject: WHAT "0x1 " is none of what GetHomeProvider '
     'takes: ' + PLAIN),
    (["inject", "Advise", "none"], 'mbnsimctl: inject: Advise does not honour "none"; its WHAT is ' + PLAIN),
    (["inject", "SetCommand.Complete", "null"], 'mbnsimctl: inject: SetCommand.Complete does not honour "null"; '
     "its WHAT is an HRESULT (0x80004005, or decimal), none, wrongid, empty, early, twice, split or clear"),
    (["inject", "Advise", "0x1", "1"], "mbnsimctl: inject: Advise is a call of no interface: it takes no INDEX"),
    (["reset", "257"], WHOLE % ("reset", "N", "257", 0, 256)),
    (["remove", "0x0"], WHOLE % ("remove", "INDEX", "0x0", 0, BIG)),
    (["set", "2147483648", "ICCID", "1"], WHOLE % ("set", "INDEX", "2147483648", 0, BIG)),
    (["inject", "GetHomeProvider", "0x1", "-1"], WHOLE % ("inject", "INDEX", "-1", 0, BIG)),
    (["delay", "GetInterfaces", "1e3"], WHOLE % ("delay", "MS", "1e3", 0, BIG)),
    (["swap-sim", "1.5"], WHOLE % ("swap-sim", "COUNT", "1.5", 0, BIG)),
    (["option", "DeliveryThreads", "17"], WHOLE % ("option", "VALUE", "17", 1, 16)),
    (["arrive", "ReadyState=0x1"], WHOLE % ("arrive", "ReadyState", "0x1", 0, 4294967295)),
    (["set", "0", "HomeProvider", "1"], 'mbnsimctl: set: unknown FIELD "HomeProvider"; did you mean '
     '"HomeProviderID"? ' + FIELDS),
    (["arrive", "ICCID=1", "Colour=red"], 'mbnsimctl: arrive: unknown FIELD "Colour" ' + FIELDS),
    (["arrive", "ICCID"], 'mbnsimctl: arrive: "ICCID" is not FIELD=VALUE'),
    (["option", "MaxCmdSize", "64"], 'mbnsimctl: option: unknown option "MaxCmdSize"; did you mean '
     '"MaxCommandSize"? (the options are DeliveryThreads, MaxCommandSize and UnadviseWaits)'),
    (["session", "0", "ajar"], 'mbnsimctl: session: state "ajar" is neither open nor closed'),
    (["reply", "AT+X", "\\x4"], 'mbnsimctl: reply: TEXT "\\x4" has a backslash that is none of '
     "\\r \\n \\t \\\\ \\xHH"),
    (["reply", " ", "OK"], 'mbnsimctl: reply: COMMAND " " is empty'),
] + [(args, "mbnsimctl: %s: wrong number of arguments\nusage: mbnsimctl %s" % (args[0], usage)) for args, usage in (
    (["remove", "0", "1"], "remove INDEX"), (["inject", "GetInterfaces"], "inject CALL WHAT [INDEX]"),
    (["reset", "1", "2"], "reset [N]"), (["session", "0"], "session INDEX open|closed"),
    (["show", "x"], "show"))]


class Mbnsimctl(winebox.BoxCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.box.install_simulator(winebox.ARGS.mbnsim_dir)

    def setUp(self):
        self.box.simctl("reset", 2)

    def ctl(self, *args):
        return self.box.run(self.box.simctl_args(*args))

    def values(self, sub):
        # {name: data} of the values under MbnSim\<sub>, as `reg query` prints them.
        out = self.box.run(["reg", "query", SCENARIO_ROOT + "\\MbnSim\\" + sub]).stdout
        return {p[0]: p[2] for p in (line.split(None, 2) for line in out.splitlines())
                if len(p) == 3 and p[1].startswith("REG_")}

    def assertAccepted(self, commands):
        for args, result in zip(commands, self.box.run_all([self.box.simctl_args(*a) for a in commands])):
            self.assertEqual((0, ""), (result.returncode, result.stderr), args)

    def test_help_goes_to_stdout_with_0_and_no_command_to_stderr_with_2(self):
        usage = self.ctl("--help")
        lines = usage.stdout.splitlines()
        self.assertEqual((0, "", "usage: mbnsimctl COMMAND [ARGS]"), (usage.returncode, usage.stderr, lines[0]))
        self.assertEqual(list(COMMANDS), [l.split()[0] for l in lines if l.startswith("  ") and l[2] != " "])
        bare = self.ctl()
        self.assertEqual((2, "", usage.stdout), (bare.returncode, bare.stdout, bare.stderr))

    def test_refusals_exit_2_name_the_argument_and_change_nothing(self):
        before = self.box.run(["reg", "query", SCENARIO_ROOT, "/s"]).stdout
        results = self.box.run_all([self.box.simctl_args(*args) for args, _ in REFUSED])
        for (args, message), result in zip(REFUSED, results):
            with self.subTest(args=args):
                self.assertEqual((2, "", message), (result.returncode, result.stdout,
                                                    "\n".join(result.stderr.splitlines()[:message.count("\n") + 1])))
        self.assertEqual(before, self.box.run(["reg", "query", SCENARIO_ROOT, "/s"]).stdout, "the scenario changed")

    def test_calls_lists_what_each_call_takes_and_inject_and_delay_take_them_all(self):
        # What `calls` lists: each call and what its WHAT may be (checked by the
        # simulator's unit tests); ", INDEX" marks the calls of an interface's objects.
        result = self.ctl("calls")
        self.assertEqual((0, ""), (result.returncode, result.stderr))
        calls = dict(line.split(None, 1) for line in result.stdout.splitlines())
        self.assertEqual(30, len(calls), calls)
        self.assertAccepted([["inject", name, "0x80004005"] for name in calls] +
                            [["delay", name, "7"] for name in calls])
        self.assertEqual(({name: "0x80004005" for name in calls}, {name: "0x7" for name in calls}),
                         (self.values("Inject"), self.values("Delay")))
        some = list(calls)[::10]
        self.assertAccepted([["inject", name, "clear"] for name in some] + [["delay", name, "0"] for name in some])
        self.assertEqual(([], []), ([n for n in some if n in self.values("Inject")], [n for n in some if n in self.values("Delay")]))
        own = [name for name, notes in calls.items() if notes.endswith(", INDEX")]
        self.assertAccepted([["inject", name, "0x1", "1"] for name in own])
        self.assertEqual({name: "0x00000001" for name in own}, self.values(r"Interfaces\1\Inject"))

    def test_what_is_an_hresult_or_a_word_the_call_honours(self):
        # Each call's forms in turn, the calls side by side: (WHAT, stored as).
        accepted = {
            "GetHomeProvider": [("0x8000000A", "0x8000000A"), ("2147500037", "0x80004005"),
                                ("-2147483648", "0x80000000"), ("010", "0x0000000A"), ("clear", None)],
            "FindConnectionPoint": [("null", "null")],
            "GetInterfaces": [("wrongtype", "wrongtype"), ("nullelement", "nullelement")],
            "SetCommand.Complete": [(w, w) for w in ("none", "wrongid", "empty", "early", "twice", "split")],
        }
        for turn in range(max(len(forms) for forms in accepted.values())):
            now = {call: forms[turn] for call, forms in accepted.items() if turn < len(forms)}
            self.assertAccepted([["inject", call, what] for call, (what, _) in now.items()])
            stored = self.values("Inject")
            for call, (what, expected) in now.items():
                self.assertEqual(expected, stored.get(call), (call, what))

    def test_good_input_still_works_and_a_missing_interface_fails_with_1(self):
        # In turn where they change one interface or the list.
        for commands in ([["set", "1", "ReadyState", "5"], ["option", "DeliveryThreads", "16"],
                          ["option", "MaxCommandSize", "clear"], ["option", "UnadviseWaits", "0"]],
                         [["session", "1", "open"]], [["arrive", "ICCID=8901", "ReadyState=007"]], [["remove", "0"]]):
            self.assertAccepted(commands)
        lines = self.box.simctl("show").splitlines()
        self.assertEqual(("2 interface(s)", True, True), (lines[0], " ReadyState=5 " in lines[1],
                                                          " ReadyState=7 ICCID=8901 " in lines[2]), lines)
        self.assertEqual({"DeliveryThreads": "0x10", "UnadviseWaits": "0x0"}, self.values("Options"))
        commands = [["remove", "2"], ["session", "2", "open"], ["set", "2", "ICCID", "1"],
                    ["inject", "GetReadyState", "0x1", "2"]]
        for args, result in zip(commands, self.box.run_all([self.box.simctl_args(*a) for a in commands])):
            self.assertEqual((1, "mbnsimctl: no such interface\n"), (result.returncode, result.stderr), args)


if __name__ == "__main__":
    winebox.test_main("mbnsim-dir", "work", "base")
