"""Plinkora on a PipeWire desktop: its own choice of MIDI system finds PipeWire's JACK interface,
PLK is published there and a receiver gets the exact bytes of a note, and the built-in
synthesizer's audio goes into PipeWire, linked to the default output."""

import re
import unittest

from pipewire_desktop import NULL_SINK, PipeWireDesktop

NOTE_ON, NOTE_OFF = 0x90, 0x80


class PipeWireTest(unittest.TestCase):
    def setUp(self):
        self.desktop = PipeWireDesktop()
        self.desktop.__enter__()
        self.addCleanup(self.desktop.close)

    def test_plk_is_published_through_pipewire_and_a_note_arrives_exactly(self):
        d = self.desktop
        p = d.start_plinkora()
        p.wait_for_line(r"^MIDI output: jack$")
        self.assertIn("PLK:PLK", d.pw("pw-link", "--output").split("\n"))
        d.key("a", "k")
        self.assertEqual(d.wait_for_midi(4), [[NOTE_ON, 48, 100], [NOTE_OFF, 48, 0],
                                              [NOTE_ON, 60, 100], [NOTE_OFF, 60, 0]])

    def test_the_built_in_synthesizer_plays_into_pipewires_default_output(self):
        d = self.desktop
        p = d.start_plinkora("--synth", "on")
        d.key("a")
        p.wait_for_line(r"^Built-in synthesizer: .* on jack$")
        sink = re.compile(rf"^{NULL_SINK}:playback_F[LR]$")
        d.wait_until(lambda: len([link for link in d.links() if sink.match(link[1])]) >= 2,
                     what=f"the synthesizer's output linked to {NULL_SINK} (links: {d.links()})")
        # The synthesizer's JACK client, PLK-synth, through PipeWire's JACK interface.
        into_sink = [output for output, port in d.links() if sink.match(port)]
        self.assertTrue(into_sink and all(output.startswith("PLK-synth:") for output in into_sink), into_sink)


if __name__ == "__main__":
    unittest.main()
