#pragma once

#include "input/key_map.h"

#include <QObject>
#include <QPointer>

#include <bitset>
#include <cstdint>
#include <functional>
#include <memory>

namespace plinkora {

class Announcer;
class BenderController;
class MIDIManager;
class PropertyManager;
class SettingsStore;
class SoundPlayer;

/// Where every key press becomes music: notes, sustain, octave, velocity, benders, auto-release,
/// function-key controllers and the property list. Fed one plain key event at a time by the
/// application's key-event filter; knows nothing of the toolkit's events. Main thread only.
class KeyboardMonitor
{
public:
    /// Makes the bender controller (its timer starts at once) and then the property manager,
    /// both sending through `midiManager`.
    KeyboardMonitor(MIDIManager& midiManager, SettingsStore& settings, std::unique_ptr<SoundPlayer> soundPlayer,
                    std::unique_ptr<Announcer> speechSynthesizer);
    ~KeyboardMonitor();
    KeyboardMonitor(const KeyboardMonitor&) = delete;
    KeyboardMonitor& operator=(const KeyboardMonitor&) = delete;

    /// The monitor callback: prints the debug line, checks the key window and the Command
    /// modifier, acts on the keys it handles. Returns true when the event is swallowed, false
    /// when it must go on to the window.
    bool monitorCallback(const KeyEvent& event);
    void handleKeyEvent(const KeyEvent& event);
    /// True for every key Plinkora acts on (the same for key-down and key-up).
    static bool isHandledKey(KeyCode code);

    /// The installed key-event filter, removed at termination (empty when none was installed).
    QPointer<QObject> localMonitor;
    MIDIManager& midiManager;
    std::bitset<128> pressedKeys; // note keys that are down (all note keys are below 128)
    std::unique_ptr<BenderController> benderController;
    std::unique_ptr<PropertyManager> propertyManager;
    bool sustainActive = false;
    /// The main window; key events are acted on only while it is the key window.
    QPointer<QObject> keyboardWindow;
    int currentOctave = 4;
    std::uint8_t currentVelocity = 100;

    /// Answers the application's key window (empty: none). Set by the application.
    std::function<QObject*()> keyWindow;

private:
    SettingsStore& settings_;
};

} // namespace plinkora
