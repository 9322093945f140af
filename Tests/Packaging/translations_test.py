#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""`./dev translations --check` finds each way in which a catalogue can be wrong:  translations_test.py SOURCES"""
import pathlib
import sys
import tempfile
import unittest

ROOT = pathlib.Path(sys.argv[1]).resolve()
sys.path.insert(0, str(ROOT / "tools"))
import translations  # noqa: E402

GERMAN = ROOT / "Translations/de.po"


class Check(unittest.TestCase):
    def problems(self, *change):
        """What is said of the German when one text in it is replaced."""
        text = GERMAN.read_text(encoding="utf-8")
        if change:
            self.assertIn(change[0], text)
        with tempfile.TemporaryDirectory() as folder:
            catalogue = pathlib.Path(folder) / "de.po"
            catalogue.write_text(text.replace(*change, 1) if change else text, encoding="utf-8")
            wanted = translations.entries(translations.TEMPLATE.read_text(encoding="utf-8"))
            return "\n".join(translations.problems_of(catalogue, wanted))

    def test_the_german_is_complete(self):
        self.assertEqual(self.problems(), "")

    def test_each_defect_is_found(self):
        entry = 'msgid "%1 cannot be run"\nmsgstr "%1 kann nicht ausgeführt werden"\n'
        plural = 'msgstr[1] "%1 Sitzungen aktiv"'
        for expected, old, new in [
                ("not translated: '%1 cannot be run'", entry, 'msgid "%1 cannot be run"\nmsgstr ""\n'),
                ("not translated: '%1 cannot be run'", entry, ""),
                ("fuzzy: '%1 cannot be run'", entry, "#, fuzzy\n" + entry),
                ("other placeholders", entry, entry.replace('"%1 kann', '"Das kann')),
                ("other placeholders", entry, entry.replace('"%1 kann', '"%1 %2 kann')),
                ("other placeholders", plural, plural.replace("%1", "Einige")),
                ("blanks at the ends", entry, entry.replace('werden"', 'werden "')),
                ("end-of-line within string", entry, entry.replace('werden"', "werden")),
                ("nplurals", "nplurals=2", "nplurals=3")]:
            with self.subTest(new=new):
                self.assertIn(expected, self.problems(old, new))

    def test_one_may_be_a_word(self):
        self.assertEqual(self.problems('msgstr[0] "%1 Sitzung aktiv"', 'msgstr[0] "Eine Sitzung aktiv"'), "")

    def test_a_text_is_collected_from_each_kind_of_call(self):
        entries = {(entry["context"], entry["id"], entry["plural"])
                   for entry in translations.entries(translations.TEMPLATE.read_text(encoding="utf-8"))}
        for expected in [("", "No agents", ""),  # say
                         ("", "By model", ""),  # toSay
                         ("", "%1 turn", "%1 turns"),  # sayCount
                         ("weekday", "Mon", ""),  # sayAs
                         ("", "Examine Again", ""),  # tr
                         ("sentence", "Longest hold reached", ""),  # sentence
                         ("sentence", "Active (%1 working agent) — %2", "Active (%1 working agents) — %2")]:
            self.assertIn(expected, entries)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
