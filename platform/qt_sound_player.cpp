#include "platform/qt_sound_player.h"

#include "platform/sound_folder.h"

#include <QAudioDevice>
#include <QAudioFormat>
#include <QAudioSink>
#include <QBuffer>
#include <QFileInfo>
#include <QMediaDevices>
#include <QTimer>

namespace plinkora {

namespace {

// Room for the sound server's own buffering after the last sample has been handed over.
constexpr int kPlayOutMarginMs = 400;

QString describe(QAudio::Error error)
{
    switch (error) {
    case QAudio::NoError:
        return {};
    case QAudio::OpenError:
        return QStringLiteral("the sound server refused to open an output stream");
    case QAudio::IOError:
        return QStringLiteral("writing to the sound output failed");
    case QAudio::UnderrunError:
        return QStringLiteral("the sound output ran dry");
    case QAudio::FatalError:
        return QStringLiteral("the connection to the sound server is broken (has the sound server stopped?)");
    }
    return QStringLiteral("the sound output failed");
}

} // namespace

QtSoundPlayer::QtSoundPlayer(QObject* parent)
    : QObject(parent)
{
}

QtSoundPlayer::~QtSoundPlayer()
{
    stopCurrent();
}

std::optional<std::string> QtSoundPlayer::resourcePath() const
{
    return soundFolder();
}

const WavSound* QtSoundPlayer::load(const QString& path, QString& error)
{
    const QFileInfo info(path);
    const auto cached = cache_.constFind(path);
    if (cached != cache_.constEnd() && info.exists() && cached->modified == info.lastModified()
        && cached->size == info.size())
        return &cached->sound;
    auto sound = readWavFile(path, error);
    if (!sound) {
        cache_.remove(path);
        return nullptr;
    }
    CachedSound& entry = cache_[path];
    entry.modified = info.lastModified();
    entry.size = info.size();
    entry.sound = std::move(*sound);
    return &entry.sound;
}

bool QtSoundPlayer::play(const std::string& path, std::string& error)
{
    QString problem;
    const WavSound* sound = load(QString::fromStdString(path), problem);
    if (sound == nullptr) {
        error = problem.toStdString();
        return false;
    }

    const QAudioDevice device = QMediaDevices::defaultAudioOutput();
    if (device.isNull()) {
        error = "no sound output: no audio device was found (is a sound server such as PulseAudio "
                "or PipeWire running?)";
        return false;
    }
    QAudioFormat format;
    format.setSampleRate(sound->sampleRate);
    format.setChannelCount(sound->channels);
    if (sound->floatingPoint)
        format.setSampleFormat(QAudioFormat::Float);
    else if (sound->bitsPerSample == 8)
        format.setSampleFormat(QAudioFormat::UInt8);
    else if (sound->bitsPerSample == 16)
        format.setSampleFormat(QAudioFormat::Int16);
    else
        format.setSampleFormat(QAudioFormat::Int32);
    if (!device.isFormatSupported(format)) {
        error = QStringLiteral("the sound output \"%1\" cannot play %2 Hz, %3 channel(s), %4-bit sound")
                    .arg(device.description())
                    .arg(sound->sampleRate)
                    .arg(sound->channels)
                    .arg(sound->bitsPerSample)
                    .toStdString();
        return false;
    }

    // The newest sound replaces the one still playing.
    stopCurrent();
    auto* sink = new QAudioSink(device, format, this);
    auto* samples = new QBuffer(sink);
    samples->setData(sound->samples); // shared, not copied
    samples->open(QIODevice::ReadOnly);
    // Opening the stream is one round trip to the sound server; a dead server fails here.
    sink->start(samples);
    if (sink->error() != QAudio::NoError || sink->state() == QAudio::StoppedState) {
        error = describe(sink->error()).toStdString();
        if (error.empty())
            error = "the sound output did not start";
        delete sink;
        return false;
    }
    current_ = sink;
    // Once all samples are handed over the sink goes idle, but the server still plays what it
    // holds: keep the stream until the sound's own length (and a margin) has passed.
    const int lengthMs = static_cast<int>(sound->durationSeconds() * 1000.0) + kPlayOutMarginMs;
    QTimer::singleShot(lengthMs, sink, [this, sink] {
        sink->stop();
        sink->deleteLater();
        if (current_ == sink) {
            current_ = nullptr;
            emit finished();
        }
    });
    return true;
}

bool QtSoundPlayer::isPlaying() const
{
    return !current_.isNull();
}

void QtSoundPlayer::stopCurrent()
{
    if (current_) {
        QAudioSink* sink = current_;
        current_ = nullptr;
        sink->stop();
        sink->deleteLater();
    }
}

} // namespace plinkora
