#pragma once

#include "midi/midi_backend.h"

#include <bitset>
#include <cstdint>
#include <memory>

namespace plinkora {

struct MIDIMessage;

/// The set of note numbers that were started and not yet stopped. The channel is not part of
/// the key. Iterates in ascending note order; never allocates.
class ActiveNoteSet
{
public:
    bool contains(std::uint8_t note) const { return bits_.test(note); }
    void insert(std::uint8_t note) { bits_.set(note); }
    void erase(std::uint8_t note) { bits_.reset(note); }
    bool empty() const { return bits_.none(); }
    std::size_t size() const { return bits_.count(); }
    template <typename F> void forEach(F&& f) const
    {
        for (unsigned note = 0; note < 256; ++note)
            if (bits_.test(note))
                f(static_cast<std::uint8_t>(note));
    }

private:
    std::bitset<256> bits_;
};

/// The only place where Plinkora talks to the MIDI service. Publishes the virtual source "PLK"
/// when made, builds the bytes of every message, keeps the sounding notes and silences them
/// at `cleanup`. Data bytes are masked to 7 bits and channels to 4 bits, never clamped.
/// Main thread only.
class MIDIManager
{
public:
    /// Takes the back end and publishes the source at once (`setupMIDI`). A failure prints
    /// its error line; every send is then a silent no-op.
    explicit MIDIManager(std::unique_ptr<MIDIBackend> backend);
    /// Frees the note set only: sends nothing and disposes nothing (that is `cleanup`'s job).
    ~MIDIManager();
    MIDIManager(const MIDIManager&) = delete;
    MIDIManager& operator=(const MIDIManager&) = delete;

    void setupMIDI();
    void sendNoteOn(std::uint8_t note, std::uint8_t velocity, std::uint8_t channel);
    void sendNoteOff(std::uint8_t note, std::uint8_t channel);
    void sendPitchBend(std::uint16_t value, std::uint8_t channel);
    void sendControlChange(std::uint8_t controller, std::uint8_t value, std::uint8_t channel);
    void sendProgramChange(std::uint8_t program, std::uint8_t channel);
    /// A note-off on `channel` for every sounding note, in ascending note order; none of them
    /// counts as sounding afterwards.
    void stopActiveNotes(std::uint8_t channel);
    /// On each of the 16 channels in turn: sustain 0 (controller 64), all notes off (123),
    /// all sound off (120).
    void sendAllChannelsOff();
    /// The benders at rest: pitch bend centre and modulation 0, on channel 0 where they send.
    void sendBendersAtRest();
    /// Note-offs on channel 0 for the sounding notes (stopActiveNotes: the bytes of sendNoteOff),
    /// bend centre, modulation 0, then the source and the client are withdrawn. Called once, at
    /// termination.
    void cleanup();

    MIDIBackend& backend() { return *backend_; }

    std::uint32_t midiClient = 0;
    /// A port of the client for sending to one chosen destination. Plinkora never makes one: it
    /// publishes `virtualSource` and lets other programs connect to it. The field belongs to the
    /// manager's described state, so it stays, always 0 (midi_manager_test checks that).
    std::uint32_t outputPort = 0;
    std::uint32_t virtualSource = 0;
    ActiveNoteSet activeNotes;

private:
    [[nodiscard]] MIDIStatus send(const MIDIMessage& message);

    std::unique_ptr<MIDIBackend> backend_;
};

} // namespace plinkora
