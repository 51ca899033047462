// Writes Plinkora's two feedback sounds, up.wav and down.wav, into the folder given as the only
// argument: short tones (120 ms, 16-bit mono, 44.1 kHz) with soft edges. "up" glides from 880 Hz
// up to 1320 Hz, "down" from 660 Hz down to 440 Hz, so the two are told apart by pitch alone.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <numbers>
#include <string>
#include <vector>

namespace {

constexpr int kSampleRate = 44100;
constexpr double kDurationSeconds = 0.120;
constexpr double kFadeSeconds = 0.010;
constexpr double kAmplitude = 0.45; // of full scale: clear but not harsh

struct Tone
{
    const char* fileName;
    double startHz;
    double endHz;
};

std::vector<std::int16_t> synthesize(const Tone& tone)
{
    const int frames = static_cast<int>(std::lround(kDurationSeconds * kSampleRate));
    const int fadeFrames = static_cast<int>(std::lround(kFadeSeconds * kSampleRate));
    std::vector<std::int16_t> samples(static_cast<std::size_t>(frames));
    double phase = 0.0;
    for (int i = 0; i < frames; ++i) {
        // A glide even to the ear: the frequency moves by the same ratio in each step.
        const double progress = static_cast<double>(i) / (frames - 1);
        const double frequency = tone.startHz * std::pow(tone.endHz / tone.startHz, progress);
        // Raised-cosine fades at both ends: no click.
        double gain = 1.0;
        const int fromEdge = std::min(i, frames - 1 - i);
        if (fromEdge < fadeFrames)
            gain = 0.5 - 0.5 * std::cos(std::numbers::pi * fromEdge / fadeFrames);
        const double value = kAmplitude * gain * std::sin(phase);
        samples[static_cast<std::size_t>(i)] = static_cast<std::int16_t>(std::lround(value * 32767.0));
        phase += 2.0 * std::numbers::pi * frequency / kSampleRate;
        if (phase > 2.0 * std::numbers::pi)
            phase -= 2.0 * std::numbers::pi;
    }
    return samples;
}

void putU32(std::string& out, std::uint32_t value)
{
    for (int shift = 0; shift < 32; shift += 8)
        out += static_cast<char>((value >> shift) & 0xFF);
}

void putU16(std::string& out, std::uint16_t value)
{
    out += static_cast<char>(value & 0xFF);
    out += static_cast<char>((value >> 8) & 0xFF);
}

std::string wavFile(const std::vector<std::int16_t>& samples)
{
    constexpr std::uint16_t channels = 1;
    constexpr std::uint16_t bits = 16;
    const auto dataBytes = static_cast<std::uint32_t>(samples.size() * sizeof(std::int16_t));
    std::string out;
    out += "RIFF";
    putU32(out, 36 + dataBytes);
    out += "WAVE";
    out += "fmt ";
    putU32(out, 16);
    putU16(out, 1); // PCM
    putU16(out, channels);
    putU32(out, kSampleRate);
    putU32(out, kSampleRate * channels * bits / 8);
    putU16(out, channels * bits / 8);
    putU16(out, bits);
    out += "data";
    putU32(out, dataBytes);
    for (const std::int16_t sample : samples)
        putU16(out, static_cast<std::uint16_t>(sample));
    return out;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s OUTPUT-FOLDER\n", argv[0]);
        return 2;
    }
    const std::array<Tone, 2> tones{{{"up.wav", 880.0, 1320.0}, {"down.wav", 660.0, 440.0}}};
    for (const Tone& tone : tones) {
        const std::string path = std::string(argv[1]) + "/" + tone.fileName;
        std::ofstream file(path, std::ios::binary | std::ios::trunc);
        const std::string bytes = wavFile(synthesize(tone));
        file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        if (!file.flush()) {
            std::fprintf(stderr, "cannot write %s\n", path.c_str());
            return 1;
        }
    }
    return 0;
}
