#!/usr/bin/env python3
"""The checks of pages.py and the pictures, against pages with one mistake each.

    pages_test.py ROOT
"""
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
import pages  # noqa: E402

ROOT = os.path.abspath(sys.argv.pop())
PAGE = "docs/architecture.md"


class Pages(unittest.TestCase):
    def setUp(self):
        self.tree = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.tree)
        for entry in os.listdir(ROOT):
            if entry not in ("docs", "examples", "CONTRIBUTING.md"):
                os.symlink(os.path.join(ROOT, entry), os.path.join(self.tree, entry))
        for copied in ("docs", "examples"):
            shutil.copytree(os.path.join(ROOT, copied), os.path.join(self.tree, copied))
        shutil.copy(os.path.join(ROOT, "CONTRIBUTING.md"), self.tree)

    def spoil(self, page, old, new):
        at = os.path.join(self.tree, page)
        with open(at, encoding="utf-8") as file:
            text = file.read()
        self.assertIn(old, text)
        with open(at, "w", encoding="utf-8") as file:
            file.write(text.replace(old, new, 1))

    def mistakes(self, check):
        return list(pages.CHECKS[check](self.tree))

    def test_a_function_that_its_file_does_not_have_is_found(self):
        self.spoil(PAGE, "`CZceConfigFile::CfgNetReg`", "`CZceConfigFile::CfgNetRegister`")
        self.assertEqual(self.mistakes("walks"),
                         ["walk 'ini key': src/config/NetOutput.cpp has no CZceConfigFile::CfgNetRegister"])

    def test_a_function_of_another_class_is_found(self):
        self.spoil(PAGE, "`CBrixBinFile::WriteBinFileInst`", "`CBrixBinFiles::WriteBinFileInst`")
        self.assertEqual(len(self.mistakes("walks")), 1)

    def test_a_call_is_not_taken_for_the_function(self):
        self.assertFalse(pages.has_function("void f() { object.run(); }", "run"))
        self.assertTrue(pages.has_function("int run(int n);", "run"))

    def test_a_file_that_is_gone_is_found(self):
        self.spoil(PAGE, "`src/config/NetOutput.cpp` →", "`src/config/Network.cpp` →")
        self.assertEqual(self.mistakes("walks"), ["walk 'ini key': there is no file src/config/Network.cpp"])

    def test_a_heading_that_counts_wrongly_is_found(self):
        self.spoil(PAGE, "to a register: 5 files", "to a register: 4 files")
        self.assertEqual(self.mistakes("walks"), ["walk 'ini key': its heading says 4 files, its steps visit 5"])

    def test_a_walk_that_visits_too_many_files_is_found(self):
        self.spoil(PAGE, "5. `src/driver/RegisterDriver.cpp`",
                   "5. `src/driver/IDrv.h` → `IDrv::WriteInt32`: one more file.\n6. `src/driver/RegisterDriver.cpp`")
        self.spoil(PAGE, "to a register: 5 files", "to a register: 6 files")
        self.assertEqual(self.mistakes("walks"), ["walk 'ini key': 6 files, more than 5"])

    def test_a_step_without_its_form_is_found(self):
        self.spoil(PAGE, "2. `src/config/NetOutput.cpp` →", "2. `src/config/NetOutput.cpp`,")
        self.assertEqual(len(self.mistakes("walks")), 2)  # and the file is not counted

    def test_a_walk_that_is_missing_is_found(self):
        self.spoil(PAGE, "### Walk: tap,", "### A walk: tap,")
        self.assertEqual(self.mistakes("walks"), ["docs/architecture.md: there is no walk 'tap'"])

    def test_a_corrected_typo_is_found(self):
        self.spoil("CONTRIBUTING.md", "`litte Endian`", "`little Endian`")
        self.assertEqual(self.mistakes("texts"),
                         ["CONTRIBUTING.md: src/config/VersionCheck.cpp has no little Endian"])

    def test_a_quirk_whose_code_is_gone_is_found(self):
        self.spoil("docs/quirks.md", "`src/util/TimeUtil.cpp` `kSessions`", "`src/util/TimeUtil.cpp` `kOpenings`")
        self.assertEqual(self.mistakes("texts"), ["docs/quirks.md: src/util/TimeUtil.cpp has no kOpenings"])

    def test_a_path_that_is_gone_is_found(self):
        before = self.mistakes("paths")
        self.spoil("CONTRIBUTING.md", "`examples/zce.ini`", "`examples/zce.conf`")
        self.assertEqual([m for m in self.mistakes("paths") if m not in before],
                         ["CONTRIBUTING.md: there is no examples/zce.conf"])

    def test_a_guard_that_is_gone_is_found(self):
        self.spoil("CONTRIBUTING.md", "(`CallList.Has", "(`CallLists.Has")
        self.assertEqual(self.mistakes("tests"),
                         ["CONTRIBUTING.md: there is no test CallLists.HasEveryCallOfTheHeaderInItsOrder"])

    def test_a_key_that_the_example_lacks_or_invents_is_found(self):
        self.spoil("examples/zce.ini", ";L5_DSTIP ", ";L5_DSTIQ ")
        self.assertEqual(self.mistakes("keys"), ["examples/zce.ini does not tell of config:l5_dstip",
                                                 "examples/zce.ini tells of config:l5_dstiq, which nothing reads"])

    def test_a_stale_picture_is_found(self):
        self.spoil("docs/figures/src/owners.txt", "packets: ", "quotes: ")
        self.spoil(PAGE, "3. `src/config/ConfigFile.h` → `CZceConfigFile::getString`",
                   "3. `src/config/ConfigFile.h` → `CZceConfigFile::getInt`")
        draw = os.path.join(ROOT, "docs/figures/src/draw.py")
        check = subprocess.run([sys.executable, draw, "check", self.tree], stdout=subprocess.PIPE, text=True)
        self.assertEqual(check.returncode, 1)
        self.assertIn("walk-ini-key.svg", check.stdout)
        self.assertIn("owners.svg", check.stdout)
        self.assertNotIn("walk-tap.svg", check.stdout)


if __name__ == "__main__":
    unittest.main()
