#!/usr/bin/env python3
"""The check of the includes finds what it is there for: each test spoils one thing in a copy of the sources."""
import os
import pathlib
import shutil
import sys
import tempfile
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(ROOT, "scripts"))
sys.dont_write_bytecode = True
import layers  # noqa: E402


class IncludeLayers(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="include layers ")
        cls.addClassCleanup(folder.cleanup)
        cls.root = folder.name
        for path in [*layers.sources(ROOT), layers.TABLE, layers.PICTURE]:
            target = cls.at(path)
            target.parent.mkdir(parents=True, exist_ok=True)
            target.write_bytes((pathlib.Path(ROOT) / path).read_bytes())

    @classmethod
    def at(cls, path):
        return pathlib.Path(cls.root) / path

    def spoil(self, path, change):
        """Rewrites a file of the copy until the end of the test."""
        file = self.at(path)
        kept = file.read_text("utf-8")
        self.addCleanup(file.write_text, kept, "utf-8")
        file.write_text(change(kept), "utf-8")

    def first_line(self, path, line):
        self.spoil(path, lambda text: line + "\n" + text)

    def a_source(self, folder):
        return next(p for p in layers.sources(self.root) if os.path.dirname(p) == folder)

    def header(self, folder):
        return next(p for p in layers.sources(self.root) if os.path.dirname(p) == folder and p.endswith(".h"))

    def assert_finds(self, text):
        wrong = layers.check(self.root)
        self.assertEqual(len(wrong), 1, wrong)
        self.assertIn(text, wrong[0])

    def test_the_tree_as_it_is_has_nothing_to_find(self):
        self.assertEqual(layers.check(self.root), [])

    def test_an_include_against_an_arrow(self):
        for room, other in (("src/util", "src/log"), ("src/driver", "src/api"), ("src/channel", "sim/card"),
                            ("sim/card", "src/util"), ("sim/scenario", "sim/shm"), ("sim/host", "sim/hw"),
                            ("capture", "tools/tap"), ("tools/vexo", "tests/support"), ("interface", "src/log")):
            with self.subTest(room=room, other=other):
                path = self.a_source(room)
                self.first_line(path, f'#include "{self.header(other)}"')
                self.assert_finds(f"{path}:1: {room.removesuffix('/vexo')} may not include from")
                self.doCleanups()

    def test_the_simulated_cards_public_headers_are_not_for_the_library(self):
        header = self.header("sim/include/enyx-sim").removeprefix("sim/include/")
        self.first_line(self.a_source("src/card"), f"#include <{header}>")
        self.assert_finds("src/card may not include from sim/include")

    def test_an_include_that_is_not_written_from_the_root(self):
        self.first_line(self.a_source("src/log"), '#include "log.h"')
        self.assert_finds("not written from the root")

    def test_an_include_that_climbs(self):
        self.first_line(self.a_source("src/log"), '#include "../util/TimeUtil.h"')
        self.assert_finds("not written from the root")

    def test_an_own_header_between_angle_brackets(self):
        self.first_line(self.a_source("src/log"), f"#include <{self.header('src/log')}>")
        self.assert_finds("stands between quotes")

    def test_a_public_header_that_is_not_written_as_it_is_installed(self):
        self.first_line(self.a_source("src/util"), '#include "include/VexoZceUtil.h"')
        self.assert_finds("as it is installed")

    def test_a_source_in_a_room_that_the_table_does_not_know(self):
        source = self.at("src/shed/Tool.cpp")
        source.parent.mkdir()
        self.addCleanup(shutil.rmtree, source.parent)
        source.write_text("int tool();\n", "utf-8")
        self.assert_finds("lies in no room")

    def test_an_exception_that_no_include_needs(self):
        self.spoil(layers.TABLE, lambda text: text + "except: src/log/log.h -> src/api/ApiImpl.h\n")
        self.assert_finds("no longer needed")

    def test_a_picture_that_does_not_show_the_table(self):
        self.spoil(layers.TABLE, lambda text: text.replace("src/dayfile:", "src/dayfile: interface"))
        self.assert_finds(layers.PICTURE)


if __name__ == "__main__":
    unittest.main()
