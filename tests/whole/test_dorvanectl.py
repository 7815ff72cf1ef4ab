# dorvanectl under Wine: the table, lint, registry and AT commands on small
# tables, Wine's real registry and the simulated module: exit statuses, what
# standard error says, one JSON object on every path, and the command line
# itself. (What each lookup answers is the library's unit tests' and
# docs/tables.md's; the lint findings are the lint unit tests'.)
#
#     test_dorvanectl.py --dorvanectl dorvanectl.exe --mbnsim-dir DIR --work DIR --base PREFIX
#
import json
import os
import re
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))
import winebox  # noqa: E402

T = "C:\\tables\\"
TABLES = {
    "rules.xml": """<Rules><SwitchingRule><SelectionRule>
  <MCCMNCTable><Item mccmnc="310260">TMO</Item><Item mccmnc="310260">second</Item></MCCMNCTable>
  <MCCTable><Item mcc="310"> US </Item></MCCTable></SelectionRule>
<Registered mcc="310"><PARAMFirmware File="p.bin" Ver="1" Type="P" Count="03"/></Registered>
</SwitchingRule></Rules>""",
    "skus.xml": """<S><SKU_GUID ID="A"><Area ID="EU"><PARAMFirmware File="eu.bin" Ver="1" Type="P" Count="1"/>\
</Area></SKU_GUID>
<SKU_GUID ID="B"><Area ID="EU"/></SKU_GUID></S>""",
    "esim.xml": """<E><TableEnableFlag FlagValue="True"/><SKU_BlackList><SKU SKUValue="X13"/></SKU_BlackList>
<IMSI_BlackList><MCCMNC MCCMNCValue="46000"/></IMSI_BlackList></E>""",
    "region.xml": """<R><SelectionRule><Region mcc="default" Regulatory="FCC"/><Region mcc="460" """
                  """Regulatory="SRRC"/></SelectionRule></R>""",
    "broken.xml": "<Rules><SwitchingRule>",
    "empty.xml": "",
    "rootless.xml": "<?xml version=\"1.0\"?>\n<!-- none -->\n",
    "notes.xml": "<Rules><SwitchingRule><SelectionRule><MCCMNCTable><Item mccmnc=\"310260\">TMO</Item>"
                 "</MCCMNCTable></SelectionRule></SwitchingRule></Rules>",
    # "Côte" in UTF-8, then a Latin-1 byte and a literal backslash-x.
    "names.xml": b'<R><SwitchingRule><SelectionRule><MCCTable><Item mcc="208">C\xc3\xb4te</Item>'
                 b'<Item mcc="209">C\xf4te \\x</Item></MCCTable></SelectionRule></SwitchingRule></R>',
}
REFUSED_TABLE = ("the table does not load (Error=XML_ERROR_MISMATCHED_ELEMENT ErrorID=14 (0xe) Line number=1: "
                 "XMLElement name=SwitchingRule): ")
NO_MODEM = "at: no WWAN modem found (no Mobile Broadband interface, or no Mobile Broadband stack)"
NOTHING_LEFT = {"LiveObjects": 0, "AdvisedSinks": 0, "BadReleases": 0, "BadUnadvises": 0, "PendingCompletions": 0}


