"""Tests of the manual page of korvane-log: manpage_test.py TOOL PAGE DOC_DIR [unittest options].

The page is rendered by groff as `man` would show it and compared with the tool's own help,
read here independently of the generator: every verb, action, argument and option that a
--help names, with its description, is in the section of its verb. A stand-in tool shows that
texts roff would take for its own (a leading dot, backslashes) come through as they are."""

import os
import re
import subprocess
import sys
import tempfile
import unittest

TOOL, PAGE, DOC_DIR = sys.argv.pop(1), sys.argv.pop(1), sys.argv.pop(1)

# A tool whose help holds what roff would misread.
STAND_IN = r'''#!/usr/bin/env python3
import sys
HELP = {("--version",): "9.9",
        ("--help",): "Tests roff.\nUsage: stand-in [OPTIONS] VERB\n\nOptions:\n"
                     "  -h,--help                   Print this help message and exit\n\n"
                     "Subcommands:\n  odd                         Odd texts\n",
        ("odd", "--help"): ".starts with a dot\nUsage: stand-in odd [OPTIONS] FILE\n\n"
                           "Positionals:\n  FILE TEXT REQUIRED          'quoted' back\\slash\n\n"
                           "Options:\n"
                           "  -h,--help                   Print this help message and exit\n"
                           "  --pattern TEXT:{a,b,c,d,e,f,g}\n"
                           "                              C:\\temp and \"-1\"\n"}
print(HELP[tuple(sys.argv[1:])])
'''


def run(*args):
    return subprocess.run([TOOL, *args], capture_output=True, text=True, timeout=60)


def entries(help_text, heading):
    """The names and descriptions listed under `heading:` in a --help."""
    block = re.search(rf"^{heading}:\n((?:  .*\n)*)", help_text, re.M)
    found = []
    for line in (block.group(1).splitlines() if block else []):
        match = re.match(r"^  (\S+)(?: \S+)*?(?:\s{2,}(.*))?$", line)
        if match and not line.startswith("   "):
            found.append([match.group(1), match.group(2) or ""])
        elif found:
            found[-1][1] = (found[-1][1] + " " + line.strip()).strip()
    return found


def squeeze(text):
    return " ".join(text.split())


def render(page=PAGE):
    result = subprocess.run(["groff", "-man", "-Tutf8", "-ww", "-rLL=200n", "-rHY=0",
                             "-P-cbou", page], capture_output=True, text=True, check=True)
    return result.stdout, result.stderr


def verb_sections(text):
    """The rendered text of each verb's section, by the verb's name."""
    verbs = text.split("\nVERBS\n", 1)[1].split("\nEXIT STATUS\n", 1)[0]
    parts = re.split(r"^   (\S+)$", verbs, flags=re.M)
    return {name: squeeze(body) for name, body in zip(parts[1::2], parts[2::2])}


class ManualPageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.text, cls.warnings = render()
        cls.sections = verb_sections(cls.text)

    def test_renders_without_a_warning(self):
        self.assertEqual(self.warnings, "")
        self.assertRegex(self.text, r"NAME\n\s+korvane-log - \S")

    def test_every_verb_action_argument_and_option_is_described(self):
        top = run("--help").stdout
        verbs = entries(top, "(?:Subcommands|Verbs)")
        self.assertGreater(len(verbs), 10)
        self.assertEqual(list(self.sections), [verb for verb, _ in verbs])
        for verb, description in verbs:
            section = self.sections[verb]
            helps = [run(verb, "--help").stdout]
            required = [name for name, _ in entries(helps[0], "Positionals")
                        if re.search(rf"^  {name} \S+ REQUIRED", helps[0], re.M)]
            for action, _ in entries(helps[0], "(?:Subcommands|Verbs)"):
                helps.append(run(verb, *required, action, "--help").stdout)
                self.assertIn(f" {action} [OPTIONS]", section, f"{verb} {action}")
            self.assertIn(squeeze(description), section, verb)
            for help_text in helps:
                listed = entries(help_text, "Positionals") + entries(help_text, "Options")
                for name, text in listed:
                    if name == "-h,--help":
                        continue
                    with self.subTest(verb=verb, name=name):
                        flags = name.split(",")
                        self.assertIn(", ".join(flags), section)
                        self.assertIn(squeeze(text), section)

    def test_texts_roff_would_misread_come_through(self):
        with tempfile.TemporaryDirectory() as folder:
            tool, page = os.path.join(folder, "stand-in"), os.path.join(folder, "stand-in.1")
            with open(tool, "w", encoding="utf-8") as script:
                script.write(STAND_IN)
            os.chmod(tool, 0o755)
            subprocess.run([sys.executable, os.path.join(DOC_DIR, "manpage.py"), tool, page],
                           check=True)
            text, warnings = render(page)
        self.assertEqual(warnings, "")
        self.assertIn("stand-in - tests roff", text)
        section = verb_sections(text)["odd"]
        for expected in (".starts with a dot", "FILE (text, required) 'quoted' back\\slash",
                         '--pattern TEXT:{a,b,c,d,e,f,g} C:\\temp and "-1"'):
            self.assertIn(expected, section)

    def test_exit_codes_are_the_tool_s(self):
        status = self.text.split("\nEXIT STATUS\n", 1)[1]
        listed = re.findall(r"^\s+(\d+)\s+\S", status, re.M)
        with tempfile.TemporaryDirectory() as folder:
            codes = [run("--version").returncode,
                     run("info", f"{folder}/missing.kvlog").returncode,
                     run("no-such-verb").returncode]
        self.assertEqual(codes, [0, 1, 2])
        self.assertEqual(listed, ["0", "1", "2"])


if __name__ == "__main__":
    unittest.main()
