// Random settings files and random text in every controller field of the preferences.
//
// The first input byte picks what the rest is:
// - a whole settings file (any bytes: wrong types, NaN, infinities, huge and negative numbers,
//   empty, truncated and binary files), read the way the program reads it at start-up;
// - text typed into the F1 to F4 fields (the write rule), with speeds stored by the sliders
//   between them.
// Checked: the read rules (a stored 0 or nothing is the key's default; a speed is taken only
// when above 0; the benders then stay in range whatever they are driven with), the write rule
// (0 to 127 typed is stored, anything else is refused with the stored number shown again and
// the store unchanged) and that nothing stops the program. A stored controller number outside
// 0 to 255 is the one deliberate stop; it is left to the death tests of tests/input, so the
// fuzzer reads such a key only through the store.

#include "benders/bender_controller.h"
#include "common/settings_store.h"
#include "input/function_key_config.h"
#include "midi/midi_manager.h"
#include "midi/recording_backend.h"
#include "support/fakes.h"

#include <QCoreApplication>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>

#include <fuzzer/FuzzedDataProvider.h>

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

using namespace plinkora;

namespace {

QTemporaryDir* settingsDir = nullptr;

[[noreturn]] void fail(const char* what, const QString& detail = {})
{
    std::fprintf(stderr, "settings fuzzer: %s %s\n", what, qPrintable(detail));
    std::abort();
}

/// The write rule, written out independently of the parser under test: an optional sign, at
/// least one ASCII digit and nothing else, the value at most 255 at every step, "-" only for 0.
std::optional<unsigned> typedValue(const QByteArray& text)
{
    int i = 0;
    const bool negative = !text.isEmpty() && text[0] == '-';
    if (!text.isEmpty() && (text[0] == '+' || text[0] == '-'))
        i = 1;
    if (i == text.size())
        return std::nullopt;
    unsigned value = 0;
    for (; i < text.size(); ++i) {
        if (!std::isdigit(static_cast<unsigned char>(text[i])))
            return std::nullopt;
        value = value * 10 + static_cast<unsigned>(text[i] - '0');
        if (value > 255)
            return std::nullopt;
    }
    if (negative && value != 0)
        return std::nullopt;
    return value;
}

/// The number the program would read for function key `index`, or nothing where reading it is
/// the deliberate stop.
std::optional<unsigned> readableController(const SettingsStore& settings, int index)
{
    const std::int64_t stored = settings.integerForKey(kFunctionKeyConfig.key(index));
    if (stored < 0 || stored > 255)
        return std::nullopt;
    return stored == 0 ? FunctionKeyConfig::defaultController(index) : static_cast<unsigned>(stored);
}

void checkControllers(const SettingsStore& settings)
{
    const FunctionKeyConfig& config = kFunctionKeyConfig;
    for (int index = 0; index < 4; ++index) {
        const std::optional<unsigned> expected = readableController(settings, index);
        if (expected && config.controllerNumber(settings, index) != *expected)
            fail("the read rule does not hold for", config.key(index));
    }
}

/// The start-up read of the speeds, then the benders driven both ways and released.
void checkBenders(const SettingsStore& settings)
{
    MIDIManager midi(std::make_unique<RecordingBackend>());
    BenderController benders(midi, settings, std::make_unique<testing::RecordingSoundPlayer>());
    benders.updateTimer.stop();
    const double pitch = settings.doubleForKey(QString::fromLatin1(BenderController::kPitchBendSpeedKey));
    const double modulation = settings.doubleForKey(QString::fromLatin1(BenderController::kModulationSpeedKey));
    if (benders.pitchBendSpeed != (pitch > 0.0 ? pitch : 100.0))
        fail("the pitch bend speed was not read by its rule");
    if (benders.modulationSpeed != (modulation > 0.0 ? modulation : 100.0))
        fail("the modulation speed was not read by its rule");
    for (int phase = 0; phase < 4; ++phase) {
        benders.upPressed = phase == 0;
        benders.downPressed = phase == 1;
        benders.rightPressed = phase == 0;
        benders.leftPressed = phase == 1;
        for (int tick = 0; tick < 3; ++tick) {
            benders.updateBenders(); // a value it cannot send would stop the program here
            if (!(benders.pitchBend >= 0.0 && benders.pitchBend <= 16383.0)
                || !(benders.modulation >= 0.0 && benders.modulation <= 127.0))
                fail("a bender left its range");
        }
    }
}

void typeIntoFields(FuzzedDataProvider& input, SettingsStore& settings, QSettings& qsettings)
{
    const FunctionKeyConfig& config = kFunctionKeyConfig;
    while (input.remaining_bytes() > 0) {
        const std::uint8_t what = input.ConsumeIntegral<std::uint8_t>();
        if (what >= 240) {
            // A slider stores a speed: any double at all here.
            const double speed = input.ConsumeFloatingPoint<double>();
            const QString key = QString::fromLatin1(what & 1u ? BenderController::kPitchBendSpeedKey
                                                              : BenderController::kModulationSpeedKey);
            settings.setDouble(speed, key);
            if (std::isfinite(speed) && settings.doubleForKey(key) != speed)
                fail("a stored speed did not read back", key);
            continue;
        }
        const int index = what % 4;
        const std::string typed = input.ConsumeRandomLengthString(16);
        const QString text = QString::fromUtf8(typed.data(), static_cast<qsizetype>(typed.size()));
        const QString key = config.key(index);
        const QVariant storedBefore = qsettings.value(key);
        const std::optional<unsigned> expectedShown = readableController(settings, index);
        const std::optional<unsigned> value = typedValue(text.toUtf8());
        if (!(value && *value <= 127) && !expectedShown)
            continue; // refusing would read the stored number: the deliberate stop
        const std::optional<QString> shown = config.storeTypedText(settings, index, text);
        if (value && *value <= 127) {
            if (shown || settings.integerForKey(key) != static_cast<std::int64_t>(*value))
                fail("a valid entry was not stored", text);
        } else if (!shown || *shown != QString::number(*expectedShown) || qsettings.value(key) != storedBefore) {
            fail("an invalid entry was not refused silently", text);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    if (!std::getenv("PLINKORA_FUZZ_VERBOSE") && !std::freopen("/dev/null", "w", stdout))
        return 1;
    static int qtArgc = 1;
    static char name[] = "settings_fuzzer";
    static char* qtArgv[] = {name, nullptr};
    new QCoreApplication(qtArgc, qtArgv);
    // Every write of the store syncs its file: keep the files in memory.
    settingsDir = new QTemporaryDir(QStringLiteral("/dev/shm/plinkora-fuzz-XXXXXX"));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider input(data, size);
    // A new file name each time: the settings of one input never come from another's cache.
    static unsigned serial = 0;
    const QString path = settingsDir->filePath(QStringLiteral("plinkora-%1.conf").arg(++serial));
    const bool wholeFile = input.ConsumeBool();
    if (wholeFile) {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly))
            fail("cannot write", path);
        const std::vector<std::uint8_t> bytes = input.ConsumeRemainingBytes<std::uint8_t>();
        file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<qint64>(bytes.size()));
    }
    {
        QSettings qsettings(path, QSettings::IniFormat);
        SettingsStore settings(qsettings);
        if (!wholeFile)
            typeIntoFields(input, settings, qsettings);
        checkControllers(settings);
        checkBenders(settings);
    }
    QFile::remove(path);
    return 0;
}
