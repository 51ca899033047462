#pragma once

#include "midi/midi_backend.h"

#include <cstdint>

namespace plinkora {

/// What a synthesizer is told, one call per MIDI channel message. Channels 0 to 15, data 0 to 127,
/// bend 0 to 16383 (8192 centred).
class SynthTarget
{
public:
    virtual ~SynthTarget() = default;

    virtual void noteOn(int channel, int key, int velocity) = 0;
    virtual void noteOff(int channel, int key) = 0;
    virtual void controlChange(int channel, int controller, int value) = 0;
    virtual void programChange(int channel, int program) = 0;
    virtual void pitchBend(int channel, int value) = 0;
    virtual void channelPressure(int channel, int value) = 0;
    virtual void keyPressure(int channel, int key, int value) = 0;
};

/// Reads the MIDI channel messages in `bytes` (one or more, each with its status byte) and calls
/// `target` for each, in order. A note-on with velocity 0 is a note-off. System messages and
/// bytes without a status are skipped. Never allocates.
void playMessages(MIDIBytes bytes, SynthTarget& target);

} // namespace plinkora
