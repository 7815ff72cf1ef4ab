"""dorvanectl under Wine: the table, registry and device-configuration commands
on small tables and Wine's real registry, in JSON, with their exit statuses.

    test_dorvanectl.py --dorvanectl dorvanectl.exe --work DIR --base PREFIX
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
        return self.box.run([self.ctl] + list(args), timeout=60)

    def json_of(self, *args, status=0):
        result = self.run_ctl("--json", *args)
        self.assertEqual(status, result.returncode, result.stdout + result.stderr)
        return json.loads(result.stdout)

    def test_lookups_answer_as_the_library_does(self):
        t = r"C:\tables" + "\\"
        cases = [
            (["carrier-id-by-mccmnc", "310260", t + "rules.xml"], 0, {"result": True, "output": "TMO"}),
            (["carrier-id-by-mccmnc", "999", t + "rules.xml"], 0, {"result": True, "output": ""}),
            (["carrier-id-by-mccmnc", "310260", t + "broken.xml"], 1, {"result": False, "output": ""}),
            (["carrier-id-by-mcc", "310", t + "rules.xml"], 0, {"result": True, "output": " US "}),
            (["carrier-id-by-mcc", "311", t + "rules.xml"], 1, {"result": False, "output": ""}),
            (["carrier-id-by-iccid", "89012601234567890123", t + "rules.xml"], 0,
             {"result": True, "output": "TMO-20"}),
            (["selection-rule-by-mcc", "310", t + "rules.xml"], 1, {"result": False}),
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
            (["esim-disable-type", t + "esim.xml"], 1, {"result": 4294967295}),
            (["regulatory-by-mcc", t + "region.xml", "460"], 0, {"result": 1, "output": "SRRC"}),
            (["regulatory-by-mcc", t + "region.xml", "999"], 0, {"result": 2, "output": "FCC"}),
        ]
        for args, status, expected in cases:
            with self.subTest(args=args):
                self.assertEqual(expected, self.json_of(*args, status=status))

    def test_preset_shows_what_a_failed_lookup_leaves(self):
        t = r"C:\tables" + "\\"
        self.assertEqual({"result": False, "output": "P"},
                         self.json_of("--preset", "P", "carrier-id-by-mcc", "999", t + "rules.xml", status=1))
        answer = self.json_of("--preset", "P", "carrier-firmware", "TMO", t + "carriers.xml")
        self.assertEqual(["TMO"] + ["P"] * 6, answer["fields"][:7], "fields the reader does not write")
        self.assertEqual({"result": 0, "output": "P"},
                         self.json_of("--preset", "P", "regulatory-by-mcc", t + "missing.xml", "460",
                                      status=1))

    def test_scatter_is_rewritten_in_place(self):
        with open(self.scatter, "w") as f:
            f.write(SCATTER)
        self.assertEqual({"result": True}, self.json_of("update-scatter", ";false;"))
        with open(self.scatter) as f:
            text = f.read()
        self.assertLess(text.index("<is_download>false</is_download>"),
                        text.index("<is_download>true</is_download>"))
        self.assertEqual({"result": False}, self.json_of("update-scatter", "", status=1))

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


    # dorvanectl lint: the same tables, read as the lookups read them.

    FINDING = re.compile(r"^(.+):(\d+): (error|warning): (.+)$")

    def lint(self, *args):
        return self.run_ctl("lint", *args)

    def test_lint_is_silent_on_clean_tables(self):
        t = r"C:\tables" + "\\"
        files = [t + name for name in ("esim.xml", "region.xml", "package_info.xml", "FwPackageInfo.xml")]
        result = self.lint(*files)
        self.assertEqual((0, "", ""), (result.returncode, result.stdout, result.stderr))
        result = self.lint(*files, "--json")
        self.assertEqual(0, result.returncode, result.stderr)
        objects = [json.loads(line) for line in result.stdout.splitlines()]
        self.assertEqual([{"file": f, "kind": k, "findings": []} for f, k in
                          zip(files, ["esim", "region", "package-info", "fw-package-info"])], objects)

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
        # What the findings say is what the lookups do.
        self.assertEqual({"result": True, "output": "TMO"},
                         self.json_of("carrier-id-by-mccmnc", "310260", t + "rules.xml"))
        self.assertEqual({"result": True, "output": " US "}, self.json_of("carrier-id-by-mcc", "310", t + "rules.xml"))
        timed_out = self.run_ctl("param-firmware-by-sku", "B", "EU", t + "skus.xml", "--timeout", "1")
        self.assertEqual(4, timed_out.returncode)
        self.assertIn("later SKU_GUID (line 2)", timed_out.stderr)
        answer = self.json_of("carrier-firmware", "X13", t + "carriers.xml")
        self.assertEqual(["X13"] + [""] * 23, answer["fields"], "the customer model, taken as a carrier")

    def test_lint_json_gives_one_object_per_file_with_the_same_findings(self):
        t = r"C:\tables" + "\\"
        text = self.lint(t + "rules.xml", t + "broken.xml").stdout.splitlines()
        for args in (["--json", "lint", t + "rules.xml", t + "broken.xml"],
                     ["lint", t + "rules.xml", t + "broken.xml", "--json"]):
            result = self.run_ctl(*args)
            self.assertEqual(1, result.returncode, result.stderr)
            objects = [json.loads(line) for line in result.stdout.splitlines()]
            self.assertEqual([t + "rules.xml", t + "broken.xml"], [o["file"] for o in objects])
            self.assertEqual(["carrier-rules", None], [o["kind"] for o in objects])
            again = []
            for o in objects:
                self.assertEqual({"file", "kind", "findings"}, set(o))
                for f in o["findings"]:
                    self.assertEqual({"line", "severity", "message"}, set(f))
                    again.append("%s:%d: %s: %s" % (o["file"], f["line"], f["severity"], f["message"]))
            self.assertEqual(text, again)
        broken = objects[1]["findings"]
        self.assertEqual(1, len(broken), broken)
        self.assertEqual("error", broken[0]["severity"])
        self.assertTrue(broken[0]["message"].startswith("the table does not load (Error=XML_ERROR_"), broken)

    def test_lint_exit_status_2_for_unreadable_files_unknown_kinds_and_usage(self):
        t = r"C:\tables" + "\\"
        with open(self.box.unix_path(t + "unknown.xml"), "w") as f:
            f.write("<Inventory><Thing/></Inventory>")
        result = self.lint(t + "missing.xml", t + "region.xml")
        self.assertEqual((2, ""), (result.returncode, result.stdout))
        self.assertEqual("dorvanectl: lint: %smissing.xml: cannot read it (XML_ERROR_FILE_NOT_FOUND)" % t,
                         result.stderr.strip())
        result = self.lint(t + "unknown.xml", "--json")
        self.assertEqual(2, result.returncode)
        self.assertIn("cannot tell what table this is; name its kind with --kind (carrier-rules, "
                      "selection-rules, carrier-firmware, customer-model, package-info, fw-package-info, sku, "
                      "device-config, image-mapping, esim, region, scatter)", result.stderr)
        self.assertEqual(None, json.loads(result.stdout)["kind"])
        result = self.lint(t + "unknown.xml", "--kind", "region")
        self.assertEqual(1, result.returncode)
        self.assertEqual(t + "unknown.xml:1: error: Inventory (the root) has no SelectionRule: regulatory-by-mcc "
                         "fails (0) and logs \"SelectionRule xml item error.\"\n", result.stdout)
        for args in ([], [t + "region.xml", "--kind", "regions"], [t + "region.xml", "--kind"]):
            with self.subTest(args=args):
                result = self.lint(*args)
                self.assertEqual((2, ""), (result.returncode, result.stdout))


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
        self.assertEqual({"result": 1, "type": 1, "output": ""},
                         self.json_of("reg-get", r"SOFTWARE\DorvaneCtl64", "Only", status=1),
                         "a key of the 64-bit view only is not found")
        self.assertEqual({"result": 0}, self.json_of("reg-set", r"SOFTWARE\DorvaneCtl", "Three", "abc"))
        self.assertEqual({"result": 0, "type": 1, "size": 3, "bytes": "61 62 63 "},
                         self.json_of("reg-get", "--raw", r"SOFTWARE\DorvaneCtl", "Three"))
        self.assertEqual({"result": 0},
                         self.json_of("reg-set-dword", r"SOFTWARE\DorvaneCtl", "Flag", "0x12345678"))
        self.assertEqual({"result": 0, "type": 4, "size": 4, "bytes": "78 56 34 12 "},
                         self.json_of("reg-get", "--raw", r"SOFTWARE\DorvaneCtl", "Flag"))
        self.assertEqual({"result": 1},
                         self.json_of("reg-set", r"SOFTWARE\DorvaneCtl\Absent", "x", "y", status=1))
        query = self.box.run(["reg", "query", r"HKLM\SOFTWARE\DorvaneCtl\Absent", "/reg:32"])
        self.assertNotEqual(0, query.returncode, "nothing was created")
        self.assertEqual(2, self.box.run([self.ctl, "reg-set-dword", "K", "N", "many"]).returncode)

    def test_device_configuration(self):
        self.assertEqual({"result": True, "output": "CFG-13"}, self.json_of("device-config-id", r"C:\device.xml"))
        self.assertEqual({"result": True, "fields": ["P", "P", "", "us.bin", "3", "USA", "310"], "count": 12},
                         self.json_of("--preset", "P", "cfg-pk-info", "CFG-13", "310"))
        self.assertEqual({"result": False, "fields": ["P"] * 7, "count": 0},
                         self.json_of("--preset", "P", "cfg-pk-info", "cfg-13", "310", status=1))


def main():
    global ARGS
    ARGS, run = winebox.test_main("dorvanectl", "work", "base")
    run()


if __name__ == "__main__":
    main()
