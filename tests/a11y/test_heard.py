"""Plinkora heard without the screen: the real program, real key presses through an X server,
and the real services a blind musician's desktop has (the accessibility bus, Orca,
speech-dispatcher, a sound server), each started privately here and stopped by process id.

What was said is read from a speech-dispatcher whose only output module records each text and
whether it was cut off, from that service's own log (which shows every command with the
connection it came from), and from Orca's debug log.
"""

import os
import re
import subprocess
import sys
import time
import unittest

from a11y_services import A11yDesktop, SinkRecorder, sound_segments, sox_rough_frequency, wait_until

# Tab selects the program; Page Up raises it by one, Home by ten.
PROPERTY_KEYS = [("Tab", "Program: 0, 2 of 8"), ("Prior", "1"), ("Home", "11")]
UNAVAILABLE = r"^Speech unavailable: .+; announcements are shown and posted to screen readers only$"


def spoken_form(text):
    """A text as speech compares it: Orca ends what it presents with a full stop."""
    text = text.strip()
    return text[:-1] if text.endswith(".") else text


class HeardTestCase(unittest.TestCase):
    with_jack = False

    def setUp(self):
        self.desktop = A11yDesktop(with_jack=self.with_jack)
        self.desktop.__enter__()
        self.addCleanup(self.desktop.close)

    def said(self):
        """What the recording module was asked to say: [(text, finished)], texts in spoken form."""
        return [(spoken_form(text), finished) for text, finished in self.desktop.speech.utterances()]

    def wait_until_said(self, text, finished=None, timeout=20):
        def found():
            return any(t == text and (finished is None or f == finished) for t, f in self.said())

        wait_until(found, timeout=timeout, what=f"speech of {text!r} (so far: {self.said()})")

    def press_and_wait(self, key, text, timeout=20):
        """Presses `key` and waits for Plinkora's line announcing `text`."""
        start = len(self.desktop.plinkora.snapshot())
        self.desktop.key(key)
        self.desktop.wait_for_announcement(text, start=start, timeout=timeout)

    def plinkora_commands(self):
        return self.desktop.speech.commands_of("plinkora")


