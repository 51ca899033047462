#pragma once

#include "midi/midi_backend.h"

#include <array>
#include <cstdint>

// The bytes of the MIDI messages Plinkora sends, made in one place. Data bytes are masked to
// 7 bits and channels to 4 bits, never clamped.
namespace plinkora {

/// The largest value of a data byte (a note, a velocity, a controller value, a program).
inline constexpr std::uint8_t kMIDIDataMax = 127;
/// Pitch bend at rest, and its largest value (14 bits).
inline constexpr std::uint16_t kPitchBendCentre = 8192;
inline constexpr std::uint16_t kPitchBendMax = 16383;

/// The upper four bits of a channel message's status byte.
enum MIDIMessageKind : std::uint8_t
{
    kNoteOff = 0x80,
    kNoteOn = 0x90,
    kKeyPressure = 0xA0,
    kControlChange = 0xB0,
    kProgramChange = 0xC0,
    kChannelPressure = 0xD0,
    kPitchBend = 0xE0,
};

/// One channel message of two or three bytes, built on the stack.
struct MIDIMessage
{
    std::array<std::uint8_t, 3> data{};
    std::uint8_t length = 0;

    MIDIBytes bytes() const { return MIDIBytes(data.data(), length); }
};

namespace midi_message_detail {
constexpr std::uint8_t dataByte(unsigned value)
{
    return static_cast<std::uint8_t>(value & 0x7Fu);
}

constexpr MIDIMessage channelMessage(MIDIMessageKind kind, std::uint8_t channel, unsigned data1, unsigned data2,
                                     std::uint8_t length)
{
    return {{static_cast<std::uint8_t>(kind | (channel & 0x0Fu)), dataByte(data1), dataByte(data2)}, length};
}
} // namespace midi_message_detail

constexpr MIDIMessage noteOnMessage(std::uint8_t note, std::uint8_t velocity, std::uint8_t channel)
{
    return midi_message_detail::channelMessage(kNoteOn, channel, note, velocity, 3);
}

constexpr MIDIMessage noteOffMessage(std::uint8_t note, std::uint8_t channel)
{
    return midi_message_detail::channelMessage(kNoteOff, channel, note, 0, 3);
}

/// `value`'s low 7 bits first, then the next 7.
constexpr MIDIMessage pitchBendMessage(std::uint16_t value, std::uint8_t channel)
{
    return midi_message_detail::channelMessage(kPitchBend, channel, value, value >> 7u, 3);
}

constexpr MIDIMessage controlChangeMessage(std::uint8_t controller, std::uint8_t value, std::uint8_t channel)
{
    return midi_message_detail::channelMessage(kControlChange, channel, controller, value, 3);
}

constexpr MIDIMessage programChangeMessage(std::uint8_t program, std::uint8_t channel)
{
    return midi_message_detail::channelMessage(kProgramChange, channel, program, 0, 2);
}

} // namespace plinkora
