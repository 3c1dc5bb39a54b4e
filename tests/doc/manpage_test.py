"""Tests of the manual page of korvane-log: manpage_test.py TOOL PAGE DOC_DIR [unittest options].

The page, rendered by groff as `man` shows it, is compared with the tool's help, read here apart
from the generator: each verb, action, argument and option of every --help is in its verb's
section with its description. A stand-in tool's help holds what roff would misread."""

import os
import re
import subprocess
import sys
import tempfile
import unittest

TOOL, PAGE, DOC_DIR = sys.argv.pop(1), sys.argv.pop(1), sys.argv.pop(1)
STAND_IN = r'''#!/bin/sh
entry() { printf '  %-28s%s\n' "$1" "$2"; }
case "$*" in
--version) echo 9 ;;
--help) printf 'Odd texts.\nUsage: odd VERB\n\nOptions:\n'; entry -h,--help Help
        printf '\nVerbs:\n'; entry x X ;;
*) printf '.dot first\nUsage: odd x FILE\n\nOptions:\n'; entry -h,--help Help
   entry '--p TEXT' 'C:\t "-1"' ;;
esac
'''


def run(*args):
    return subprocess.run([TOOL, *args], capture_output=True, text=True, timeout=60)


def entries(help_text, heading):
    """[name, description] of each entry under `heading:`, continuation lines joined."""
    block = re.search(rf"^{heading}:\n((?:  .*\n)*)", help_text + "\n", re.M)
    found = []
    for line in block.group(1).splitlines() if block else []:
        if line.startswith("   "):
            found[-1][1] += " " + line.strip()
        else:
            name, _, text = line.strip().partition("  ")
            found.append([name.split()[0], text.strip()])
    return found


def sections(page):
    """The rendered text of each verb's section, whitespace squeezed, and groff's warnings."""
    result = subprocess.run(["groff", "-man", "-Tutf8", "-ww", "-rLL=200n", "-rHY=0", "-P-cbou",
                             page], capture_output=True, text=True, check=True)
    verbs = result.stdout.split("\nVERBS\n", 1)[1].split("\nEXIT STATUS\n", 1)[0]
    parts = re.split(r"^   (\S+)$", verbs, flags=re.M)
    return {v: " ".join(body.split()) for v, body in zip(parts[1::2], parts[2::2])}, result


class ManualPageTest(unittest.TestCase):
    def test_every_verb_action_argument_and_option_is_described(self):
        found, result = sections(PAGE)
        self.assertEqual(result.stderr, "")
        verbs = entries(run("--help").stdout, "(?:Subcommands|Verbs)")
        self.assertEqual(list(found), [verb for verb, _ in verbs])
        for verb, description in verbs:
            helps = [run(verb, "--help").stdout]
            required = re.findall(r"^  (\S+) \S+ REQUIRED", helps[0].split("Options:")[0], re.M)
            for action, _ in entries(helps[0], "(?:Subcommands|Verbs)"):
                helps.append(run(verb, *required, action, "--help").stdout)
                self.assertIn(f" {action} [OPTIONS]", found[verb])
            self.assertIn(description, found[verb])
            for help_text in helps:
                listed = entries(help_text, "Positionals") + entries(help_text, "Options")
                for name, text in listed:
                    if name != "-h,--help":
                        self.assertIn(name.replace(",", ", "), found[verb], verb)
                        self.assertIn(" ".join(text.split()), found[verb], verb)
        exit_status = result.stdout.split("\nEXIT STATUS\n", 1)[1]
        with tempfile.TemporaryDirectory() as folder:
            codes = [run(*args).returncode for args in
                     (["--version"], ["info", f"{folder}/none"], ["no-such-verb"])]
        self.assertEqual(re.findall(r"^\s+(\d+)\s", exit_status, re.M), list(map(str, codes)))

    def test_texts_roff_would_misread_come_through(self):
        with tempfile.TemporaryDirectory() as folder:
            tool, page = os.path.join(folder, "odd"), os.path.join(folder, "odd.1")
            with open(tool, "w", encoding="utf-8") as script:
                script.write(STAND_IN)
            os.chmod(tool, 0o755)
            subprocess.run([sys.executable, f"{DOC_DIR}/manpage.py", tool, page], check=True)
            found, result = sections(page)
        self.assertEqual(result.stderr, "")
        self.assertEqual(found["x"], 'odd x FILE .dot first --p TEXT C:\\t "-1"')


if __name__ == "__main__":
    unittest.main()
