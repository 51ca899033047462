// Random sequences of key events through the key handler on the recording back end.
//
// Each input is read as a list of steps: key events of types 10, 11 and 12 with any key code
// (mostly the keys Plinkora acts on, sometimes any code from 0 to 65535) and any modifier
// flags, repeats, releases without presses, bender ticks, focus changes, the Escape panic.
// After every step: each message sent is well formed (a status byte, data bytes below 0x80,
// the length of its kind), notes stay 0 to 127, the bend 0 to 16383, and the notes the output
// counts as sounding are exactly those whose last message was a note-on. At the end, a focus
// loss and the shut-down clean-up: every note the output counted as sounding has had its
// note-off, and none is left counted.

#include "benders/bender_controller.h"
#include "common/settings_store.h"
#include "input/key_map.h"
#include "input/keyboard_monitor.h"
#include "midi/midi_manager.h"
#include "midi/recording_backend.h"
#include "support/fakes.h"

#include <QCoreApplication>
#include <QSettings>
#include <QTemporaryDir>

#include <fuzzer/FuzzedDataProvider.h>

#include <array>
#include <bitset>
#include <cstdio>
#include <cstdlib>
#include <memory>

using namespace plinkora;

namespace {

QCoreApplication* app = nullptr;
QSettings* qsettings = nullptr; // in memory for the whole run: the store's writes would sync a file each time

[[noreturn]] void fail(const char* what, unsigned a = 0, unsigned b = 0)
{
    std::fprintf(stderr, "key events fuzzer: %s (%u, %u)\n", what, a, b);
    std::abort();
}

// The keys the key handler acts on, and a few it passes on, to pick from most of the time.
constexpr std::array<KeyCode, 57> kInterestingKeys{
    0,  13, 1,  14, 2,  3,   17,  5,  16,  4,   32,  38,  40,  31, 37, 35, 41,  50,  30,
    39, 12, 15, 34, 33, 42,  6,   7,  8,   9,   11,  45,  46,  43, 18, 19, 20,  21,  23,
    22, 26, 28, 25, 29, 122, 120, 99, 118, 123, 124, 125, 126, 47, 44, 48, 115, 116, 36,
};

/// Checks every message recorded from `from` on and follows the notes they leave sounding.
class OutputChecker
{
public:
    explicit OutputChecker(const RecordingBackend& backend)
        : backend_(backend)
    {
    }

    void check(const MIDIManager& midi)
    {
        const auto& calls = backend_.calls();
        for (; checked_ < calls.size(); ++checked_) {
            const RecordingBackend::Call& call = calls[checked_];
            if (call.op != RecordingBackend::Op::Send)
                continue;
            const std::uint8_t status = call.bytes[0];
            if (status < 0x80)
                fail("a message without a status byte", status);
            const unsigned kind = status & 0xF0u;
            const unsigned expectedLength = kind == 0xC0 || kind == 0xD0 ? 2 : 3;
            if (kind == 0xF0 || call.length != expectedLength)
                fail("a message of the wrong length", status, static_cast<unsigned>(call.length));
            for (unsigned i = 1; i < call.length; ++i)
                if (call.bytes[i] >= 0x80)
                    fail("a data byte of 0x80 or above", status, call.bytes[i]);
            if (kind == 0xE0 && (call.bytes[1] | (call.bytes[2] << 7u)) > 16383)
                fail("a bend above 16383");
            const std::uint8_t note = call.bytes[1];
            if (kind == 0x90 && call.bytes[2] != 0)
                sounding_.set(note);
            else if (kind == 0x80 || kind == 0x90)
                sounding_.reset(note);
        }
        for (unsigned note = 0; note < 256; ++note) {
            const bool counted = midi.activeNotes.contains(static_cast<std::uint8_t>(note));
            if (note > 127 && counted)
                fail("a note above 127 counted as sounding", note);
            if (note <= 127 && counted != sounding_.test(note))
                fail("the output's sounding notes differ from the messages sent", note, counted);
        }
    }

