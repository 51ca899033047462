#pragma once

#include "benders/sound_player.h"
#include "platform/wav_file.h"

#include <QDateTime>
#include <QHash>
#include <QObject>
#include <QPointer>
#include <QString>

#include <optional>
#include <string>

class QAudioSink;

namespace plinkora {

/// Plays the feedback sounds through the desktop's sound server (PulseAudio, or PipeWire's
/// PulseAudio service) with Qt Multimedia.
///
/// play() checks the file (exists, readable, a WAV file Plinkora can play) and that there is a
/// sound output, opens an output stream and returns at once; the sound plays on while the event
/// loop runs. A new sound cuts the one still playing off. When there is no sound server, or the
/// stream cannot be opened, play() says so in `error`.
///
/// Qt 6.4 looks for the sound server once, when the first sound is played; a server started
/// later is not found until Plinkora is started again (one that goes away and comes back is).
///
/// The program loads it with Qt Multimedia when the first sound plays (lazy_sound_player.h).
class QtSoundPlayer final : public QObject, public SoundPlayer
{
    Q_OBJECT

public:
    explicit QtSoundPlayer(QObject* parent = nullptr);
    ~QtSoundPlayer() override;

    QtSoundPlayer(const QtSoundPlayer&) = delete;
    QtSoundPlayer& operator=(const QtSoundPlayer&) = delete;

    /// The folder soundFolder() finds.
    std::optional<std::string> resourcePath() const override;
    bool play(const std::string& path, std::string& error) override;

    /// True while a sound plays.
    bool isPlaying() const;

signals:
    /// The current sound has played to its end (not emitted for a sound cut off by a new one).
    void finished();

private:
    struct CachedSound
    {
        QDateTime modified;
        qint64 size = 0;
        WavSound sound;
    };

    const WavSound* load(const QString& path, QString& error);
    void stopCurrent();

    QHash<QString, CachedSound> cache_;
    QPointer<QAudioSink> current_;
};

} // namespace plinkora
