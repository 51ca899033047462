#include "platform/wav_file.h"

#include <QByteArray>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdint>

namespace plinkora {
namespace {

void putU32(QByteArray& out, std::uint32_t value)
{
    for (int shift = 0; shift < 32; shift += 8)
        out.append(static_cast<char>((value >> shift) & 0xFF));
}

void putU16(QByteArray& out, std::uint16_t value)
{
    out.append(static_cast<char>(value & 0xFF));
    out.append(static_cast<char>(value >> 8));
}

QByteArray wav(std::uint16_t format, std::uint16_t channels, std::uint32_t rate, std::uint16_t bits,
               const QByteArray& data, bool extraChunk = false)
{
    QByteArray fmt;
    putU16(fmt, format);
    putU16(fmt, channels);
    putU32(fmt, rate);
    putU32(fmt, rate * channels * bits / 8);
    putU16(fmt, static_cast<std::uint16_t>(channels * bits / 8));
    putU16(fmt, bits);
    QByteArray body = "WAVE";
    body += "fmt ";
    putU32(body, static_cast<std::uint32_t>(fmt.size()));
    body += fmt;
    if (extraChunk) {
        body += "LIST";
        putU32(body, 3);
        body += "abc";
        body += '\0'; // padding to an even length
    }
    body += "data";
    putU32(body, static_cast<std::uint32_t>(data.size()));
    body += data;
    QByteArray file = "RIFF";
    putU32(file, static_cast<std::uint32_t>(body.size()));
    return file + body;
}

TEST(WavFileTest, ReadsSixteenBitMono)
{
    QString error;
    const auto sound = parseWav(wav(1, 1, 44100, 16, QByteArray(882, '\1')), error);
    ASSERT_TRUE(sound) << error.toStdString();
    EXPECT_EQ(sound->sampleRate, 44100);
    EXPECT_EQ(sound->channels, 1);
    EXPECT_EQ(sound->bitsPerSample, 16);
    EXPECT_FALSE(sound->floatingPoint);
    EXPECT_EQ(sound->frameCount(), 441);
    EXPECT_DOUBLE_EQ(sound->durationSeconds(), 0.01);
}

TEST(WavFileTest, SkipsOtherChunks)
{
    QString error;
    const auto sound = parseWav(wav(1, 2, 48000, 16, QByteArray(400, '\0'), true), error);
    ASSERT_TRUE(sound) << error.toStdString();
    EXPECT_EQ(sound->samples.size(), 400);
    EXPECT_EQ(sound->channels, 2);
}

TEST(WavFileTest, ReadsFloat)
{
    QString error;
    const auto sound = parseWav(wav(3, 1, 22050, 32, QByteArray(80, '\0')), error);
    ASSERT_TRUE(sound) << error.toStdString();
    EXPECT_TRUE(sound->floatingPoint);
}

TEST(WavFileTest, RefusesWhatIsNotAWavFile)
{
    QString error;
    EXPECT_FALSE(parseWav("just some text, not a sound at all", error));
    EXPECT_EQ(error, QStringLiteral("not a WAV file"));
    EXPECT_FALSE(parseWav(QByteArray(), error));
    EXPECT_EQ(error, QStringLiteral("not a WAV file"));
}

TEST(WavFileTest, RefusesCompressedAndOddFormats)
{
    QString error;
    EXPECT_FALSE(parseWav(wav(0x55, 1, 44100, 0, QByteArray(10, '\0')), error));
    EXPECT_TRUE(error.contains(QStringLiteral("compressed"))) << error.toStdString();
    EXPECT_FALSE(parseWav(wav(1, 1, 44100, 24, QByteArray(30, '\0')), error));
    EXPECT_TRUE(error.contains(QStringLiteral("24-bit"))) << error.toStdString();
    EXPECT_FALSE(parseWav(wav(1, 1, 44100, 16, QByteArray()), error));
    EXPECT_TRUE(error.contains(QStringLiteral("no sound"))) << error.toStdString();
}

TEST(WavFileTest, NamesTheFileAndTheProblem)
{
    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    QString error;
    const QString missing = folder.filePath(QStringLiteral("down.wav"));
    EXPECT_FALSE(readWavFile(missing, error));
    EXPECT_EQ(error, QStringLiteral("file not found: ") + missing);

    const QString text = folder.filePath(QStringLiteral("text.wav"));
    QFile file(text);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("hello");
    file.close();
    EXPECT_FALSE(readWavFile(text, error));
    EXPECT_EQ(error, text + QStringLiteral(" is not a WAV file"));

    EXPECT_FALSE(readWavFile(folder.path(), error));
    EXPECT_TRUE(error.startsWith(QStringLiteral("cannot read ") + folder.path())) << error.toStdString();
}

} // namespace
} // namespace plinkora
