#pragma once

#include "benders/bender_controller.h"
#include "common/settings_store.h"
#include "input/keyboard_monitor.h"
#include "midi/midi_manager.h"
#include "midi/recording_backend.h"
#include "properties/property_manager.h"
#include "support/fakes.h"

#include <QSettings>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace plinkora::testing {

using Bytes = std::vector<std::uint8_t>;

/// A whole engine on the recording back end: MIDI output, key handling, benders, properties,
/// with settings in a private file and fakes for the sounds and the voice.
class EngineFixture : public ::testing::Test
{
protected:
    EngineFixture()
    {
        auto recording = std::make_unique<RecordingBackend>();
        backend = recording.get();
        midi = std::make_unique<MIDIManager>(std::move(recording));
        backend->clear();
    }

    /// Builds the monitor; settings written before this are seen by the bender controller.
    KeyboardMonitor& monitor()
    {
        if (!monitor_) {
            auto player = std::make_unique<RecordingSoundPlayer>();
            auto voice = std::make_unique<RecordingAnnouncer>();
            sounds = player.get();
            announcer = voice.get();
            monitor_ = std::make_unique<KeyboardMonitor>(*midi, settings, std::move(player), std::move(voice));
        }
        return *monitor_;
    }

    void press(KeyCode code, std::uint64_t flags = 0) { monitor().monitorCallback({kEventKeyDown, code, flags}); }
    void release(KeyCode code, std::uint64_t flags = 0) { monitor().monitorCallback({kEventKeyUp, code, flags}); }
    void modifiers(std::uint64_t flags, KeyCode code = 56)
    {
        monitor().monitorCallback({kEventFlagsChanged, code, flags});
    }

    std::vector<Bytes> sent() const { return backend->sentMessages(); }

    QTemporaryDir dir;
    QSettings qsettings{dir.filePath("plinkora.conf"), QSettings::IniFormat};
    SettingsStore settings{qsettings};
    RecordingBackend* backend = nullptr;
    std::unique_ptr<MIDIManager> midi;
    RecordingSoundPlayer* sounds = nullptr;
    RecordingAnnouncer* announcer = nullptr;

private:
    std::unique_ptr<KeyboardMonitor> monitor_;
};

} // namespace plinkora::testing
