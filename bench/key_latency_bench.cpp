// key_latency_bench: how long a key press takes from Plinkora's application event filter to the
// MIDI message handed to the MIDI back end.
//
// The real application is built as the program builds it (AppDelegate: MIDIManager, keyboard
// monitor, KeyEventFilter, main window with its keyboard view, menu bar and status bar), on a
// real QApplication (offscreen unless QT_QPA_PLATFORM says otherwise), with a MIDI back end that
// takes the time at send(). Key presses and releases are real QKeyEvent objects carrying the
// Linux native scan codes (evdev + 8) as X11 delivers them: spontaneous, to the main window's
// QWindow first, which passes them on to the focus widget. The time is taken just before the
// event is handed to Qt (window → MIDI) and, by a timestamping application event filter
// installed in front of Plinkora's, when the event enters the application's filters
// (filter → MIDI). The event loop runs between two events (its timers fire as usual), untimed.
//
// Usage: key_latency_bench [--pairs N] [--warmup N] [--gap-us N] [--stdout LIST]
//   --pairs N      note press/release pairs measured per series (default 20000)
//   --warmup N     pairs played before each series and not counted (default 2000)
//   --gap-us N     pause between two key events, in microseconds (default 0: back to back)
//   --stdout LIST  where Plinkora's "Key event received" lines go, one series each, comma-
//                  separated: null (/dev/null), file (a file in /tmp), pipe or pty (read by
//                  another thread), slowpipe (a pipe whose reader takes 512 bytes a
//                  millisecond); default null,file,pipe,pty,slowpipe
// Prints, per series, the median, 90th, 99th and 99.9th percentile and the maximum in µs, and
// the same for the events during which the thread was not switched out (getrusage before and
// after each event): on a busy machine the tail is the scheduler's, and this line shows it.
// Exit status 0, or 1 when a key did not send exactly the message it should.

#include "app/app_delegate.h"
#include "app/key_event_filter.h"
#include "benders/sound_player.h"
#include "common/settings_store.h"
#include "diagnostics_sink.h"
#include "input/key_map.h"
#include "input/key_table.h"
#include "input/keyboard_monitor.h"
#include "midi/midi_manager.h"
#include "midi/null_backend.h"
#include "properties/announcer.h"
#include "support/fakes.h"
#include "support/key_delivery.h"
#include "ui/keyboard_view.h"
#include "ui/main_window.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QSettings>
#include <QTemporaryDir>
#include <QWindow>
#include <QtTest/qtestspontaneevent.h>

#include <linux/input-event-codes.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace plinkora;
using namespace plinkora::bench;
using plinkora::testing::kX11ShiftMask;
using plinkora::testing::LinuxKey;
using Clock = std::chrono::steady_clock;

namespace {

// ---------------------------------------------------------------------------------------------
// What the application is given instead of the desktop.

/// A MIDI back end that takes the time of the first message after it is armed.
class TimestampingBackend final : public NullBackend
{
public:
    std::string_view apiName() const override { return "timestamping"; }
    MIDIStatus send(std::uint32_t, MIDIBytes message) override
    {
        const Clock::time_point now = Clock::now();
        ++messages;
        if (armed && !stamped) {
            stamp = now;
            stamped = true;
            length = message.size();
            std::memcpy(bytes, message.data(), std::min<std::size_t>(message.size(), sizeof bytes));
        }
        return kStatusOk;
    }

    void arm()
    {
        armed = true;
        stamped = false;
    }

    bool armed = false;
    bool stamped = false;
    Clock::time_point stamp;
    std::size_t length = 0;
    std::uint8_t bytes[3] = {};
    std::uint64_t messages = 0;
};

/// Installed after Plinkora's filter, so Qt calls it first: takes the time at which a key event
/// from the window system enters the application's event filters.
class EntryStamp final : public QObject
{
public:
    EntryStamp() { QCoreApplication::instance()->installEventFilter(this); }
    ~EntryStamp() override { QCoreApplication::instance()->removeEventFilter(this); }
    EntryStamp(const EntryStamp&) = delete;
    EntryStamp& operator=(const EntryStamp&) = delete;

