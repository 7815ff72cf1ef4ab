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
    "region.xml": """<R><SelectionRule><Region mcc="default" Regulatory="FCC"/><Region mcc="460" """
                  """Regulatory="SRRC"/></SelectionRule></R>""",
    "broken.xml": "<Rules><SwitchingRule>",
    "notes.xml": "<Rules><SwitchingRule><SelectionRule><MCCMNCTable><Item mccmnc=\"310260\">TMO</Item>"
                 "</MCCMNCTable></SelectionRule></SwitchingRule></Rules>",
    # "Côte" in UTF-8, then a Latin-1 byte and a literal backslash-x.
    "names.xml": b'<R><SwitchingRule><SelectionRule><MCCTable><Item mcc="208">C\xc3\xb4te</Item>'
                 b'<Item mcc="209">C\xf4te \\x</Item></MCCTable></SelectionRule></SwitchingRule></R>',
}
REFUSED_TABLE = ("the table does not load (Error=XML_ERROR_MISMATCHED_ELEMENT ErrorID=14 (0xe) Line number=1: "
                 "XMLElement name=SwitchingRule): every lookup of it fails")
NO_MODEM = "at: no WWAN modem found (no Mobile Broadband interface, or no Mobile Broadband stack)"
REG = r"SOFTWARE\DorvaneCtl"
HKLM = "HKEY_LOCAL_MACHINE\\SOFTWARE\\DorvaneCtl"


j = winebox.json_row  # a --json row


def refused(args, why):
    return ["--log", T + "refused.log"] + args, 2, "", "%s: %s" % (args[0], why)


def findings(severity):
    # Standard output of nothing but findings of `severity`.
    return re.compile(r"\A(?:.+:\d+: %s: .+\n)+\Z" % severity)