    const std::bitset<128>& sounding() const { return sounding_; }

private:
    const RecordingBackend& backend_;
    std::size_t checked_ = 0;
    std::bitset<128> sounding_;
};

void checkBenders(const BenderController& benders)
{
    if (!(benders.pitchBend >= 0.0 && benders.pitchBend <= 16383.0))
        fail("the bend left 0 to 16383");
    if (!(benders.modulation >= 0.0 && benders.modulation <= 127.0))
        fail("the modulation left 0 to 127");
}

std::uint64_t flagsFrom(FuzzedDataProvider& input)
{
    const std::uint8_t kind = input.ConsumeIntegral<std::uint8_t>();
    if (kind & 0x80u)
        return input.ConsumeIntegral<std::uint64_t>(); // any bits at all
    std::uint64_t flags = 0;
    if (kind & 1u)
        flags |= kShiftFlag;
    if (kind & 2u)
        flags |= kCommandFlag;
    if (kind & 4u)
        flags |= std::uint64_t{1} << (16u + (kind >> 3u) % 8u); // another modifier bit
    return flags;
}

KeyCode keyFrom(FuzzedDataProvider& input)
{
    const std::uint8_t pick = input.ConsumeIntegral<std::uint8_t>();
    if (pick < 224)
        return kInterestingKeys[pick % kInterestingKeys.size()];
    return input.ConsumeIntegral<KeyCode>();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    // The key handler prints a line per event: keep libFuzzer's own output readable.
    if (!std::getenv("PLINKORA_FUZZ_VERBOSE") && !std::freopen("/dev/null", "w", stdout))
        return 1;
    static int qtArgc = 1;
    static char name[] = "key_events_fuzzer";
    static char* qtArgv[] = {name, nullptr};
    (void)argc;
    (void)argv;
    app = new QCoreApplication(qtArgc, qtArgv);
    static QTemporaryDir settingsDir(QStringLiteral("/dev/shm/plinkora-fuzz-XXXXXX"));
    qsettings = new QSettings(settingsDir.filePath(QStringLiteral("plinkora.conf")), QSettings::IniFormat);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider input(data, size);

    SettingsStore settings(*qsettings);
    // The bender speeds are read once, at construction: any double the store may hold.
    for (const char* key : {BenderController::kPitchBendSpeedKey, BenderController::kModulationSpeedKey}) {
        if (input.ConsumeBool())
            qsettings->setValue(QString::fromLatin1(key), input.ConsumeFloatingPoint<double>());
        else
            qsettings->remove(QString::fromLatin1(key));
    }

    auto recording = std::make_unique<RecordingBackend>();
    RecordingBackend& backend = *recording;
    MIDIManager midi(std::move(recording));
    KeyboardMonitor monitor(midi, settings, std::make_unique<testing::RecordingSoundPlayer>(),
                            std::make_unique<testing::RecordingAnnouncer>());
    BenderController& benders = *monitor.benderController;
    benders.updateTimer.stop(); // ticks come from the input, not the clock

    QObject window;
    QObject otherWindow;
    QObject* keyWindow = &window;
    monitor.keyboardWindow = &window;
    monitor.keyWindow = [&keyWindow] { return keyWindow; };

    OutputChecker checker(backend);
    checker.check(midi);
    for (int step = 0; step < 2000 && input.remaining_bytes() > 0; ++step) {
        const std::uint8_t op = input.ConsumeIntegral<std::uint8_t>();
        if (op < 200) {
            static constexpr std::array<std::uint16_t, 3> kTypes{kEventKeyDown, kEventKeyUp, kEventFlagsChanged};
            const std::uint16_t type = kTypes[op % 3];
            const KeyCode code = keyFrom(input);
            const std::uint64_t flags = flagsFrom(input);
            const int times = op >= 180 ? 1 + input.ConsumeIntegralInRange(0, 7) : 1; // held: repeats
            for (int i = 0; i < times; ++i)
                monitor.monitorCallback(KeyEvent{type, code, flags});
        } else if (op < 225) {
            const int ticks = 1 + input.ConsumeIntegralInRange(0, 120);
            for (int i = 0; i < ticks; ++i) {
                benders.updateBenders();
                checkBenders(benders);
            }
        } else if (op < 240) {
            // The window loses or regains the keyboard.
            const bool lose = keyWindow == &window;
            keyWindow = lose ? input.PickValueInArray({static_cast<QObject*>(nullptr), &otherWindow}) : &window;
            if (lose)
                monitor.focusLost();
            else
                monitor.focusRegained();
        } else if (op < 250) {
            monitor.monitorCallback(
                KeyEvent{input.ConsumeBool() ? kEventKeyDown : kEventKeyUp, kKeyEscape, flagsFrom(input)});
            monitor.allNotesOff();
        } else {
            QCoreApplication::processEvents(); // the announcements queued by the property keys
        }
        checker.check(midi);
        checkBenders(benders);
    }

    // The shut-down: the window loses the keyboard, then the clean-up.
    const std::bitset<128> soundingBefore = checker.sounding();
    const std::size_t before = backend.calls().size();
    keyWindow = nullptr;
    monitor.focusLost();
    midi.cleanup();
    checker.check(midi);
    if (!midi.activeNotes.empty() || checker.sounding().any())
        fail("notes left sounding after the clean-up", static_cast<unsigned>(midi.activeNotes.size()));
    std::bitset<128> stopped;
    const auto& calls = backend.calls();
    for (std::size_t i = before; i < calls.size(); ++i)
        if (calls[i].op == RecordingBackend::Op::Send && (calls[i].bytes[0] & 0xF0u) == 0x80)
            stopped.set(calls[i].bytes[1]);
    if ((soundingBefore & ~stopped).any())
        fail("a sounding note without its note-off at the shut-down");
    QCoreApplication::processEvents();
    return 0;
}