    void arm() { stamped = false; }

    bool stamped = false;
    Clock::time_point stamp;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        const QEvent::Type type = event->type();
        if (!stamped && (type == QEvent::KeyPress || type == QEvent::KeyRelease) && watched->isWindowType()
            && event->spontaneous()) {
            stamp = Clock::now();
            stamped = true;
        }
        return false;
    }
};

// ---------------------------------------------------------------------------------------------
// The keys, as X11 reports them on a US keyboard.

constexpr LinuxKey letter(std::uint32_t evdev, const char* lower)
{
    return {evdev, Qt::Key_A + (lower[0] - 'a'), lower, static_cast<std::uint32_t>(lower[0])};
}
constexpr LinuxKey symbol(std::uint32_t evdev, int qtKey, const char* text)
{
    return {evdev, qtKey, text, static_cast<std::uint32_t>(static_cast<unsigned char>(text[0]))};
}

// The 25 note keys (home row, the row above, and the keys that extend it).
const LinuxKey kNoteKeysLinux[] = {
    letter(KEY_A, "a"),
    letter(KEY_W, "w"),
    letter(KEY_S, "s"),
    letter(KEY_E, "e"),
    letter(KEY_D, "d"),
    letter(KEY_F, "f"),
    letter(KEY_T, "t"),
    letter(KEY_G, "g"),
    letter(KEY_Y, "y"),
    letter(KEY_H, "h"),
    letter(KEY_U, "u"),
    letter(KEY_J, "j"),
    letter(KEY_K, "k"),
    letter(KEY_O, "o"),
    letter(KEY_L, "l"),
    letter(KEY_P, "p"),
    symbol(KEY_SEMICOLON, Qt::Key_Semicolon, ";"),
    symbol(KEY_GRAVE, Qt::Key_QuoteLeft, "`"),
    symbol(KEY_RIGHTBRACE, Qt::Key_BracketRight, "]"),
    symbol(KEY_APOSTROPHE, Qt::Key_Apostrophe, "'"),
    letter(KEY_Q, "q"),
    letter(KEY_R, "r"),
    letter(KEY_I, "i"),
    symbol(KEY_LEFTBRACE, Qt::Key_BracketLeft, "["),
    symbol(KEY_BACKSLASH, Qt::Key_Backslash, "\\"),
};
// Octaves 3 to 6 (the number row).
const LinuxKey kOctaveKeysLinux[] = {
    symbol(KEY_3, Qt::Key_3, "3"),
    symbol(KEY_4, Qt::Key_4, "4"),
    symbol(KEY_5, Qt::Key_5, "5"),
    symbol(KEY_6, Qt::Key_6, "6"),
};
// The velocity keys (the bottom letter row).
const LinuxKey kVelocityKeysLinux[] = {
    letter(KEY_Z, "z"), letter(KEY_X, "x"), letter(KEY_C, "c"), letter(KEY_V, "v"),
    letter(KEY_B, "b"), letter(KEY_N, "n"), letter(KEY_M, "m"), symbol(KEY_COMMA, Qt::Key_Comma, ","),
};
constexpr LinuxKey kLeftShift{KEY_LEFTSHIFT, Qt::Key_Shift, "", 0xffe1}; // XK_Shift_L

/// Checks that the keys above are what the key map says they are.
void checkKeys()
{
    auto position = [](const LinuxKey& key) {
        return positionCodeForKeyEvent(key.evdev + kLinuxScanCodeOffset, key.keysym);
    };
    bool ok = true;
    for (const LinuxKey& key : kNoteKeysLinux)
        ok = ok && noteOffsetForKey(position(key)).has_value();
    for (const LinuxKey& key : kOctaveKeysLinux)
        ok = ok && octaveForKey(position(key)).has_value();
    for (const LinuxKey& key : kVelocityKeysLinux)
        ok = ok && velocityForKey(position(key)).has_value();
    ok = ok && position(kLeftShift) == kKeyShift;
    if (!ok) {
        std::fprintf(stderr, "key_latency_bench: the key map does not match the benchmark's keys\n");
        std::exit(1);
    }
}