class Dorvanectl(winebox.BoxCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        for name, text in TABLES.items():
            cls.box.write(T + name, text)
        os.makedirs(cls.box.unix_path(T + "folder.xml"))
        cls.box.install_simulator(winebox.ARGS.mbnsim_dir)
        for view, key, value, data in (("32", REG, "Family", "ThinkPad"), ("64", REG + "64", "Only", "x")):
            cls.box.run(["reg", "add", "HKLM\\" + key, "/v", value, "/d", data, "/f", "/reg:" + view], check=True)

    def test_lookups_refusals_time_limits_and_the_command_line(self):
        late = "param-firmware-by-sku did not return within 1 s: "
        see = " (see 'dorvanectl help carrier-id-by-mcc')"
        self.assertRuns([
            # The first of two matching items.
            j(["carrier-id-by-mccmnc", "310260", T + "rules.xml"], 0, {"result": True, "output": "TMO"}),
            j(["carrier-id-by-mcc", "311", T + "rules.xml"], 1,
              {"result": False, "output": "", "error": "carrier-id-by-mcc: nothing found for 311"}),
            # The table's UTF-8 text; a byte that is not UTF-8 as \xNN, not as a Latin-1 letter.
            j(["carrier-id-by-mcc", "208", T + "names.xml"], 0, {"result": True, "output": "C\u00f4te"}),
            j(["carrier-id-by-mcc", "209", T + "names.xml"], 0, {"result": True, "output": "C\\xF4te \\x"}),
            (["carrier-id-by-mccmnc", "310260", T + "rules.xml", "--timeout", "010"], 0,
             "result: true\noutput: TMO\n", ""),
            # What did not return within the time limit, and why: exit 4.
            (["param-firmware-by-sku", "B", "EU", T + "skus.xml", "--timeout", "1"], 4, "", late +
             "SKU B is under a later SKU_GUID (line 2), and the lookup only ever reads the table's first SKU_GUID "
             "(line 1)"),
            # Tables and arguments that cannot work: 2, before the lookup.
            refused(["carrier-id-by-mccmnc", "310260", T + "missing.xml"], T + "missing.xml: no such file"),
            refused(["carrier-id-by-mccmnc", "310260", T + "folder.xml"], T + "folder.xml: is a folder, not a file"),
            refused(["carrier-firmware", "TMO", T + "broken.xml"],
                    T + "broken.xml: not well-formed XML: XML_ERROR_MISMATCHED_ELEMENT at line 1"),
            # Arguments in another order than the command takes: a hint, not "no such file".
            refused(["regulatory-by-mcc", "460", T + "region.xml"], "460: no such file, and %sregion.xml, given as "
                    "mcc, is a file: the arguments are path mcc (see 'dorvanectl help regulatory-by-mcc')" % T),
            j(["carrier-id-by-mcc", "310", T + "broken.xml"], 2, {"result": None, "error": "carrier-id-by-mcc: "
              + T + "broken.xml: not well-formed XML: XML_ERROR_MISMATCHED_ELEMENT at line 1"}),
            # The command line is strict and helpful.
            (["reg"], 2, "", "unknown command 'reg'; did you mean one of 'regulatory-by-mcc', 'reg-get', 'reg-set', "
                             "'reg-set-dword'?"),
            j(["carrier-id-by-mc"], 2, {"result": None, "error": "unknown command 'carrier-id-by-mc'; did you mean "
                                                                 "'carrier-id-by-mcc'?"}),
            ([], 2, "", "a command is required: dorvanectl [OPTIONS] COMMAND ARGS... ('dorvanectl help' lists the "
                        "commands)"),
            (["--jsn", "carrier-id-by-mcc", "310", T + "rules.xml"], 2, "",
             "carrier-id-by-mcc: --jsn: no such option; did you mean '--json'?" + see),
            (["--log", "C:\\windows", "carrier-id-by-mcc", "310", T + "rules.xml"], 2, "",
             "cannot write the log file C:\\windows (--log): it is a folder; give a file's path"),
            # lint: the findings' severity gates the status; 2 for a file not checked.
            (["lint", T + "notes.xml"], 0, findings("note"), ""),
            (["lint", T + "notes.xml", "--fail-on", "note"], 1, findings("note"), ""),
            (["lint", T + "broken.xml"], 2, "", "lint: %sbroken.xml: %s" % (T, REFUSED_TABLE)),
        ], at_once=4)
        self.assertEqual([], self.box.log_messages(T + "refused.log"), "no lookup ran")

    def test_help_verbose_and_lint_of_a_folder(self):
        listing = self.ctl("help")
        self.assertEqual((0, ""), (listing.returncode, listing.stderr))
        self.assertIn("Usage: dorvanectl [OPTIONS] SUBCOMMAND\n", listing.stdout)
        self.assertNotRegex(listing.stdout, r"\{false\}|=C:", "defaults in words, not as CLI11's {false} or TEXT=C:\\...")
        self.assertEqual(32, len(re.findall(r"^  ([a-z][a-z-]+) {2,}", listing.stdout.split("Subcommands:")[1], re.M)))
        lint = self.ctl("help", "lint")
        self.assertEqual((0, "", lint.stdout), (lint.returncode, lint.stderr, self.ctl("lint", "--help").stdout))
        self.assertRegex(lint.stdout, r"\nUsage: dorvanectl lint [^\n]*\n(.*\n)*Example:\n  dorvanectl .*lint")
        # -v shows the library's log lines as they are written; without it nothing but messages.
        log = T + "verbose.log"
        result = self.ctl("--log", log, "-v", "regulatory-by-mcc", T + "region.xml", "460")
        written = self.box.read(log).decode("latin-1").replace("\r\n", "\n")
        self.assertEqual((winebox.BANNER + "\n", written[len(winebox.BANNER) + 1:]),
                         (written[:len(winebox.BANNER) + 1], result.stderr))
        self.assertNotEqual("", result.stderr)
        self.assertEqual("", self.ctl("--log", log, "carrier-id-by-mccmnc", "310260", T + "rules.xml").stderr)
        # A folder: its .xml files in name order (case ignored), one JSON object a file.
        for name, table in (("B.XML", "region.xml"), ("a.xml", "broken.xml"), ("readme.txt", "notes.xml")):
            self.box.write(T + "release\\" + name, TABLES[table])
        result = self.ctl("lint", T + "release", "--json")
        self.assertEqual([{"file": T + "release\\a.xml", "kind": None, "findings": [], "problem": REFUSED_TABLE},
                          {"file": T + "release\\B.XML", "kind": "region", "findings": []}],
                         [json.loads(line) for line in result.stdout.splitlines()])
        self.assertEqual(2, result.returncode, result.stderr)

    def test_registry_values_of_the_32_bit_view(self):
        stored = j(["reg-get", "--raw", REG, "Flag"], 0, {"result": 0, "type": 4, "size": 4, "bytes": "78 56 34 12"})
        self.assertRuns([
            j(["reg-get", REG, "Family"], 0, {"result": 0, "type": 1, "output": "ThinkPad"}),
            j(["reg-set-dword", REG, "Flag", "0x12345678"], 0, {"result": 0}), stored,
            (["reg-get", REG, "Flag"], 0, "result: 0\ntype: 4 (REG_DWORD)\noutput: 305419896 (0x12345678)\n", ""),
            # A value that is not text: the library reads it, the command says to use --raw.
            j(["reg-set-dword", REG, "Bin", "7", "--type", "REG_BINARY"], 0, {"result": 0}),
            (["reg-get", REG, "Bin"], 1, "result: 0\ntype: 3 (REG_BINARY)\noutput: \\x07\n",
             "reg-get: the value Bin is 3 (REG_BINARY), not text: read it with --raw"),
            (["reg-get", REG + "64", "Only"], 1, "result: 1\ntype: 1 (REG_SZ)\noutput:\n",
             "reg-get: the key %s64 (32-bit view) cannot be opened: File not found (error 2)" % HKLM),
            (["reg-get", "HKLM\\" + REG, "Family"], 1, "result: 1\ntype: 1 (REG_SZ)\noutput:\n",
             "reg-get: the key HKEY_LOCAL_MACHINE\\HKLM\\SOFTWARE\\DorvaneCtl (32-bit view) cannot be opened: File "
             "not found (error 2) (the key is a path under HKEY_LOCAL_MACHINE, without the hive: SOFTWARE\\...)"),
            (["reg-set", REG + "\\Absent", "x", "y"], 1, "result: 1\n", "reg-set: the key %s\\Absent (32-bit view) "
             "cannot be opened for writing: File not found (error 2); the key must exist, nothing is created" % HKLM),
            (["reg-set-dword", REG, "Flag", "0x100000000"], 2, "", "reg-set-dword: value: 0x100000000 is out of "
             "range (0 to 4294967295) (see 'dorvanectl help reg-set-dword')"),
            stored])

    def test_at_answers_and_failures_of_the_stack_with_their_exit_statuses(self):
        self.box.simctl("reset", 1)
        self.assertRuns([(["at", "AT+CGMI"], 0, "result: true\nexchange: 0\nanswer: DorvaneLabs\nanswer: OK\n", "")])
        self.assertEqual("id=1 type=17 count=1 bytes=41542B43474D490D0A", self.box.simctl("last").strip(),
                         "command id 1, VT_UI1 bytes, CR LF, no terminator")
        # The judged answer has its blanks removed; --hex and --raw give the
        # bytes as they came, 0xFF as FF (the text shows the byte itself, which
        # reads here as U+FFFD).
        self.box.simctl("reply", "AT+CME", "\\r\\n+CME ERROR: 10\\xFF\\r\\n")
        empty = "at: the AT command is empty (nothing was sent)"
        self.assertRuns([
            (["at", "AT+CME", "--hex", "--raw"], 1, "result: false\nexchange: 0\nanswer: +CMEERROR:10\ufffd\nhex: 0D "
             "0A 2B 43 4D 45 20 45 52 52 4F 52 3A 20 31 30 FF 0D 0A\nraw: \\r\\n+CME ERROR: 10\ufffd\\r\\n\n",
             "at: no good answer: the module answered with an error"),
            j(["at", "AT+CGMM"], 0, {"result": True, "exchange": 0, "output": "\r\nDVS-5G20\r\n\r\nOK\r\n"}),
            (["at", " "], 2, "", empty), j(["at", ""], 2, {"result": None, "error": empty})])
        # Three processes used the simulator (an empty command does not even ask it), and left nothing.
        self.assertEqual([dict.fromkeys(winebox.LEFTOVERS, 0)] * 3, list(self.box.sim_counters(*winebox.LEFTOVERS).values()))
        # The channel's result cannot tell the stack's failures apart (after a
        # failed step it is the close wait's 0); the exchange's steps can.
        # "exchange" is the first failing step's result.
        for setup, command, status, exchange, message in [
                (("inject", "OpenCommandSession", "0x80070005"), "AT", 1, 0x80070005, "at: the command session could "
                 "not be opened: OpenCommandSession failed with 0x80070005"),
                (("inject", "SetCommand.Complete", "none"), "AT", 4, 1,
                 "at: no answer came from the module within 5 s (exchange result 1)")]:
            self.box.simctl("reset", 1)
            self.box.simctl(*setup)
            self.assertRuns([j(["at", command], status, {"result": False, "exchange": exchange, "output": "",
                                                        "error": message})])
        self.box.simctl("reset", 0)
        self.assertRuns([j(["at", "AT"], 3, {"result": False, "error": NO_MODEM})])


if __name__ == "__main__":
    winebox.test_main("dorvanectl", "mbnsim-dir", "work", "base")
