#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

namespace plinkora {

/// The samples of a WAV file and their format.
struct WavSound
{
    int sampleRate = 0;
    int channels = 0;
    int bitsPerSample = 0;      // 8 (unsigned), 16 or 32
    bool floatingPoint = false; // 32-bit float samples
    QByteArray samples;         // interleaved, little-endian, as in the file

    int bytesPerFrame() const { return channels * bitsPerSample / 8; }
    qint64 frameCount() const { return bytesPerFrame() > 0 ? samples.size() / bytesPerFrame() : 0; }
    double durationSeconds() const { return sampleRate > 0 ? static_cast<double>(frameCount()) / sampleRate : 0.0; }
};

/// Reads an uncompressed WAV (RIFF WAVE: PCM 8, 16 or 32 bit, or 32-bit float; also in the
/// extensible layout). On failure returns nothing and sets `error` to a description that says
/// what is wrong with the data ("not a WAV file", "compressed", ...).
std::optional<WavSound> parseWav(const QByteArray& bytes, QString& error);

/// Reads the WAV file at `path`. `error` names the file and the problem (missing, unreadable,
/// not a WAV file).
std::optional<WavSound> readWavFile(const QString& path, QString& error);

} // namespace plinkora