class OrcaTest(HeardTestCase):
    """Orca running: Orca speaks each announcement, once and as it is, and Plinkora's own voice
    stays silent. Orca and Plinkora share one speech-dispatcher, as on a desktop; the service's
    log tells their connections apart."""

    def check_orca_speaks_and_plinkora_is_silent(self, orca_first):
        d = self.desktop
        d.start_accessibility_bus()
        speech = d.make_speech_service(speaking_time=3.0)
        if orca_first:
            orca = d.start_orca(speech=speech)
            d.start_plinkora()
        else:
            # Orca started by hand after Plinkora: the desktop's screen-reader switch stays off.
            d.start_plinkora()
            orca = d.start_orca(speech=speech)
            d.activate(d.window)
        self.assertFalse(d.a11y_bus.screen_reader_enabled())
        # Orca presents the window when it becomes active (up to 10 s and more on a busy machine).
        # What it asks the speech service to say shows that, also when a key press has cut it off.
        wait_until(lambda: any(t.startswith("Plinkora") for t in speech.texts_of("orca")), timeout=60,
                   what=f"Orca to present the window (Orca said: {speech.texts_of('orca')})")

        steps = PROPERTY_KEYS + [("Prior", "12"), ("Prior", "13")]
        for key, text in steps:
            self.press_and_wait(key, text)
            # The next key comes while Orca is still saying this (3 s a text here).
            self.wait_until_said(text, timeout=30)
        self.wait_until_said("13", finished=True)
        announced = [text for _, text in steps]
        self.assertEqual(d.announcements(), announced)

        # Plinkora's own voice said nothing and cancelled nothing.
        plinkora = self.plinkora_commands()
        self.assertTrue(any(c.upper().startswith("SET SELF CLIENT_NAME") for c in plinkora),
                        "Plinkora's voice did not connect to the speech service")
        self.assertEqual(speech.events_of("plinkora"), [])
        # Everything the recording module said came from Orca's connection (some of Orca's
        # texts are cut off before they reach it).
        from_orca = [spoken_form(t) for t in speech.texts_of("orca")]
        for text, _ in self.said():
            self.assertIn(text, from_orca)
            from_orca.remove(text)

        # Orca said every announcement, as it is; the key press of the next change cut the one
        # before off (Orca cancels its speech on a key press it receives from the bridge).
        orca_said = [spoken_form(t) for t in speech.texts_of("orca")]
        for text in announced:
            self.assertEqual(orca_said.count(text), 1, f"Orca said {orca_said}")
        said = self.said()
        by_text = {text: finished for text, finished in said}
        self.assertFalse(by_text["12"], f"'12' was not cut off by the next key press: {said}")
        self.assertTrue(by_text["13"], said)
        events = [(kind, spoken_form(text) if kind == "speak" else text) for kind, text in speech.events_of("orca")]
        between = events[events.index(("speak", "12")) + 1:events.index(("speak", "13"))]
        self.assertIn(("cancel", "CANCEL SELF"), between, f"Orca did not cut its speech off: {events}")
        self.assertNotIn("CANCEL ALL", [c.upper() for _, c in speech.commands()])

        # Orca's own record, complete once it has ended: after the first key press it said the
        # key names (its key echo) and the announcements, exactly, and nothing else.
        orca.stop()
        print(f"\n  Orca ended {'by itself' if orca.ended_by_itself else 'killed'} "
              f"{orca.stop_seconds:.1f} s after SIGTERM", file=sys.stderr)
        log = orca.log()
        self.assertGreaterEqual(log.count("PROCESS ATSPI_KEY_PRESSED_EVENT: 'Page_Up'"), 3,
                                "the key presses did not reach Orca through the accessibility bridge")
        first_key = log.index("PROCESS ATSPI_KEY_PRESSED_EVENT: 'Tab'")
        after = [spoken_form(t) for t in orca.spoken(log[first_key:])]
        # Up to its good-bye (what follows is the key press that woke it up to end).
        self.assertIn("Screen reader off", after)
        after = after[:after.index("Screen reader off")]
        key_echo = {"tab", "page up", "home"}
        heard = [t for t in after if t.lower() not in key_echo]
        self.assertEqual(heard, announced, f"Orca said after the first key press: {after}")

    def test_orca_started_first_speaks_the_announcements_and_plinkora_stays_silent(self):
        self.check_orca_speaks_and_plinkora_is_silent(orca_first=True)

    def test_orca_started_after_plinkora_speaks_the_announcements_and_plinkora_stays_silent(self):
        self.check_orca_speaks_and_plinkora_is_silent(orca_first=False)


