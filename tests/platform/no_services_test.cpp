// With no sound server and no session bus at all: the player says why it cannot play, the
// screen-reader monitor answers false, and neither hangs.
//
// This runs in a process of its own: the environment is changed before Qt looks for either.
#include "platform/qt_sound_player.h"
#include "platform/screen_reader_monitor.h"

#include "platform/support/private_services.h"

#include <QElapsedTimer>

#include <gtest/gtest.h>

#include <cstdlib>

namespace plinkora {
namespace {

using namespace testing;

class NoServicesTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        folder_ = new TempDir("plinkora-no-services");
        const fs::path runtime = folder_->subfolder("run");
        // No sound server: PulseAudio's client library is pointed at a socket nobody serves
        // (and does not start a server when one is named).
        ::setenv("PULSE_SERVER", ("unix:" + (runtime / "no-pulse").string()).c_str(), 1);
        // No session bus: no address, an empty runtime folder, no X display to start one on.
        ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
        ::unsetenv("DISPLAY");
        ::unsetenv("WAYLAND_DISPLAY");
        ::setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
    }

    static void TearDownTestSuite()
    {
        delete folder_;
        folder_ = nullptr;
    }

    static inline TempDir* folder_ = nullptr;
};

TEST_F(NoServicesTest, ThePlayerSaysThereIsNoSoundOutput)
{
    QtSoundPlayer player;
    std::string error;
    QElapsedTimer clock;
    clock.start();
    EXPECT_FALSE(player.play(PLINKORA_TEST_SOUNDS_DIR "/down.wav", error));
    EXPECT_LT(clock.elapsed(), 5000);
    EXPECT_EQ(error,
              "no sound output: no audio device was found (is a sound server such as PulseAudio or "
              "PipeWire running?)");
    std::printf("Error playing sound down.wav: %s\n", error.c_str());
    // Again: the same answer, and quickly.
    clock.restart();
    EXPECT_FALSE(player.play(PLINKORA_TEST_SOUNDS_DIR "/up.wav", error));
    EXPECT_LT(clock.elapsed(), 100);
    // A missing file is still named as such.
    EXPECT_FALSE(player.play("/nonexistent/up.wav", error));
    EXPECT_EQ(error, "file not found: /nonexistent/up.wav");
}

TEST_F(NoServicesTest, TheScreenReaderMonitorAnswersFalse)
{
    QElapsedTimer clock;
    clock.start();
    ScreenReaderMonitor monitor; // the process's own session bus: there is none
    EXPECT_FALSE(monitor.isRunning());
    int refreshes = 0;
    QObject::connect(&monitor, &ScreenReaderMonitor::refreshed, [&] { ++refreshes; });
    EXPECT_TRUE(waitUntilProcessingEvents([&] { return refreshes > 0; }, 5s));
    EXPECT_FALSE(monitor.isRunning());
    EXPECT_LT(clock.elapsed(), 2000);
}

} // namespace
} // namespace plinkora
