# docs/tables.md under Wine: every example table, registry file, command and
# log that the reference shows is run through the real dorvanectl.exe, in the
# order the document gives them, in one prefix.
#
#     test_tables_doc.py --dorvanectl dorvanectl.exe --doc docs/tables.md --work DIR --base PREFIX
#
import json
import os
import re
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))
import winebox  # noqa: E402

# The document marks its examples with fenced blocks:
#
#     `C:\tables\rules.xml`:          a line naming a path, then
#     ```xml                          a table, written there as UTF-8
#     ```xml findings                 a table that lint has findings for
#     ```reg                          a registry file, imported into the 32-bit view
#     ```console                      "> " commands, each followed by its output
#                                     (lines starting "dorvanectl: " are its
#                                     standard error, the others its output)
#     ```log                          the log lines written by the last command of the
#                                     console block just before (its --log file),
#                                     "[TAG] message", time stamps left out
#
# A console command is `dorvanectl ...` or `type FILE`. Output is compared line
# for line with blanks at line ends dropped on both sides (the text mode pads
# its columns); a command with --json is compared as JSON objects, one a line.
# Every table must be clean for `dorvanectl lint`, or have findings when marked so.

# Every table command has at least one example in the document.
COMMANDS = ["carrier-id-by-mccmnc", "carrier-id-by-mcc", "carrier-id-by-iccid", "selection-rule-by-mcc",
            "param-firmware-by-mcc", "carrier-firmware", "oem-firmware-by-model", "package-info-firmware",
            "param-firmware-by-sku", "fw-package-info", "device-config-id", "cfg-pk-info",
            "esim-disable-type", "regulatory-by-mcc", "update-scatter", "lint"]


def blocks_of(markdown):
    # [(line, lang, info, text, path)]: tables and registry files under a
    # caption that names their path, console and log blocks. Other fences
    # (tree diagrams, snippets without a path) are skipped.
    blocks, caption = [], None
    for m in re.finditer(r"(?m)^(?:`([A-Za-z]:\\[^`\n]+)`:|```(\w+)(.*)\n((?:.*\n)*?)```|.*\S.*)$", markdown):
        named, lang, info, text = m.group(1, 2, 3, 4)
        if lang and ((lang in ("xml", "reg") and caption) or lang in ("console", "log")):
            assert info.strip() in ("", "findings"), "%r: unknown word after ```%s" % (info, lang)
            blocks.append((markdown.count("\n", 0, m.start()) + 1, lang, info.strip(), text[:-1], caption))
        caption = named
    return blocks


def commands_of(line, text):
    # [(line, words, expected output lines)] of a console block, the words
    # split as the Windows prompt splits them, quotes removed.
    steps = []
    for n, text in enumerate(text.split("\n"), line + 1):
        if text.startswith("> "):
            steps.append((n, [w.replace('"', "") for w in re.findall(r'(?:"[^"]*"|[^\s"])+', text[2:])], []))
        else:
            assert steps or not text.strip(), "line %d: output before the first command" % n
            steps[-1][2].append(text) if steps else None
    return steps


def trimmed(lines):
    lines = [line.rstrip() for line in lines]
    while lines and not lines[-1]:
        lines.pop()
    return lines


class TablesDoc(winebox.BoxCase):
    def test_the_examples_do_what_the_document_says(self):
        with open(winebox.ARGS.doc, encoding="utf-8") as f:
            blocks = blocks_of(f.read())
        self.assertTrue(blocks, "no marked examples")
        run, tables, log = set(), {"": [], "findings": []}, None
        for line, lang, info, text, path in blocks:
            if lang in ("xml", "reg"):
                self.box.write(path, (text + "\n").replace("\n", "\r\n" if lang == "reg" else "\n"))
                if lang == "reg":
                    self.box.run(["reg", "import", path, "/reg:32"], check=True)
                else:
                    tables[info].append(path)
            elif lang == "log":
                self.assertIsNotNone(log, "line %d: a log block follows a console block whose last command names "
                                          "its --log file" % line)
                self.assertEqual(trimmed(text.split("\n")), trimmed(["%s %s" % (r.tag.strip(), r.message) for r in
                                 winebox.parse_log(self.box.read(log) or b"") if r.tag != "banner"]), (line, log))
            log = None if lang == "console" else log
            for line, words, expected in commands_of(line, text) if lang == "console" else []:
                with self.subTest(line=line, command=" ".join(words)):
                    self.assertIn(words[0], ("dorvanectl", "type"), "only dorvanectl and type are run")
                    if words[0] == "dorvanectl":  # its common options come before the subcommand
                        at = next((i for i, w in enumerate(words) if i and not w.startswith("--") and
                                   words[i - 1] not in ("--log", "--preset")), len(words))
                        run.add(words[at] if at < len(words) else None)
                        log = words[words.index("--log") + 1] if "--log" in words[:at] else None
                        if log and os.path.exists(self.box.unix_path(log)):
                            os.remove(self.box.unix_path(log))  # a log block shows this command's lines alone
                    result = self.box.run(["cmd", "/c"] + words) if words[0] == "type" else self.ctl(*words[1:])
                    said = [l for l in expected if l.startswith("dorvanectl: ")]
                    expected = trimmed([l for l in expected if not l.startswith("dorvanectl: ")])
                    actual = trimmed(result.stdout.split("\n"))
                    if "--json" in words:
                        actual, expected = [json.loads(o) for o in actual], [json.loads(o) for o in expected]
                    self.assertEqual((expected, said), (actual, trimmed(result.stderr.split("\n"))), "the document's "
                                     "output and standard error, then dorvanectl's (exit status %d)" % result.returncode)
        self.assertEqual([], [c for c in COMMANDS if c not in run], "table commands without an example")
        paths = [p.lower() for p in tables[""] + tables["findings"]]
        self.assertEqual(sorted(set(paths)), sorted(paths), "a path that two examples share")
        clean = self.ctl("lint", *tables[""])
        self.assertEqual((0, ""), (clean.returncode, re.sub(r"(?m)^.*: clean \([a-z-]+\)\n", "", clean.stdout)))
        self.assertEqual([(p, 1) for p in tables["findings"]], [(p, self.ctl("lint", p).returncode)
                                                               for p in tables["findings"]])


if __name__ == "__main__":
    winebox.test_main("dorvanectl", "doc", "work", "base")
