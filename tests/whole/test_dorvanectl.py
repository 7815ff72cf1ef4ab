"""dorvanectl under Wine: the table, registry, device-configuration and AT
commands on small tables, Wine's real registry and the simulated module, as
text and JSON, with their exit statuses, and the command line itself.

    test_dorvanectl.py --dorvanectl dorvanectl.exe --mbnsim-dir DIR --work DIR --base PREFIX
"""
import json
import os
import re
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))
import winebox  # noqa: E402
from winebox import WineBox  # noqa: E402

ARGS = None

RULES = """<Rules><SwitchingRule><SelectionRule>
  <MCCMNCTable><Item mccmnc="310260">TMO</Item><Item mccmnc="310260">second</Item></MCCMNCTable>
  <MCCTable><Item mcc="310"> US </Item></MCCTable>
  <ICCIDTable><Range min="89012600000000000000" max="89012609999999999999">TMO-20</Range></ICCIDTable>
</SelectionRule>
<Registered mcc="310"><PARAMFirmware File="p.bin" Ver="1" Type="P" Count="03"/></Registered>
</SwitchingRule></Rules>"""

CARRIERS = """<F><CarrierList><Carrier id="TMO">
  <APFirmware File="ap" Ver="1" Type="AP" Count="1"/><MDFirmware File="md" Ver="2" Type="MD" Count="2"/>
  <OPFirmware File="op" Ver="3" Type="OP" Count="3"/></Carrier>
  <CustModel id="X13"><OEMFirmware File="oem" Ver="5" Type="OEM" Count="1"><Switch_table File="sw.xml"/></OEMFirmware></CustModel>
</CarrierList></F>"""

PACKAGE_INFO = """<P><CarrierList>
  <Carrier id="default"><Firmware File="d.bin" Ver="d"/><CustPack File="d.pak" Ver="dp"/></Carrier>
  <Carrier id="310"><Firmware File="310.bin" Ver="3"/><CustPack File="310.pak" Ver="p3"/></Carrier>
</CarrierList></P>"""

FW_PACKAGE = """<Pkg><PackageVer>1.2</PackageVer><PackageType>FULL</PackageType><CarrierList>
  <Carrier id="TMO" ver="7"><FWImage file="fw.bin" ver="f1"/><CustPack file="cp.bin" ver="c1"/></Carrier>
</CarrierList></Pkg>"""

SKUS = """<S><SKU_GUID ID="A"><Area ID="EU"><PARAMFirmware File="eu.bin" Ver="1" Type="P" Count="1"/></Area></SKU_GUID>
<SKU_GUID ID="B"><Area ID="EU"/></SKU_GUID></S>"""

ESIM = """<E><TableEnableFlag FlagValue="True"/><SKU_BlackList><SKU SKUValue="X13"/></SKU_BlackList>
<IMSI_BlackList><MCCMNC MCCMNCValue="46000"/></IMSI_BlackList></E>"""

REGION = """<R><SelectionRule><Region mcc="default" Regulatory="FCC"/><Region mcc="460" Regulatory="SRRC"/></SelectionRule></R>"""

SCATTER = """<root><general/><storage_type>
<partition_index><is_download>true</is_download></partition_index>
<partition_index><is_download>false</is_download></partition_index>
</storage_type></root>"""


def text_lines(result, wine_noise=False):
    """The run with its standard error's line ends read as its output's are.
    `wine_noise`: also without Wine's own complaint of a thread that a
    simulator-using process left talking to the wine server as it exited."""
    err = result.stderr.replace("\r\n", "\n")
    if wine_noise:
        err = "".join(l for l in err.splitlines(True) if not re.match(r"wine client error:\w+: ", l))
    result.stderr = err
    return result


def blank(n, first=None, values=None):
    """n empty fields, with `values` placed from index `first`."""
    fields = [""] * n
    for i, v in enumerate(values or []):
        fields[first + i] = v
    return fields


