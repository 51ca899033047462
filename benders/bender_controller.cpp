#include "benders/bender_controller.h"

#include "common/diagnostics.h"
#include "common/settings_store.h"
#include "midi/midi_manager.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace plinkora {

namespace {
constexpr double kModulationScale = 0.0078125; // modulation moves by 1/128 of its speed per tick

// Rounds half away from zero; a value the controller can never hold is a broken invariant.
std::int64_t roundedForSending(double value, double lowerExclusive, double upperExclusive, const char* what)
{
    if (!std::isfinite(value) || value <= lowerExclusive || value >= upperExclusive)
        fatal(std::string(what) + " value " + std::to_string(value) + " cannot be sent");
    return static_cast<std::int64_t>(std::round(value));
}
} // namespace

BenderController::BenderController(MIDIManager& manager, const SettingsStore& settings,
                                   std::unique_ptr<SoundPlayer> player)
    : midiManager(manager)
    , audioPlayer(std::move(player))
{
    if (const double stored = settings.doubleForKey(QString::fromLatin1(kPitchBendSpeedKey)); stored > 0.0)
        pitchBendSpeed = stored;
    if (const double stored = settings.doubleForKey(QString::fromLatin1(kModulationSpeedKey)); stored > 0.0)
        modulationSpeed = stored;
    startUpdateTimer();
}

BenderController::~BenderController()
{
    updateTimer.stop();
}

void BenderController::startUpdateTimer()
{
    // The timer is a member: it dies with the controller, so a tick never reaches a freed one.
    // Qt timers count whole milliseconds, so each tick is re-armed for the next 1/60 s
    // deadline; ticks then average exactly 60 a second instead of 62.5 or 58.8.
    updateTimer.setTimerType(Qt::PreciseTimer);
    updateTimer.setSingleShot(true);
    updateTimer.callOnTimeout([this] {
        updateBenders();
        if (!canMove()) {
            resting_ = true; // until wake()
            return;
        }
        nextTickNs_ += kTickIntervalNs;
        if (clock_.nsecsElapsed() - nextTickNs_ > kTickIntervalNs) // fell behind (suspended, overloaded): start afresh
            nextTickNs_ = clock_.nsecsElapsed();
        armForNextTick();
    });
    clock_.start();
    nextTickNs_ = kTickIntervalNs;
    updateTimer.start(16);
}

void BenderController::armForNextTick()
{
    updateTimer.start(
        static_cast<int>(std::max<qint64>(0, (nextTickNs_ - clock_.nsecsElapsed() + 500'000) / 1'000'000)));
}

bool BenderController::canMove() const
{
    return upPressed || downPressed || leftPressed || rightPressed
        || (pitchBendAutoRelease && pitchBend != pitchBendCenter)
        || (modulationAutoRelease && modulation > modulationMin);
}

void BenderController::wake()
{
    if (!resting_ || !canMove())
        return;
    resting_ = false;
    // The first grid point after now: the ticks keep the phase they had before resting.
    nextTickNs_ = (clock_.nsecsElapsed() / kTickIntervalNs + 1) * kTickIntervalNs;
    armForNextTick();
}

bool BenderController::movePitchBend()
{
    if (upPressed) {
        pitchBend += pitchBendSpeed;
        if (pitchBend > pitchBendMax)
            pitchBend = pitchBendMax;
        return true;
    }
    if (downPressed) {
        pitchBend -= pitchBendSpeed;
        if (pitchBend <= 0.0)
            pitchBend = 0.0;
        return true;
    }
    if (pitchBendAutoRelease && pitchBend != pitchBendCenter) {
        const double step = 2.0 * pitchBendSpeed;
        if (pitchBend > pitchBendCenter) {
            pitchBend -= step;
            if (pitchBend <= pitchBendCenter)
                pitchBend = pitchBendCenter;
        } else {
            pitchBend += step;
            if (pitchBend > pitchBendCenter)
                pitchBend = pitchBendCenter;
        }
        return true;
    }
    return false;
}

bool BenderController::moveModulation()
{
    if (rightPressed) {
        modulation += modulationSpeed * kModulationScale;
        if (modulation > modulationMax)
            modulation = modulationMax;
        return true;
    }
    if (leftPressed) {
        modulation -= modulationSpeed * kModulationScale;
        if (modulation <= 0.0)
            modulation = 0.0;
        return true;
    }
    if (modulationAutoRelease && modulation > 0.0) {
        modulation -= 2.0 * modulationSpeed * kModulationScale;
        if (modulation <= 0.0)
            modulation = 0.0;
        return true;
    }
    return false;
}

void BenderController::updateBenders()
{
    const bool bendMoved = movePitchBend();
    const bool modulationMoved = moveModulation();
    if (bendMoved) {
        const auto value = roundedForSending(pitchBend, -1.0, 65536.0, "pitch bend");
        midiManager.sendPitchBend(static_cast<std::uint16_t>(value), 0);
    }
    if (modulationMoved) {
        const auto value = roundedForSending(modulation, -1.0, 256.0, "modulation");
        midiManager.sendControlChange(1, static_cast<std::uint8_t>(value), 0);
    }
}

void BenderController::playSound(std::string_view fileName)
{
    const std::optional<std::string> resources = audioPlayer ? audioPlayer->resourcePath() : std::nullopt;
    if (!resources) {
        printLine("Could not find resource path");
        return;
    }
    std::string path = *resources;
    if (!path.empty() && path.back() != '/')
        path += '/';
    path += fileName;
    std::string error;
    if (!audioPlayer->play(path, error))
        printLine("Error playing sound " + std::string(fileName) + ": " + error);
}

} // namespace plinkora
