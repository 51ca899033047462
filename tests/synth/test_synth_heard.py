"""The built-in synthesizer heard through a private PulseAudio: the real program under Xvfb with a
fresh HOME, no JACK server, real key presses, and the null sink's monitor recorded.

Run by CTest (tests/synth/CMakeLists.txt) with Debian's python3; the harness comes from
tests/a11y and tests/e2e.
"""

import math
import os
import sys
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "a11y"))

from a11y_services import A11yDesktop, SinkRecorder  # noqa: E402

RATE = SinkRecorder.RATE


def rms(samples):
    if not samples:
        return 0.0
    return math.sqrt(sum(v * v for v in samples) / len(samples)) / 32768.0


def pitch(samples, rate):
    """The fundamental frequency by autocorrelation: the lag of the highest normalised
    correlation between 50 Hz and 1 kHz, refined by a parabola through its neighbours. Works
    on a copy decimated to a quarter of the rate (the notes here are below 600 Hz)."""
    step = 4
    x = [sum(samples[i:i + step]) / step for i in range(0, len(samples) - step, step)]
    r = rate / step
    mean = sum(x) / len(x)
    x = [v - mean for v in x]
    lags = range(int(r / 1000), int(r / 50))

    def corr(lag):
        a, b = x[:-lag], x[lag:]
        num = sum(p * q for p, q in zip(a, b))
        den = math.sqrt(sum(p * p for p in a) * sum(q * q for q in b)) or 1.0
        return num / den

    values = {lag: corr(lag) for lag in lags}
    best_value = max(values.values())
    # The first lag close to the best (an octave lower correlates as well; the shortest is the
    # fundamental's period).
    best = next(lag for lag in lags if values[lag] >= 0.9 * best_value
                and values[lag] >= values.get(lag - 1, -1) and values[lag] >= values.get(lag + 1, -1))
    y0, y1, y2 = values.get(best - 1, 0), values[best], values.get(best + 1, 0)
    denominator = y0 - 2 * y1 + y2
    shift = 0.5 * (y0 - y2) / denominator if denominator else 0.0
    return r / (best + shift)


class SynthHeardTest(unittest.TestCase):
    def test_a_then_k_sound_an_octave_apart_through_pulseaudio(self):
        with A11yDesktop(with_jack=False) as d:
            pulse = d.start_pulse()
            plinkora = d.start_plinkora("--synth", "auto")
            plinkora.wait_for_line(r"^Built-in synthesizer: .*TimGM6mb\.sf2 on pulseaudio$")
            recorder = SinkRecorder(pulse, os.path.join(d.tmp, "sink.raw"))
            time.sleep(0.8)  # silence before
            start = len(recorder.samples_so_far())
            d.keydown("a")
            time.sleep(1.0)
            d.keyup("a")
            time.sleep(0.5)
            d.keydown("k")
            time.sleep(1.0)
            d.keyup("k")
            time.sleep(0.5)
            samples = recorder.stop()

        before = samples[RATE // 10:max(RATE // 10, start - RATE // 10)]
        threshold = 0.003
        onset = next((i for i in range(start, len(samples), RATE // 100)
                      if rms(samples[i:i + RATE // 100]) > threshold), None)
        self.assertIsNotNone(onset, f"nothing heard after A; loudest: {rms(samples[start:])}")
        a_note = samples[onset + RATE // 5:onset + RATE * 8 // 10]
        k_note = samples[onset + RATE * 3 // 2 + RATE // 5:onset + RATE * 3 // 2 + RATE * 8 // 10]
        silence, a_level, k_level = rms(before), rms(a_note), rms(k_note)
        print(f"silence {silence:.6f}, A {a_level:.4f}, K {k_level:.4f}", file=sys.stderr)
        self.assertGreater(a_level, max(0.005, 20 * silence))
        self.assertGreater(k_level, max(0.005, 20 * silence))

        a_pitch, k_pitch = pitch(a_note, RATE), pitch(k_note, RATE)
        print(f"A {a_pitch:.1f} Hz, K {k_pitch:.1f} Hz", file=sys.stderr)
        self.assertAlmostEqual(k_pitch / a_pitch, 2.0, delta=2.0 * 0.03)
        # A plays note 48 (130.8 Hz), K note 60 (261.6 Hz).
        self.assertAlmostEqual(a_pitch, 130.8, delta=130.8 * 0.03)

    def test_escape_after_a_held_chord_leaves_the_sink_silent_within_200_ms(self):
        with A11yDesktop(with_jack=False) as d:
            pulse = d.start_pulse()
            plinkora = d.start_plinkora("--synth", "auto")
            plinkora.wait_for_line(r"^Built-in synthesizer: .* on pulseaudio$")
            recorder = SinkRecorder(pulse, os.path.join(d.tmp, "sink.raw"))
            for k in ("a", "d", "g"):
                d.keydown(k)
            time.sleep(0.6)
            heard = len(recorder.samples_so_far())
            self.assertGreater(rms(recorder.samples_so_far()[heard - RATE // 5:heard]), 0.01)
            pressed = len(recorder.samples_so_far())
            d.key("Escape")
            time.sleep(0.6)
            samples = recorder.stop()
            for k in ("a", "d", "g"):
                d.keyup(k)
        # From 200 ms after Escape was pressed on, the sink is silent.
        self.assertLess(rms(samples[pressed + RATE // 5:]), 0.001)


if __name__ == "__main__":
    unittest.main()
