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

    QElapsedTimer clock_;
    qint64 nextTickNs_ = 0;
};

} // namespace plinkora
