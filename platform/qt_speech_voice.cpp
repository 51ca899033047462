#include "platform/qt_speech_voice.h"

#include "platform/user_language.h"

#include <QTextToSpeech>

namespace plinkora {

QtSpeechVoice::QtSpeechVoice()
    : speech_(std::make_unique<QTextToSpeech>())
{
    speech_->setLocale(userLanguage());
}

QtSpeechVoice::~QtSpeechVoice() = default;

bool QtSpeechVoice::isSpeaking() const
{
    return speech_->state() == QTextToSpeech::Speaking;
}

void QtSpeechVoice::stop()
{
    speech_->stop();
}

void QtSpeechVoice::speak(const QString& text)
{
    // Cuts off what this voice was saying, as every voice of Plinkora does.
    speech_->stop();
    speech_->say(text);
}

} // namespace plinkora
