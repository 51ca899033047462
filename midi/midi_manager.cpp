#include "midi/midi_manager.h"

#include "common/diagnostics.h"

#include <cinttypes>
#include <cstdio>

namespace plinkora {

namespace {
constexpr std::string_view kPortName = "PLK";

constexpr std::uint8_t dataByte(unsigned value)
{
    return static_cast<std::uint8_t>(value & 0x7Fu);
}

constexpr std::uint8_t statusByte(unsigned kind, std::uint8_t channel)
{
    return static_cast<std::uint8_t>(kind | (channel & 0x0Fu));
}
} // namespace

MIDIManager::MIDIManager(std::unique_ptr<MidiBackend> backend)
    : backend_(std::move(backend))
{
    setupMIDI();
}

MIDIManager::~MIDIManager() = default;

void MIDIManager::setupMIDI()
{
    if (const MidiStatus status = backend_->createClient(kPortName, midiClient); status != kStatusOk) {
        printLine("Error creating MIDI client: ", status);
        return;
    }
    if (const MidiStatus status = backend_->createSource(midiClient, kPortName, virtualSource); status != kStatusOk)
        printLine("Error creating MIDI source: ", status);
}

MidiStatus MIDIManager::send(std::uint8_t status, std::uint8_t data1, std::uint8_t data2, std::uint16_t length)
{
    MidiPacket packet;
    packet.length = length;
    packet.data[0] = status;
    packet.data[1] = data1;
    if (length > 2)
        packet.data[2] = data2;
    return backend_->received(virtualSource, packet);
}

void MIDIManager::sendNoteOn(std::uint8_t note, std::uint8_t velocity, std::uint8_t channel)
{
    if (virtualSource == 0 || activeNotes.contains(note))
        return;
    activeNotes.insert(note);
    if (const MidiStatus status = send(statusByte(0x90, channel), dataByte(note), dataByte(velocity), 3))
        printLine("Error sending MIDI note on: ", status);
}

void MIDIManager::sendNoteOff(std::uint8_t note, std::uint8_t channel)
{
    if (virtualSource == 0)
        return;
    activeNotes.erase(note);
    if (const MidiStatus status = send(statusByte(0x80, channel), dataByte(note), 0, 3))
        printLine("Error sending MIDI note off: ", status);
}

void MIDIManager::sendPitchBend(std::uint16_t value, std::uint8_t channel)
{
    if (virtualSource == 0)
        return;
    if (const MidiStatus status = send(statusByte(0xE0, channel), dataByte(value), dataByte(value >> 7u), 3))
        printLine("Error sending MIDI pitch bend: ", status);
}

void MIDIManager::sendControlChange(std::uint8_t controller, std::uint8_t value, std::uint8_t channel)
{
    if (virtualSource == 0)
        return;
    if (const MidiStatus status = send(statusByte(0xB0, channel), dataByte(controller), dataByte(value), 3)) {
        char prefix[40];
        std::snprintf(prefix, sizeof prefix, "Error sending MIDI CC%u: ", static_cast<unsigned>(controller));
        printLine(prefix, status);
    }
}

void MIDIManager::sendProgramChange(std::uint8_t program, std::uint8_t channel)
{
    if (virtualSource == 0)
        return;
    if (const MidiStatus status = send(statusByte(0xC0, channel), dataByte(program), 0, 2))
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
    sendPitchBend(8192, 0);
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
