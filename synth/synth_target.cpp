#include "synth/synth_target.h"

#include "midi/midi_message.h"

namespace plinkora {

namespace {
// The number of data bytes after a channel status byte.
int dataBytes(std::uint8_t status)
{
    switch (status & 0xF0u) {
    case kProgramChange:
    case kChannelPressure:
        return 1;
    default:
        return 2;
    }
}
} // namespace

void playMessages(MIDIBytes bytes, SynthTarget& target)
{
    const std::size_t length = bytes.size();
    std::size_t i = 0;
    while (i < length) {
        const std::uint8_t status = bytes[i];
        if (status < kNoteOff || status >= 0xF0) { // a stray data byte or a system message
            ++i;
            continue;
        }
        const int count = dataBytes(status);
        if (i + static_cast<std::size_t>(count) >= length)
            return; // cut off
        const int channel = status & 0x0F;
        const int a = bytes[i + 1] & 0x7F;
        const int b = count == 2 ? bytes[i + 2] & 0x7F : 0;
        switch (status & 0xF0u) {
        case kNoteOff:
            target.noteOff(channel, a);
            break;
        case kNoteOn:
            if (b == 0)
                target.noteOff(channel, a);
            else
                target.noteOn(channel, a, b);
            break;
        case kKeyPressure:
            target.keyPressure(channel, a, b);
            break;
        case kControlChange:
            target.controlChange(channel, a, b);
            break;
        case kProgramChange:
            target.programChange(channel, a);
            break;
        case kChannelPressure:
            target.channelPressure(channel, a);
            break;
        case kPitchBend:
            target.pitchBend(channel, a | (b << 7));
            break;
        default:
            break;
        }
        i += 1 + static_cast<std::size_t>(count);
    }
}

} // namespace plinkora
