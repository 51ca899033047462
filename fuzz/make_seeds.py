#!/usr/bin/env python3
"""Writes the seed inputs of fuzz/corpus/ (run again after changing how a fuzzer reads input).

The fuzzers read their input with libFuzzer's FuzzedDataProvider: numbers are taken from the
end of the input (the first one from the last byte, a wider one high byte first), text and whole
files from the front. `Input` builds inputs in that order.
"""

import os
import random

HERE = os.path.dirname(os.path.abspath(__file__))

SHIFT, COMMAND = 1, 2          # flag kinds of the key events fuzzer
DOWN, UP, FLAGS = 0, 1, 2      # op % 3
INTERESTING = [0, 13, 1, 14, 2, 3, 17, 5, 16, 4, 32, 38, 40, 31, 37, 35, 41, 50, 30, 39, 12, 15, 34, 33, 42,
               6, 7, 8, 9, 11, 45, 46, 43, 18, 19, 20, 21, 23, 22, 26, 28, 25, 29, 122, 120, 99, 118, 123, 124,
               125, 126, 47, 44, 48, 115, 116, 36]


class Input:
    def __init__(self):
        self.front = bytearray()
        self.back = []  # numbers' bytes in the order they are taken

    def number(self, value, width=1):
        self.back += list(value.to_bytes(width, "big"))
        return self

    def text(self, text):
        self.front += text.replace(b"\\", b"\\\\") + b"\\n"  # "\" and another byte end the text
        return self

    def bytes(self):
        return bytes(self.front) + bytes(reversed(self.back))


def key_sequence(steps):
    """steps: ("key", type, code, flags kind[, repeats]), ("tick", n), ("focus", away), ("escape", down)."""
    data = Input().number(0).number(0)  # no stored speeds
    focused = True
    for step in steps:
        if step[0] == "key":
            _, kind, code, flags, *repeats = step
            op = (180 + (kind - 180 % 3) % 3) if repeats else kind
            data.number(op)
            if code in INTERESTING:
                data.number(INTERESTING.index(code))
            else:
                data.number(255).number(code, 2)
            data.number(flags)
            if repeats:
                data.number(repeats[0] - 1)
        elif step[0] == "tick":
            data.number(200).number(step[1] - 1)
        elif step[0] == "focus":  # lost: ("focus", 0) no key window, ("focus", 1) another window; regained
            data.number(225)
            if focused:
                data.number(step[1])
            focused = not focused
        elif step[0] == "escape":
            data.number(240).number(step[1]).number(0)
    return data.bytes()


def key(kind, code, flags=0, *repeats):
    return ("key", kind, code, flags, *repeats)


def tap(code, flags=0):
    return [key(DOWN, code, flags), key(UP, code, flags)]


