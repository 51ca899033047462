"""PLK's connections made from the keyboard and the command line, remembered by name and made
again, against a private JACK server. Besides the harness's receiver (which connects itself to
PLK) a listener runs that does not: only Plinkora can connect PLK to it."""

import os
import re
import subprocess
import unittest

from desktop import Desktop

NOTE_ON, NOTE_OFF = 0x90, 0x80
NO_PATCHBAY = "MIDI connections: none can be made on "


class ConnectionsTest(unittest.TestCase):
    def setUp(self):
        self.desktop = Desktop()
        self.desktop.__enter__()
        self.addCleanup(self.desktop.close)
        self.listener_client = f"syn{os.getpid()}"
        self.destination = f"{self.listener_client}:in"
        self.listener = self.start_listener()

    def start_listener(self):
        listener = self.desktop._spawn("listener", [os.environ["PLINKORA_RECEIVER"], "--client", self.listener_client])
        listener.wait_for_line(r"^ready ")
        return listener

    def start(self, *args, needs_patchbay=True):
        plinkora = self.desktop.start_plinkora(*args)
        if needs_patchbay and any(line.startswith(NO_PATCHBAY) for line in plinkora.snapshot()):
            self.fail("Plinkora makes no connections on JACK (it printed \"" + NO_PATCHBAY + "jack\")")
        return plinkora

    @staticmethod
    def announced(plinkora, text, start=0):
        """Waits for Plinkora's line announcing `text`; returns its index."""
        return plinkora.wait_for_line("^Announcing: " + re.escape(text) + "$", start=start)

    @staticmethod
    def notes(receiver):
        return [[int(b, 16) for b in line.split()] for line in receiver.snapshot()
                if re.fullmatch(r"[0-9A-F]{2}( [0-9A-F]{2})*", line)]

    def play_a_and_hear_it_at(self, receiver):
        d = self.desktop
        before = len(self.notes(receiver))
        d.activate(d.window)
        d.key("a")
        d.wait_until(lambda: len(self.notes(receiver)) >= before + 2, what=f"the note at {receiver.name}")
        self.assertEqual(self.notes(receiver)[before:before + 2], [[NOTE_ON, 48, 100], [NOTE_OFF, 48, 0]])

    def connections_of_plk(self):
        """The ports PLK:PLK is connected to, as jack_lsp lists them."""
        listing = subprocess.run(["jack_lsp", "-c", "PLK:PLK"], env=self.desktop.env, capture_output=True,
                                 text=True, timeout=30).stdout
        return [line.strip() for line in listing.splitlines()[1:] if line.startswith(" ")]

    def config_file(self):
        return os.path.join(self.desktop.env["XDG_CONFIG_HOME"], "Plinkora", "Plinkora.conf")

    def stored_text(self):
        try:
            with open(self.config_file()) as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def test_connect_on_the_command_line_connects_for_this_run(self):
        plinkora = self.start("--connect", self.destination)
        self.announced(plinkora, f"Connected to {self.destination}")
        self.play_a_and_hear_it_at(self.listener)
        self.assertNotIn("Connections", self.stored_text())

    def test_a_remembered_connection_comes_back_after_the_receiver_restarts(self):
        os.makedirs(os.path.dirname(self.config_file()))
        with open(self.config_file(), "w") as f:
            f.write(f"[General]\nConnections={self.destination}\n")
        plinkora = self.start()
        self.announced(plinkora, f"Connected to {self.destination}")
        self.play_a_and_hear_it_at(self.listener)

        self.listener.stop()
        gone = self.announced(plinkora, f"{self.destination} disconnected")
        # The old listener has ended: a connection to its name from now on is to the new one.
        self.listener = self.start_listener()
        self.announced(plinkora, f"Connected to {self.destination}", start=gone + 1)
        self.desktop.wait_until(lambda: self.destination in self.connections_of_plk(),
                                what=f"PLK:PLK connected to the new {self.destination}")
        self.play_a_and_hear_it_at(self.listener)

    def test_a_connection_chosen_with_the_keyboard_is_remembered_after_plinkora_restarts(self):
        d = self.desktop
        plinkora = self.start()
        d.chord("ctrl", "comma")
        prefs = d.wait_for_window("^Preferences$")
        d.activate(prefs)
        # The window starts on its first control; the Connections list is last in the Tab order.
        # The listener's client sorts after the harness's receiver ("rx..."): End selects it.
        d.key("shift+Tab", "End", "space")
        self.announced(plinkora, f"Connected to {self.destination}")
        d.wait_until(lambda: self.destination in self.stored_text(), what=f"{self.destination} in {self.config_file()}")

        d.chord("ctrl", "q")
        self.assertEqual(plinkora.wait(timeout=30), 0)
        d.plinkora = None
        again = self.start()
        self.announced(again, f"Connected to {self.destination}")
        self.play_a_and_hear_it_at(self.listener)

    def test_a_destination_that_does_not_exist_gets_one_line_and_plinkora_goes_on_playing(self):
        plinkora = self.start("--connect", "nosuch:port", needs_patchbay=False)
        self.announced(plinkora, "Cannot connect to nosuch:port")
        lines = [line for line in plinkora.snapshot() if "nosuch:port" in line and not line.startswith("Announcing: ")]
        self.assertEqual(len(lines), 1, lines)
        self.assertRegex(lines[0], r"^Cannot connect PLK to nosuch:port: there is no such MIDI input now")
        self.play_a_and_hear_it_at(self.desktop.receiver)
        self.assertTrue(plinkora.running())


if __name__ == "__main__":
    unittest.main()
