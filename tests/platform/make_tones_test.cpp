// The feedback sounds the build makes: valid WAV files, short, and "up" clearly higher than
// "down".
#include "platform/wav_file.h"

#include <QString>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <numbers>
#include <vector>

namespace plinkora {
namespace {

const QString kSounds = QStringLiteral(PLINKORA_TEST_SOUNDS_DIR);

std::vector<double> samplesOf(const WavSound& sound)
{
    std::vector<double> samples;
    for (qsizetype i = 0; i + 1 < sound.samples.size(); i += 2) {
        const auto low = static_cast<unsigned char>(sound.samples[i]);
        const auto high = static_cast<unsigned char>(sound.samples[i + 1]);
        samples.push_back(static_cast<std::int16_t>(static_cast<std::uint16_t>(low | high << 8)) / 32768.0);
    }
    return samples;
}

// The frequency (10 Hz steps, 100 Hz to 4 kHz) with the most energy, by a plain Fourier sum.
double dominantFrequency(const std::vector<double>& samples, int sampleRate)
{
    double best = 0.0;
    double bestPower = -1.0;
    for (double frequency = 100.0; frequency <= 4000.0; frequency += 10.0) {
        double re = 0.0;
        double im = 0.0;
        for (std::size_t i = 0; i < samples.size(); ++i) {
            const double angle = 2.0 * std::numbers::pi * frequency * static_cast<double>(i) / sampleRate;
            re += samples[i] * std::cos(angle);
            im += samples[i] * std::sin(angle);
        }
        const double power = re * re + im * im;
        if (power > bestPower) {
            bestPower = power;
            best = frequency;
        }
    }
    return best;
}

WavSound load(const QString& name)
{
    QString error;
    auto sound = readWavFile(kSounds + QLatin1Char('/') + name, error);
    EXPECT_TRUE(sound) << error.toStdString();
    return sound.value_or(WavSound{});
}

TEST(MakeTonesTest, WritesShortSixteenBitMonoWavFiles)
{
    for (const char* name : {"up.wav", "down.wav"}) {
        SCOPED_TRACE(name);
        const WavSound sound = load(QString::fromLatin1(name));
        EXPECT_EQ(sound.sampleRate, 44100);
        EXPECT_EQ(sound.channels, 1);
        EXPECT_EQ(sound.bitsPerSample, 16);
        EXPECT_NEAR(sound.durationSeconds(), 0.120, 0.001);
    }
}

TEST(MakeTonesTest, StartsAndEndsSoftly)
{
    for (const char* name : {"up.wav", "down.wav"}) {
        SCOPED_TRACE(name);
        const std::vector<double> samples = samplesOf(load(QString::fromLatin1(name)));
        ASSERT_GT(samples.size(), 100u);
        double peak = 0.0;
        for (const double s : samples)
            peak = std::max(peak, std::abs(s));
        EXPECT_GT(peak, 0.3);
        EXPECT_LT(peak, 0.9);
        EXPECT_LT(std::abs(samples.front()), 0.01);
        EXPECT_LT(std::abs(samples.back()), 0.01);
    }
}

TEST(MakeTonesTest, UpIsClearlyHigherThanDown)
{
    const double up = dominantFrequency(samplesOf(load(QStringLiteral("up.wav"))), 44100);
    const double down = dominantFrequency(samplesOf(load(QStringLiteral("down.wav"))), 44100);
    RecordProperty("up_hz", std::to_string(up));
    RecordProperty("down_hz", std::to_string(down));
    EXPECT_GE(up, 880.0);
    EXPECT_LE(up, 1320.0);
    EXPECT_GE(down, 440.0);
    EXPECT_LE(down, 660.0);
    EXPECT_GT(up, 1.5 * down);
}

} // namespace
} // namespace plinkora
