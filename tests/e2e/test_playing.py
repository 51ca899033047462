"""Playing Plinkora as a person would: real key presses through an X server, the exact MIDI
bytes at a JACK receiver."""

import os
import subprocess
import unittest

from desktop import Desktop

NOTE_ON, NOTE_OFF = 0x90, 0x80


class PlayingTest(unittest.TestCase):
    def setUp(self):
        self.desktop = Desktop()
        self.desktop.__enter__()
        self.addCleanup(self.desktop.close)

    def start(self, *args):
        self.desktop.start_plinkora(*args)
        return self.desktop

    def test_a_held_with_auto_repeat_plays_one_note_on_and_one_note_off(self):
        d = self.start()
        d.keydown("a")
        d.plinkora.wait_for_line(r"^Key event received: type=10 keyCode=0$")
        first = d.plinkora.wait_for_line(r"^Key event received: type=10 keyCode=0$")
        # hold long enough for the X server to repeat the key
        d.plinkora.wait_for_line(r"^Key event received: type=10 keyCode=0$", start=first + 1, timeout=10)
        d.keyup("a")
        self.assertEqual(d.wait_for_midi(2), [[NOTE_ON, 48, 100], [NOTE_OFF, 48, 0]])
        d.settle()
        self.assertEqual(len(d.midi()), 2)

    def test_number_row_picks_the_octave_and_bottom_row_the_velocity(self):
        d = self.start()
        d.key("5", "a", "z", "k", "0", "backslash", "comma", "semicolon")
        self.assertEqual(d.wait_for_midi(8), [
            [NOTE_ON, 60, 100], [NOTE_OFF, 60, 0],   # 5, A
            [NOTE_ON, 72, 20], [NOTE_OFF, 72, 0],    # Z, K
            [NOTE_ON, 24, 20], [NOTE_OFF, 24, 0],    # 0, backslash
            [NOTE_ON, 16, 127], [NOTE_OFF, 16, 0],   # comma, semicolon
        ])

    def test_note_off_is_computed_at_release(self):
        d = self.start()
        d.keydown("a")
        d.wait_for_midi(1)
        d.key("5")
        d.keyup("a")
        self.assertEqual(d.wait_for_midi(2), [[NOTE_ON, 48, 100], [NOTE_OFF, 60, 0]])

    def test_shift_is_the_sustain_pedal(self):
        d = self.start()
        d.keydown("shift")
        d.wait_for_midi(1)
        d.keyup("shift")
        self.assertEqual(d.wait_for_midi(2), [[0xB0, 64, 127], [0xB0, 64, 0]])

    def test_function_keys_send_their_stored_controllers(self):
        config = os.path.join(self.desktop.env["XDG_CONFIG_HOME"], "Plinkora")
        os.makedirs(config)
        with open(os.path.join(config, "Plinkora.conf"), "w") as f:
            f.write("[General]\nPLK_F2_CC=7\n")
        d = self.start()
        d.key("F1", "F2", "F3", "F4")
        self.assertEqual(d.wait_for_midi(8), [
            [0xB0, 115, 127], [0xB0, 115, 0], [0xB0, 7, 127], [0xB0, 7, 0],
            [0xB0, 117, 127], [0xB0, 117, 0], [0xB0, 118, 127], [0xB0, 118, 0]])

    def test_arrows_move_the_benders_and_they_spring_back(self):
        d = self.start()
        d.keydown("Up")
        d.wait_for_midi(10)
        d.keyup("Up")
        d.wait_until(lambda: d.midi()[-1] == [0xE0, 0x00, 0x40], what="the bend back at the centre")
        bends = [m for m in d.midi() if m[0] == 0xE0]
        values = [m[1] | (m[2] << 7) for m in bends]
        peak = values.index(max(values))
        self.assertEqual(values[0], 8292)
        self.assertTrue(all(a < b or b == 16383 for a, b in zip(values[:peak], values[1:peak + 1])), values)
        self.assertTrue(all(a > b for a, b in zip(values[peak:], values[peak + 1:])), values)
        self.assertEqual(values[-1], 8192)

        count = len(d.midi())
        d.keydown("Right")
        d.wait_for_midi(count + 10)
        d.keyup("Right")
        d.wait_until(lambda: d.midi()[-1] == [0xB0, 0x01, 0x00], what="modulation back at 0")
        mods = [m[2] for m in d.midi()[count:]]
        self.assertTrue(all(m[:2] == [0xB0, 1] for m in d.midi()[count:]))
        self.assertGreater(max(mods), 5)
        d.settle()
        self.assertEqual(d.midi()[-1], [0xB0, 0x01, 0x00])

    def test_property_list_is_stepped_and_changed_from_the_keyboard(self):
        d = self.start()
        p = d.plinkora
        d.key("Tab")
        p.wait_for_line(r"^Announcing: Program: 0, 2 of 8$")
        d.key("Prior")
        p.wait_for_line(r"^Announcing: 1$")
        d.key("shift+Tab")
        p.wait_for_line(r"^Announcing: Channel: 1, 1 of 8$")
        d.key("Home")
        p.wait_for_line(r"^Announcing: 5$")
        d.key("End", "Home", "Tab", "Tab", "Tab")
        p.wait_for_line(r"^Announcing: Volume: 100, 4 of 8$")
        d.key("Prior", "End", "Next")
        p.wait_for_line(r"^Announcing: 90$")
        d.key("a")
        messages = d.wait_for_midi(8)
        self.assertEqual(messages, [
            [0xC0, 1],
            [0xB0, 64, 127], [0xB0, 64, 0],   # Shift of shift+Tab is the sustain pedal
            [0xB4, 7, 101], [0xB4, 7, 91], [0xB4, 7, 90],
            [0x94, 48, 100], [0x84, 48, 0]])
        d.key("shift+Tab", "End")
        p.wait_for_line(r"^Announcing: Bank: 0, 3 of 8$")
        p.wait_for_line(r"^Announcing: 0$")

    def test_control_with_a_key_is_passed_on_and_plays_nothing(self):
        d = self.start()
        d.chord("ctrl", "a")
        d.chord("ctrl", "k")
        d.plinkora.wait_for_line(r"^Key event received: type=11 keyCode=40$")
        d.settle()
        self.assertEqual(d.midi(), [])

    def test_typing_in_the_preferences_window_plays_nothing(self):
        d = self.start()
        d.chord("ctrl", "comma")
        prefs = d.wait_for_window("^Preferences$")
        d.activate(prefs)
        d.key("Tab", "Tab", "a", "s", "5", "Home")
        d.settle()
        self.assertEqual(d.midi(), [])
        d.chord("ctrl", "w")
        d.wait_until(lambda: not d.xdotool("search", "--onlyvisible", "--name", "^Preferences$", check=False),
                     what="the preferences window to close")
        d.activate(d.window)
        d.key("a")
        self.assertEqual(d.wait_for_midi(2), [[NOTE_ON, 48, 100], [NOTE_OFF, 48, 0]])

    def test_a_second_launch_brings_the_window_forward_and_publishes_no_second_port(self):
        d = self.start()
        second = d._spawn("second plinkora", [os.environ["PLINKORA_BIN"], "--midi-api", "jack"])
        self.assertEqual(second.wait(timeout=20), 0)
        ports = subprocess.run(["jack_lsp"], env=d.env, capture_output=True, text=True).stdout
        self.assertEqual([line for line in ports.splitlines() if line.startswith("PLK")], ["PLK:PLK"])
        self.assertTrue(d.plinkora.running())