// ---------------------------------------------------------------------------------------------
// The run.

enum class Kind
{
    NoteOn,
    NoteOff,
    SustainOn,
    SustainOff,
    Silent, // octave and velocity keys: no MIDI message
};

struct Step
{
    const LinuxKey* key;
    bool press;
    Kind kind;
};

/// The key events of `pairs` note press/release pairs, with an octave key, a velocity key and
/// a Shift (sustain) press or release now and then. Deterministic.
std::vector<Step> makeSequence(std::size_t pairs, std::uint32_t seed)
{
    std::vector<Step> steps;
    steps.reserve(pairs * 2 + pairs / 8);
    std::uint32_t state = seed;
    auto next = [&state](std::uint32_t bound) {
        state = state * 1664525u + 1013904223u;
        return (state >> 8) % bound;
    };
    constexpr std::size_t noteCount = std::size(kNoteKeysLinux);
    for (std::size_t i = 0; i < pairs; ++i) {
        if (i % 64 == 17) {
            const LinuxKey* key = &kOctaveKeysLinux[next(std::size(kOctaveKeysLinux))];
            steps.push_back({key, true, Kind::Silent});
            steps.push_back({key, false, Kind::Silent});
        }
        if (i % 64 == 41) {
            const LinuxKey* key = &kVelocityKeysLinux[next(std::size(kVelocityKeysLinux))];
            steps.push_back({key, true, Kind::Silent});
            steps.push_back({key, false, Kind::Silent});
        }
        if (i % 128 == 5)
            steps.push_back({&kLeftShift, true, Kind::SustainOn});
        if (i % 128 == 69)
            steps.push_back({&kLeftShift, false, Kind::SustainOff});
        const LinuxKey* key = &kNoteKeysLinux[next(noteCount)];
        steps.push_back({key, true, Kind::NoteOn});
        steps.push_back({key, false, Kind::NoteOff});
    }
    // Sustain ends released.
    if (pairs % 128 > 5 && pairs % 128 <= 69)
        steps.push_back({&kLeftShift, false, Kind::SustainOff});
    return steps;
}

std::uint8_t expectedStatus(Kind kind)
{
    switch (kind) {
    case Kind::NoteOn:
        return 0x90;
    case Kind::NoteOff:
        return 0x80;
    default:
        return 0xB0;
    }
}

struct Samples
{
    std::vector<double> filterToMIDI[4]; // ns, by kind (NoteOn .. SustainOff)
    std::vector<double> windowToMIDI[4];
    std::vector<double> undisturbed; // filter -> MIDI of the events the thread ran through
    std::size_t switchedOut = 0;     // events during which the thread was switched out
    std::size_t unexpected = 0;      // a MIDI-producing key without its message, or a wrong one
    std::size_t events = 0;
};

struct Figures
{
    std::size_t count = 0;
    double p50 = 0, p90 = 0, p99 = 0, p999 = 0, max = 0;
};

Figures figuresOf(std::vector<double> values)
{
    Figures f;
    f.count = values.size();
    if (values.empty())
        return f;
    std::sort(values.begin(), values.end());
    auto at = [&values](double q) {
        const auto index = static_cast<std::size_t>(q * static_cast<double>(values.size() - 1) + 0.5);
        return values[std::min(index, values.size() - 1)];
    };
    f.p50 = at(0.50);
    f.p90 = at(0.90);
    f.p99 = at(0.99);
    f.p999 = at(0.999);
    f.max = values.back();
    return f;
}

