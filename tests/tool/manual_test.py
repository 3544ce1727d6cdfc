#!/usr/bin/env python3
"""The manuals and the completion for shells beside what the tool says of itself.

usage: manual_test.py KELRT CLASS... where CLASS is one of those below. Exits with 77 where its program is missing.
"""

import pathlib
import re
import shutil
import subprocess
import sys
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
MANUALS = sorted((SOURCE / "docs/man").iterdir())
KELRT = ""
ZSH = r"""
_arguments() {
    if [[ $1 == -C ]]; then
        shift; state=command; words=($wanted)
        [[ -n $wanted ]] || print -rl -- "$@"
    else
        print -rl -- "$@"
    fi
}
wanted=(${@:3})
words=($2)
completion() { source $completion_file }
completion_file=$1
completion
"""


def output(*command):
    result = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if result.returncode:
        raise RuntimeError(result.stdout)
    return result.stdout


def commands():
    return re.findall(r"^  (\w+) ", output(KELRT, "--help").split("Subcommands:")[1], re.MULTILINE)


def options(*command):
    return set(re.findall(r"^ +(?:-\w,)?(--[a-z-]+)\b", output(KELRT, *command, "--help"), re.MULTILINE))


def operators():
    return re.findall(r"^ *\d+  (\w+) ", output(KELRT, "ops"), re.MULTILINE)


def arguments(operator):
    return re.findall(r"^ *\d+  (\w+) ", output(KELRT, "ops", operator), re.MULTILINE)


def manual(name):
    return (SOURCE / "docs/man" / name).read_text()


class Manuals(unittest.TestCase):
    def test_commands_and_options(self):
        text = manual("kelrt.1")
        synopsis = text.split(".Sh SYNOPSIS\n")[1].split(".Sh ")[0]
        described = {"--" + name for name in re.findall(r"^\.It Fl Fl ([a-z-]+)", text, re.MULTILINE)}
        shown = dict(re.findall(r"^\.Nm\n\.Cm (\w+)\n((?:.*\n)*?)(?=\.Nm\n)", synopsis, re.MULTILINE))
        self.assertEqual(list(shown), commands())
        for command, lines in shown.items():
            self.assertEqual({"--" + name for name in re.findall(r"Fl Fl ([a-z-]+)", lines)},
                             options(command) - {"--help"}, command)
        self.assertEqual(described, set().union(options(), *(options(command) for command in commands())))

    def test_statuses_and_variables(self):
        statuses = r"(NNA_STATUS_\w+)\s(?:=\s+|Pq )(\d+)"
        self.assertEqual(sorted(re.findall(statuses, manual("libkelRt.3"))),
                         sorted(re.findall(statuses, (SOURCE / "include/kelRt.h").read_text())))
        limits = (SOURCE / "tools/record/record_limits.cpp").read_text()
        self.assertEqual(set(re.findall(r"^\.It Ev (\w+)", manual("libkelRt_record.7"), re.MULTILINE)),
                         set(re.findall(r'"(KELRT_\w+)"', limits)))


class Example(unittest.TestCase):
    program = "cc"

    def test_compiles(self):
        text = re.search(r"^\.Bd -literal.*?\n(.*?)^\.Ed", manual("libkelRt.3"), re.MULTILINE | re.DOTALL).group(1)
        headers = ["-I" + str(SOURCE / folder) for folder in ("include", "platform/sim")]
        subprocess.run(["cc", "-std=c99", "-Wall", "-Wextra", "-Werror", "-fsyntax-only", *headers, "-xc", "-"],
                       input=text, text=True, check=True)


class Lint(unittest.TestCase):
    program = "mandoc"

    def test_lint(self):
        for path in MANUALS:
            self.assertEqual(output("mandoc", "-Tlint", "-Wwarning", path), "")


class Bash(unittest.TestCase):
    program = "bash"

    def completed(self, *words):
        script = ('source "$1"; COMP_WORDS=("${@:2}"); COMP_CWORD=$(($# - 2)); _kelrt "$2"; '
                  'printf "%s\\n" "${COMPREPLY[@]}"')
        return output("bash", "-c", script, "bash", SOURCE / "tools/kelrt/completion/kelrt.bash", KELRT, *words).split()

    def test_completion(self):
        self.assertEqual(self.completed(""), commands())
        self.assertEqual(set(self.completed("--")), options())
        for command in commands():
            self.assertEqual(set(self.completed(command, "--")), options(command))
        for before in (["ops"], ["op"], ["op", "--log", "off"], ["op", "--quiet"], ["replay", "x", "--only"]):
            self.assertEqual(self.completed(*before, ""), operators(), before)
        for operator in operators():
            self.assertEqual(self.completed("op", operator, "--repeat", "2", ""), [a + "=" for a in arguments(operator)])
        self.assertEqual(self.completed("run", "--log", "d"), ["debug"])
        self.assertEqual(self.completed("run", str(SOURCE / "README")), [str(SOURCE / "README.md")])
        self.assertEqual(self.completed("op", "cpu_softmax", "in", "=", str(SOURCE / "README")),
                         [str(SOURCE / "README.md")])
        self.assertEqual(self.completed("run", "--out", str(SOURCE / "example")), [str(SOURCE / "examples")])
        for nothing in (["ops", "cpu_softmax", ""], ["run", "--repeat", ""]):
            self.assertEqual(self.completed(*nothing), [], nothing)


class Zsh(unittest.TestCase):
    program = "zsh"

    def completed(self, *words):
        return output("zsh", "-fc", ZSH, "zsh", SOURCE / "tools/kelrt/completion/_kelrt", KELRT, *words)

    def options(self, text):
        return set(re.findall(r"(?:^|\))(--[a-z-]+)\[", text, re.MULTILINE))

    def test_completion(self):
        self.assertEqual(self.options(self.completed()), options())
        self.assertEqual(re.findall(r'(\w+)\\:"', self.completed()), commands())
        for command in commands():
            self.assertEqual(self.options(self.completed(command)), options(command), command)
        listed = "(%s)" % " ".join(operators())
        for command in ("ops", "op", "replay"):
            self.assertIn(":operator:" + listed, self.completed(command))


if __name__ == "__main__":
    KELRT = sys.argv.pop(1)
    program = getattr(globals()[sys.argv[1]], "program", None)
    if program and not shutil.which(program):
        print("skipped: %s is not installed" % program)
        sys.exit(77)
    unittest.main()