class TableCommands(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.box = WineBox(os.path.join(ARGS.work, "tables"), base=ARGS.base)
        cls.ctl = cls.box.put_file(ARGS.dorvanectl, r"C:\Program Files\Dorvane")
        folder = cls.box.unix_path(r"C:\tables")
        os.makedirs(folder, exist_ok=True)
        for name, text in [("rules.xml", RULES), ("carriers.xml", CARRIERS),
                           ("package_info.xml", PACKAGE_INFO), ("FwPackageInfo.xml", FW_PACKAGE),
                           ("skus.xml", SKUS), ("esim.xml", ESIM), ("region.xml", REGION),
                           ("broken.xml", "<Rules><SwitchingRule>")]:
            with open(os.path.join(folder, name), "w") as f:
                f.write(text)
        flash = cls.box.unix_path(r"C:\Windows\WWAN\FwSwitchBin\FlashData")
        os.makedirs(flash, exist_ok=True)
        cls.scatter = os.path.join(flash, "scatter.xml")

    @classmethod
    def tearDownClass(cls):
        cls.box.close(discard=True)

    def run_ctl(self, *args):
        return text_lines(self.box.run([self.ctl] + list(args), timeout=60))

    def json_of(self, *args, status=0):
        result = self.last = self.run_ctl("--json", *args)
        self.assertEqual(status, result.returncode, result.stdout + result.stderr)
        return json.loads(result.stdout)

    def test_lookups_answer_as_the_library_does(self):
        t = r"C:\tables" + "\\"
        cases = [
            (["carrier-id-by-mccmnc", "310260", t + "rules.xml"], 0, {"result": True, "output": "TMO"}),
            (["carrier-id-by-mccmnc", "999", t + "rules.xml"], 0, {"result": True, "output": ""}),
            (["carrier-id-by-mcc", "310", t + "rules.xml"], 0, {"result": True, "output": " US "}),
            (["carrier-id-by-mcc", "311", t + "rules.xml"], 1,
             {"result": False, "output": "", "error": "carrier-id-by-mcc: nothing found for 311"}),
            (["carrier-id-by-iccid", "89012601234567890123", t + "rules.xml"], 0,
             {"result": True, "output": "TMO-20"}),
            (["selection-rule-by-mcc", "310", t + "rules.xml"], 1,
             {"result": False, "error": "selection-rule-by-mcc: the lookup gives false for every key"}),
            (["carrier-firmware", "TMO", t + "carriers.xml"], 0,
             {"result": True, "fields": ["TMO"] + blank(6) + ["ap", "1", "AP", "1", "md", "2", "MD", "2",
                                                             "op", "3", "OP", "3"] + blank(5)}),
            (["oem-firmware-by-model", "X13", t + "carriers.xml"], 0,
             {"result": True, "fields": ["X13"] + blank(18) + ["oem", "5", "OEM", "1", "sw.xml"]}),
            (["param-firmware-by-mcc", "310", t + "rules.xml"], 0,
             {"result": True, "fields": blank(24, 19, ["p.bin", "1", "P", "03"])}),
            (["param-firmware-by-sku", "A", "EU", t + "skus.xml"], 0,
             {"result": True, "fields": blank(24, 19, ["eu.bin", "1", "P", "1"])}),
            (["package-info-firmware", "999", t + "package_info.xml"], 0,
             {"result": True, "fields": blank(9, 5, ["d.bin", "d", "d.pak", "dp"])}),
            (["fw-package-info", t + "FwPackageInfo.xml"], 0,
             {"result": True, "packageVer": "1.2", "packageType": "FULL",
              "carriers": [["TMO", "7", "fw.bin", "f1", "cp.bin", "c1"] + blank(18)]}),
            (["esim-disable-type", t + "esim.xml", "--sku", "x13", "--imsi", "46000"], 0, {"result": 256}),
            (["esim-disable-type", t + "esim.xml", "--imsi", "46000"], 0, {"result": 1}),
            (["esim-disable-type", t + "esim.xml"], 1,
             {"result": 4294967295, "error": "esim-disable-type: no decision (0xFFFFFFFF): neither --sku nor "
                                             "--imsi was given; the log says: \"SKU & Imsi is null\""}),
            (["regulatory-by-mcc", t + "region.xml", "460"], 0, {"result": 1, "output": "SRRC"}),
            (["regulatory-by-mcc", t + "region.xml", "999"], 0, {"result": 2, "output": "FCC"}),
        ]
        for args, status, expected in cases:
            with self.subTest(args=args):
                answer = self.json_of(*args, status=status)
                if "error" in expected:
                    self.assertEqual("dorvanectl: %s\n" % expected["error"], self.last.stderr)
                # The same texts by name: see test_json_records_are_keyed_as_the_text_shows_them.
                answer.pop("record", None)
                answer.pop("records", None)
                self.assertEqual(expected, answer)

    def test_preset_shows_what_a_failed_lookup_leaves(self):
        t = r"C:\tables" + "\\"
        self.assertEqual({"result": False, "output": "P", "error": "carrier-id-by-mcc: nothing found for 999"},
                         self.json_of("--preset", "P", "carrier-id-by-mcc", "999", t + "rules.xml", status=1))
        answer = self.json_of("--preset", "P", "carrier-firmware", "TMO", t + "carriers.xml")
        self.assertEqual(["TMO"] + ["P"] * 6, answer["fields"][:7], "fields the reader does not write")
        self.assertEqual({"result": 0, "output": "P", "error": "regulatory-by-mcc: no Region row for MCC  and no "
                                                               "default row; the log says: \"mcc is null\""},
                         self.json_of("--preset", "P", "regulatory-by-mcc", t + "region.xml", "", status=1))

    def test_scatter_is_rewritten_in_place(self):
        with open(self.scatter, "w") as f:
            f.write(SCATTER)
        self.assertEqual({"result": True}, self.json_of("update-scatter", ";false;"))
        with open(self.scatter) as f:
            text = f.read()
        self.assertLess(text.index("<is_download>false</is_download>"),
                        text.index("<is_download>true</is_download>"))
        self.assertFalse(self.json_of("update-scatter", "", status=1)["result"])
        self.assertTrue(self.last.stderr.startswith("dorvanectl: update-scatter: "), self.last.stderr)

    def test_time_limits_name_what_did_not_return_and_why(self):
        t = r"C:\tables" + "\\"
        prefix = "dorvanectl: param-firmware-by-sku did not return within 1 s: "
        causes = [
            (["B", "EU"], "SKU B is under a later SKU_GUID (line 2), and the lookup only ever "
                          "reads the table's first SKU_GUID (line 1)"),
            (["Z", "EU"], "SKU Z is not in the table, and the lookup waits for it under the "
                          "first SKU_GUID (line 1) for ever"),
            (["A", "US"], "the table's first SKU_GUID A (line 1) has no Area US, and the lookup "
                          "waits for it for ever"),
        ]
        for keys, cause in causes:
            with self.subTest(keys=keys):
                result = self.run_ctl("param-firmware-by-sku", *keys, t + "skus.xml", "--timeout", "1")
                self.assertEqual((4, prefix + cause), (result.returncode, result.stderr.strip()))
        for value in ("0", "-2"):
            result = self.run_ctl("carrier-id-by-mcc", "310", t + "rules.xml", "--timeout", value)
            self.assertEqual(2, result.returncode)
            self.assertIn("--timeout", result.stdout + result.stderr)

    def test_an_unwritable_log_is_refused_before_anything_runs(self):
        t = r"C:\tables" + "\\"
        log = t + "rules.xml\\sub\\x.log"  # a file stands where the folder would be
        result = self.run_ctl("--log", log, "package-info-firmware", "1", t + "missing.xml")
        self.assertEqual((2, ""), (result.returncode, result.stdout))
        self.assertTrue(result.stderr.startswith(
            "dorvanectl: cannot write the log file %s (--log): " % log), result.stderr)

    def test_json_texts_are_the_tables_utf8(self):
        t = r"C:\tables" + "\\"
        with open(self.box.unix_path(t + "names.xml"), "wb") as f:
            # "Côte" in UTF-8, then a Latin-1 byte and a literal backslash-x.
            f.write(b'<R><SwitchingRule><SelectionRule><MCCTable><Item mcc="208">C\xc3\xb4te</Item>'
                    b'<Item mcc="209">C\xf4te \\x</Item></MCCTable></SelectionRule></SwitchingRule></R>')
        self.assertEqual({"result": True, "output": "C\u00f4te"},
                         self.json_of("carrier-id-by-mcc", "208", t + "names.xml"))
        # A byte that is not UTF-8 is shown as \xNN, not as a Latin-1 letter.
        self.assertEqual({"result": True, "output": "C\\xF4te \\x"},
                         self.json_of("carrier-id-by-mcc", "209", t + "names.xml"))

    def test_exit_statuses_for_usage_time_limit_and_help(self):
        t = r"C:\tables" + "\\"
        result = self.run_ctl("param-firmware-by-sku", "B", "EU", t + "skus.xml", "--timeout", "1")
        self.assertEqual(4, result.returncode)
        self.assertIn("did not return within 1 s", result.stderr)
        self.assertEqual(2, self.run_ctl("carrier-id-by-mcc", "310").returncode)
        self.assertEqual(2, self.run_ctl("no-such-command").returncode)
        self.assertEqual(2, self.run_ctl("esim-disable-type", t + "esim.xml", "--timeout", "soon").returncode)
        for args in (["--help"], ["carrier-firmware", "--help"]):
            result = self.run_ctl(*args)
            self.assertEqual(0, result.returncode)
            self.assertIn("Usage:", result.stdout)
        text = self.run_ctl("carrier-id-by-mccmnc", "310260", t + "rules.xml")
        self.assertEqual("result: true\noutput: TMO\n", text.stdout)


    def one_object(self, result):
        """The one JSON object a --json run printed, whatever its exit."""
        lines = result.stdout.splitlines()
        self.assertEqual(1, len(lines), result.stdout + result.stderr)
        return json.loads(lines[0])

    def test_tables_that_cannot_be_read_are_refused_before_the_lookup(self):
        t = r"C:\tables" + "\\"
        os.makedirs(self.box.unix_path(t + "folder.xml"), exist_ok=True)
        for name, text in [("empty.xml", ""), ("rootless.xml", "<?xml version=\"1.0\"?>\n<!-- none -->\n"),
                           ("mismatch.xml", "<R>\n<SwitchingRule>\n<SelectionRule>\n</MCCTable>\n</R>\n")]:
            with open(self.box.unix_path(t + name), "w") as f:
                f.write(text)
        problems = [
            ("missing.xml", "no such file"),
            ("folder.xml", "is a folder, not a file"),
            ("empty.xml", "is empty"),
            ("broken.xml", "not well-formed XML: XML_ERROR_MISMATCHED_ELEMENT at line 1"),
            ("mismatch.xml", "not well-formed XML: XML_ERROR_MISMATCHED_ELEMENT at line 3"),
            ("rootless.xml", "not well-formed XML: no root element"),
        ]
        commands = [lambda p: ["carrier-id-by-mccmnc", "310260", p], lambda p: ["carrier-firmware", "TMO", p],
                    lambda p: ["param-firmware-by-sku", "A", "EU", p], lambda p: ["fw-package-info", p],
                    lambda p: ["esim-disable-type", p, "--sku", "X13"], lambda p: ["regulatory-by-mcc", p, "460"],
                    lambda p: ["package-info-firmware", "310", p], lambda p: ["selection-rule-by-mcc", "310", p]]
        log = t + "refused.log"
        for i, (name, problem) in enumerate(problems):
            args = commands[i % len(commands)](t + name)
            with self.subTest(args=args):
                result = self.run_ctl("--log", log, *args)
                message = "%s: %s%s: %s" % (args[0], t, name, problem)
                self.assertEqual((2, "", "dorvanectl: %s\n" % message),
                                 (result.returncode, result.stdout, result.stderr))
                result = self.run_ctl("--log", log, *args, "--json")
                self.assertEqual(2, result.returncode)
                self.assertEqual({"result": None, "error": message}, self.one_object(result))
        with open(self.box.unix_path(log), "rb") as f:
            self.assertEqual([], winebox.messages(winebox.parse_log(f.read())), "no lookup ran")

        # The fixed files: what the lookup would read is what is named.
        scatter = r"C:\Windows\WWAN\FwSwitchBin\FlashData\scatter.xml"
        if os.path.exists(self.scatter):
            os.remove(self.scatter)
        for args, expected in [
                (["update-scatter", ";true;"],
                 "%s: no such file (the file update-scatter always rewrites)" % scatter),
                (["fw-package-info", ""],
                 "FwPackageInfo.xml: no such file (an empty path reads FwPackageInfo.xml in the current folder)"),
                (["carrier-id-by-mcc", "310", ""], "the table's path is empty")]:
            with self.subTest(args=args):
                result = self.run_ctl(*args)
                self.assertEqual((2, "dorvanectl: %s: %s\n" % (args[0], expected)),
                                 (result.returncode, result.stderr))
        # Still as the library answers once the table loads: the key is not there.
        self.assertEqual({"result": False, "output": "", "error": "carrier-id-by-mcc: nothing found for 999"},
                         self.json_of("carrier-id-by-mcc", "999", t + "rules.xml", status=1))
        # Arguments in another order than the command takes: a hint, not "no such file".
        for args, hint in [
                (["regulatory-by-mcc", "460", t + "region.xml"],
                 "regulatory-by-mcc: 460: no such file, and %sregion.xml, given as mcc, is a file: the "
                 "arguments are path mcc (see 'dorvanectl help regulatory-by-mcc')" % t),
                (["carrier-id-by-mcc", t + "rules.xml", "310"],
                 "carrier-id-by-mcc: 310: no such file, and %srules.xml, given as mcc, is a file: the "
                 "arguments are mcc path (see 'dorvanectl help carrier-id-by-mcc')" % t)]:
            with self.subTest(args=args):
                result = self.run_ctl(*args)
                self.assertEqual((2, "", "dorvanectl: %s\n" % hint), (result.returncode, result.stdout, result.stderr))

    def test_json_gives_one_object_on_every_exit_path(self):
        t = r"C:\tables" + "\\"
        unwritable = t + "rules.xml\\x.log"
        cases = [
            (0, False, ["--json", "carrier-id-by-mcc", "310", t + "rules.xml"]),
            (0, False, ["carrier-id-by-mcc", "--json", "310", t + "rules.xml"]),
            (0, False, ["carrier-id-by-mcc", "310", t + "rules.xml", "--timeout", "0x10", "--json"]),
            (1, True, ["carrier-id-by-mcc", "311", t + "rules.xml", "--json"]),
            (2, True, ["carrier-id-by-mcc", "310", "--json"]),
            (2, True, ["carrier-id-by-mcc", "310", t + "rules.xml", "--timeout", "010x", "--json"]),
            (2, True, ["carrier-id-by-mcc", "310", t + "rules.xml", "surplus", "--json"]),
            (2, True, ["--json", "carrier-id-by-mc"]),
            (2, True, ["--json"]),
            (2, True, ["--json", "--log", unwritable, "carrier-id-by-mcc", "310", t + "rules.xml"]),
            (2, True, ["--json", "carrier-id-by-mcc", "310", t + "missing.xml"]),
            (4, True, ["--json", "param-firmware-by-sku", "B", "EU", t + "skus.xml", "--timeout", "1"]),
            (0, False, ["--json", "--version"]),
            (0, False, ["--json", "--help"]),
            (0, False, ["help", "--json"]),
        ]
        for status, error, args in cases:
            with self.subTest(args=args):
                result = self.run_ctl(*args)
                self.assertEqual(status, result.returncode, result.stderr)
                answer = self.one_object(result)
                self.assertIn("result", answer)
                if error:
                    self.assertEqual("dorvanectl: %s\n" % answer["error"], result.stderr)
                else:
                    self.assertNotIn("error", answer)
        self.assertEqual({"result": None,
                          "error": "unknown command 'carrier-id-by-mc'; did you mean 'carrier-id-by-mcc'?"},
                         self.one_object(self.run_ctl("--json", "carrier-id-by-mc")))
        self.assertTrue(self.one_object(self.run_ctl("--json", "--version"))["version"].startswith("dorvanectl "))

    def test_json_records_are_keyed_as_the_text_shows_them(self):
        t = r"C:\tables" + "\\"
        for args in (["carrier-firmware", "TMO", t + "carriers.xml"],
                     ["package-info-firmware", "310", t + "package_info.xml"]):
            with self.subTest(args=args):
                text = self.run_ctl(*args).stdout.splitlines()
                self.assertEqual("result: true", text[0])
                shown = {}
                for line in text[1:]:
                    match = re.match(r"^([^:]+):(?: (.*\S))?$", line)
                    self.assertIsNotNone(match, line)
                    shown[match.group(1)] = match.group(2) or ""
                answer = self.json_of(*args)
                self.assertEqual(shown, answer["record"])
                self.assertEqual(list(shown.values()), answer["fields"])
        record = self.json_of("carrier-firmware", "TMO", t + "carriers.xml")["record"]
        self.assertEqual(("TMO", "md", "OP"), (record["carrier id"], record["MD file"], record["OP type"]))
        answer = self.json_of("fw-package-info", t + "FwPackageInfo.xml")
        self.assertEqual(1, len(answer["records"]))
        self.assertEqual(("TMO", "fw.bin", ""), (answer["records"][0]["carrier id"],
                                                 answer["records"][0]["image file"],
                                                 answer["records"][0]["switch table file"]))

    def test_command_line_is_strict_and_helpful(self):
        t = r"C:\tables" + "\\"
        for args, message in [
                (["frobnicate"], "unknown command 'frobnicate'; 'dorvanectl help' lists the commands"),
                (["carrier-firmwre", "TMO"], "unknown command 'carrier-firmwre'; did you mean 'carrier-firmware'?"),
                (["regulatroy-by-mcc"], "unknown command 'regulatroy-by-mcc'; did you mean 'regulatory-by-mcc'?"),
                (["reg"], "unknown command 'reg'; did you mean one of 'regulatory-by-mcc', 'reg-get', 'reg-set', "
                           "'reg-set-dword'?"),
                ([], "a command is required: dorvanectl [OPTIONS] COMMAND ARGS... ('dorvanectl help' lists the "
                     "commands)"),
                (["help", "lnit"], "help: unknown command 'lnit'; did you mean 'lint'?"),
                (["carrier-id-by-mcc", "310", t + "rules.xml", "--timeout", "-1"],
                 "carrier-id-by-mcc: --timeout: not a number (decimal digits, or 0x and hexadecimal digits): -1 "
                 "(see 'dorvanectl help carrier-id-by-mcc')"),
                (["carrier-id-by-mcc", "310", t + "rules.xml", "--timeout", "99999999999"],
                 "carrier-id-by-mcc: --timeout: 99999999999 is out of range (1 to 2147483647) "
                 "(see 'dorvanectl help carrier-id-by-mcc')"),
                (["--jsn", "carrier-id-by-mcc", "310", t + "rules.xml"],
                 "carrier-id-by-mcc: --jsn: no such option; did you mean '--json'? "
                 "(see 'dorvanectl help carrier-id-by-mcc')"),
                (["carrier-id-by-mcc", "310", t + "rules.xml", "--timout", "3"],
                 "carrier-id-by-mcc: --timout: no such option; did you mean '--timeout'? "
                 "(see 'dorvanectl help carrier-id-by-mcc')"),
                (["--log", "C:\\windows", "carrier-id-by-mcc", "310", t + "rules.xml"],
                 "cannot write the log file C:\\windows (--log): it is a folder; give a file's path")]:
            with self.subTest(args=args):
                result = self.run_ctl(*args)
                self.assertEqual((2, "", "dorvanectl: %s\n" % message),
                                 (result.returncode, result.stdout, result.stderr))
        # Decimal, even with a leading zero, or hex after 0x.
        for value in ("010", "0x1"):
            self.assertEqual(0, self.run_ctl("carrier-id-by-mcc", "310", t + "rules.xml", "--timeout", value).returncode)

        listing = self.run_ctl("help")
        self.assertEqual((0, ""), (listing.returncode, listing.stderr))
        self.assertTrue(listing.stdout.startswith("dorvanectl: the command line"), listing.stdout)
        self.assertIn("Usage: dorvanectl [OPTIONS] SUBCOMMAND\n", listing.stdout)
        # Defaults in words, not as CLI11's {false} or TEXT=C:\...
        self.assertIn("  --no-table-check            run", listing.stdout)
        self.assertIn("  --log FILE                  file for the library's log lines (default: "
                      "dorvanectl.log in %TEMP%)", listing.stdout)
        self.assertNotRegex(listing.stdout, r"\{false\}|=C:")
        self.assertEqual(listing.stdout, self.run_ctl("--help").stdout)
        commands = re.findall(r"^  ([a-z][a-z-]+) {2,}", listing.stdout.split("Subcommands:")[1], re.M)
        self.assertEqual(32, len(commands), commands)
        for command in commands:
            with self.subTest(command=command):
                result = self.run_ctl("help", command)
                self.assertEqual((0, ""), (result.returncode, result.stderr))
                self.assertEqual(result.stdout, self.run_ctl(command, "--help").stdout)
                self.assertIn("\nUsage: dorvanectl %s " % command, result.stdout)
                self.assertRegex(result.stdout, r"\nExample:\n  dorvanectl .*%s" % re.escape(command))
                positionals = result.stdout.split("Positionals:\n")[1].split("\n\n")[0] \
                    if "Positionals:" in result.stdout else ""
                # A long name pushes its description to the next line.
                for entry in re.split(r"\n(?=  \S)", positionals) if positionals else []:
                    self.assertRegex(entry, r"^  \S+ [A-Z]+( \.\.\.)?( REQUIRED)?\s+\S", "a described positional")

    def test_verbose_shows_the_librarys_log_lines_as_they_are_written(self):
        t = r"C:\tables" + "\\"
        log = t + "verbose.log"
        for args in (["-v", "carrier-id-by-mccmnc", "310260", t + "rules.xml"],
                     ["regulatory-by-mcc", t + "region.xml", "460", "--verbose"],
                     ["--verbose", "carrier-id-by-mccmnc", "310260", t + "broken.xml"]):
            with self.subTest(args=args):
                path = self.box.unix_path(log)
                if os.path.exists(path):
                    os.remove(path)
                result = self.run_ctl("--log", log, *args)
                with open(path, "rb") as f:
                    written = f.read().decode("latin-1").replace("\r\n", "\n")
                self.assertTrue(written.startswith(winebox.BANNER + "\n"), written)
                lines = written[len(winebox.BANNER) + 1:]
                mirrored = result.stderr
                if result.returncode == 2:
                    self.assertEqual("", lines, "a refused table runs no lookup")
                else:
                    self.assertNotEqual("", lines)
                    self.assertEqual(lines, mirrored)
        result = self.run_ctl("--log", log, "carrier-id-by-mccmnc", "310260", t + "rules.xml")
        self.assertEqual("", result.stderr, "without -v nothing but messages")

    # dorvanectl lint: the same tables, read as the lookups read them.

    FINDING = re.compile(r"^(.+):(\d+): (error|warning|note): (.+)$")
    CLEAN = re.compile(r"^(.+): clean \(([a-z-]+)\)$")

    def lint(self, *args):
        return self.run_ctl("lint", *args)

    def put_table(self, path, content):
        """Writes text as UTF-8, bytes as they are; gives the path."""
        with open(self.box.unix_path(path), "wb") as f:
            f.write(content if isinstance(content, bytes) else content.encode())
        return path

    def linted_files(self, stdout):
        """The files that the lines of a text listing name, in their order, each once."""
        files = []
        for line in stdout.splitlines():
            match = self.FINDING.match(line) or self.CLEAN.match(line)
            self.assertIsNotNone(match, line)
            if match.group(1) not in files:
                files.append(match.group(1))
        return files

    def test_lint_says_clean_of_clean_tables(self):
        t = r"C:\tables" + "\\"
        files = [t + name for name in ("esim.xml", "region.xml", "package_info.xml", "FwPackageInfo.xml")]
        kinds = ["esim", "region", "package-info", "fw-package-info"]
        result = self.lint(*files)
        self.assertEqual((0, "".join("%s: clean (%s)\n" % fk for fk in zip(files, kinds)), ""),
                         (result.returncode, result.stdout, result.stderr))
        result = self.lint(*files, "--json")
        self.assertEqual(0, result.returncode, result.stderr)
        objects = [json.loads(line) for line in result.stdout.splitlines()]
        self.assertEqual([{"file": f, "kind": k, "findings": []} for f, k in zip(files, kinds)], objects)

    def test_lint_reports_what_the_lookups_do_as_file_line_severity_message(self):
        t = r"C:\tables" + "\\"
        result = self.lint(t + "rules.xml", t + "skus.xml", t + "carriers.xml")
        self.assertEqual(1, result.returncode, result.stderr)
        lines = result.stdout.splitlines()
        for line in lines:
            match = self.FINDING.match(line)
            self.assertIsNotNone(match, line)
            self.assertIn(match.group(1), (t + "rules.xml", t + "skus.xml", t + "carriers.xml"))
        self.assertIn(t + "rules.xml:2: error: Item mccmnc=\"310260\" repeats the mccmnc of line 2: the first "
                      "match wins, so carrier-id-by-mccmnc never returns this entry", lines)
        self.assertIn(t + "rules.xml:3: warning: the text \" US \" of Item mcc=\"310\" begins and ends with a "
                      "blank: carrier-id-by-mcc answers it with its blanks", lines)
        self.assertIn(t + "skus.xml:2: error: SKU_GUID ID=\"B\" is not the table's first SKU_GUID (line 1), the "
                      "only one param-firmware-by-sku reads: it never returns for SKU \"B\", area \"EU\"", lines)
        self.assertIn(t + "carriers.xml:4: warning: CustModel after the first Carrier (line 1) is walked as an "
                      "entry by carrier-firmware, which finds it under id=\"X13\"", lines)
        # What the findings say is what the lookups do: the first two and the
        # SKU are answered in test_lookups_answer_as_the_library_does and
        # test_time_limits_name_what_did_not_return_and_why.
        answer = self.json_of("carrier-firmware", "X13", t + "carriers.xml")
        self.assertEqual(["X13"] + [""] * 23, answer["fields"], "the customer model, taken as a carrier")

    def test_lint_json_gives_one_object_per_file_with_the_same_findings(self):
        t = r"C:\tables" + "\\"
        text = self.lint(t + "rules.xml", t + "broken.xml").stdout.splitlines()
        for args in (["--json", "lint", t + "rules.xml", t + "broken.xml"],
                     ["lint", t + "rules.xml", t + "broken.xml", "--json"]):
            result = self.run_ctl(*args)
            self.assertEqual(2, result.returncode, result.stderr)
            objects = [json.loads(line) for line in result.stdout.splitlines()]
            self.assertEqual([t + "rules.xml", t + "broken.xml"], [o["file"] for o in objects])
            self.assertEqual(["carrier-rules", None], [o["kind"] for o in objects])
            again = []
            for o in objects:
                for f in o["findings"]:
                    self.assertEqual({"line", "severity", "message"}, set(f))
                    again.append("%s:%d: %s: %s" % (o["file"], f["line"], f["severity"], f["message"]))
            self.assertEqual(text, again)
        self.assertEqual({"file", "kind", "findings"}, set(objects[0]))
        self.assertEqual({"file": t + "broken.xml", "kind": None, "findings": [],
                          "problem": "the table does not load (Error=XML_ERROR_MISMATCHED_ELEMENT ErrorID=14 "
                                     "(0xe) Line number=1: XMLElement name=SwitchingRule): every lookup of it "
                                     "fails"}, objects[1])

    def test_lint_exit_status_gates_on_the_lowest_failing_severity_and_is_2_for_files_not_checked(self):
        t = r"C:\tables" + "\\"
        notes = self.put_table(t + "notes.xml", "<Rules><SwitchingRule><SelectionRule><MCCMNCTable>"
                               "<Item mccmnc=\"310260\">TMO</Item></MCCMNCTable></SelectionRule></SwitchingRule>"
                               "</Rules>")
        warnings = self.put_table(t + "warnings.xml", REGION.replace("\"460\"", "\"460 \""))
        utf16 = self.put_table(t + "utf16.xml", b"\xff\xfe" + REGION.encode("utf-16-le"))
        self.put_table(t + "unknown.xml", "<Inventory><Thing/></Inventory>")
        refused = "the table does not load (Error=XML_ERROR_MISMATCHED_ELEMENT ErrorID=14 (0xe) Line number=1: " \
                  "XMLElement name=SwitchingRule): "
        # The arguments, the status, the severities of the findings printed and
        # what standard error says.
        cases = [
            ([notes], 0, {"note"}, ""),
            ([notes, "--fail-on", "note"], 1, {"note"}, ""),
            ([warnings], 1, {"warning"}, ""),
            ([warnings, "--fail-on", "error"], 0, {"warning"}, ""),
            ([t + "skus.xml", "--fail-on", "error"], 1, {"error"}, ""),
            ([t + "broken.xml"], 2, set(), t + "broken.xml: " + refused + "every lookup of it fails"),
            ([t + "broken.xml", "--kind", "carrier-rules"], 2, set(),
             t + "broken.xml: " + refused + "carrier-id-by-mccmnc fails and logs \"load xml error.\"; "
             "carrier-id-by-mcc, carrier-id-by-iccid and param-firmware-by-mcc fail silently"),
            ([utf16], 2, set(), utf16 + ": it is UTF-16 (little-endian, by its byte-order mark); the lookups read "
             "only 8-bit text (ASCII or UTF-8), so the table does not load (Error=XML_ERROR_PARSING ErrorID=15 "
             "(0xf) Line number=1): every lookup of it fails"),
            ([t + "missing.xml", t + "rules.xml"], 2, {"error", "warning"},
             t + "missing.xml: cannot read it (XML_ERROR_FILE_NOT_FOUND)"),
            ([t + "unknown.xml"], 2, set(), t + "unknown.xml: cannot tell what table this is; name its kind with "
             "--kind (carrier-rules, selection-rules, carrier-firmware, customer-model, package-info, "
             "fw-package-info, sku, device-config, image-mapping, esim, region, scatter)"),
            ([t + "*.cfg", notes], 2, {"note"}, t + "*.cfg: no file matches"),
            ([r"C:\tab*\rules.xml"], 2, set(),
             r"C:\tab*\rules.xml: * and ? are expanded only in the last part of a path, not in its folders"),
        ]
        for args, status, severities, problem in cases:
            with self.subTest(args=args):
                result = self.lint(*args)
                self.assertEqual(status, result.returncode, result.stdout + result.stderr)
                self.assertEqual(problem and "dorvanectl: lint: %s\n" % problem, result.stderr)
                shown = [self.FINDING.match(line) for line in result.stdout.splitlines()]
                self.assertNotIn(None, shown, result.stdout)
                self.assertEqual(severities, {m.group(3) for m in shown})
        result = self.lint(t + "unknown.xml", "--json")
        self.assertEqual(None, json.loads(result.stdout)["kind"])
        result = self.lint(t + "unknown.xml", "--kind", "region")
        self.assertEqual(1, result.returncode)
        self.assertEqual(t + "unknown.xml:1: error: Inventory (the root) has no SelectionRule: regulatory-by-mcc "
                         "fails (0) and logs \"SelectionRule xml item error.\"\n", result.stdout)
        for args in ([], [t + "region.xml", "--kind", "regions"], [t + "region.xml", "--kind"],
                     [t + "region.xml", "--fail-on", "notes"]):
            with self.subTest(args=args):
                result = self.lint(*args)
                self.assertEqual((2, ""), (result.returncode, result.stdout))

    def test_lint_checks_every_xml_file_of_a_folder_or_pattern_in_name_order(self):
        release = r"C:\release"
        for folder in (r"\sub.xml", r"\empty"):
            os.makedirs(self.box.unix_path(release + folder), exist_ok=True)
        self.put_table(release + r"\B.XML", REGION)
        self.put_table(release + r"\a.xml", REGION.replace("\"460\"", "\"460 \""))
        self.put_table(release + r"\readme.txt", "not a table")
        self.put_table(release + r"\sub.xml\deeper.xml", REGION)
        self.put_table(release + r"\empty\notes.txt", "")
        found = [release + r"\a.xml", release + r"\B.XML"]
        for args, files in [([release], found), ([release + "\\"], found), ([release + r"\*.XML"], found),
                            ([release + r"\b*", release + r"\a.xml"], found[::-1])]:
            with self.subTest(args=args):
                result = self.lint(*args)
                self.assertEqual((1, ""), (result.returncode, result.stderr), result.stdout)
                self.assertEqual(files, self.linted_files(result.stdout))
                self.assertIn(release + r"\B.XML: clean (region)", result.stdout.splitlines())
        result = self.lint(release, "--json")
        self.assertEqual(found, [json.loads(line)["file"] for line in result.stdout.splitlines()])
        result = self.lint(release + r"\empty")
        self.assertEqual((2, "", "dorvanectl: lint: %s\\empty: no .xml file in it\n" % release),
                         (result.returncode, result.stdout, result.stderr))


DEVICE_TABLE = r"""<T><WwanDeviceConfigureIDTable>
  <CustProductNamePathToUniqueSkuID CombineMode="combine">
    <CustProductNamePath RegistryPath="SOFTWARE\DorvaneCtl,Family"/>
    <CustProductNamePath RegistryPath="SOFTWARE\DorvaneCtl,Missing"/>
    <CustProductNamePath RegistryPath="SOFTWARE\DorvaneCtl,Model"/>
  </CustProductNamePathToUniqueSkuID>
  <UniqueSkuIDToWwanDeviceConfigureIDMappingTable>
    <UniqueSkuID ProductID="THINKPAD_X13" WwanDeviceConfigID="CFG-13"/>
  </UniqueSkuIDToWwanDeviceConfigureIDMappingTable>
</WwanDeviceConfigureIDTable></T>"""

IMAGE_TABLE = """<T><WwanDeviceConfigureIDToImageMappingTable>
  <WwanDeviceConfigID ID="CFG-13"><Standard Value="310"><DEVFirmware File="us.bin" Ver="3" Type="USA" Count="12x"/></Standard></WwanDeviceConfigID>
</WwanDeviceConfigureIDToImageMappingTable></T>"""


class RegistryCommands(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.box = WineBox(os.path.join(ARGS.work, "registry"), base=ARGS.base)
        cls.ctl = cls.box.put_file(ARGS.dorvanectl, r"C:\Program Files\Dorvane")
        key = r"HKLM\SOFTWARE\DorvaneCtl"
        for value, data in (("Family", "ThinkPad"), ("Model", "x13")):
            cls.box.run(["reg", "add", key, "/v", value, "/d", data, "/f", "/reg:32"], check=True)
        cls.box.run(["reg", "add", r"HKLM\SOFTWARE\DorvaneCtl64", "/v", "Only", "/d", "x", "/f",
                     "/reg:64"], check=True)
        with open(cls.box.unix_path(r"C:\device.xml"), "w") as f:
            f.write(DEVICE_TABLE)
        folder = cls.box.unix_path(r"C:\Windows\WWAN\FwSwitchBin\SarAntData")
        os.makedirs(folder, exist_ok=True)
        with open(os.path.join(folder, "WwanDeviceIdImageMappingTable.xml"), "w") as f:
            f.write(IMAGE_TABLE)

    @classmethod
    def tearDownClass(cls):
        cls.box.close(discard=True)

    def json_of(self, *args, status=0):
        result = self.box.run([self.ctl, "--json"] + list(args), timeout=60)
        self.assertEqual(status, result.returncode, result.stdout + result.stderr)
        return json.loads(result.stdout)

    def test_values_of_the_32_bit_view(self):
        self.assertEqual({"result": 0, "type": 1, "output": "ThinkPad"},
                         self.json_of("reg-get", r"SOFTWARE\DorvaneCtl", "Family"))
        self.assertEqual({"result": 1, "type": 1, "output": "",
                          "error": "reg-get: the key HKEY_LOCAL_MACHINE\\SOFTWARE\\DorvaneCtl64 (32-bit view) cannot "
                                   "be opened: File not found (error 2)"},
                         self.json_of("reg-get", r"SOFTWARE\DorvaneCtl64", "Only", status=1),
                         "a key of the 64-bit view only is not found")
        # A value that is not there, and a key given with its hive.
        self.assertEqual("reg-get: the value None is not in HKEY_LOCAL_MACHINE\\SOFTWARE\\DorvaneCtl (32-bit view)",
                         self.json_of("reg-get", r"SOFTWARE\DorvaneCtl", "None", status=1)["error"])
        self.assertEqual("dorvanectl: reg-get: the key HKEY_LOCAL_MACHINE\\HKLM\\SOFTWARE\\DorvaneCtl (32-bit view) "
                         "cannot be opened: File not found (error 2) (the key is a path under HKEY_LOCAL_MACHINE, "
                         "without the hive: SOFTWARE\\...)\n",
                         text_lines(self.box.run([self.ctl, "reg-get", r"HKLM\SOFTWARE\DorvaneCtl", "Family"])).stderr)
        self.assertEqual({"result": 0}, self.json_of("reg-set", r"SOFTWARE\DorvaneCtl", "Three", "abc"))
        self.assertEqual({"result": 0, "type": 1, "size": 3, "bytes": "61 62 63"},
                         self.json_of("reg-get", "--raw", r"SOFTWARE\DorvaneCtl", "Three"))
        self.assertEqual({"result": 0},
                         self.json_of("reg-set-dword", r"SOFTWARE\DorvaneCtl", "Flag", "0x12345678"))
        self.assertEqual({"result": 0, "type": 4, "size": 4, "bytes": "78 56 34 12"},
                         self.json_of("reg-get", "--raw", r"SOFTWARE\DorvaneCtl", "Flag"))
        self.assertEqual({"result": 1, "error": "reg-set: the key HKEY_LOCAL_MACHINE\\SOFTWARE\\DorvaneCtl\\Absent "
                                                 "(32-bit view) cannot be opened for writing: File not found "
                                                 "(error 2); the key must exist, nothing is created"},
                         self.json_of("reg-set", r"SOFTWARE\DorvaneCtl\Absent", "x", "y", status=1))
        query = self.box.run(["reg", "query", r"HKLM\SOFTWARE\DorvaneCtl\Absent", "/reg:32"])
        self.assertNotEqual(0, query.returncode, "nothing was created")
        self.assertEqual(2, self.box.run([self.ctl, "reg-set-dword", "K", "N", "many"]).returncode)

    def test_numbers_types_and_dword_values(self):
        key = r"SOFTWARE\DorvaneCtl"
        for text, stored in (("010", "0A 00 00 00"), ("0x10", "10 00 00 00"), ("4294967295", "FF FF FF FF"),
                             ("0XfF", "FF 00 00 00")):
            with self.subTest(value=text):
                self.assertEqual({"result": 0}, self.json_of("reg-set-dword", key, "Num", text))
                self.assertEqual(stored, self.json_of("reg-get", "--raw", key, "Num")["bytes"])
        for text in ("-1", "+1", "4294967296", "0x100000000", "1e3", "0x", "", " 5", "0b1", "0o7", "8 "):
            with self.subTest(value=text):
                result = text_lines(self.box.run([self.ctl, "reg-set-dword", key, "Num", text]))
                self.assertEqual(2, result.returncode, result.stdout + result.stderr)
                self.assertTrue(result.stderr.startswith("dorvanectl: reg-set-dword: value: "), result.stderr)
        self.assertEqual("FF 00 00 00", self.json_of("reg-get", "--raw", key, "Num")["bytes"], "nothing stored")

        for given, kind in (("REG_BINARY", 3), ("reg_dword_big_endian", 5), ("4", 4), ("0x3", 3), ("REG_SZ", 1)):
            with self.subTest(type=given):
                self.assertEqual({"result": 0}, self.json_of("reg-set-dword", key, "Typed", "7", "--type", given))
                self.assertEqual(kind, self.json_of("reg-get", "--raw", key, "Typed")["type"])
        for given in ("12", "REG_FOO", "DWORD", "-4"):
            with self.subTest(type=given):
                result = text_lines(self.box.run([self.ctl, "reg-set-dword", key, "Typed", "7", "--type", given]))
                self.assertEqual(2, result.returncode)
                self.assertTrue(result.stderr.startswith(
                    "dorvanectl: reg-set-dword: --type: not a registry value type: %s (REG_NONE, " % given),
                    result.stderr)

        # A REG_DWORD shows its number; a string stays its text.
        self.assertEqual({"result": 0}, self.json_of("reg-set-dword", key, "Flag", "0x12345678"))
        self.assertEqual({"result": 0, "type": 4, "output": "305419896", "number": 305419896},
                         self.json_of("reg-get", key, "Flag"))
        text = self.box.run([self.ctl, "reg-get", key, "Flag"])
        self.assertEqual((0, "result: 0\ntype: 4 (REG_DWORD)\noutput: 305419896 (0x12345678)\n"),
                         (text.returncode, text.stdout))
        text = self.box.run([self.ctl, "reg-get", key, "Family"])
        self.assertEqual("result: 0\ntype: 1 (REG_SZ)\noutput: ThinkPad\n", text.stdout)
        # A value that is not text: the library reads it, the command says to use --raw.
        self.assertEqual({"result": 0}, self.json_of("reg-set-dword", key, "Bin", "7", "--type", "REG_BINARY"))
        text = text_lines(self.box.run([self.ctl, "reg-get", key, "Bin"]))
        self.assertEqual((1, "result: 0\ntype: 3 (REG_BINARY)\noutput: \\x07\n",
                          "dorvanectl: reg-get: the value Bin is 3 (REG_BINARY), not text: read it with --raw\n"),
                         (text.returncode, text.stdout, text.stderr))

    def test_device_configuration(self):
        self.assertEqual({"result": True, "output": "CFG-13"}, self.json_of("device-config-id", r"C:\device.xml"))
        answer = self.json_of("--preset", "P", "cfg-pk-info", "CFG-13", "310")
        self.assertEqual({"result": True, "fields": ["P", "P", "", "us.bin", "3", "USA", "310"], "count": 12},
                         {k: answer[k] for k in ("result", "fields", "count")})
        answer = self.json_of("--preset", "P", "cfg-pk-info", "cfg-13", "310", status=1)
        self.assertEqual({"result": False, "fields": ["P"] * 7, "count": 0}, {k: answer[k] for k in
                                                                            ("result", "fields", "count")})
        self.assertTrue(answer["error"].startswith("cfg-pk-info: no configuration package found"), answer)
        answer = self.json_of("cfg-pk-info", "CFG-13", "310")
        self.assertEqual({"text 0": "", "text 1": "", "text 2": "", "file": "us.bin", "version": "3", "type": "USA",
                          "mcc": "310", "count": 12}, answer["record"])
        result = text_lines(self.box.run([self.ctl, "device-config-id", r"C:\none.xml"]))
        self.assertEqual((2, "dorvanectl: device-config-id: C:\\none.xml: no such file\n"),
                         (result.returncode, result.stderr))


class AtCommand(unittest.TestCase):
    """dorvanectl at against the simulated module: what the module answers,
    good or bad, and what comes when it does not answer."""

    @classmethod
    def setUpClass(cls):
        cls.box = WineBox(os.path.join(ARGS.work, "at"), base=ARGS.base)
        cls.ctl = cls.box.put_file(ARGS.dorvanectl, r"C:\Program Files\Dorvane")
        cls.box.install_simulator(ARGS.mbnsim_dir)

    @classmethod
    def tearDownClass(cls):
        cls.box.close(discard=True)

    def setUp(self):
        self.box.simctl("reset", 1)

    def at(self, *args):
        return text_lines(self.box.run([self.ctl] + list(args)), wine_noise=True)

    def test_good_and_error_answers_are_printed_as_they_came(self):
        result = self.at("at", "AT+CGMI")
        self.assertEqual((0, "result: true\nexchange: 0\nanswer: DorvaneLabs\nanswer: OK\n", ""),
                         (result.returncode, result.stdout, result.stderr))
        # The judged answer has its blanks removed; --hex and --raw give the
        # bytes as they came, 0xFF as FF (the text shows the byte itself, which
        # reads here as U+FFFD).
        self.box.simctl("reply", "AT+CME", "\\r\\n+CME ERROR: 10\\xFF\\r\\n")
        result = self.at("at", "AT+CME", "--hex", "--raw")
        self.assertEqual((1, "result: false\nexchange: 0\nanswer: +CMEERROR:10\\xFF\n"
                             "hex: 0D 0A 2B 43 4D 45 20 45 52 52 4F 52 3A 20 31 30 FF 0D 0A\n"
                             "raw: \\r\\n+CME ERROR: 10\\xFF\\r\\n\n",
                          "dorvanectl: at: no good answer: the module answered with an error\n"),
                         (result.returncode, result.stdout.replace("\ufffd", "\\xFF"), result.stderr))
        self.box.simctl("reply", "AT+CME", "\\r\\n+CME ERROR: 10\\r\\n")
        result = self.at("--json", "at", "AT+CME")
        self.assertEqual(1, result.returncode)
        self.assertEqual({"result": False, "exchange": 0, "output": "\r\n+CMEERROR:10\r\n",
                          "error": "at: no good answer: the module answered with an error"}, json.loads(result.stdout))
        self.assertEqual("dorvanectl: at: no good answer: the module answered with an error\n", result.stderr)
        result = self.at("at", "AT+CGMM", "--json")
        self.assertEqual((0, {"result": True, "exchange": 0, "output": "\r\nDVS-5G20\r\n\r\nOK\r\n"}),
                         (result.returncode, json.loads(result.stdout)))
        self.box.simctl("inject", "SetCommand.Complete", "empty")
        result = self.at("at", "AT")
        self.assertEqual((1, "result: false\nexchange: 0\n", "dorvanectl: at: no good answer: the module's "
                                                              "answer is empty\n"),
                         (result.returncode, result.stdout, result.stderr))
        self.assertNothingLeft()

    def test_failures_of_the_stack_are_told_apart(self):
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
            ([("inject", "SetCommand.Complete", "wrongid")], "AT", 1, 1,
             "at: an answer came within 5 s, but for another request"),
        ]
        for setup, command, status, exchange, message in cases:
            with self.subTest(setup=setup):
                self.box.simctl("reset", 1)
                for step in setup:
                    self.box.simctl(*step)
                result = self.at("--json", "at", command)
                self.assertEqual((status, {"result": False, "exchange": exchange, "output": "", "error": message},
                                  "dorvanectl: %s\n" % message),
                                 (result.returncode, json.loads(result.stdout), result.stderr))

    def test_no_answer_within_the_waits_is_exit_4(self):
        self.box.simctl("inject", "SetCommand.Complete", "none")
        result = self.at("at", "AT")
        message = "at: no answer came from the module within 5 s (exchange result 1)"
        self.assertEqual((4, "result: false\nexchange: 1\n", "dorvanectl: %s\n" % message),
                         (result.returncode, result.stdout, result.stderr))
        result = self.at("--json", "--preset", "P", "at", "AT", "--hex")
        self.assertEqual((4, {"result": False, "exchange": 1, "output": "P", "hex": "", "error": message}),
                         (result.returncode, json.loads(result.stdout)))

    def test_an_empty_command_is_refused_and_nothing_is_sent(self):
        for command in ("", "   "):
            with self.subTest(command=command):
                result = self.at("at", command)
                self.assertEqual((2, "", "dorvanectl: at: the AT command is empty (nothing was sent)\n"),
                                 (result.returncode, result.stdout, result.stderr))
        result = self.at("--json", "at", "")
        self.assertEqual({"result": None, "error": "at: the AT command is empty (nothing was sent)"},
                         json.loads(result.stdout))
        last = self.box.run(self.box.simctl_args("last"))
        self.assertEqual((1, "mbnsimctl: no command was sent"), (last.returncode, (last.stdout + last.stderr).strip()))
        self.assertEqual({}, self.box.sim_counters(), "the simulator was not even asked")

    def test_without_a_modem_one_object_and_exit_3(self):
        self.box.simctl("reset", 0)
        result = self.at("at", "AT", "--json")
        message = "at: no WWAN modem found (no Mobile Broadband interface, or no Mobile Broadband stack)"
        self.assertEqual((3, {"result": False, "error": message}), (result.returncode, json.loads(result.stdout)))
        self.assertEqual("dorvanectl: %s\n" % message, result.stderr)

    def test_verbose_shows_the_channels_lines_in_order(self):
        log = r"C:\at.log"
        result = self.at("--log", log, "at", "AT", "-v")
        self.assertEqual(0, result.returncode)
        with open(self.box.unix_path(log), "rb") as f:
            records = winebox.parse_log(f.read())
        mirrored = winebox.parse_log(result.stderr.encode("latin-1"))
        self.assertEqual([(r.tag, r.stamp, r.message) for r in records if r.tag != "banner"],
                         [(r.tag, r.stamp, r.message) for r in mirrored])
        self.assertEqual(["Check MBIM enter", "CoUninitialize"], [mirrored[0].message, mirrored[-1].message])

    def assertNothingLeft(self):
        counters = self.box.sim_counters()
        self.assertTrue(counters)
        for pid, c in counters.items():
            self.assertEqual({"LiveObjects": 0, "AdvisedSinks": 0, "BadReleases": 0, "BadUnadvises": 0,
                              "PendingCompletions": 0},
                             {k: c[k] for k in ("LiveObjects", "AdvisedSinks", "BadReleases", "BadUnadvises",
                                                "PendingCompletions")}, "process %d" % pid)


def main():
    global ARGS
    ARGS, run = winebox.test_main("dorvanectl", "mbnsim-dir", "work", "base")
    run()


if __name__ == "__main__":
    main()
