"""The built-in synthesizer on a private JACK server: its audio reaches a JACK audio receiver of
the project's own (tools/jack_audio_receiver), and in the auto mode a MIDI receiver connected to
PLK silences it until it goes.

Run by CTest (tests/synth/CMakeLists.txt) with Debian's python3; the harness is tests/e2e's.
"""

import os
import re
import subprocess
import sys
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "e2e"))

from desktop import Desktop  # noqa: E402


class JackSynthDesktop(Desktop):
    def audio_receiver(self):
        receiver = self._spawn("audio receiver", [os.environ["PLINKORA_AUDIO_RECEIVER"], "--connect", "PLK-synth",
                                                  "--client", f"arx{os.getpid()}"])
        receiver.wait_for_line(r"^ready ")
        return receiver

    def sound_after(self, receiver, start, keys, timeout):
        """Whether holding `keys` briefly makes the receiver hear sound (a "sound" line after
        line `start`)."""
        for k in keys:
            self.keydown(k)
        try:
            receiver.wait_for_line(r"^sound ", start=start, timeout=timeout)
            heard = True
        except AssertionError:
            heard = False
        for k in keys:
            self.keyup(k)
        return heard


class SynthOnJackTest(unittest.TestCase):
    def test_the_synthesizer_plays_into_a_jack_audio_receiver(self):
        with JackSynthDesktop() as d:
            plinkora = d.start_plinkora("--synth", "on")
            plinkora.wait_for_line(r"^Built-in synthesizer: .* on jack$")
            receiver = d.audio_receiver()
            receiver.wait_for_line(r"^connected PLK-synth:")
            time.sleep(0.3)
            start = len(receiver.snapshot())
            self.assertTrue(d.sound_after(receiver, start, ["a"], timeout=10))
            receiver.wait_for_line(r"^silence ", start=start, timeout=10)
            # The outputs go to the system's playback ports as well.
            listing = subprocess.run(["jack_lsp", "-c"], env=d.env, capture_output=True, text=True,
                                     timeout=30).stdout
            synth_ports = re.findall(r"^(PLK-synth:\S+)\n((?:   \S.*\n)*)", listing, re.M)
            self.assertTrue(synth_ports, listing)
            for port, connected in synth_ports:
                self.assertIn("system:playback_", connected, port)

    def test_auto_falls_silent_while_a_midi_receiver_reads_plk_and_plays_when_it_goes(self):
        with JackSynthDesktop() as d:
            # The harness's MIDI receiver is connected to PLK:PLK as soon as PLK appears.
            plinkora = d.start_plinkora("--synth", "auto")
            plinkora.wait_for_line(r"^Built-in synthesizer: .* on jack$")
            plinkora.wait_for_line(r"^Built-in synthesizer: following PLK's readers$")
            plinkora.wait_for_line(r"^Built-in synthesizer: silent while another program reads PLK$")
            # Silent, it closes its audio output: no JACK client of its own costs processor time.
            plinkora.wait_for_line(r"^Built-in synthesizer: audio suspended$")
            receiver = d.audio_receiver()
            start = len(receiver.snapshot())
            self.assertFalse(d.sound_after(receiver, start, ["a"], timeout=1.5))
            mark = len(plinkora.snapshot())
            d.receiver.stop()
            plinkora.wait_for_line(r"^Built-in synthesizer: playing, nobody else reads PLK$", start=mark)
            plinkora.wait_for_line(r"^Built-in synthesizer: audio resumed$", start=mark)
            receiver.wait_for_line(r"^connected PLK-synth:", start=start)
            start = len(receiver.snapshot())
            self.assertTrue(d.sound_after(receiver, start, ["s"], timeout=10))


if __name__ == "__main__":
    unittest.main()
