#include "synth/synth_target.h"

#include <algorithm>

namespace plinkora {

namespace {
// The number of data bytes after a channel status byte.
int dataBytes(std::uint8_t status)
{
    switch (status & 0xF0u) {
    case 0xC0:
    case 0xD0:
        return 1;
    default:
        return 2;
    }
}
} // namespace

void playPacket(const MidiPacket& packet, SynthTarget& target)
{
    const std::size_t length = std::min<std::size_t>(packet.length, packet.data.size());
    std::size_t i = 0;
    while (i < length) {
        const std::uint8_t status = packet.data[i];
        if (status < 0x80 || status >= 0xF0) { // a stray data byte or a system message
            ++i;
            continue;
        }
        const int count = dataBytes(status);
        if (i + static_cast<std::size_t>(count) >= length)
            return; // cut off
        const int channel = status & 0x0F;
        const int a = packet.data[i + 1] & 0x7F;
        const int b = count == 2 ? packet.data[i + 2] & 0x7F : 0;
        switch (status & 0xF0u) {
        case 0x80:
            target.noteOff(channel, a);
            break;
        case 0x90:
            if (b == 0)
                target.noteOff(channel, a);
            else
                target.noteOn(channel, a, b);
            break;
        case 0xA0:
            target.keyPressure(channel, a, b);
            break;
        case 0xB0:
            target.controlChange(channel, a, b);
            break;
        case 0xC0:
            target.programChange(channel, a);
            break;
        case 0xD0:
            target.channelPressure(channel, a);
            break;
        case 0xE0:
            target.pitchBend(channel, a | (b << 7));
            break;
        default:
            break;
        }
        i += 1 + static_cast<std::size_t>(count);
    }
}

} // namespace plinkora
