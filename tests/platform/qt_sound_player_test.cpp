// QtSoundPlayer through a real sound server: a private PulseAudio with a null sink whose monitor
// is recorded, so the test hears what was played.
#include "platform/qt_sound_player.h"

#include "platform/support/private_services.h"

#include <QElapsedTimer>
#include <QMediaDevices>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace plinkora {
namespace {

using namespace testing;

const std::string kSounds = PLINKORA_TEST_SOUNDS_DIR;

// One PulseAudio for the whole process: Qt looks for the sound server when the first sound is
// played and keeps that connection.
class QtSoundPlayerTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        if (!programExists("pulseaudio") || !programExists("parec") || !programExists("pactl") || !programExists("sox"))
            return;
        folder_ = new TempDir("plinkora-sound");
        server_ = new PrivatePulseAudio(folder_->path() / "pulse");
        ::setenv("PULSE_SERVER", server_->serverAddress().c_str(), 1);
    }

    static void TearDownTestSuite()
    {
        delete server_;
        server_ = nullptr;
        delete folder_;
        folder_ = nullptr;
    }

    void SetUp() override
    {
        if (server_ == nullptr)
            GTEST_SKIP() << "pulseaudio, parec, pactl or sox is not installed";
    }

    // Plays the sound and lets it play to its end.
    void playToTheEnd(QtSoundPlayer& player, const std::string& name)
    {
        std::string error;
        int finished = 0;
        const auto connection = QObject::connect(&player, &QtSoundPlayer::finished, [&] { ++finished; });
        ASSERT_TRUE(player.play(kSounds + "/" + name, error)) << error;
        EXPECT_TRUE(player.isPlaying());
        EXPECT_TRUE(waitUntilProcessingEvents([&] { return finished == 1; }, 5s));
        QObject::disconnect(connection);
        EXPECT_FALSE(player.isPlaying());
    }

    static inline TempDir* folder_ = nullptr;
    static inline PrivatePulseAudio* server_ = nullptr;
};

TEST_F(QtSoundPlayerTest, PlaysUpHigherThanDown)
{
    QtSoundPlayer player;
    SinkRecorder recorder(*server_, folder_->path() / "up-down.raw");
    playToTheEnd(player, "up.wav");
    playToTheEnd(player, "down.wav");
    const auto samples = recorder.stop();

    const auto segments = soundSegments(samples, SinkRecorder::kSampleRate);
    ASSERT_EQ(segments.size(), 2u) << "expected two sounds in " << samples.size() << " recorded samples";
    std::vector<double> frequencies;
    for (const Segment& segment : segments) {
        const double seconds = static_cast<double>(segment.end - segment.begin) / SinkRecorder::kSampleRate;
        EXPECT_GT(seconds, 0.08);
        EXPECT_LT(seconds, 0.20);
        const std::vector<std::int16_t> part(samples.begin() + static_cast<std::ptrdiff_t>(segment.begin),
                                             samples.begin() + static_cast<std::ptrdiff_t>(segment.end));
        const auto frequency = soxRoughFrequency(part, SinkRecorder::kSampleRate, folder_->path());
        ASSERT_TRUE(frequency);
        frequencies.push_back(*frequency);
    }
    RecordProperty("up_hz", std::to_string(frequencies[0]));
    RecordProperty("down_hz", std::to_string(frequencies[1]));
    std::printf("recorded: up %.0f Hz, down %.0f Hz\n", frequencies[0], frequencies[1]);
    EXPECT_GT(frequencies[0], 900.0);
    EXPECT_LT(frequencies[0], 1350.0);
    EXPECT_GT(frequencies[1], 420.0);
    EXPECT_LT(frequencies[1], 700.0);
    EXPECT_GT(frequencies[0], 1.5 * frequencies[1]);
}

TEST_F(QtSoundPlayerTest, PlayReturnsAtOnceAndTheNewestSoundReplacesThePrevious)
{
    QtSoundPlayer player;
    int finished = 0;
    QObject::connect(&player, &QtSoundPlayer::finished, [&] { ++finished; });
    std::string error;
    ASSERT_TRUE(player.play(kSounds + "/up.wav", error)) << error; // the first opens the server
    QElapsedTimer clock;
    clock.start();
    constexpr int kPlays = 20;
    for (int i = 0; i < kPlays; ++i)
        ASSERT_TRUE(player.play(kSounds + (i % 2 == 0 ? "/down.wav" : "/up.wav"), error)) << error;
    const double millisecondsPerPlay = static_cast<double>(clock.nsecsElapsed()) / 1e6 / kPlays;
    RecordProperty("play_ms", std::to_string(millisecondsPerPlay));
    std::printf("play(): %.3f ms per call\n", millisecondsPerPlay);
    EXPECT_LT(millisecondsPerPlay, 50.0);
    EXPECT_TRUE(waitUntilProcessingEvents([&] { return finished == 1; }, 5s));
    // Only the last one played to its end; the ones it replaced never report an end.
    waitUntilProcessingEvents([] { return false; }, 700ms);
    EXPECT_EQ(finished, 1);
    EXPECT_FALSE(player.isPlaying());
}

TEST_F(QtSoundPlayerTest, SaysSoWhenTheSoundServerStopsAndPlaysWhenItIsBack)
{
    QtSoundPlayer player;
    std::string error;
    ASSERT_TRUE(player.play(kSounds + "/up.wav", error)) << error;
    server_->stop();
    const bool refused = waitUntilProcessingEvents([&] { return !player.play(kSounds + "/down.wav", error); }, 5s);
    EXPECT_TRUE(refused);
    EXPECT_FALSE(error.empty());
    std::printf("Error playing sound down.wav: %s\n", error.c_str());

    server_->start();
    EXPECT_TRUE(waitUntilProcessingEvents([&] { return player.play(kSounds + "/down.wav", error); }, 15s)) << error;
}

} // namespace
} // namespace plinkora
