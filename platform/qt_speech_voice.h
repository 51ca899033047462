#pragma once

#include "platform/voice.h"

#include <memory>

class QTextToSpeech;

namespace plinkora {

/// Plinkora's own voice through Qt TextToSpeech: the system voice where there is no
/// speech-dispatcher (macOS, Windows), in the user's language.
class QtSpeechVoice final : public Voice
{
public:
    QtSpeechVoice();
    ~QtSpeechVoice() override;

    bool isSpeaking() const override;
    void stop() override;
    void speak(const QString& text) override;

private:
    std::unique_ptr<QTextToSpeech> speech_;
};

} // namespace plinkora
