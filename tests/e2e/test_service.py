"""The JACK server dies under the running program and comes back: the program says so once each
way, keeps playing into nothing meanwhile, and is heard again by the receiver it was connected
to."""

import os
import subprocess
import unittest

from desktop import Desktop

NOTE_ON, NOTE_OFF = 0x90, 0x80


class ServiceTest(unittest.TestCase):
    def setUp(self):
        self.desktop = Desktop()
        self.desktop.__enter__()
        self.addCleanup(self.desktop.close)

    def plk_connected_to_receiver(self):
        out = subprocess.run(["jack_lsp", "-c"], env=self.desktop.env, capture_output=True, text=True).stdout
        lines = out.splitlines()
        if "PLK:PLK" not in lines:
            return False
        after = lines[lines.index("PLK:PLK") + 1:]
        connected = []
        for line in after:
            if not line.startswith(" "):
                break
            connected.append(line.strip())
        return f"rx{os.getpid()}:in" in connected

    def test_the_server_is_killed_and_started_again(self):
        d = self.desktop
        d.start_plinkora()
        d.key("a")
        self.assertEqual(d.wait_for_midi(2), [[NOTE_ON, 48, 100], [NOTE_OFF, 48, 0]])

        # WHEN the server is killed, and keys are played meanwhile
        start = len(d.plinkora.snapshot())
        d.kill_jack()
        lost = d.plinkora.wait_for_line(r"^MIDI output lost: jack$", start=start)
        d.plinkora.wait_for_line(r"^Announcing: MIDI output lost$", start=start)
        d.key("s", "d", "f")
        d.plinkora.wait_for_line(r"^Key event received: type=11 keyCode=3$", start=lost)
        self.assertTrue(d.plinkora.running())

        # AND a server of the same name starts again, with the receiver (not connecting itself)
        d.restart_jack()
        back = d.plinkora.wait_for_line(r"^MIDI output back: jack$", start=lost)
        d.plinkora.wait_for_line(r"^Announcing: MIDI output back$", start=lost)
        d.wait_until(self.plk_connected_to_receiver, what="PLK:PLK connected to the receiver again")

        # THEN the receiver hears a key played now
        d.key("g")
        self.assertEqual(d.wait_for_midi(2), [[NOTE_ON, 55, 100], [NOTE_OFF, 55, 0]])
        # AND there was one line each way and none per message
        printed = d.plinkora.snapshot()[start:]
        self.assertEqual([line for line in printed if line.startswith("MIDI output")],
                         ["MIDI output lost: jack", "MIDI output back: jack"])
        self.assertEqual([line for line in printed if line.startswith("Error")], [])
        self.assertLess(lost, back)


if __name__ == "__main__":
    unittest.main()
