#!/usr/bin/env python3
"""The comparison of languages.py, against pages with one difference each.

    languages_test.py ROOT
"""
import pathlib
import sys
import unittest

sys.dont_write_bytecode = True
import languages  # noqa: E402

ROOT = pathlib.Path(sys.argv.pop()).resolve()


class Languages(unittest.TestCase):
    def found(self, page, old, new):
        """What is said when one text of a page's first language is another."""
        pair = next(pair for pair in languages.PAIRS if page in pair)
        texts = [(ROOT / name).read_text(encoding="utf-8") for name in pair]
        at = pair.index(page)
        self.assertIn(old, texts[at])
        texts[at] = texts[at].replace(old, new, 1)
        return list(languages.differences(*pair, texts))

    def test_the_pages_of_the_tree_are_the_same(self):
        self.assertEqual(list(languages.mistakes(ROOT)), [])

    def test_a_command_that_one_language_lacks_is_found(self):
        self.assertEqual(self.found("docs/zh/guide.md", "    vexo-simcard --status\n", ""),
                         ["docs/zh/guide.md lacks a command of docs/guide.md: vexo-simcard --status"])

    def test_another_order_of_commands_is_found(self):
        self.assertEqual(len(self.found("docs/guide.md", "    vexo log --level warn\n    vexo log --explain",
                                        "    vexo log --explain")), 1)

    def test_a_command_in_the_text_that_one_language_lacks_is_found(self):
        self.assertEqual(self.found("docs/troubleshooting.md", "`vexo index --compare OTHER`", "A comparison"),
                         ["docs/troubleshooting.md lacks a piece of code of docs/zh/troubleshooting.md: "
                          "vexo index --compare OTHER"])

    def test_another_program_is_found_but_not_another_comment(self):
        self.assertEqual(self.found("README.zh-CN.md", "// 一档，单腿", "// 单腿"), [])
        self.assertEqual(len(self.found("README.zh-CN.md", "m_count % 5000", "m_count % 500")), 2)

    def test_a_section_and_a_row_that_one_language_lacks_are_found(self):
        self.assertEqual(len(self.found("docs/guide.md", "## Next\n", "")), 1)
        self.assertEqual(len(self.found("docs/zh/guide.md", "| 检查 |", "检查 |")), 1)

    def test_a_page_that_only_one_language_leads_to_is_found(self):
        self.assertEqual(self.found("README.zh-CN.md", "(docs/faults.md)", "(docs/zh/guide.md)"),
                         ["README.zh-CN.md lacks a link of README.md: faults.md"])


if __name__ == "__main__":
    unittest.main()