/// Voluntary and involuntary context switches of this thread so far.
long contextSwitches()
{
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_nvcsw + usage.ru_nivcsw;
}

class Bench
{
public:
    Bench(TimestampingBackend& backend, QWindow& window, QWidget& mainWindow, KeyEventFilter& filter, int gapUs)
        : backend_(backend)
        , window_(window)
        , mainWindow_(mainWindow)
        , filter_(filter)
        , gapUs_(gapUs)
    {
    }

    /// Plays `steps`; with `samples`, records the time of every key that sends MIDI.
    void play(const std::vector<Step>& steps, Samples* samples)
    {
        for (const Step& step : steps) {
            const Qt::KeyboardModifiers modifiers = filter_.heldModifierFlags() & kShiftFlag ? Qt::ShiftModifier
                                                                                             : Qt::NoModifier;
            const std::uint32_t nativeModifiers = modifiers & Qt::ShiftModifier ? kX11ShiftMask : 0;
            const QString text = modifiers & Qt::ShiftModifier ? QString() : QString::fromLatin1(step.key->text);
            QKeyEvent event(step.press ? QEvent::KeyPress : QEvent::KeyRelease, step.key->qtKey, modifiers,
                            step.key->evdev + kLinuxScanCodeOffset, step.key->keysym, nativeModifiers, text);
            QSpontaneKeyEvent::setSpontaneous(&event);

            const long switchesBefore = contextSwitches();
            entry_.arm();
            backend_.arm();
            const Clock::time_point start = Clock::now();
            // What QGuiApplication does with a key event from the window system: a spontaneous
            // event to the window, which hands it on to its focus widget.
            QCoreApplication::instance()->notify(&window_, &event);
            backend_.armed = false;
            const bool switched = contextSwitches() != switchesBefore;

            if (samples && step.kind != Kind::Silent) {
                ++samples->events;
                const auto kind = static_cast<std::size_t>(step.kind);
                if (!backend_.stamped || !entry_.stamped || backend_.length != 3
                    || backend_.bytes[0] != expectedStatus(step.kind)) {
                    ++samples->unexpected;
                } else {
                    const double filterToMIDI =
                        std::chrono::duration<double, std::nano>(backend_.stamp - entry_.stamp).count();
                    samples->filterToMIDI[kind].push_back(filterToMIDI);
                    if (switched)
                        ++samples->switchedOut;
                    else
                        samples->undisturbed.push_back(filterToMIDI);
                    samples->windowToMIDI[kind].push_back(
                        std::chrono::duration<double, std::nano>(backend_.stamp - start).count());
                }
            } else if (samples && backend_.stamped) {
                ++samples->unexpected;
            }

            // Back to the event loop between two key events, as in the program (which also
            // deletes what was deleted later; processEvents() outside exec() does not).
            QCoreApplication::processEvents();
            QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
            if (gapUs_ > 0)
                std::this_thread::sleep_for(std::chrono::microseconds(gapUs_));
            if (QApplication::activeWindow() != &mainWindow_) {
                std::fprintf(stderr, "key_latency_bench: the main window lost the keyboard\n");
                std::exit(1);
            }
        }
    }

private:
    TimestampingBackend& backend_;
    QWindow& window_;
    QWidget& mainWindow_;
    KeyEventFilter& filter_;
    EntryStamp entry_;
    int gapUs_;
};

void printRow(std::ostream& out, const char* label, const Figures& f)
{
    auto us = [](double ns) {
        std::ostringstream s;
        s << std::fixed << std::setprecision(2) << ns / 1000.0;
        return s.str();
    };
    out << "  " << std::left << std::setw(34) << label << std::right << std::setw(7) << f.count << std::setw(9)
        << us(f.p50) << std::setw(9) << us(f.p90) << std::setw(9) << us(f.p99) << std::setw(9) << us(f.p999)
        << std::setw(10) << us(f.max) << "\n";
}

std::string loadAverage()
{
    std::ifstream file("/proc/loadavg");
    std::string one, five;
    file >> one >> five;
    return one + " " + five;
}

