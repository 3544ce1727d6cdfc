#!/usr/bin/env python3
"""Runs the ten commands of docs/field-debugging.md as they stand there, one after another in one folder.

usage: field_debugging_test.py SOURCE_FOLDER BUILD_FOLDER
"""

import json
import pathlib
import subprocess
import sys
import tempfile
import unittest

SOURCE, BUILD = pathlib.Path(), pathlib.Path()


class TenCommands(unittest.TestCase):
    def test_in_their_order(self):
        page = (SOURCE / "docs" / "field-debugging.md").read_text().split("\n## ")[1]
        commands = [line.strip() for line in page.splitlines() if line.startswith("        ")]
        self.assertEqual(len(commands), 10)
        with tempfile.TemporaryDirectory() as folder:
            folder = pathlib.Path(folder)
            (folder / "build").mkdir()
            (folder / "build" / "host").symlink_to(BUILD)
            shown = []
            for command in commands:
                result = subprocess.run(command, shell=True, cwd=folder, capture_output=True, text=True, timeout=300)
                self.assertEqual((result.returncode, result.stderr), (0, ""), command + "\n" + result.stdout)
                shown.append(result.stdout)
            # What they are to show, too.
            self.assertRegex(shown[3], r"\ntotal +510 +510 +0 +0 +0 ")
            self.assertEqual(shown[4], "0 errors, 0 warnings in 510 contexts\n")
            self.assertRegex(shown[5], r"\ntotal +60 +60 +0 +0 +0 ")
            self.assertEqual(len(json.loads((folder / "softmax.json").read_text())["records"]), 60)
            self.assertIn("cpu_softmax", shown[7])
            self.assertIn("a memory copy on this machine", shown[9])
            self.assertEqual(len(json.loads((folder / "trace.json").read_text())["traceEvents"]), 510 * 20)


if __name__ == "__main__":
    SOURCE, BUILD = map(pathlib.Path, sys.argv[1:])
    unittest.main(argv=sys.argv[:1])
