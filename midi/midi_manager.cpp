#include "midi/midi_manager.h"

#include "common/diagnostics.h"
#include "midi/midi_message.h"
#include "midi/port_name.h"

#include <cinttypes>
#include <cstdio>

namespace plinkora {

MIDIManager::MIDIManager(std::unique_ptr<MIDIBackend> backend)
    : backend_(std::move(backend))
{
    setupMIDI();
}

MIDIManager::~MIDIManager() = default;

void MIDIManager::setupMIDI()
{
    if (const MIDIStatus status = backend_->createClient(kPortName, midiClient); status != kStatusOk) {
        printLine("Error creating MIDI client: ", status);
        return;
    }
    if (const MIDIStatus status = backend_->createSource(midiClient, kPortName, virtualSource); status != kStatusOk)
        printLine("Error creating MIDI source: ", status);
}

MIDIStatus MIDIManager::send(const MIDIMessage& message)
{
    return backend_->send(virtualSource, message.bytes());
}

void MIDIManager::sendNoteOn(std::uint8_t note, std::uint8_t velocity, std::uint8_t channel)
{
    if (virtualSource == 0 || activeNotes.contains(note))
        return;
    activeNotes.insert(note);
    if (const MIDIStatus status = send(noteOnMessage(note, velocity, channel)))
        printLine("Error sending MIDI note on: ", status);
}

void MIDIManager::sendNoteOff(std::uint8_t note, std::uint8_t channel)
{
    if (virtualSource == 0)
        return;
    activeNotes.erase(note);
    if (const MIDIStatus status = send(noteOffMessage(note, channel)))
        printLine("Error sending MIDI note off: ", status);
}

void MIDIManager::sendPitchBend(std::uint16_t value, std::uint8_t channel)
{
    if (virtualSource == 0)
        return;
    if (const MIDIStatus status = send(pitchBendMessage(value, channel)))
        printLine("Error sending MIDI pitch bend: ", status);
}

void MIDIManager::sendControlChange(std::uint8_t controller, std::uint8_t value, std::uint8_t channel)
{
    if (virtualSource == 0)
        return;
    if (const MIDIStatus status = send(controlChangeMessage(controller, value, channel))) {
        char prefix[40];
        std::snprintf(prefix, sizeof prefix, "Error sending MIDI CC%u: ", static_cast<unsigned>(controller));
        printLine(prefix, status);
    }
}

void MIDIManager::sendProgramChange(std::uint8_t program, std::uint8_t channel)
{
    if (virtualSource == 0)
        return;
    if (const MIDIStatus status = send(programChangeMessage(program, channel)))
        printLine("Error sending MIDI program change: ", status);
}

void MIDIManager::stopActiveNotes(std::uint8_t channel)
{
    const ActiveNoteSet snapshot = activeNotes;
    snapshot.forEach([this, channel](std::uint8_t note) { sendNoteOff(note, channel); });
}

void MIDIManager::sendAllChannelsOff()
{
    constexpr std::uint8_t kSustain = 64;
    constexpr std::uint8_t kAllNotesOff = 123;
    constexpr std::uint8_t kAllSoundOff = 120;
    for (std::uint8_t channel = 0; channel < 16; ++channel) {
        sendControlChange(kSustain, 0, channel);
        sendControlChange(kAllNotesOff, 0, channel);
        sendControlChange(kAllSoundOff, 0, channel);
    }
}

void MIDIManager::sendBendersAtRest()
{
    sendPitchBend(kPitchBendCentre, 0);
    sendControlChange(1, 0, 0);
}

void MIDIManager::cleanup()
{
    stopActiveNotes(0);
    sendBendersAtRest();
    if (virtualSource != 0)
        backend_->disposeSource(virtualSource);
    if (midiClient != 0)
        backend_->disposeClient(midiClient);
}

} // namespace plinkora