class Dorvanectl(winebox.BoxCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        for name, text in TABLES.items():
            cls.box.write(T + name, text)
        os.makedirs(cls.box.unix_path(T + "folder.xml"))
        cls.box.install_simulator(winebox.ARGS.mbnsim_dir)
        for value, data in (("Family", "ThinkPad"), ("Model", "x13")):
            cls.box.run(["reg", "add", r"HKLM\SOFTWARE\DorvaneCtl", "/v", value, "/d", data, "/f", "/reg:32"],
                        check=True)
        cls.box.run(["reg", "add", r"HKLM\SOFTWARE\DorvaneCtl64", "/v", "Only", "/d", "x", "/f", "/reg:64"],
                    check=True)

    def assertRuns(self, cases):
        # Each (arguments, exit status, standard output, standard error) case;
        # standard error given without the leading "dorvanectl: " and line end.
        for args, status, out, err in cases:
            with self.subTest(args=args):
                result = self.ctl(*args)
                self.assertEqual((status, out, err and "dorvanectl: %s\n" % err),
                                 (result.returncode, result.stdout, result.stderr))

    def test_lookups_give_the_librarys_answer_as_json_and_exit_1_when_it_fails(self):
        cases = [
            (["carrier-id-by-mccmnc", "310260", T + "rules.xml"], 0, {"result": True, "output": "TMO"}),
            (["carrier-id-by-mcc", "311", T + "rules.xml"], 1,
             {"result": False, "output": "", "error": "carrier-id-by-mcc: nothing found for 311"}),
            (["param-firmware-by-sku", "A", "EU", T + "skus.xml"], 0,
             {"result": True, "fields": [""] * 19 + ["eu.bin", "1", "P", "1", ""]}),
            (["esim-disable-type", T + "esim.xml"], 1,
             {"result": 4294967295, "error": "esim-disable-type: no decision (0xFFFFFFFF): neither --sku nor "
                                             "--imsi was given; the log says: \"SKU & Imsi is null\""}),
            (["regulatory-by-mcc", T + "region.xml", "999"], 0, {"result": 2, "output": "FCC"}),
            (["--preset", "P", "carrier-id-by-mcc", "999", T + "rules.xml"], 1,
             {"result": False, "output": "P", "error": "carrier-id-by-mcc: nothing found for 999"}),
            (["--preset", "P", "regulatory-by-mcc", T + "region.xml", ""], 1,
             {"result": 0, "output": "P", "error": "regulatory-by-mcc: no Region row for MCC  and no default row; "
                                                   "the log says: \"mcc is null\""}),
            # The table's UTF-8 text; a byte that is not UTF-8 as \xNN, not as a Latin-1 letter.
            (["carrier-id-by-mcc", "208", T + "names.xml"], 0, {"result": True, "output": "C\u00f4te"}),
            (["carrier-id-by-mcc", "209", T + "names.xml"], 0, {"result": True, "output": "C\\xF4te \\x"}),
        ]
        for args, status, expected in cases:
            with self.subTest(args=args):
                answer = self.ctl_json(*args, status=status)
                if "error" in expected:
                    self.assertEqual("dorvanectl: %s\n" % expected["error"], self.last.stderr)
                answer.pop("record", None)
                self.assertEqual(expected, answer)

    def test_time_limits_exit_4_and_name_what_did_not_return_and_why(self):
        prefix = "param-firmware-by-sku did not return within 1 s: "
        self.assertRuns([(["param-firmware-by-sku", sku, area, T + "skus.xml", "--timeout", "1"], 4, "", prefix + why)
                         for sku, area, why in [
            ("B", "EU", "SKU B is under a later SKU_GUID (line 2), and the lookup only ever reads the table's "
                        "first SKU_GUID (line 1)"),
            ("Z", "EU", "SKU Z is not in the table, and the lookup waits for it under the first SKU_GUID (line 1) "
                        "for ever"),
            ("A", "US", "the table's first SKU_GUID A (line 1) has no Area US, and the lookup waits for it for ever")]])

    def test_tables_and_arguments_that_cannot_work_are_refused_with_2_before_the_lookup(self):
        scatter = r"C:\Windows\WWAN\FwSwitchBin\FlashData\scatter.xml"
        self.assertRuns([(["--log", T + "refused.log"] + args, 2, "", "%s: %s" % (args[0], why)) for args, why in [
            (["carrier-id-by-mccmnc", "310260", T + "missing.xml"], T + "missing.xml: no such file"),
            (["carrier-id-by-mccmnc", "310260", T + "folder.xml"], T + "folder.xml: is a folder, not a file"),
            (["carrier-id-by-mccmnc", "310260", T + "empty.xml"], T + "empty.xml: is empty"),
            (["carrier-firmware", "TMO", T + "broken.xml"],
             T + "broken.xml: not well-formed XML: XML_ERROR_MISMATCHED_ELEMENT at line 1"),
            (["regulatory-by-mcc", T + "rootless.xml", "460"], T + "rootless.xml: not well-formed XML: no root element"),
            (["update-scatter", ";true;"], "%s: no such file (the file update-scatter always rewrites)" % scatter),
            (["fw-package-info", ""], "FwPackageInfo.xml: no such file (an empty path reads FwPackageInfo.xml in "
                                      "the current folder)"),
            (["carrier-id-by-mcc", "310", ""], "the table's path is empty"),
            # Arguments in another order than the command takes: a hint, not "no such file".
            (["regulatory-by-mcc", "460", T + "region.xml"],
             "460: no such file, and %sregion.xml, given as mcc, is a file: the arguments are path mcc (see "
             "'dorvanectl help regulatory-by-mcc')" % T)]])
        self.assertEqual([], self.box.log_messages(T + "refused.log"), "no lookup ran")

    def test_json_gives_one_object_on_every_exit_path(self):
        cases = [
            (0, ["carrier-id-by-mcc", "--json", "310", T + "rules.xml", "--timeout", "0x10"]),
            (1, ["carrier-id-by-mcc", "311", T + "rules.xml", "--json"]),
            (2, ["carrier-id-by-mcc", "310", "--json"]),
            (2, ["carrier-id-by-mcc", "310", T + "rules.xml", "surplus", "--json"]),
            (2, ["--json"]),
            (2, ["--json", "--log", T + "rules.xml\\x.log", "carrier-id-by-mcc", "310", T + "rules.xml"]),
            (2, ["--json", "carrier-id-by-mcc", "310", T + "broken.xml"]),
            (4, ["--json", "param-firmware-by-sku", "B", "EU", T + "skus.xml", "--timeout", "1"]),
            (0, ["--json", "--help"]),
            (0, ["help", "--json"]),
        ]
        for status, args in cases:
            with self.subTest(args=args):
                result = self.ctl(*args)
                self.assertEqual(status, result.returncode, result.stderr)
                [answer] = [json.loads(line) for line in result.stdout.splitlines()]
                self.assertIn("result", answer)
                self.assertEqual("dorvanectl: %s\n" % answer["error"] if status else "", result.stderr)
        self.assertEqual({"result": None, "error": "unknown command 'carrier-id-by-mc'; did you mean "
                                                   "'carrier-id-by-mcc'?"}, self.ctl_json("carrier-id-by-mc", status=2))
        self.assertTrue(self.ctl_json("--version")["version"].startswith("dorvanectl "))

    def test_command_line_is_strict_and_helpful(self):
        see = " (see 'dorvanectl help carrier-id-by-mcc')"
        self.assertRuns([(args, 2, "", message) for args, message in [
            (["frobnicate"], "unknown command 'frobnicate'; 'dorvanectl help' lists the commands"),
            (["reg"], "unknown command 'reg'; did you mean one of 'regulatory-by-mcc', 'reg-get', 'reg-set', "
                      "'reg-set-dword'?"),
            ([], "a command is required: dorvanectl [OPTIONS] COMMAND ARGS... ('dorvanectl help' lists the commands)"),
            (["help", "lnit"], "help: unknown command 'lnit'; did you mean 'lint'?"),
            (["carrier-id-by-mcc", "310", T + "rules.xml", "--timeout", "-1"], "carrier-id-by-mcc: --timeout: not a "
             "number (decimal digits, or 0x and hexadecimal digits): -1" + see),
            (["carrier-id-by-mcc", "310", T + "rules.xml", "--timeout", "99999999999"],
             "carrier-id-by-mcc: --timeout: 99999999999 is out of range (1 to 2147483647)" + see),
            (["--jsn", "carrier-id-by-mcc", "310", T + "rules.xml"],
             "carrier-id-by-mcc: --jsn: no such option; did you mean '--json'?" + see),
            (["--log", "C:\\windows", "carrier-id-by-mcc", "310", T + "rules.xml"],
             "cannot write the log file C:\\windows (--log): it is a folder; give a file's path")]])
        # The text form, and a timeout in decimal with a leading zero.
        self.assertRuns([(["carrier-id-by-mccmnc", "310260", T + "rules.xml", "--timeout", "010"], 0,
                          "result: true\noutput: TMO\n", "")])

        listing = self.ctl("help")
        self.assertEqual((0, ""), (listing.returncode, listing.stderr))
        self.assertIn("Usage: dorvanectl [OPTIONS] SUBCOMMAND\n", listing.stdout)
        self.assertNotRegex(listing.stdout, r"\{false\}|=C:", "defaults in words, not as CLI11's {false} or TEXT=C:\\...")
        commands = re.findall(r"^  ([a-z][a-z-]+) {2,}", listing.stdout.split("Subcommands:")[1], re.M)
        self.assertEqual(32, len(commands), commands)
        for command in ("lint", "at", "reg-set-dword"):
            with self.subTest(command=command):
                result = self.ctl("help", command)
                self.assertEqual((0, ""), (result.returncode, result.stderr))
                self.assertEqual(result.stdout, self.ctl(command, "--help").stdout)
                self.assertIn("\nUsage: dorvanectl %s " % command, result.stdout)
                self.assertRegex(result.stdout, r"\nExample:\n  dorvanectl .*%s" % re.escape(command))

    def test_verbose_shows_the_librarys_log_lines_as_they_are_written(self):
        log = T + "verbose.log"
        result = self.ctl("--log", log, "-v", "regulatory-by-mcc", T + "region.xml", "460")
        written = self.box.read(log).decode("latin-1").replace("\r\n", "\n")
        self.assertTrue(written.startswith(winebox.BANNER + "\n"), written)
        self.assertNotEqual("", result.stderr)
        self.assertEqual(written[len(winebox.BANNER) + 1:], result.stderr)
        self.assertEqual("", self.ctl("--log", log, "carrier-id-by-mccmnc", "310260", T + "rules.xml").stderr,
                         "without -v nothing but messages")

    def test_lint_exit_status_gates_on_severity_and_is_2_for_files_not_checked(self):
        # The arguments, the status, the severities of the findings printed and standard error.
        cases = [
            ([T + "notes.xml"], 0, {"note"}, ""),
            ([T + "notes.xml", "--fail-on", "note"], 1, {"note"}, ""),
            ([T + "skus.xml", "--fail-on", "error"], 1, {"error"}, ""),
            ([T + "broken.xml"], 2, set(), T + "broken.xml: " + REFUSED_TABLE + "every lookup of it fails"),
            ([T + "missing.xml", T + "notes.xml"], 2, {"note"}, T + "missing.xml: cannot read it "
                                                              "(XML_ERROR_FILE_NOT_FOUND)"),
            ([r"C:\tab*\rules.xml"], 2, set(),
             r"C:\tab*\rules.xml: * and ? are expanded only in the last part of a path, not in its folders"),
        ]
        for args, status, severities, problem in cases:
            with self.subTest(args=args):
                result = self.ctl("lint", *args)
                self.assertEqual(status, result.returncode, result.stdout + result.stderr)
                self.assertEqual(problem and "dorvanectl: lint: %s\n" % problem, result.stderr)
                shown = [re.match(r"^(.+):(\d+): (error|warning|note): (.+)$", l) for l in result.stdout.splitlines()]
                self.assertNotIn(None, shown, result.stdout)
                self.assertEqual(severities, {m.group(3) for m in shown})
        # A folder: its .xml files in name order (case ignored), one JSON object a file.
        self.box.write(T + "release\\B.XML", TABLES["region.xml"])
        self.box.write(T + "release\\a.xml", TABLES["broken.xml"])
        self.box.write(T + "release\\readme.txt", "not a table")
        result = self.ctl("lint", T + "release", "--json")
        self.assertEqual(2, result.returncode, result.stderr)
        self.assertEqual([{"file": T + "release\\a.xml", "kind": None, "findings": [],
                           "problem": REFUSED_TABLE + "every lookup of it fails"},
                          {"file": T + "release\\B.XML", "kind": "region", "findings": []}],
                         [json.loads(line) for line in result.stdout.splitlines()])

    def test_registry_values_of_the_32_bit_view(self):
        key = r"SOFTWARE\DorvaneCtl"
        self.assertEqual({"result": 0, "type": 1, "output": "ThinkPad"}, self.ctl_json("reg-get", key, "Family"))
        self.assertEqual({"result": 0}, self.ctl_json("reg-set-dword", key, "Flag", "0x12345678"))
        self.assertEqual({"result": 0, "type": 4, "size": 4, "bytes": "78 56 34 12"},
                         self.ctl_json("reg-get", "--raw", key, "Flag"))
        self.assertEqual({"result": 0}, self.ctl_json("reg-set-dword", key, "Bin", "7", "--type", "REG_BINARY"))
        self.assertEqual(3, self.ctl_json("reg-get", "--raw", key, "Bin")["type"])
        self.assertEqual({"result": 0}, self.ctl_json("reg-set", key, "Three", "abc"))
        self.assertEqual({"result": 0, "type": 1, "size": 3, "bytes": "61 62 63"},
                         self.ctl_json("reg-get", "--raw", key, "Three"))
        hklm = "HKEY_LOCAL_MACHINE\\"
        self.assertRuns([
            (["reg-get", key, "Flag"], 0, "result: 0\ntype: 4 (REG_DWORD)\noutput: 305419896 (0x12345678)\n", ""),
            # A value that is not text: the library reads it, the command says to use --raw.
            (["reg-get", key, "Bin"], 1, "result: 0\ntype: 3 (REG_BINARY)\noutput: \\x07\n",
             "reg-get: the value Bin is 3 (REG_BINARY), not text: read it with --raw"),
            (["reg-get", r"SOFTWARE\DorvaneCtl64", "Only"], 1, "result: 1\ntype: 1 (REG_SZ)\noutput:\n",
             "reg-get: the key %sSOFTWARE\\DorvaneCtl64 (32-bit view) cannot be opened: File not found (error 2)"
             % hklm),
            (["reg-get", key, "None"], 1, "result: 1\ntype: 0 (REG_NONE)\noutput:\n",
             "reg-get: the value None is not in %sSOFTWARE\\DorvaneCtl (32-bit view)" % hklm),
            (["reg-get", r"HKLM\SOFTWARE\DorvaneCtl", "Family"], 1, "result: 1\ntype: 1 (REG_SZ)\noutput:\n",
             "reg-get: the key %sHKLM\\SOFTWARE\\DorvaneCtl (32-bit view) cannot be opened: File not found (error 2) "
             "(the key is a path under HKEY_LOCAL_MACHINE, without the hive: SOFTWARE\\...)" % hklm),
            (["reg-set", key + "\\Absent", "x", "y"], 1, "result: 1\n",
             "reg-set: the key %sSOFTWARE\\DorvaneCtl\\Absent (32-bit view) cannot be opened for writing: File not "
             "found (error 2); the key must exist, nothing is created" % hklm),
            (["reg-set-dword", key, "Flag", "-1"], 2, "",
             "reg-set-dword: value: not a number (decimal digits, or 0x and hexadecimal digits): -1 "
             "(see 'dorvanectl help reg-set-dword')"),
            (["reg-set-dword", key, "Flag", "0x100000000"], 2, "",
             "reg-set-dword: value: 0x100000000 is out of range (0 to 4294967295) (see 'dorvanectl help "
             "reg-set-dword')"),
        ])
        self.assertEqual("78 56 34 12", self.ctl_json("reg-get", "--raw", key, "Flag")["bytes"], "nothing stored")

    def test_at_answers_good_and_bad_with_their_exit_statuses(self):
        self.box.simctl("reset", 1)
        self.assertRuns([(["at", "AT+CGMI"], 0, "result: true\nexchange: 0\nanswer: DorvaneLabs\nanswer: OK\n", "")])
        self.assertEqual("id=1 type=17 count=1 bytes=41542B43474D490D0A", self.box.simctl("last").strip(),
                         "command id 1, VT_UI1 bytes, CR LF, no terminator")
        # The judged answer has its blanks removed; --hex and --raw give the
        # bytes as they came, 0xFF as FF (the text shows the byte itself, which
        # reads here as U+FFFD).
        self.box.simctl("reply", "AT+CME", "\\r\\n+CME ERROR: 10\\xFF\\r\\n")
        result = self.ctl("at", "AT+CME", "--hex", "--raw")
        self.assertEqual((1, "result: false\nexchange: 0\nanswer: +CMEERROR:10\\xFF\n"
                             "hex: 0D 0A 2B 43 4D 45 20 45 52 52 4F 52 3A 20 31 30 FF 0D 0A\n"
                             "raw: \\r\\n+CME ERROR: 10\\xFF\\r\\n\n",
                          "dorvanectl: at: no good answer: the module answered with an error\n"),
                         (result.returncode, result.stdout.replace("\ufffd", "\\xFF"), result.stderr))
        self.assertEqual({"result": True, "exchange": 0, "output": "\r\nDVS-5G20\r\n\r\nOK\r\n"},
                         self.ctl_json("at", "AT+CGMM"))
        self.assertRuns([(["at", command], 2, "", "at: the AT command is empty (nothing was sent)") for command in ("", " ")])
        self.assertEqual({"result": None, "error": "at: the AT command is empty (nothing was sent)"},
                         self.ctl_json("at", "", status=2))
        # Three processes used the simulator (an empty command does not even ask it), and left nothing.
        self.assertEqual([NOTHING_LEFT] * 3, [{k: c[k] for k in NOTHING_LEFT} for c in self.box.sim_counters().values()])

    def test_at_failures_of_the_stack_are_told_apart(self):
        # The channel's result cannot tell them (after a failed step it is the
        # close wait's 0); the exchange's steps can. "exchange" is the first
        # failing step's result.
        cases = [
            ([("option", "MaxCommandSize", "8")], "AT+CGMIXXX", 1, 0x80070057,
             "at: the stack refused the command: SetCommand failed with 0x80070057 (a command must be "
             "shorter than the device service's maximum size)"),
            ([("inject", "OpenCommandSession", "0x80070005")], "AT", 1, 0x80070005,
             "at: the command session could not be opened: OpenCommandSession failed with 0x80070005"),
            ([("inject", "OpenCommandSession.Complete", "0x80004005")], "AT", 1, 0x80004005,
             "at: the command session could not be opened: its completion carried 0x80004005 "
             "(SetCommand then failed with 0x8007139F)"),
            ([("inject", "SetCommand.Complete", "0x1")], "AT", 1, 1,
             "at: the module's answer came with the status 0x00000001 and no data"),
            ([("inject", "SetCommand.Complete", "empty")], "AT", 1, 0, "at: no good answer: the module's answer is "
                                                                       "empty"),
            ([("inject", "SetCommand.Complete", "none")], "AT", 4, 1,
             "at: no answer came from the module within 5 s (exchange result 1)"),
        ]
        for setup, command, status, exchange, message in cases:
            with self.subTest(setup=setup):
                self.box.simctl("reset", 1)
                for step in setup:
                    self.box.simctl(*step)
                result = self.ctl("--json", "at", command)
                answer = {"result": False, "exchange": exchange, "output": "", "error": message}
                self.assertEqual((status, answer, "dorvanectl: %s\n" % message),
                                 (result.returncode, json.loads(result.stdout), result.stderr))
        self.box.simctl("reset", 0)
        self.assertEqual({"result": False, "error": NO_MODEM}, self.ctl_json("at", "AT", status=3))
        self.assertEqual("dorvanectl: %s\n" % NO_MODEM, self.last.stderr)


if __name__ == "__main__":
    winebox.test_main("dorvanectl", "mbnsim-dir", "work", "base")
