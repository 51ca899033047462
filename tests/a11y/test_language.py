"""Plinkora in the desktop's language: started under a German locale, its window reads in German
to an AT-SPI client and its announcements are spoken in German, with a German voice, while its
lines on standard output stay in English."""

import unittest

from a11y_services import wait_until
from test_heard import HeardTestCase


class GermanDesktopTest(HeardTestCase):
    def start(self, language="de"):
        d = self.desktop
        for name in ("LC_ALL", "LC_MESSAGES"):
            d.env.pop(name, None)
        d.env.update({"LANG": "de_DE.UTF-8", "LANGUAGE": language})
        d.start_accessibility_bus()
        d.make_speech_service(speaking_time=0.5)
        d.start_plinkora()
        return d

    @staticmethod
    def names(node, role):
        found = [node["name"]] if node["role"] == role else []
        for child in node["children"]:
            found += GermanDesktopTest.names(child, role)
        return found

    def test_the_window_reads_in_german(self):
        d = self.start()
        frame = d.probe().ask("tree")[0]
        self.assertEqual(frame["name"], "Plinkora")
        menu_items = self.names(frame, "menu item")
        for text in ["Über Plinkora", "Einstellungen...", "Plinkora beenden"]:
            self.assertIn(text, menu_items)
        labels = self.names(frame, "label")
        for text in ["\u2713 MIDI-Gerät aktiv", "Oktave: 4", "Anschlag: 100", "Tonhöhe: 0", "Mod: 0"]:
            self.assertIn(text, labels)
        instructions = [t for t in labels if t.startswith("TASTATURBELEGUNG:")]
        self.assertEqual(len(instructions), 1, labels)
        self.assertTrue(instructions[0].endswith("Strg+Q beendet, Strg+, öffnet die Einstellungen."), instructions[0])
        self.assertNotIn("Octave: 4", labels)

    def test_announcements_are_spoken_in_german_and_printed_in_english(self):
        d = self.start()
        # The line on standard output is the English one; what is said is German.
        self.press_and_wait("Tab", "Program: 0, 2 of 8")
        self.wait_until_said("Programm: 0, 2 von 8")
        self.press_and_wait("Escape", "All notes off")
        self.wait_until_said("Alle Noten aus")
        texts = [text for text, _ in self.said()]
        self.assertNotIn("Program: 0, 2 of 8", texts)
        self.assertNotIn("All notes off", texts)
        self.assertIn("SET SELF LANGUAGE DE", [c.upper() for c in self.plinkora_commands()])
        # The status bar shows the German text.
        wait_until(lambda: "Alle Noten aus" in self.names(d.probe().ask("tree")[0], "notification"), timeout=10,
                   what="the notification to carry the German announcement")

    def test_english_preferred_before_german_stays_english(self):
        d = self.start(language="en:de")
        labels = self.names(d.probe().ask("tree")[0], "label")
        self.assertIn("Octave: 4", labels)
        self.press_and_wait("Tab", "Program: 0, 2 of 8")
        self.wait_until_said("Program: 0, 2 of 8")
        self.assertIn("SET SELF LANGUAGE EN", [c.upper() for c in self.plinkora_commands()])


if __name__ == "__main__":
    unittest.main()
