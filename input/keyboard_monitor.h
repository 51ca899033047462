#pragma once

#include "input/key_map.h"

#include <QObject>
#include <QPointer>

#include <bitset>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

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

    /// The main window stopped receiving the keys (another window, a menu, the screen lock):
    /// every held key counts as released now (releaseHeldKeys), and when the keys are still
    /// away kSpeechDelayMs later and no screen reader runs, Plinkora's own voice says "Paused"
    /// (a focus that only flickers, or a screen reader that is just starting, hears nothing).
    /// Does nothing while the keys are away already.
    void focusLost();
    /// The main window receives the keys again. Keys that are down now (as keysDownNow tells)
    /// play nothing until pressed again; Plinkora's own voice says "Playing" when it said
    /// "Paused". Does nothing unless focusLost() came before.
    void focusRegained();
    static constexpr int kSpeechDelayMs = 300;
    /// Escape, the panic: a note-off on the current channel for every sounding note, then on
    /// each channel sustain 0, all notes off and all sound off, the benders back at rest (sent),
    /// and "All notes off" announced. Note keys and arrows still held play nothing until
    /// pressed again.
    void allNotesOff();
    /// As if every held key were released now: a note-off for each held note key (computed as
    /// its release would be), sustain 0 if Shift was held, controller value 0 for each held
    /// function key, the arrow flags cleared. The held keys' key-downs then play nothing until
    /// they are released, and their release sends nothing. Also run at termination.
    void releaseHeldKeys();

    /// The installed key-event filter, removed at termination (empty when none was installed).
    QPointer<QObject> localMonitor;
    MIDIManager& midiManager;
    std::bitset<128> pressedKeys; // note keys that are down (all note keys are below 128)
    /// Every handled key that is down in the main window: note keys, function keys, arrows...
    KeySet heldKeys;
    /// Keys held through a focus change or a panic: their key-downs are repeats that play
    /// nothing, their key-up sends nothing and forgets them.
    KeySet keysToPressAgain;
    /// Keys held when the main window lost the keys, where the platform cannot tell whether
    /// they are still down at the return: their key-up sends nothing; a key-down is a new press.
    KeySet releasesToIgnore;
    /// Shift was held when sustain was lifted by a focus change or a panic: it sustains again
    /// only once pressed again.
    bool sustainToPressAgain = false;
    /// Between focusLost() and focusRegained().
    bool focusAway = false;
    std::unique_ptr<BenderController> benderController;
    std::unique_ptr<PropertyManager> propertyManager;
    bool sustainActive = false;
    /// The main window; key events are acted on only while it is the key window.
    QPointer<QObject> keyboardWindow;
    int currentOctave = 4;
    std::uint8_t currentVelocity = 100;

    /// Answers the application's key window (empty: none). Set by the application.
    std::function<QObject*()> keyWindow;
    /// Answers which keys are physically down now, by position code; nothing where the platform
    /// cannot tell. Asked at focusRegained(). Set by the application.
    std::function<std::optional<KeySet>()> keysDownNow;

private:
    /// True when the event belongs to a key held through a focus change or a panic, and is
    /// therefore swallowed without acting.
    bool isLeftoverOfHeldKey(const KeyEvent& event);
    /// The bender controller's flag for an arrow key, or nullptr for any other key.
    bool* arrowFlag(KeyCode code);
    /// Speaks `text` with Plinkora's own voice unless a screen reader runs; true when spoken.
    bool speakWithoutScreenReader(const char* text);
    bool pausedSpoken_ = false;
    QObject speechContext_; // the delayed "Paused" dies with the monitor

    SettingsStore& settings_;
};

} // namespace plinkora