class OwnVoiceTest(HeardTestCase):
    """No screen reader: Plinkora speaks through speech-dispatcher itself, each announcement
    cutting its previous one off, and never anybody else's speech."""

    def start(self):
        d = self.desktop
        d.start_accessibility_bus()
        d.make_speech_service(speaking_time=3.0)
        d.start_plinkora()
        return d

    def test_each_announcement_is_spoken_and_cuts_the_previous_one_off(self):
        d = self.start()
        for key, text in PROPERTY_KEYS:
            self.press_and_wait(key, text)
            self.wait_until_said(text)
        self.wait_until_said("11", finished=True)
        self.assertEqual(self.said(), [("Program: 0, 2 of 8", False), ("1", False), ("11", True)])
        # Each text is preceded by a cancel of the connection's own speech, never of everybody's.
        events = d.speech.events_of("plinkora")
        self.assertEqual([e for e in events if e[0] == "speak"],
                         [("speak", "Program: 0, 2 of 8"), ("speak", "1"), ("speak", "11")])
        self.assertEqual({e for e in events if e[0] == "cancel"}, {("cancel", "CANCEL SELF")})
        self.assertEqual(events[events.index(("speak", "1")) - 1], ("cancel", "CANCEL SELF"))
        self.assertEqual(events[events.index(("speak", "11")) - 1], ("cancel", "CANCEL SELF"))
        priorities = {c.upper() for c in self.plinkora_commands() if c.upper().startswith("SET SELF PRIORITY")}
        self.assertEqual(priorities, {"SET SELF PRIORITY TEXT"})

    def test_another_programs_speech_is_not_cut_off(self):
        d = self.start()
        # Another program says something at priority "message" (as Orca does), on its own
        # connection; Plinkora's announcements made meanwhile wait for it and cut only each other.
        other = subprocess.Popen(["spd-say", "--wait", "--priority", "message", "Another program speaks"],
                                 env=d.env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(lambda: other.poll() is None and other.kill())
        self.wait_until_said("Another program speaks")
        for key, text in PROPERTY_KEYS:
            self.press_and_wait(key, text)
        self.assertEqual(other.wait(timeout=20), 0)
        self.wait_until_said("11", finished=True)
        said = self.said()
        self.assertEqual(said[0], ("Another program speaks", True), said)
        self.assertEqual(said[-1], ("11", True), said)
        self.assertNotIn("CANCEL ALL", [c.upper() for _, c in d.speech.commands()])
        cancels = {e for e in d.speech.events_of("plinkora") if e[0] == "cancel"}
        self.assertEqual(cancels, {("cancel", "CANCEL SELF")})
        self.assertEqual([e for e in d.speech.events_of("spd-say") if e[0] == "cancel"], [])


class ScreenReaderSwitchTest(HeardTestCase):
    """The desktop's screen-reader switch on, and no Orca: Plinkora leaves speaking to the screen
    reader and says nothing itself; it follows the switch while it runs."""

    def raise_program(self):
        """Page Up: the program goes up by one; returns the announced text."""
        self.program += 1
        self.press_and_wait("Prior", str(self.program))
        return str(self.program)

    def test_plinkora_is_silent_while_the_switch_is_on(self):
        d = self.desktop
        d.start_accessibility_bus()
        speech = d.make_speech_service(speaking_time=0.3)
        d.a11y_bus.set_screen_reader_enabled(True)
        d.start_plinkora()
        for key, text in PROPERTY_KEYS:
            self.press_and_wait(key, text)
        self.program = 11

        # The switch goes off: Plinkora speaks again. The service handles a connection's commands
        # in order, so once a later text has arrived, anything said before it would be in the log.
        d.a11y_bus.set_screen_reader_enabled(False)
        spoken_after_off = self.raise_until_spoken(already=0)
        self.assertEqual(speech.texts_of("plinkora"), [spoken_after_off],
                         "Plinkora spoke while the screen-reader switch was on")

        # On again: silent again. (The switch's change signal reaches Plinkora within
        # milliseconds; the half second is a wide margin, not a condition.)
        d.a11y_bus.set_screen_reader_enabled(True)
        time.sleep(0.5)
        for _ in range(3):
            self.raise_program()
        d.a11y_bus.set_screen_reader_enabled(False)
        spoken_last = self.raise_until_spoken(already=1)
        self.assertEqual(speech.texts_of("plinkora"), [spoken_after_off, spoken_last],
                         "Plinkora spoke while the screen-reader switch was on")

    def raise_until_spoken(self, already):
        """Raises the program until Plinkora speaks one more text than `already`; the switch's
        change reaches Plinkora a moment after it is made."""
        speech = self.desktop.speech
        for _ in range(8):
            self.raise_program()
            try:
                wait_until(lambda: len(speech.texts_of("plinkora")) > already, timeout=1.5, what="speech")
            except AssertionError:
                continue
            return speech.texts_of("plinkora")[already]
        self.fail(f"Plinkora did not speak after the switch went off: {self.desktop.announcements()}")


class SpeechServiceAbsentTest(HeardTestCase):
    """No speech service at first: one line says so, the keys still play and announce without
    waiting, and speech works once the service has started."""

    with_jack = True

    def test_speech_comes_back_when_the_service_starts(self):
        d = self.desktop
        d.start_accessibility_bus()
        speech = d.make_speech_service(speaking_time=0.3, start=False)
        d.start_plinkora()
        d.plinkora.wait_for_line(UNAVAILABLE, timeout=20)

        begun = time.monotonic()
        for key, text in PROPERTY_KEYS:
            self.press_and_wait(key, text, timeout=5)
        d.key("a")
        wait_until(lambda: len(d.midi()) >= 4, timeout=5,
                   what=f"four MIDI messages (so far: {d.midi()}; receiver: {d.receiver.stderr_lines[-5:]})")
        self.assertEqual(d.midi(), [[0xC0, 1], [0xC0, 11], [0x90, 48, 100], [0x80, 48, 0]],
                         f"receiver: {d.receiver.stderr_lines[-5:]}")
        self.assertLess(time.monotonic() - begun, 15)

        d.start_speech_service()
        # The voice tries again when there is something to say and its pause has passed.
        texts = [str(n) for n in range(12, 40)]
        spoken = None
        deadline = time.monotonic() + 30
        for text in texts:
            self.press_and_wait("Prior", text, timeout=5)
            try:
                wait_until(lambda: speech.texts_of("plinkora"), timeout=1.0, what="speech")
                spoken = speech.texts_of("plinkora")
                break
            except AssertionError:
                if time.monotonic() > deadline:
                    break
        self.assertIsNotNone(spoken, f"Plinkora did not speak after the service started: {d.plinkora.snapshot()}")
        print(f"\n  speech back with the {texts.index(spoken[0]) + 1}. announcement after the service started; "
              f"{[line for line in d.plinkora.snapshot() if re.match(UNAVAILABLE, line)]}", file=sys.stderr)
        self.assertEqual(len(spoken), 1)
        self.assertIn(spoken[0], texts)
        # And it goes on speaking each new announcement.
        following = str(int(spoken[0]) + 1)
        if following not in d.announcements():
            self.press_and_wait("Prior", following)
        wait_until(lambda: following in speech.texts_of("plinkora"), timeout=10, what=f"speech of {following}")
        unavailable = [line for line in d.plinkora.snapshot() if re.match(UNAVAILABLE, line)]
        self.assertEqual(len(unavailable), 1, unavailable)
        self.assertTrue(d.plinkora.running())


class AccessibleTreeTest(HeardTestCase):
    """What an AT-SPI client (a screen reader) finds in Plinkora's two windows, and the
    preferences filled in with the keyboard alone."""

    with_jack = True

    @staticmethod
    def find(node, role=None, name=None):
        """Every node below `node` (itself included) with that role and name."""
        found = []
        if (role is None or node["role"] == role) and (name is None or node["name"] == name):
            found.append(node)
        for child in node["children"]:
            found += AccessibleTreeTest.find(child, role, name)
        return found

    def one(self, node, role, name):
        found = self.find(node, role, name)
        self.assertEqual(len(found), 1, f"{role} {name!r}: {len(found)} found")
        return found[0]

    def test_main_window(self):
        d = self.desktop
        d.start_accessibility_bus()
        d.start_plinkora()
        probe = d.probe()
        windows = probe.ask("tree")
        self.assertEqual([(w["role"], w["name"]) for w in windows], [("frame", "Plinkora")])
        frame = windows[0]

        menu_bar = self.one(frame, "menu bar", None)
        menu = self.one(menu_bar, "menu item", "Plinkora")
        entries = [(n["role"], n["name"]) for popup in menu["children"] for n in popup["children"]]
        self.assertEqual(entries, [("menu item", "About Plinkora"), ("separator", ""), ("menu item", "Preferences..."),
                                   ("separator", ""), ("menu item", "Quit Plinkora")])
        items = {n["name"]: n for popup in menu["children"] for n in popup["children"]}
        self.assertNotIn("enabled", items["About Plinkora"]["states"])
        self.assertIn("enabled", items["Preferences..."]["states"])
        self.assertIn("enabled", items["Quit Plinkora"]["states"])

        labels = [n["name"] for n in self.find(frame, "label")]
        for text in ["Plinkora", "\u2713 MIDI Device Active", "Octave: 4", "Velocity: 100", "Pitch: 0", "Mod: 0"]:
            self.assertIn(text, labels)
        instructions = [t for t in labels if t.startswith("KEYBOARD LAYOUT:")]
        self.assertEqual(len(instructions), 1, labels)
        self.assertIn("Number Keys (1-9, 0): Change octave", instructions[0])
        self.assertTrue(instructions[0].endswith("Keep this window focused to play. Ctrl+Q to quit, Ctrl+, for preferences."))

        focused = probe.ask("focused")
        self.assertEqual(focused["window"], "Plinkora")

        status_bar = self.one(frame, "status bar", None)
        # The announcement label, and its twin once the two have taken turns; the label is showing.
        notifications = self.find(status_bar, "notification", None)
        self.assertIn(len(notifications), (1, 2), notifications)
        self.assertIn("showing", notifications[0]["states"])
        # The label's name becomes each announced text.
        self.press_and_wait("Tab", "Program: 0, 2 of 8")
        wait_until(lambda: self.find(probe.ask("tree")[0], "notification", "Program: 0, 2 of 8"), timeout=10,
                   what="the notification to carry the announcement")
        labels_after = [n["name"] for n in self.find(probe.ask("tree")[0], "label")]
        self.assertIn("Octave: 4", labels_after)
        # The focus did not move.
        self.assertEqual(probe.ask("focused"), focused)

    def test_preferences_window_and_filling_it_in_with_the_keyboard(self):
        d = self.desktop
        d.start_accessibility_bus()
        d.start_plinkora()
        probe = d.probe()
        d.chord("ctrl", "comma")
        prefs = d.wait_for_window("^Preferences$")
        d.activate(prefs)
        wait_until(lambda: "Preferences" in probe.ask("windows"), timeout=10, what="the Preferences window")
        window = [w for w in probe.ask("tree") if w["name"] == "Preferences"][0]
        self.assertEqual(window["role"], "frame")

        groups = [n for n in self.find(window) if n["role"] in ("panel", "grouping")
                  and n["name"] in ("Bender Settings", "Function Key MIDI Controllers")]
        self.assertEqual([n["name"] for n in groups], ["Bender Settings", "Function Key MIDI Controllers"])
        bender, function_keys = groups
        sliders = self.find(bender, "slider")
        self.assertEqual([s["name"] for s in sliders], ["Pitch Bend Speed", "Modulation Speed"])
        for slider in sliders:
            self.assertIsNotNone(slider["value"])
            self.assertIn("focusable", slider["states"])
        fields = self.find(function_keys, "text")
        self.assertEqual([f["name"] for f in fields], [f"F{n} MIDI CC number" for n in range(1, 5)])
        self.assertEqual([f["text"] for f in fields], ["115", "116", "117", "118"])
        for field in fields:
            self.assertIn("editable", field["states"])
        # Read by their names, not by the captions beside them ("F1 CC:").
        self.assertEqual([f["labelled_by"] for f in fields + sliders], [[]] * 6)

        # With the keyboard alone: Tab to F2, type 64, Return.
        focused = probe.ask("focused")
        for _ in range(8):
            if focused and focused["name"] == "F2 MIDI CC number":
                break
            d.key("Tab")
            previous = focused
            wait_until(lambda: probe.ask("focused") != previous, timeout=5, what="the focus to move")
            focused = probe.ask("focused")
        self.assertEqual(focused, {"role": "text", "name": "F2 MIDI CC number", "window": "Preferences"})
        # Tab selects the field's text, so typing replaces it.
        d.xdotool("type", "64")
        d.key("Return")
        config = os.path.join(d.env["XDG_CONFIG_HOME"], "Plinkora", "Plinkora.conf")

        def stored():
            with open(config) as f:
                return re.search(r"^PLK_F2_CC=(\S+)$", f.read(), re.MULTILINE)

        wait_until(lambda: os.path.exists(config) and stored(), timeout=10, what=f"PLK_F2_CC in {config}")
        self.assertEqual(stored().group(1), "64")
        window = [w for w in probe.ask("tree") if w["name"] == "Preferences"][0]
        self.assertEqual(self.find(window, "text", "F2 MIDI CC number")[0]["text"], "64")
        # Nothing was played meanwhile; back in the main window F2 sends controller 64.
        self.assertEqual(d.midi(), [])
        d.activate(d.window)
        d.key("F2")
        self.assertEqual(d.wait_for_midi(2), [[0xB0, 64, 127], [0xB0, 64, 0]])


class FeedbackSoundTest(HeardTestCase):
    """The sounds of the pitch bender's auto-release switch (period): "down" when it goes off,
    "up" when it comes back on, played through the desktop's sound server."""

    def test_period_twice_plays_down_then_up(self):
        d = self.desktop
        pulse = d.start_pulse()
        d.start_plinkora()
        recorder = SinkRecorder(pulse, os.path.join(d.tmp, "sink.raw"))
        self.addCleanup(recorder.stop)
        d.key("period")
        # The second press comes once the first sound has played (a new sound cuts one off).
        wait_until(lambda: self.segments_ended(recorder) >= 1, timeout=15, what="the first sound in the recording")
        d.key("period")
        wait_until(lambda: self.segments_ended(recorder) >= 2, timeout=15, what="two sounds in the recording")
        samples = recorder.stop()
        segments = sound_segments(samples, SinkRecorder.RATE)
        self.assertEqual(len(segments), 2, segments)
        for begin, end in segments:
            self.assertLess((end - begin) / SinkRecorder.RATE, 0.4)
        first = sox_rough_frequency(samples[segments[0][0]:segments[0][1]], SinkRecorder.RATE,
                                    os.path.join(d.tmp, "first.raw"))
        second = sox_rough_frequency(samples[segments[1][0]:segments[1][1]], SinkRecorder.RATE,
                                     os.path.join(d.tmp, "second.raw"))
        self.assertIsNotNone(first)
        self.assertIsNotNone(second)
        print(f"\n  rough frequencies: {first} Hz, then {second} Hz", file=sys.stderr)
        self.assertLess(first, second, "the first sound (down.wav) is not lower than the second (up.wav)")
        self.assertTrue(400 <= first <= 700, first)     # down.wav glides from 660 Hz to 440 Hz
        self.assertTrue(850 <= second <= 1350, second)  # up.wav glides from 880 Hz to 1320 Hz
        self.assertEqual([line for line in d.plinkora.snapshot() if line.startswith("Error playing sound")], [])

    @staticmethod
    def segments_ended(recorder):
        """The number of sounds in the recording so far that have ended (0.1 s of quiet after)."""
        samples = recorder.samples_so_far()
        return len([end for _, end in sound_segments(samples, SinkRecorder.RATE)
                    if len(samples) - end > SinkRecorder.RATE // 10])

    def test_without_a_sound_server_one_line_says_so_and_plinkora_goes_on(self):
        d = self.desktop
        d.start_plinkora()
        d.key("period")
        index = d.plinkora.wait_for_line(r"^Error playing sound ")
        line = d.plinkora.snapshot()[index]
        print(f"\n  {line}", file=sys.stderr)
        self.assertRegex(line, r"^Error playing sound down\.wav: \S.*$")
        d.key("period")
        d.plinkora.wait_for_line(r"^Error playing sound up\.wav: \S.*$")
        self.press_and_wait("Tab", "Program: 0, 2 of 8")
        self.assertTrue(d.plinkora.running())


if __name__ == "__main__":
    unittest.main()