int usage()
{
    std::fprintf(
        stderr,
        "Usage: key_latency_bench [--pairs N] [--warmup N] [--gap-us N] [--stdout null,file,pipe,pty,slowpipe]\n");
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    std::size_t pairs = 20000;
    std::size_t warmup = 2000;
    int gapUs = 0;
    std::string where = "null,file,pipe,pty,slowpipe";
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--help" || option == "-h") {
            usage();
            return 0;
        }
        if (i + 1 >= argc)
            return usage();
        const std::string value = argv[++i];
        if (option == "--pairs")
            pairs = std::strtoul(value.c_str(), nullptr, 10);
        else if (option == "--warmup")
            warmup = std::strtoul(value.c_str(), nullptr, 10);
        else if (option == "--gap-us")
            gapUs = std::atoi(value.c_str());
        else if (option == "--stdout")
            where = value;
        else
            return usage();
    }
    if (pairs == 0)
        return usage();
    std::vector<DiagnosticsTarget> targets;
    {
        std::istringstream list(where);
        std::string name;
        while (std::getline(list, name, ',')) {
            bool known = false;
            for (DiagnosticsTarget target : {DiagnosticsTarget::Null, DiagnosticsTarget::File, DiagnosticsTarget::Pipe,
                                             DiagnosticsTarget::Pty, DiagnosticsTarget::SlowPipe}) {
                if (name == nameOf(target)) {
                    targets.push_back(target);
                    known = true;
                }
            }
            if (!known)
                return usage();
        }
        if (targets.empty())
            return usage();
    }

    checkKeys();
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    // Qt's accessibility bridge stays as the environment says; offscreen has none.

    DiagnosticsSink sink;
    std::ostream& out = sink.report();
    sink.redirect(DiagnosticsTarget::Null); // the start-up lines

    QApplication::setOrganizationName(QStringLiteral("Plinkora"));
    QApplication::setApplicationName(QStringLiteral("Plinkora"));
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);

    QTemporaryDir settingsDir;
    QSettings qsettings(settingsDir.filePath(QStringLiteral("Plinkora.conf")), QSettings::IniFormat);
    SettingsStore settings(qsettings);

    TimestampingBackend* backend = nullptr;
    AppServices services;
    services.makeMIDIBackend = [&backend] {
        auto made = std::make_unique<TimestampingBackend>();
        backend = made.get();
        return made;
    };
    services.makeSoundPlayer = [] {
        auto player = std::make_unique<testing::RecordingSoundPlayer>();
        player->resourceFolder.reset(); // no sound files: nothing is played
        return player;
    };
    services.makeAnnouncer = [] { return std::make_unique<testing::RecordingAnnouncer>(); };
    services.quitEventLoop = [] {};

    std::vector<Samples> results(targets.size());
    std::vector<std::size_t> readBytes(targets.size());
    {
        AppDelegate delegate(settings, services);
        delegate.applicationDidFinishLaunching();

        // Wait until the main window is active and the keyboard view has the focus.
        QElapsedTimer waited;
        waited.start();
        while ((QApplication::activeWindow() != delegate.window.get()
                || QApplication::focusWidget() != delegate.window->keyboardView())
               && waited.elapsed() < 10000)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        if (QApplication::activeWindow() != delegate.window.get()) {
            sink.restore();
            std::fprintf(stderr, "key_latency_bench: the main window did not become active\n");
            return 1;
        }
        QWindow* window = delegate.window->windowHandle();
        if (!backend || !window || !delegate.keyEventFilter()) {
            sink.restore();
            std::fprintf(stderr, "key_latency_bench: the application did not start as expected\n");
            return 1;
        }

        Bench bench(*backend, *window, *delegate.window, *delegate.keyEventFilter(), gapUs);
        const std::vector<Step> warmupSteps = makeSequence(std::max<std::size_t>(warmup, 1), 7);
        const std::vector<Step> steps = makeSequence(pairs, 12345);
        for (std::size_t t = 0; t < targets.size(); ++t) {
            sink.redirect(targets[t]);
            bench.play(warmupSteps, nullptr);
            results[t].filterToMIDI[0].reserve(pairs);
            results[t].filterToMIDI[1].reserve(pairs);
            results[t].windowToMIDI[0].reserve(pairs);
            results[t].windowToMIDI[1].reserve(pairs);
            bench.play(steps, &results[t]);
            sink.restore();
            readBytes[t] = sink.readerBytes();
        }
        sink.redirect(DiagnosticsTarget::Null); // the termination's lines
        delegate.applicationWillTerminate();
    }
    sink.restore();

    out << "Key-to-MIDI latency: " << pairs << " note press/release pairs over the 25 note keys, with octave, "
        << "velocity and Shift (sustain) keys among them; " << warmup << " pairs of warm-up before each series.\n"
        << "Real QApplication (" << qPrintable(QGuiApplication::platformName()) << "), AppDelegate, KeyEventFilter, "
        << "KeyboardMonitor, MIDIManager; QKeyEvents with Linux scan codes, spontaneous, to the main window; "
        << "pause between events: " << gapUs << " µs.\n"
        << "Qt " << qVersion() << ", " << std::thread::hardware_concurrency() << " CPUs, load average " << loadAverage()
        << " (1 and 5 min).\n";
    std::string met, missed;
    for (std::size_t t = 0; t < targets.size(); ++t) {
        const Samples& s = results[t];
        std::vector<double> allFilter, allWindow;
        for (int k = 0; k < 4; ++k) {
            allFilter.insert(allFilter.end(), s.filterToMIDI[k].begin(), s.filterToMIDI[k].end());
            allWindow.insert(allWindow.end(), s.windowToMIDI[k].begin(), s.windowToMIDI[k].end());
        }
        std::vector<double> sustain = s.filterToMIDI[2];
        sustain.insert(sustain.end(), s.filterToMIDI[3].begin(), s.filterToMIDI[3].end());
        const Figures total = figuresOf(allFilter);
        std::string& list = total.p99 < 10000.0 ? met : missed;
        list += (list.empty() ? "" : ", ") + std::string(nameOf(targets[t]));

        out << "\nDiagnostic lines to " << describe(targets[t]) << ":\n"
            << "  " << std::left << std::setw(34) << "µs" << std::right << std::setw(7) << "events" << std::setw(9)
            << "median" << std::setw(9) << "p90" << std::setw(9) << "p99" << std::setw(9) << "p99.9" << std::setw(10)
            << "max"
            << "\n";
        printRow(out, "filter -> MIDI back end", total);
        printRow(out, "  note-on", figuresOf(s.filterToMIDI[0]));
        printRow(out, "  note-off", figuresOf(s.filterToMIDI[1]));
        printRow(out, "  sustain on/off", figuresOf(sustain));
        printRow(out, "window -> MIDI back end", figuresOf(allWindow));
        printRow(out, "filter -> MIDI, not switched out", figuresOf(s.undisturbed));
        out << "  MIDI-producing key events: " << s.events << ", without their exact message: " << s.unexpected
            << "; the thread was switched out (preempted or blocked) during " << s.switchedOut << " of them\n";
        if (readBytes[t] > 0)
            out << "  (" << readBytes[t] << " bytes of diagnostic lines read by the other thread)\n";
    }
    out << "\nGoal, filter -> MIDI under 10 µs at the 99th percentile, with the diagnostic lines going to:\n"
        << "  met:    " << (met.empty() ? "-" : met) << "\n"
        << "  missed: " << (missed.empty() ? "-" : missed) << "\n";
    out.flush();
    bool allExpected = true;
    for (const Samples& s : results)
        allExpected = allExpected && s.unexpected == 0;
    return allExpected ? 0 : 1;
}
