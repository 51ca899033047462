#pragma once

#include "benders/sound_player.h"
#include "properties/announcer.h"

#include <QStringList>

#include <optional>
#include <string>
#include <vector>

namespace plinkora::testing {

/// Records what the desktop would have been asked to announce and say.
class RecordingAnnouncer final : public Announcer
{
public:
    void postAnnouncement(const QString& text) override
    {
        posted << text;
        log << "post:" + text;
    }
    bool isScreenReaderRunning() override { return screenReaderRunning; }
    bool isSpeaking() override { return speaking; }
    void stopSpeaking() override
    {
        speaking = false;
        log << "stop";
    }
    void speak(const QString& text) override
    {
        spoken << text;
        log << "speak:" + text;
        speaking = true;
    }

    bool screenReaderRunning = false;
    bool speaking = false;
    QStringList posted;
    QStringList spoken;
    QStringList log; // every call, in order
};

/// Records the sounds it was asked to play; can be told there is no resource folder or that
/// playing fails.
class RecordingSoundPlayer final : public SoundPlayer
{
public:
    std::optional<std::string> resourcePath() const override { return resourceFolder; }
    bool play(const std::string& path, std::string& error) override
    {
        played.push_back(path);
        if (!failure.empty()) {
            error = failure;
            return false;
        }
        return true;
    }

    std::optional<std::string> resourceFolder = std::string("/resources");
    std::string failure;
    std::vector<std::string> played;
};

} // namespace plinkora::testing
