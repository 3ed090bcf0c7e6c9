#!/usr/bin/env python3
"""messages.py against trees with one mistake each.

    messages_test.py ROOT
"""
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
ROOT = pathlib.Path(sys.argv.pop()).resolve()
CHECK = pathlib.Path(__file__).resolve().parent / "messages.py"


class Messages(unittest.TestCase):
    def setUp(self):
        self.tree = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.tree)
        shutil.copytree(ROOT / "src", self.tree / "src")
        os.mkdir(self.tree / "docs")
        shutil.copy(ROOT / "docs/messages.md", self.tree / "docs")

    def spoil(self, name, old, new):
        path = self.tree / name
        text = path.read_text(encoding="utf-8")
        self.assertIn(old, text)
        path.write_text(text.replace(old, new, 1), encoding="utf-8")

    def complaint(self):
        done = subprocess.run([sys.executable, CHECK, self.tree], capture_output=True, text=True, check=False)
        return done.stderr.strip() if done.returncode != 0 else "none"

    def test_the_tree_as_it_is_has_no_mistake(self):
        self.assertEqual(self.complaint(), "none")

    def test_a_new_message_of_the_sources_is_missed_on_the_page(self):
        self.spoil("src/config/ConfigFile.cpp", 'LOG_ERROR("Null config name");',
                   'LOG_ERROR("Null config name");\n        LOG_WARN("A new "\n            "message %d", 1);')
        self.assertEqual(self.complaint(),
                         "not in docs/messages.md: ('src/config', 'DataType', 'WARN', 'A new message %d')")

    def test_a_row_whose_message_is_gone_is_found(self):
        self.spoil("src/config/ConfigFile.cpp", 'LOG_ERROR("Null config name");', "")
        self.assertEqual(self.complaint(), "not in the sources: ('src/config', 'DataType', 'ERROR', 'Null config name')")

    def test_another_level_is_found(self):
        self.spoil("src/api/SignalProcess.cpp", "ELOG_LVL_WARN", "ELOG_LVL_INFO")
        self.assertEqual(self.complaint().count("\n"), 1)

    def test_a_printed_text_is_compared_too(self):
        self.spoil("src/util/NetAddress.cpp", "only digits and dots", "only dots")
        self.assertEqual(self.complaint().count("\n"), 1)

    def test_a_text_that_is_no_literal_is_refused(self):
        self.spoil("src/config/ConfigFile.cpp", 'LOG_ERROR("Null config name");', "LOG_ERROR(kText);")
        self.assertIn("its text is not a string literal", self.complaint())

    def test_an_empty_cell_is_found(self):
        self.spoil("docs/messages.md", "| The first line of every start. |", "|  |")
        self.assertIn("does not have 4 filled cells", self.complaint())


if __name__ == "__main__":
    unittest.main()