def write(target, name, data):
    folder = os.path.join(HERE, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


def key_seeds():
    scale = [0, 1, 2, 3, 5, 4, 38, 40]
    write("key_events_fuzzer", "scale", key_sequence([s for c in scale for s in tap(c)]))
    write("key_events_fuzzer", "held_with_repeats", key_sequence(
        [key(DOWN, 0), key(DOWN, 0, 0, 8), key(DOWN, 2), key(DOWN, 2, 0, 5), key(UP, 0), key(UP, 2)]))
    write("key_events_fuzzer", "octave_change_while_held", key_sequence(
        [key(DOWN, 40), key(DOWN, 26), key(UP, 26), key(UP, 40), key(DOWN, 42), key(DOWN, 29), key(UP, 42)]))
    write("key_events_fuzzer", "sustain_and_velocity", key_sequence(
        [key(FLAGS, 56, SHIFT), *tap(6), key(DOWN, 0), key(DOWN, 4), key(FLAGS, 56, 0), *tap(43), key(UP, 0)]))
    write("key_events_fuzzer", "benders", key_sequence(
        [key(DOWN, 126), ("tick", 60), key(UP, 126), ("tick", 30), key(DOWN, 124), ("tick", 121),
         *tap(47), *tap(44), key(UP, 124), key(DOWN, 125), ("tick", 90), key(UP, 125), ("tick", 121)]))
    write("key_events_fuzzer", "function_keys_and_properties", key_sequence(
        [*tap(122), key(DOWN, 120, 0, 4), key(UP, 120), *tap(48), *tap(115), *tap(116), key(DOWN, 0),
         *tap(48, SHIFT), *tap(119), key(UP, 0), *tap(48), *tap(48), *tap(115), *tap(0)]))
    write("key_events_fuzzer", "focus_lost_while_held", key_sequence(
        [key(DOWN, 0), key(DOWN, 13), key(DOWN, 126), ("focus", 1), key(UP, 0), ("tick", 10), ("focus",),
         key(UP, 13), key(DOWN, 2), ("focus", 0), ("focus",), ("escape", 1), key(UP, 2)]))
    write("key_events_fuzzer", "releases_without_presses", key_sequence(
        [key(UP, 0), key(UP, 42), key(UP, 126), key(UP, 122), key(UP, 47), key(UP, 65535), key(DOWN, 65535)]))
    write("key_events_fuzzer", "command_and_odd_flags", key_sequence(
        [key(DOWN, 0, COMMAND), key(DOWN, 1, 4 | 8), key(UP, 1, 4 | 8), key(UP, 0, COMMAND), key(FLAGS, 0, SHIFT | 4)]))
    rng = random.Random(1)
    write("key_events_fuzzer", "random", bytes(rng.randrange(256) for _ in range(1024)))


def settings_file(text):
    return text + b"\x01"  # the last byte: a whole file


def typed(*entries):
    data = Input().number(0)  # fields, not a file
    for field, text in entries:
        data.number(field).text(text)
    return data.bytes()


def settings_seeds():
    write("settings_fuzzer", "valid", settings_file(
        b"[General]\nPitchBendSpeed=250\nModulationSpeed=30.5\nPLK_F1_CC=7\nPLK_F2_CC=0\nPLK_F3_CC=127\nPLK_F4_CC=200\n"))
    write("settings_fuzzer", "odd_numbers", settings_file(
        b"[General]\nPitchBendSpeed=nan\nModulationSpeed=inf\nPLK_F1_CC=1e3\nPLK_F2_CC=0x10\nPLK_F3_CC= 12 \n"
        b"PLK_F4_CC=99999999999999999999999\n"))
    write("settings_fuzzer", "negative_and_huge", settings_file(
        b"[General]\nPitchBendSpeed=-5\nModulationSpeed=1.7976931348623157e308\nPLK_F1_CC=255\n"))
    write("settings_fuzzer", "wrong_types", settings_file(
        b"[General]\nPitchBendSpeed=@Variant(\\0\\0\\0\\x7f\\0\\0\\0\\x18)\nModulationSpeed=fast, slow\n"
        b"PLK_F1_CC=\"12\"\nPLK_F2_CC=@ByteArray(12)\nPLK_F3_CC=true\n"))
    write("settings_fuzzer", "empty", settings_file(b""))
    write("settings_fuzzer", "truncated", settings_file(b"[General]\nPitchBendSpeed=25"))
    write("settings_fuzzer", "no_section", settings_file(b"PLK_F1_CC=12\n[Other]\nPLK_F2_CC=-1\n"))
    write("settings_fuzzer", "binary", settings_file(bytes(random.Random(2).randrange(256) for _ in range(300))))
    write("settings_fuzzer", "typed_valid", typed((0, b"0"), (1, b"127"), (2, b"+12"), (3, b"-000"), (0, b"007")))
    write("settings_fuzzer", "typed_invalid", typed((0, b"128"), (1, b"-5"), (2, b" 64"), (3, b""), (0, b"abc"),
                                                    (1, b"256"), (2, b"+"), (3, b"1e2"), (0, "\u00e9".encode())))


def riff_chunk(tag, data):
    return tag + len(data).to_bytes(4, "little") + data + (b"\0" if len(data) % 2 else b"")


def sound_font(presets, order=("phdr", "pbag", "pmod", "pgen", "inst", "ibag", "imod", "igen", "shdr")):
    """A small SoundFont 2 file: presets as (bank, program, [zone sizes]), one modulator a zone."""
    phdr, pbag, pmod, pgen = b"", b"", b"", b""
    bag = gen = mod = 0
    le16 = lambda value: value.to_bytes(2, "little")
    for bank, program, zones in presets:
        phdr += b"preset".ljust(20, b"\0") + le16(program) + le16(bank) + le16(bag) + bytes(12)
        for size in zones:
            pbag += le16(gen) + le16(mod)
            pgen += b"".join(le16(43) + le16(0x7F00 + i) for i in range(size - 1)) + le16(41) + le16(0)
            pmod += le16(0x0502) + le16(48) + le16(program) + le16(bank) + le16(0)
            bag, gen, mod = bag + 1, gen + size, mod + 1
    phdr += b"EOP".ljust(20, b"\0") + bytes(4) + le16(bag) + bytes(12)
    pbag += le16(gen) + le16(mod)
    chunks = {"phdr": phdr, "pbag": pbag, "pmod": pmod + bytes(10), "pgen": pgen + bytes(4),
              "inst": b"inst".ljust(20, b"\0") + bytes(2) + b"EOI".ljust(20, b"\0") + le16(1),
              "ibag": bytes(8), "imod": bytes(10), "igen": le16(53) + bytes(2) + bytes(4), "shdr": bytes(92)}
    pdta = b"pdta" + b"".join(riff_chunk(tag.encode(), chunks[tag]) for tag in order)
    body = (b"sfbk" + riff_chunk(b"LIST", b"INFO" + riff_chunk(b"ifil", b"\2\0\1\0"))
            + riff_chunk(b"LIST", b"sdta" + riff_chunk(b"smpl", bytes(range(101))))
            + riff_chunk(b"LIST", pdta))
    return riff_chunk(b"RIFF", body)


def sound_font_seeds():
    write("sound_font_fuzzer", "general_midi_like", sound_font([(0, 0, [2]), (0, 5, [1, 2]), (128, 0, [1])]))
    write("sound_font_fuzzer", "one_preset", sound_font([(0, 0, [1])]))
    write("sound_font_fuzzer", "same_numbers_twice", sound_font([(0, 3, [2]), (0, 3, [1]), (8, 3, [3])]))
    write("sound_font_fuzzer", "out_of_order", sound_font([(0, 0, [1])], order=(
        "phdr", "pmod", "pbag", "pgen", "inst", "ibag", "imod", "igen", "shdr")))


if __name__ == "__main__":
    key_seeds()
    settings_seeds()
    sound_font_seeds()
