#pragma once

#include "platform/voice.h"

#include <QLocale>
#include <QString>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

namespace plinkora {

/// Plinkora's own voice on Linux: one speech-dispatcher connection (libspeechd), priority
/// "text", in the user's language, at the default rate and full volume.
///
/// Every libspeechd call happens on one worker thread: opening the connection (which may start
/// the service and take a while), speaking, cancelling. speak(), stop() and isSpeaking() only
/// hand over or read state and return at once, so neither start-up nor a key press ever waits
/// for the speech service.
///
/// When the service is missing, cannot start or dies, the voice says so once on standard
/// output ("Speech unavailable: <reason>; announcements are shown and posted to screen readers
/// only") and tries again, lazily and with a growing pause, when there is something to say. The
/// newest text waits for the next attempt and is spoken if that attempt connects (so the first
/// announcement after the service is back is heard); a text whose attempt fails is dropped.
class SpeechDispatcherVoice final : public Voice
{
public:
    struct Options
    {
        /// The service's address: "unix_socket:/path" or "inet_socket:host:port". Empty: the
        /// address libspeechd chooses ($SPEECHD_ADDRESS, else the user's own socket).
        std::string address;
        /// Let libspeechd start speech-dispatcher when none runs.
        bool autospawn = true;
        /// The language code to speak in. Empty: languageFor(userLanguage()), the language of
        /// the shown texts.
        std::string language;
        /// Connect as soon as the voice is made (on the worker thread), rather than at the
        /// first speak().
        bool connectAtOnce = true;
        /// The pause before the first new attempt after a failed one; it doubles up to the
        /// longest pause.
        std::chrono::milliseconds firstRetryPause{500};
        std::chrono::milliseconds longestRetryPause{8000};
        /// How long the voice waits for a newer text before it hands a text over. Texts that
        /// come in a burst (several in one go) are then spoken as one, the last: speech-dispatcher
        /// 0.11 carries out a cancel that arrives while it is handing the previous text to its
        /// output module only when that text has been spoken to its end.
        std::chrono::milliseconds settleTime{5};
        /// The client name speech-dispatcher shows (user:client:connection).
        std::string clientName = "plinkora";
    };

    SpeechDispatcherVoice();
    explicit SpeechDispatcherVoice(Options options);
    /// Closes the connection. Waits briefly for the worker; a worker stuck in starting the
    /// service is left to finish on its own.
    ~SpeechDispatcherVoice() override;

    SpeechDispatcherVoice(const SpeechDispatcherVoice&) = delete;
    SpeechDispatcherVoice& operator=(const SpeechDispatcherVoice&) = delete;

    bool isSpeaking() const override;
    /// Cancels this connection's own speech (CANCEL SELF); other programs' speech goes on.
    void stop() override;
    /// Cancels this connection's own speech and speaks `text`. While the service is unavailable
    /// the text waits for the next attempt to connect and is dropped if that attempt fails.
    void speak(const QString& text) override;

    /// True while a connection to the service is open.
    bool isConnected() const;
    /// The language code this voice speaks in.
    const std::string& language() const;

    /// The speech-dispatcher language code for `locale`: its language ("de", "pt", ...),
    /// "en" when the locale names none (C, POSIX).
    static std::string languageFor(const QLocale& locale);

    struct Shared;

private:
    std::shared_ptr<Shared> shared_;
    std::thread worker_;
};

} // namespace plinkora
