#pragma once

#include "common/user_text.h"
#include "properties/announcer.h"
#include "properties/midi_property.h"

#include <QObject>

#include <cstdint>
#include <memory>
#include <vector>

namespace plinkora {

class MIDIManager;

/// The eight MIDI properties and the selection among them. Stepping through them and
/// changing a value sends it on the current channel and announces it: the "Announcing: " line
/// at once, the accessibility post and the speech one event-loop turn later. Main thread only.
class PropertyManager
{
public:
    /// Builds the eight properties; nothing is sent or announced.
    PropertyManager(MIDIManager& midiManager, std::unique_ptr<Announcer> speechSynthesizer);
    PropertyManager(const PropertyManager&) = delete;
    PropertyManager& operator=(const PropertyManager&) = delete;

    void nextProperty();
    void previousProperty();
    void increaseValue(bool large);
    void decreaseValue(bool large);
    /// The Channel property's value (0 to 15); 0 when there is none.
    std::uint8_t getChannel() const;
    /// The Transpose property's value in semitones; 0 when there is none.
    std::int64_t getTranspose() const;

    /// Prints "Announcing: " and the English text, then posts and speaks it in the user's
    /// language on the next turn of the event loop (unless this manager is gone by then).
    void announce(const UserText& text);

    std::vector<std::unique_ptr<MIDIProperty>> properties;
    std::int64_t currentIndex = 0;
    MIDIManager& midiManager;
    std::unique_ptr<Announcer> speechSynthesizer;

private:
    void setupProperties();
    void sendPropertyValue(const MIDIProperty& property);
    void announceCurrentProperty();
    void announceValue();
    MIDIProperty* selected();
    void adjust(std::int64_t delta);

    // Context of the deferred announcement jobs: queued calls die with it.
    QObject jobContext_;
};

} // namespace plinkora
