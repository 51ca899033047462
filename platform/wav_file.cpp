#include "platform/wav_file.h"

#include <QFile>
#include <QFileInfo>

#include <cstdint>

namespace plinkora {

namespace {

std::uint32_t readU32(const QByteArray& bytes, qsizetype at)
{
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.constData() + at);
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8
        | static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

std::uint16_t readU16(const QByteArray& bytes, qsizetype at)
{
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.constData() + at);
    return static_cast<std::uint16_t>(p[0] | p[1] << 8);
}

constexpr std::uint16_t kFormatPcm = 1;
constexpr std::uint16_t kFormatFloat = 3;
constexpr std::uint16_t kFormatExtensible = 0xFFFE;

} // namespace

std::optional<WavSound> parseWav(const QByteArray& bytes, QString& error)
{
    if (bytes.size() < 12 || !bytes.startsWith("RIFF") || bytes.mid(8, 4) != "WAVE") {
        error = QStringLiteral("not a WAV file");
        return std::nullopt;
    }
    WavSound sound;
    bool haveFormat = false;
    bool haveData = false;
    qsizetype at = 12;
    while (at + 8 <= bytes.size()) {
        const QByteArray id = bytes.mid(at, 4);
        const qsizetype size = readU32(bytes, at + 4);
        const qsizetype body = at + 8;
        const qsizetype available = std::min<qsizetype>(size, bytes.size() - body);
        if (id == "fmt ") {
            if (available < 16) {
                error = QStringLiteral("a WAV file with a damaged format description");
                return std::nullopt;
            }
            std::uint16_t format = readU16(bytes, body);
            sound.channels = readU16(bytes, body + 2);
            sound.sampleRate = static_cast<int>(readU32(bytes, body + 4));
            sound.bitsPerSample = readU16(bytes, body + 14);
            if (format == kFormatExtensible && available >= 26)
                format = readU16(bytes, body + 24); // the sub-format GUID starts with the tag
            if (format == kFormatFloat) {
                sound.floatingPoint = true;
            } else if (format != kFormatPcm) {
                error = QStringLiteral("a compressed WAV file (format %1), which cannot be played").arg(format);
                return std::nullopt;
            }
            haveFormat = true;
        } else if (id == "data") {
            sound.samples = bytes.mid(body, available);
            haveData = true;
        }
        at = body + size + (size % 2); // chunks are padded to an even length
    }
    if (!haveFormat || !haveData) {
        error = haveFormat ? QStringLiteral("a WAV file without sound data")
                           : QStringLiteral("a WAV file without a format description");
        return std::nullopt;
    }
    const bool bitsOk = sound.floatingPoint
        ? sound.bitsPerSample == 32
        : (sound.bitsPerSample == 8 || sound.bitsPerSample == 16 || sound.bitsPerSample == 32);
    if (!bitsOk || sound.channels < 1 || sound.channels > 8 || sound.sampleRate < 1000 || sound.sampleRate > 384000) {
        error = QStringLiteral("a WAV file in a format that cannot be played (%1 channels, %2 Hz, %3-bit%4)")
                    .arg(sound.channels)
                    .arg(sound.sampleRate)
                    .arg(sound.bitsPerSample)
                    .arg(sound.floatingPoint ? QStringLiteral(" float") : QString());
        return std::nullopt;
    }
    sound.samples.truncate(sound.frameCount() * sound.bytesPerFrame());
    if (sound.samples.isEmpty()) {
        error = QStringLiteral("a WAV file that holds no sound");
        return std::nullopt;
    }
    return sound;
}

std::optional<WavSound> readWavFile(const QString& path, QString& error)
{
    const QFileInfo info(path);
    if (!info.exists()) {
        error = QStringLiteral("file not found: %1").arg(path);
        return std::nullopt;
    }
    QFile file(path);
    if (info.isDir() || !file.open(QIODevice::ReadOnly)) {
        error = QStringLiteral("cannot read %1: %2")
                    .arg(path, info.isDir() ? QStringLiteral("it is a folder") : file.errorString());
        return std::nullopt;
    }
    QString problem;
    auto sound = parseWav(file.readAll(), problem);
    if (!sound)
        error = QStringLiteral("%1 is %2").arg(path, problem);
    return sound;
}

} // namespace plinkora
