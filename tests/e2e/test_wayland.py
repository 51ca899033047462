"""Plinkora on a Wayland desktop: native Wayland, notes by physical key under the US, French and
German layouts, one note-on for a held key that the compositor repeats, held notes let go when
another window takes the keys, and Ctrl+Q with a note held silencing the receiver."""

import os
import socket
import unittest

from wayland_desktop import WaylandDesktop

NOTE_ON, NOTE_OFF = 0x90, 0x80
# A at the start-up octave.
A_ON, A_OFF = [NOTE_ON, 48, 100], [NOTE_OFF, 48, 0]


def listen_as_an_x_display():
    """A display number no one uses and a socket listening where X clients connect to it first
    (libxcb's abstract socket on Linux): every X connection attempt to it is seen."""
    for number in range(5000 + os.getpid() % 1000, 7000):
        listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM | socket.SOCK_NONBLOCK)
        try:
            listener.bind(f"\0/tmp/.X11-unix/X{number}")
        except OSError:
            listener.close()
            continue
        listener.listen(4)
        return f":{number}", listener
    raise AssertionError("no free X display number")


class WaylandTest(unittest.TestCase):
    def start(self, layout="us", display=None):
        desktop = WaylandDesktop(layout)
        desktop.__enter__()
        self.addCleanup(desktop.close)
        if display:
            desktop.env["DISPLAY"] = display
        desktop.start_plinkora()
        return desktop

    def test_a_wayland_session_runs_natively_on_wayland_without_touching_x11(self):
        # An X display named in the environment, as Xwayland's would be: Plinkora never
        # connects to it (its X11 helpers for key repeat and the keys down stay out).
        display, x_server = listen_as_an_x_display()
        self.addCleanup(x_server.close)
        d = self.start(display=display)
        d.plinkora.wait_for_line(r"^Window system: wayland$")
        d.key("a")
        self.assertEqual(d.wait_for_midi(2), [A_ON, A_OFF])
        # the keys go away and come back (where X11 asks which keys are down)
        d.open_other_window()
        d.activate("Plinkora")
        d.key("a")
        self.assertEqual(d.wait_for_midi(4), [A_ON, A_OFF] * 2)
        self.assertTrue(d.plinkora.running())
        with self.assertRaises(BlockingIOError):
            x_server.accept()

    def test_a_held_key_that_repeats_plays_one_note_on_and_one_note_off(self):
        d = self.start()
        start = len(d.plinkora.snapshot())
        d.keydown("a")
        first = d.plinkora.wait_for_line(r"^Key event received: type=10 keyCode=0$", start=start)
        # the compositor's key repeat: two more presses of the held key
        second = d.plinkora.wait_for_line(r"^Key event received: type=10 keyCode=0$", start=first + 1)
        d.plinkora.wait_for_line(r"^Key event received: type=10 keyCode=0$", start=second + 1)
        d.keyup("a")
        self.assertEqual(d.wait_for_midi(2), [A_ON, A_OFF])
        d.plinkora.wait_for_line(r"^Key event received: type=11 keyCode=0$", start=second + 1)
        d.settle()
        self.assertEqual(len(d.midi()), 2)

    def test_another_window_taking_the_keys_lets_the_held_note_go(self):
        d = self.start()
        d.keydown("a")
        d.wait_for_midi(1)
        d.open_other_window()
        self.assertEqual(d.wait_for_midi(2), [A_ON, A_OFF])
        d.keyup("a")
        d.activate("Plinkora")
        d.key("a")
        self.assertEqual(d.wait_for_midi(4), [A_ON, A_OFF] * 2)

    def test_the_first_key_after_the_return_plays(self):
        # The compositor sends the keys before Qt has made the window active: every round
        # must play, however quickly the key follows the return.
        d = self.start()
        for round in range(1, 11):
            d.open_other_window(f"Other window {round}")
            d.activate("Plinkora")
            d.key("a")
            self.assertEqual(d.wait_for_midi(2 * round), [A_ON, A_OFF] * round)

    def test_a_key_held_across_the_return_plays_nothing_until_pressed_again(self):
        d = self.start()
        d.keydown("a")
        d.wait_for_midi(1)
        d.open_other_window()
        d.wait_for_midi(2)
        # back with A still down: its release reaches Plinkora and sends nothing
        start = len(d.plinkora.snapshot())
        d.activate("Plinkora")
        d.keyup("a")
        d.plinkora.wait_for_line(r"^Key event received: type=11 keyCode=0$", start=start)
        d.settle()
        self.assertEqual(d.midi(), [A_ON, A_OFF])
        d.key("a")
        self.assertEqual(d.wait_for_midi(4), [A_ON, A_OFF] * 2)

    def test_ctrl_q_with_a_note_held_silences_the_receiver(self):
        d = self.start()
        d.keydown("a")
        d.wait_for_midi(1)
        d.chord("ctrl", "q")
        d.receiver.wait_for_line(r"^gone PLK:PLK$")
        self.assertEqual(d.plinkora.wait(timeout=20), 0)
        messages = d.midi()
        self.assertEqual(messages[:2], [A_ON, A_OFF])
        self.assertNotIn(NOTE_ON, [m[0] for m in messages[1:]])


class WaylandLayoutTest(unittest.TestCase):
    """Notes follow the physical keys, whatever the layout the compositor gives."""

    def play(self, layout, name):
        with WaylandDesktop(layout) as d:
            self.assertEqual(d.keyboard_layouts(), [name])
            d.start_plinkora()
            # Physical keys: the home-row A, the top-row Q, the top-row Y, the bottom-row Z; K
            # in the bottom row picks a velocity. French types q a y w and German a q z y on them.
            d.key("a", "q", "y", "z", "k")
            return d.wait_for_midi(8)

    def test_french_and_german_layouts_play_the_same_positions_as_us(self):
        us = self.play("us", "English (US)")
        self.assertEqual(us, [[NOTE_ON, 48, 100], [NOTE_OFF, 48, 0], [NOTE_ON, 68, 100], [NOTE_OFF, 68, 0],
                              [NOTE_ON, 56, 100], [NOTE_OFF, 56, 0], [NOTE_ON, 60, 20], [NOTE_OFF, 60, 0]])
        self.assertEqual(self.play("fr", "French"), us)
        self.assertEqual(self.play("de", "German"), us)


if __name__ == "__main__":
    unittest.main()
