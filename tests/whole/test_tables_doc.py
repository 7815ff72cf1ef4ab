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
    blocks, lines, at, caption = [], markdown.split("\n"), 0, None
    while at < len(lines):
        fence = re.match(r"^```(\w+)(.*)$", lines[at])
        at += 1
        if not fence:
            if lines[at - 1].strip():
                named = re.match(r"^`([A-Za-z]:\\[^`]+)`:$", lines[at - 1])
                caption = named.group(1) if named else None
            continue
        start = at
        while at < len(lines) and lines[at] != "```":
            at += 1
        lang, info = fence.group(1), fence.group(2).strip()
        if (lang in ("xml", "reg") and caption) or lang in ("console", "log"):
            assert info in ("", "findings"), "line %d: unknown word %r after ```%s" % (start, info, lang)
            blocks.append((start, lang, info, "\n".join(lines[start:at]), caption))
        at += 1
        caption = None
    return blocks


def commands_of(block):
    # [(line, words, expected output lines)] of a console block, the words
    # split as the Windows prompt splits them, quotes removed.
    steps = []
    for n, text in enumerate(block[3].split("\n"), block[0] + 1):
        if text.startswith("> "):
            steps.append((n, [w.replace('"', "") for w in re.findall(r'(?:"[^"]*"|[^\s"])+', text[2:])], []))
        else:
            assert steps or not text.strip(), "line %d: output before the first command" % n
            if steps:
                steps[-1][2].append(text)
    return steps


def options_of(words):
    # ({option: value} of dorvanectl's common options, the subcommand) of a dorvanectl command.
    options, at = {}, 1
    while at < len(words) and words[at].startswith("--"):
        takes = words[at] in ("--log", "--preset")
        options[words[at]] = words[at + 1] if takes else None
        at += 2 if takes else 1
    return options, words[at] if at < len(words) else None


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
                with self.subTest(line=line, log=log):
                    self.assertIsNotNone(log, "line %d: a log block follows a console block whose last command "
                                              "names its --log file" % line)
                    records = winebox.parse_log(self.box.read(log) or b"")
                    self.assertEqual(trimmed(text.split("\n")), trimmed(
                        ["%s %s" % (r.tag.strip(), r.message) for r in records if r.tag != "banner"]))
            else:
                log = None
                for line, words, expected in commands_of((line, lang, info, text, path)):
                    with self.subTest(line=line, command=" ".join(words)):
                        self.assertIn(words[0], ("dorvanectl", "type"), "only dorvanectl and type are run")
                        if words[0] == "type":
                            result = self.box.run(["cmd", "/c"] + words)
                        else:
                            run.add(options_of(words)[1])
                            log = options_of(words)[0].get("--log")
                            if log and os.path.exists(self.box.unix_path(log)):
                                os.remove(self.box.unix_path(log))  # a log block shows this command's lines alone
                            result = self.ctl(*words[1:])
                        said = [l for l in expected if l.startswith("dorvanectl: ")]
                        expected = trimmed([l for l in expected if not l.startswith("dorvanectl: ")])
                        actual = trimmed(result.stdout.split("\n"))
                        if "--json" in words:
                            actual, expected = [json.loads(o) for o in actual], [json.loads(o) for o in expected]
                        self.assertEqual(expected, actual, "the document's output, then dorvanectl's (exit status "
                                         "%d, stderr: %s)" % (result.returncode, result.stderr))
                        self.assertEqual(said, trimmed(result.stderr.split("\n")),
                                         "what the document shows on standard error, then what dorvanectl said")
        self.assertEqual([], [c for c in COMMANDS if c not in run], "table commands without an example")
        paths = [p.lower() for p in tables[""] + tables["findings"]]
        self.assertEqual(sorted(set(paths)), sorted(paths), "a path that two examples share")
        clean = self.ctl("lint", *tables[""])
        self.assertEqual((0, ""), (clean.returncode, re.sub(r"(?m)^.*: clean \([a-z-]+\)\n", "", clean.stdout)))
        for path in tables["findings"]:
            self.assertEqual(1, self.ctl("lint", path).returncode, path)


if __name__ == "__main__":
    winebox.test_main("dorvanectl", "doc", "work", "base")
