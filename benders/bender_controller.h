#pragma once

#include "benders/sound_player.h"

#include <QElapsedTimer>
#include <QTimer>

#include <memory>
#include <string_view>

namespace plinkora {

class MIDIManager;
class SettingsStore;

/// Pitch bend (up and down arrows) and modulation (right and left arrows). The key handling
/// only sets the four arrow flags; a 60 Hz timer moves the values at the configured speeds,
/// springs them back at twice that speed when auto-release is on, and sends every tick in
/// which a value moved, always on channel 0. Also plays the feedback sound of the
/// auto-release switches. Main thread only.
///
/// The timer rests while nothing can move (no arrow held, both values at rest or their
/// auto-release off), so an idle program does not wake 60 times a second. Whoever sets an
/// arrow or auto-release flag calls wake() afterwards; the ticks then resume on the same
/// 1/60 s grid as if the timer had never stopped. A speed change needs no wake-up: the
/// speeds decide how far a value moves, never whether it moves.
class BenderController
{
public:
    /// Reads "PitchBendSpeed" and "ModulationSpeed" once (taken only when above 0) and starts
    /// the timer.
    BenderController(MIDIManager& midiManager, const SettingsStore& settings, std::unique_ptr<SoundPlayer> audioPlayer);
    ~BenderController();
    BenderController(const BenderController&) = delete;
    BenderController& operator=(const BenderController&) = delete;

    /// One tick of the timer.
    void updateBenders();
    /// Resumes the ticks when they rest and a value can move now. Cheap when they run or when
    /// there is nothing to do. A timer stopped from outside (to drive the ticks by hand) stays
    /// stopped.
    void wake();
    /// Whether the next tick would move a value: an arrow is held, or a value is away from its
    /// rest with its auto-release on.
    bool canMove() const;
    /// Plays `fileName` ("up.wav" or "down.wav") from the resource folder, without blocking.
    void playSound(std::string_view fileName);

    MIDIManager& midiManager;
    std::unique_ptr<SoundPlayer> audioPlayer;
    double pitchBend = 8192.0;
    const double pitchBendCenter = 8192.0;
    const double pitchBendMin = 0.0;
    const double pitchBendMax = 16383.0;
    double modulation = 0.0;
    const double modulationMin = 0.0;
    const double modulationMax = 127.0;
    bool upPressed = false;
    bool downPressed = false;
    bool leftPressed = false;
    bool rightPressed = false;
    bool pitchBendAutoRelease = true;
    bool modulationAutoRelease = true;
    double pitchBendSpeed = 100.0;
    double modulationSpeed = 100.0;
    QTimer updateTimer;

    static constexpr const char* kPitchBendSpeedKey = "PitchBendSpeed";
    static constexpr const char* kModulationSpeedKey = "ModulationSpeed";

private:
    void startUpdateTimer();
    static constexpr qint64 kTickIntervalNs = 16'666'667; // 1/60 s
    bool movePitchBend();
    bool moveModulation();

    /// Arms the timer for the grid point `nextTickNs_`.
    void armForNextTick();

    QElapsedTimer clock_;
    qint64 nextTickNs_ = 0;
    bool resting_ = false; // the timer stopped itself because nothing could move
};

} // namespace plinkora
