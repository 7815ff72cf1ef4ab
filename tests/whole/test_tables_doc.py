"""docs/tables.md under Wine: every example table, registry file, command and
log that the reference shows is run through the real dorvanectl.exe, in the
order the document gives them, in one prefix.

    test_tables_doc.py --dorvanectl dorvanectl.exe --doc docs/tables.md --work DIR --base PREFIX

The document marks its examples with fenced blocks:

    `C:\\tables\\rules.xml`:          a line naming a path, then
    ```xml                          a table, written there as UTF-8
    ```xml findings                 a table that lint has findings for
    ```reg                          a registry file, imported into the 32-bit view
    ```console                      "> " commands, each followed by its output
                                    (lines starting "dorvanectl: " are its
                                    standard error, the others its output)
    ```log                          the log lines written by the last command of the
                                    console block just before (its --log file),
                                    "[TAG] message", time stamps left out

A console command is `dorvanectl ...` or `type FILE`. Output is compared line
for line with blanks at line ends dropped on both sides (the text mode pads
its columns); a command with --json is compared as JSON objects, one a line.
Every table is checked with `dorvanectl lint` as it is written: it must be
clean, or have findings when it is marked so.
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

# Every table command has at least one example in the document.
COMMANDS = ["carrier-id-by-mccmnc", "carrier-id-by-mcc", "carrier-id-by-iccid", "selection-rule-by-mcc",
            "param-firmware-by-mcc", "carrier-firmware", "oem-firmware-by-model", "package-info-firmware",
            "param-firmware-by-sku", "fw-package-info", "device-config-id", "cfg-pk-info",
            "esim-disable-type", "regulatory-by-mcc", "update-scatter", "lint"]

FENCE = re.compile(r"^```(\w+)(.*)$")
CAPTION = re.compile(r"^`([A-Za-z]:\\[^`]+)`:$")
WORD = re.compile(r'(?:"[^"]*"|[^\s"])+')


class Block:
    def __init__(self, line, lang, info, text, file=None):
        self.line, self.lang, self.text, self.file = line, lang, text, file
        self.findings = False
        for word in info.split():
            if word == "findings":
                self.findings = True
            else:
                raise ValueError("line %d: unknown word %r after ```%s" % (line, word, lang))

    def commands(self):
        """[(line, command, expected output lines)] of a console block."""
        steps = []
        for n, text in enumerate(self.text.split("\n"), self.line + 1):
            if text.startswith("> "):
                steps.append((n, text[2:], []))
            elif steps:
                steps[-1][2].append(text)
            elif text.strip():
                raise ValueError("line %d: output before the first command" % n)
        return steps


def blocks_of(markdown):
    """The example blocks of the document, in order: tables and registry files
    under a caption that names their path, console and log blocks. Other
    fences (tree diagrams, snippets without a path) are skipped."""
    blocks, lines, at = [], markdown.split("\n"), 0
    caption = None  # the path named by the last line that was not blank
    while at < len(lines):
        fence = FENCE.match(lines[at])
        at += 1
        if not fence:
            if lines[at - 1].strip():
                named = CAPTION.match(lines[at - 1])
                caption = named.group(1) if named else None
            continue
        start, body = at, []
        while at < len(lines) and lines[at] != "```":
            body.append(lines[at])
            at += 1
        at += 1
        lang, info = fence.group(1), fence.group(2)
        if (lang in ("xml", "reg") and caption) or lang in ("console", "log"):
            blocks.append(Block(start, lang, info, "\n".join(body), caption))
        caption = None
    return blocks


def split_command(text):
    """A command line split as the Windows prompt splits it, quotes removed."""
    return [word.replace('"', "") for word in WORD.findall(text)]


def common_options(args):
    """({option: value} of dorvanectl's common options, the subcommand)."""
    options, at = {}, 0
    while at < len(args) and args[at].startswith("--"):
        if args[at] in ("--log", "--preset") and at + 1 < len(args):
            options[args[at]] = args[at + 1]
            at += 2
        else:
            options[args[at]] = None
            at += 1
    return options, args[at] if at < len(args) else None


def log_of(console):
    """The --log file of the last command of a console block, or None."""
    steps = console.commands()
    words = split_command(steps[-1][1]) if steps else []
    return common_options(words[1:])[0].get("--log") if words[:1] == ["dorvanectl"] else None


def trimmed(lines):
    lines = [line.rstrip() for line in lines]
    while lines and not lines[-1]:
        lines.pop()
    return lines


class TablesDoc(unittest.TestCase):
    maxDiff = None  # a failing example shows its whole output

    @classmethod
    def setUpClass(cls):
        cls.box = WineBox(os.path.join(ARGS.work, "tables_doc"), base=ARGS.base)
        cls.ctl = cls.box.put_file(ARGS.dorvanectl, r"C:\Program Files\Dorvane")
        with open(ARGS.doc, encoding="utf-8") as f:
            cls.blocks = blocks_of(f.read())

    @classmethod
    def tearDownClass(cls):
        cls.box.close(discard=True)

    def write(self, block):
        path = self.box.unix_path(block.file)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8", newline="\r\n" if block.lang == "reg" else "\n") as f:
            f.write(block.text + "\n")

    def run_command(self, words):
        if words[0] == "dorvanectl":
            return self.box.run([self.ctl] + words[1:], timeout=60)
        if words[0] == "type" and len(words) == 2:
            return self.box.run(["cmd", "/c", "type", words[1]], timeout=60)
        self.fail("the document runs %r: only dorvanectl and type are run" % words[0])

    def check_console(self, block):
        for line, text, expected in block.commands():
            with self.subTest(line=line, command=text):
                words = split_command(text)
                result = self.run_command(words)
                said = [line for line in expected if line.startswith("dorvanectl: ")]
                expected = [line for line in expected if not line.startswith("dorvanectl: ")]
                if "--json" in words:
                    actual = [json.loads(o) for o in trimmed(result.stdout.split("\n"))]
                    expected = [json.loads(o) for o in trimmed(expected)]
                else:
                    actual, expected = trimmed(result.stdout.split("\n")), trimmed(expected)
                self.assertEqual(expected, actual, "the document's output, then dorvanectl's "
                                 "(exit status %d, stderr: %s)" % (result.returncode, result.stderr))
                self.assertEqual(said, trimmed(result.stderr.replace("\r\n", "\n").split("\n")),
                                 "what the document shows on standard error, then what dorvanectl said")

    def check_log(self, block, log):
        with self.subTest(line=block.line, log=log):
            path = self.box.unix_path(log)
            with open(path, "rb") as f:
                records = winebox.parse_log(f.read())
            actual = ["%s %s" % (r.tag.strip(), r.message) for r in records if r.tag != "banner"]
            self.assertEqual(trimmed(block.text.split("\n")), trimmed(actual),
                             "the document's log, then the one written")

    def check_lint(self, block):
        with self.subTest(line=block.line, lint=block.file):
            result = self.box.run([self.ctl, "lint", block.file], timeout=60)
            if block.findings:
                self.assertEqual(1, result.returncode, result.stdout + result.stderr)
            else:
                self.assertEqual(0, result.returncode, result.stdout + result.stderr)
                self.assertRegex(result.stdout, r"\A%s: clean \([a-z-]+\)\n\Z" % re.escape(block.file))

    def test_the_examples_do_what_the_document_says(self):
        self.assertTrue(self.blocks, "no marked examples in %s" % ARGS.doc)
        for i, block in enumerate(self.blocks):
            if block.lang == "xml":
                self.write(block)
                self.check_lint(block)
            elif block.lang == "reg":
                self.write(block)
                self.box.run(["reg", "import", block.file, "/reg:32"], check=True)
            elif block.lang == "console":
                following = self.blocks[i + 1] if i + 1 < len(self.blocks) else None
                if following is not None and following.lang == "log" and log_of(block):
                    log = self.box.unix_path(log_of(block))
                    if os.path.exists(log):
                        os.remove(log)  # the log block shows this command's lines alone
                self.check_console(block)
            elif block.lang == "log":
                console = self.blocks[i - 1] if i else None
                self.assertTrue(console is not None and console.lang == "console" and log_of(console),
                                "line %d: a log block follows a console block whose last command "
                                "names its --log file" % block.line)
                self.check_log(block, log_of(console))

    def test_every_table_command_has_an_example(self):
        run = set()
        for block in self.blocks:
            if block.lang == "console":
                for _, text, _ in block.commands():
                    words = split_command(text)
                    if words[0] == "dorvanectl":
                        run.add(common_options(words[1:])[1])
        self.assertEqual([], [c for c in COMMANDS if c not in run])

    def test_every_table_is_written_once(self):
        files = [b.file.lower() for b in self.blocks if b.lang in ("xml", "reg")]
        self.assertEqual(sorted(set(files)), sorted(files), "a path that two examples share")


def main():
    global ARGS
    ARGS, run = winebox.test_main("dorvanectl", "doc", "work", "base")
    run()


if __name__ == "__main__":
    main()