class FocusAndPanicTest(unittest.TestCase):
    """Keys held when the main window loses the keys are released there and then; keys still
    down at the return play nothing until pressed again; Escape silences everything."""

    def setUp(self):
        self.desktop = Desktop()
        self.desktop.__enter__()
        self.addCleanup(self.desktop.close)
        self.desktop.start_plinkora()

    def open_other_window(self):
        """Another program's window takes the keys."""
        d = self.desktop
        d._spawn("xmessage", ["xmessage", "-title", "Other window", "Other window"], capture=False)
        other = d.wait_for_window("^Other window$")
        d.activate(other)
        return other

    def hold_a_while_another_window_takes_the_keys(self):
        """A held, then another window: the note-off arrives."""
        d = self.desktop
        d.keydown("a")
        d.wait_for_midi(1)
        self.open_other_window()
        self.assertEqual(d.wait_for_midi(2), [[NOTE_ON, 48, 100], [NOTE_OFF, 48, 0]])

    def test_opening_the_preferences_with_a_held_sends_its_note_off(self):
        d = self.desktop
        d.keydown("a")
        d.wait_for_midi(1)
        d.chord("ctrl", "comma")
        d.wait_for_window("^Preferences$")
        self.assertEqual(d.wait_for_midi(2), [[NOTE_ON, 48, 100], [NOTE_OFF, 48, 0]])
        d.keyup("a")
        d.settle()
        self.assertEqual(len(d.midi()), 2)

    def test_another_window_lifts_the_sustain_held_with_shift(self):
        d = self.desktop
        d.keydown("shift")
        d.wait_for_midi(1)
        self.open_other_window()
        self.assertEqual(d.wait_for_midi(2), [[0xB0, 64, 127], [0xB0, 64, 0]])
        d.keyup("shift")
        d.settle()
        self.assertEqual(len(d.midi()), 2)

    def test_up_held_when_another_window_takes_the_keys_lets_the_bend_spring_back(self):
        d = self.desktop
        d.keydown("Up")
        d.wait_for_midi(5)
        self.open_other_window()
        d.wait_until(lambda: d.midi()[-1] == [0xE0, 0x00, 0x40], what="the bend back at the centre")
        d.settle()
        values = [m[1] | (m[2] << 7) for m in d.midi()]
        self.assertTrue(all(m[0] == 0xE0 for m in d.midi()))
        peak = values.index(max(values))
        self.assertGreater(peak, 0)
        self.assertTrue(all(a > b for a, b in zip(values[peak:], values[peak + 1:])), values)
        self.assertEqual(values[-1], 8192)
        d.keyup("Up")

    def test_a_key_held_across_the_return_plays_nothing_until_pressed_again(self):
        d = self.desktop
        p = d.plinkora
        self.hold_a_while_another_window_takes_the_keys()
        # back in the main window with A still down: the X server goes on repeating it there
        start = len(p.snapshot())
        d.activate(d.window)
        first = p.wait_for_line(r"^Key event received: type=10 keyCode=0$", start=start, timeout=10)
        p.wait_for_line(r"^Key event received: type=10 keyCode=0$", start=first + 1, timeout=10)
        d.keyup("a")
        p.wait_for_line(r"^Key event received: type=11 keyCode=0$", start=first + 1)
        d.settle()
        self.assertEqual(len(d.midi()), 2)
        # pressed again, it plays
        d.key("a")
        self.assertEqual(d.wait_for_midi(4)[2:], [[NOTE_ON, 48, 100], [NOTE_OFF, 48, 0]])

    def test_a_key_let_go_in_the_other_window_plays_at_its_next_press(self):
        d = self.desktop
        self.hold_a_while_another_window_takes_the_keys()
        d.keyup("a")
        d.activate(d.window)
        d.key("a")
        self.assertEqual(d.wait_for_midi(4), [[NOTE_ON, 48, 100], [NOTE_OFF, 48, 0]] * 2)

    def test_a_menu_opened_with_a_held_sends_its_note_off_and_escape_only_closes_the_menu(self):
        d = self.desktop
        d.keydown("a")
        d.wait_for_midi(1)
        d.xdotool("mousemove", "--window", d.window, "20", "10", "click", "1")  # the menu bar
        self.assertEqual(d.wait_for_midi(2), [[NOTE_ON, 48, 100], [NOTE_OFF, 48, 0]])
        d.key("Escape")
        d.plinkora.wait_for_line(r"^Key event received: type=11 keyCode=53$")
        d.keyup("a")
        d.settle()
        self.assertEqual(len(d.midi()), 2)
        self.assertNotIn("Announcing: All notes off", d.plinkora.snapshot())

    def test_escape_after_a_held_chord_sends_the_exact_panic_bytes(self):
        d = self.desktop
        d.keydown("a")
        d.keydown("d")
        d.keydown("g")
        d.wait_for_midi(3)
        d.key("Escape")
        d.plinkora.wait_for_line(r"^Announcing: All notes off$")
        panic = [[NOTE_OFF, 48, 0], [NOTE_OFF, 52, 0], [NOTE_OFF, 55, 0]]
        for channel in range(16):
            panic += [[0xB0 | channel, 64, 0], [0xB0 | channel, 123, 0], [0xB0 | channel, 120, 0]]
        panic += [[0xE0, 0x00, 0x40], [0xB0, 0x01, 0x00]]
        self.assertEqual(d.wait_for_midi(3 + len(panic)),
                         [[NOTE_ON, 48, 100], [NOTE_ON, 52, 100], [NOTE_ON, 55, 100]] + panic)
        # the chord let go afterwards sends nothing more
        d.keyup("a")
        d.keyup("d")
        d.keyup("g")
        d.plinkora.wait_for_line(r"^Key event received: type=11 keyCode=5$")
        d.settle()
        self.assertEqual(len(d.midi()), 3 + len(panic))


class LayoutTest(unittest.TestCase):
    """Notes follow the physical keys, whatever the X keyboard layout."""

    def play(self, layout, keysyms):
        with Desktop() as d:
            d.set_layout(layout)
            d.start_plinkora()
            d.key(*keysyms)
            return d.wait_for_midi(8)  # four notes; one key picks a velocity

    def test_french_and_german_layouts_play_the_same_positions_as_us(self):
        # Physical keys: A, Q, Y, Z (the home-row A, the top-row Q, the top-row Y, the bottom-row Z)
        us = self.play("us", ["a", "q", "y", "z", "k"])
        fr = self.play("fr", ["q", "a", "y", "w", "k"])
        de = self.play("de", ["a", "q", "z", "y", "k"])
        self.assertEqual(us[:6], [[NOTE_ON, 48, 100], [NOTE_OFF, 48, 0], [NOTE_ON, 68, 100], [NOTE_OFF, 68, 0],
                                  [NOTE_ON, 56, 100], [NOTE_OFF, 56, 0]])
        self.assertEqual(us[6:], [[NOTE_ON, 60, 20], [NOTE_OFF, 60, 0]])
        self.assertEqual(fr, us)
        self.assertEqual(de, us)


if __name__ == "__main__":
    unittest.main()
