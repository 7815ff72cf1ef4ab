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
WHOLE = '%s: %s "%s" is not a whole number from %d to %d'
FIELDS = ("(the fields are InterfaceID, ReadyState, ICCID, SubscriberID, HomeProviderID, "
          "HomeProviderName and RegisteredProviderID)")
LISTING, CALL_LISTING = " ('mbnsimctl help' lists the commands)", " ('mbnsimctl calls' lists every call)"
PLAIN = "an HRESULT (0x80004005, or decimal) or clear"
# (arguments, the first line on standard error without "mbnsimctl: "); the
# second line of a wrong number of arguments is that command's usage.
REFUSED = [
    (["injct", "GetInterfaces", "null"], 'unknown command "injct"; did you mean "inject"?' + LISTING),
    (["inject", "gethomeprovider", "clear"],
     'inject: unknown call "gethomeprovider"; did you mean "GetHomeProvider"?' + CALL_LISTING),
    (["inject", "GetHomeProvider", "-2147483649"],
     'inject: WHAT "-2147483649" is none of what GetHomeProvider takes: ' + PLAIN),
    (["inject", "Advise", "none"], 'inject: Advise does not honour "none"; its WHAT is ' + PLAIN),
    (["inject", "Advise", "0x1", "1"], "inject: Advise is a call of no interface: it takes no INDEX"),
    (["reset", "257"], WHOLE % ("reset", "N", "257", 0, 256)),
    (["option", "DeliveryThreads", "17"], WHOLE % ("option", "VALUE", "17", 1, 16)),
    (["set", "0", "HomeProvider", "1"], 'set: unknown FIELD "HomeProvider"; did you mean "HomeProviderID"? ' + FIELDS),
    (["reply", "AT+X", "\\x4"], 'reply: TEXT "\\x4" has a backslash that is none of \\r \\n \\t \\\\ \\xHH'),
    (["inject", "GetInterfaces"], "inject: wrong number of arguments\nusage: mbnsimctl inject CALL WHAT [INDEX]"),
]


class Mbnsimctl(winebox.BoxCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.box.install_simulator(winebox.ARGS.mbnsim_dir)

    def setUp(self):
        self.box.simctl("reset", 2)

    def values(self, sub):
        # {name: data} of the values under MbnSim\<sub>, as `reg query` prints them.
        out = self.box.run(["reg", "query", SCENARIO_ROOT + "\\MbnSim\\" + sub]).stdout
        return {p[0]: p[2] for p in (line.split(None, 2) for line in out.splitlines())
                if len(p) == 3 and p[1].startswith("REG_")}

    def runs(self, rows, status=0, err="", out=""):
        # The commands `rows`, six at a time, each with `status`, `out` and `err`.
        self.assertRuns([(args, status, out, err) for args in rows], [self.box._simctl], 6, say="mbnsimctl: ")

    def test_help_and_refusals_exit_2_name_the_argument_and_change_nothing(self):
        usage = self.box.run(self.box.simctl_args("--help"))
        lines = usage.stdout.splitlines()
        self.assertEqual((0, "", "usage: mbnsimctl COMMAND [ARGS]"), (usage.returncode, usage.stderr, lines[0]))
        self.assertEqual(list(COMMANDS), [l.split()[0] for l in lines if l.startswith("  ") and l[2] != " "])
        before = self.box.run(["reg", "query", SCENARIO_ROOT, "/s"]).stdout
        bare, *results = self.box.run_all([self.box.simctl_args(*args) for args, _ in [([], "")] + REFUSED])
        self.assertEqual((2, "", usage.stdout), (bare.returncode, bare.stdout, bare.stderr))
        for (args, message), result in zip(REFUSED, results):
            self.assertEqual((2, "", "mbnsimctl: " + message), (result.returncode, result.stdout, "\n".join(
                result.stderr.splitlines()[:message.count("\n") + 1])), args)
        self.assertEqual(before, self.box.run(["reg", "query", SCENARIO_ROOT, "/s"]).stdout, "the scenario changed")

    def test_calls_lists_what_each_call_takes_and_inject_takes_them_all(self):
        # What `calls` lists: each call and what its WHAT may be (checked by the
        # simulator's unit tests); ", INDEX" marks the calls of an interface's objects.
        calls = dict(line.split(None, 1) for line in self.box.simctl("calls").splitlines())
        self.assertEqual(30, len(calls), calls)
        delayed = list(calls)[:2]
        self.runs([["inject", name, "0x80004005"] for name in calls] + [["delay", name, "7"] for name in delayed])
        self.assertEqual(({name: "0x80004005" for name in calls}, {name: "0x7" for name in delayed}),
                         (self.values("Inject"), self.values("Delay")))
        own = [name for name, notes in calls.items() if notes.endswith(", INDEX")]
        self.runs([["inject", name, "0x1", "1"] for name in own])
        self.assertEqual({name: "0x00000001" for name in own}, self.values(r"Interfaces\1\Inject"))

    def test_what_is_an_hresult_or_a_word_the_call_honours(self):
        # Each call's forms in turn, the calls side by side: (WHAT, stored as).
        accepted = {
            "GetHomeProvider": [("0x8000000A", "0x8000000A"), ("2147500037", "0x80004005"),
                                ("-2147483648", "0x80000000"), ("010", "0x0000000A"), ("clear", None)],
            "GetInterfaces": [("wrongtype", "wrongtype"), ("nullelement", "nullelement")],
            "SetCommand.Complete": [(w, w) for w in ("none", "wrongid", "empty", "early", "twice", "split")],
        }
        for turn in range(6):
            now = {call: forms[turn] for call, forms in accepted.items() if turn < len(forms)}
            self.runs([["inject", call, what] for call, (what, _) in now.items()])
            found = self.values("Inject")
            self.assertEqual({call: stored for call, (_, stored) in now.items()}, {c: found.get(c) for c in now}, turn)

    def test_good_input_still_works_and_a_missing_interface_fails_with_1(self):
        # In turn where they change one interface or the list.
        for commands in ([["set", "1", "ReadyState", "5"], ["option", "DeliveryThreads", "16"],
                          ["option", "MaxCommandSize", "clear"], ["option", "UnadviseWaits", "0"]],
                         [["session", "1", "open"]], [["arrive", "ICCID=8901", "ReadyState=007"]], [["remove", "0"]]):
            self.runs(commands)
        lines = self.box.simctl("show").splitlines()
        self.assertEqual(("2 interface(s)", True, True), (lines[0], " ReadyState=5 " in lines[1],
                                                          " ReadyState=7 ICCID=8901 " in lines[2]), lines)
        self.assertEqual({"DeliveryThreads": "0x10", "UnadviseWaits": "0x0"}, self.values("Options"))
        self.runs([["remove", "2"], ["session", "2", "open"], ["set", "2", "ICCID", "1"],
                   ["inject", "GetReadyState", "0x1", "2"]], 1, "no such interface")


if __name__ == "__main__":
    winebox.test_main("mbnsim-dir", "work", "base")
