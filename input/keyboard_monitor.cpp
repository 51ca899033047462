#include "input/keyboard_monitor.h"

#include "benders/bender_controller.h"
#include "common/diagnostics.h"
#include "common/settings_store.h"
#include "common/user_text.h"
#include "input/function_key_config.h"
#include "input/key_table.h"
#include "midi/midi_manager.h"
#include "midi/midi_message.h"
#include "properties/announcer.h"
#include "properties/property_manager.h"

#include <QTimer>

#include <cstddef>

namespace plinkora {

KeyboardMonitor::KeyboardMonitor(MIDIManager& manager, SettingsStore& settings,
                                 std::unique_ptr<SoundPlayer> soundPlayer, std::unique_ptr<Announcer> speechSynthesizer)
    : midiManager(manager)
    , settings_(settings)
{
    benderController = std::make_unique<BenderController>(midiManager, settings_, std::move(soundPlayer));
    propertyManager = std::make_unique<PropertyManager>(midiManager, std::move(speechSynthesizer));
}

KeyboardMonitor::~KeyboardMonitor() = default;

bool KeyboardMonitor::isHandledKey(KeyCode code)
{
    return keyRole(code) != KeyRole::None;
}

bool KeyboardMonitor::monitorCallback(const KeyEvent& event)
{
    // Written once the key's work is done, so its message does not wait for standard output.
    const LineAfterwards line("Key event received: type=%u keyCode=%u", static_cast<unsigned>(event.type),
                              static_cast<unsigned>(event.keyCode));

    // Act only while the main window is the key window; both absent counts as the same.
    const QObject* active = keyWindow ? keyWindow() : nullptr;
    if (active != keyboardWindow.data())
        return false;
    // Back in the main window before the application said so: the return happens now.
    if (focusAway)
        focusRegained();

    if (event.type == kEventFlagsChanged) {
        handleKeyEvent(event);
        return true;
    }
    // Every shortcut with the platform's shortcut modifier goes on to the menus.
    if (event.modifierFlags & kCommandFlag)
        return false;
    if (!isHandledKey(event.keyCode))
        return false;
    handleKeyEvent(event);
    return true;
}

bool KeyboardMonitor::isLeftoverOfHeldKey(const KeyEvent& event)
{
    const KeyCode code = event.keyCode;
    if (event.type == kEventFlagsChanged) {
        // Shift held through the change is no sustain; letting it go sends nothing either.
        if (!sustainToPressAgain)
            return false;
        if (!(event.modifierFlags & kShiftFlag))
            sustainToPressAgain = false;
        return true;
    }
    if (!(event.modifierFlags & kShiftFlag))
        sustainToPressAgain = false;
    if (code >= keysToPressAgain.size())
        return false;
    const bool keyDown = event.type == kEventKeyDown;
    if (keysToPressAgain.test(code)) {
        if (!keyDown)
            keysToPressAgain.reset(code);
        return true;
    }
    if (releasesToIgnore.test(code)) {
        releasesToIgnore.reset(code);
        return !keyDown;
    }
    return false;
}

void KeyboardMonitor::handleKeyEvent(const KeyEvent& event)
{
    const KeyCode code = event.keyCode;
    const bool keyDown = event.type == kEventKeyDown;
    const bool alreadyPressed = code < pressedKeys.size() && pressedKeys.test(code);

    if (isLeftoverOfHeldKey(event))
        return;

    if (event.type == kEventFlagsChanged) {
        const bool shift = (event.modifierFlags & kShiftFlag) != 0;
        if (shift != sustainActive) {
            sustainActive = shift;
            midiManager.sendControlChange(64, shift ? kMIDIDataMax : 0, propertyManager->getChannel());
        }
        return;
    }

    const bool alreadyHeld = code < heldKeys.size() && heldKeys.test(code);
    if (code < heldKeys.size())
        heldKeys.set(code, keyDown);

    const bool newPress = keyDown && !alreadyPressed;
    switch (keyRole(code)) {
    case KeyRole::Panic:
        if (keyDown && !alreadyHeld)
            allNotesOff();
        return;
    case KeyRole::PropertyStep:
        if (newPress)
            stepProperty(code, (event.modifierFlags & kShiftFlag) != 0);
        return;
    case KeyRole::FunctionKey: {
        // No repeat filter: every key-down sends 127 again.
        const std::uint8_t channel = propertyManager->getChannel();
        const std::uint8_t controller = kFunctionKeyConfig.controllerNumber(settings_, *functionKeyIndex(code));
        midiManager.sendControlChange(controller, keyDown ? kMIDIDataMax : 0, channel);
        return;
    }
    case KeyRole::Bender:
        // Arrows only set the flags (and wake the resting timer); the bender timer does the sending.
        benderArrowFlag(code) = keyDown;
        benderController->wake();
        return;
    case KeyRole::AutoReleaseToggle:
        if (newPress) {
            // No repeat filter either: holding the key flips the mode on every repeat.
            bool& flag = code == kKeyPeriod ? benderController->pitchBendAutoRelease
                                            : benderController->modulationAutoRelease;
            flag = !flag;
            benderController->wake();
            benderController->playSound(flag ? "up.wav" : "down.wav");
        }
        return;
    case KeyRole::Octave:
        if (newPress)
            currentOctave = *octaveForKey(code);
        return;
    case KeyRole::Velocity:
        if (newPress)
            currentVelocity = clampVelocity(*velocityForKey(code));
        return;
    case KeyRole::Note:
        playNoteKey(code, *noteOffsetForKey(code), keyDown, alreadyPressed);
        return;
    case KeyRole::None:
        return;
    }
}

void KeyboardMonitor::stepProperty(KeyCode code, bool shift)
{
    switch (code) {
    case kKeyTab:
        if (shift)
            propertyManager->previousProperty();
        else
            propertyManager->nextProperty();
        return;
    case kKeyHome:
        propertyManager->increaseValue(true);
        return;
    case kKeyPageUp:
        propertyManager->increaseValue(false);
        return;
    case kKeyEnd:
        propertyManager->decreaseValue(true);
        return;
    case kKeyPageDown:
        propertyManager->decreaseValue(false);
        return;
    default:
        return;
    }
}

bool& KeyboardMonitor::benderArrowFlag(KeyCode code)
{
    switch (code) {
    case kKeyUp:
        return benderController->upPressed;
    case kKeyDown:
        return benderController->downPressed;
    case kKeyLeft:
        return benderController->leftPressed;
    default:
        return benderController->rightPressed;
    }
}

void KeyboardMonitor::playNoteKey(KeyCode code, int offset, bool keyDown, bool alreadyPressed)
{
    if (keyDown) {
        if (alreadyPressed)
            return; // auto-repeat
        pressedKeys.set(code);
        const std::uint8_t note = noteNumber(currentOctave, offset, propertyManager->getTranspose());
        midiManager.sendNoteOn(note, currentVelocity, propertyManager->getChannel());
        return;
    }
    // The note-off is computed from the octave, transposition and channel of this moment.
    pressedKeys.reset(code);
    const std::uint8_t note = noteNumber(currentOctave, offset, propertyManager->getTranspose());
    midiManager.sendNoteOff(note, propertyManager->getChannel());
}

void KeyboardMonitor::releaseHeldKeys()
{
    const std::uint8_t channel = propertyManager->getChannel();
    for (std::size_t i = 0; i < pressedKeys.size(); ++i) {
        const auto code = static_cast<KeyCode>(i);
        if (!pressedKeys.test(code))
            continue;
        if (const std::optional<int> offset = noteOffsetForKey(code))
            midiManager.sendNoteOff(noteNumber(currentOctave, *offset, propertyManager->getTranspose()), channel);
    }
    if (sustainActive) {
        sustainActive = false;
        sustainToPressAgain = true;
        midiManager.sendControlChange(64, 0, channel);
    }
    for (std::size_t index = 0; index < functionKeyCodes.size(); ++index) {
        if (heldKeys.test(functionKeyCodes[index]))
            midiManager.sendControlChange(kFunctionKeyConfig.controllerNumber(settings_, static_cast<int>(index)), 0,
                                          channel);
    }
    benderController->upPressed = false;
    benderController->downPressed = false;
    benderController->leftPressed = false;
    benderController->rightPressed = false;

    keysToPressAgain |= heldKeys;
    pressedKeys.reset();
    heldKeys.reset();
}

void KeyboardMonitor::focusLost()
{
    if (focusAway)
        return;
    focusAway = true;
    releaseHeldKeys();
    QTimer::singleShot(kSpeechDelayMs, &speechContext_, [this] {
        if (focusAway && !pausedSpoken_)
            pausedSpoken_ = speakWithoutScreenReader(QT_TRANSLATE_NOOP("Announcement", "Paused"));
    });
}

void KeyboardMonitor::focusRegained()
{
    if (!focusAway)
        return;
    focusAway = false;
    if (const std::optional<KeySet> down = keysDownNow ? keysDownNow() : std::nullopt) {
        // The platform repeats a key held through the return as new presses: every key down
        // now waits for its release, whichever window it was pressed in.
        keysToPressAgain.reset();
        for (std::size_t i = 0; i < down->size(); ++i)
            keysToPressAgain.set(i, down->test(i) && isHandledKey(static_cast<KeyCode>(i)));
        releasesToIgnore.reset();
        if (!down->test(kKeyShift) && !down->test(kKeyRightShift))
            sustainToPressAgain = false;
    } else {
        // No way to tell what was let go meanwhile: a key-down is a new press, and the release
        // of a key held since the loss sends nothing.
        releasesToIgnore |= keysToPressAgain;
        keysToPressAgain.reset();
        sustainToPressAgain = false;
    }
    if (pausedSpoken_) {
        pausedSpoken_ = false;
        speakWithoutScreenReader(QT_TRANSLATE_NOOP("Announcement", "Playing"));
    }
}

void KeyboardMonitor::allNotesOff()
{
    midiManager.stopActiveNotes(propertyManager->getChannel());
    midiManager.sendAllChannelsOff();
    BenderController& benders = *benderController;
    benders.upPressed = benders.downPressed = benders.leftPressed = benders.rightPressed = false;
    benders.pitchBend = benders.pitchBendCenter;
    benders.modulation = benders.modulationMin;
    midiManager.sendBendersAtRest();

    // Note keys, arrows and Shift still held start nothing again until pressed again.
    KeySet silenced = pressedKeys;
    for (const KeyCode arrow : arrowKeyCodes)
        silenced.set(arrow, heldKeys.test(arrow));
    keysToPressAgain |= silenced;
    heldKeys &= ~silenced;
    pressedKeys.reset();
    if (sustainActive) {
        sustainActive = false;
        sustainToPressAgain = true;
    }
    propertyManager->announce(UserText::announcement(QT_TRANSLATE_NOOP("Announcement", "All notes off")));
}

bool KeyboardMonitor::speakWithoutScreenReader(const char* source)
{
    // A screen reader reports the focus change itself; Plinkora's voice is for those without one.
    Announcer* voice = propertyManager->speechSynthesizer.get();
    if (!voice || voice->isScreenReaderRunning())
        return false;
    if (voice->isSpeaking())
        voice->stopSpeaking();
    voice->speak(UserText::announcement(source).shown);
    return true;
}

} // namespace plinkora
