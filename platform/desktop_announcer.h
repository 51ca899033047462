#pragma once

#include "platform/announcement_label.h"
#include "platform/voice.h"
#include "properties/announcer.h"

#include <QObject>
#include <QPointer>
#include <QString>

namespace plinkora {

/// The Announcer of the desktop build: announcements go to the status bar's AnnouncementLabel
/// (and from there to screen readers), the screen-reader question to a ScreenReaderDetector
/// (ScreenReaderMonitor), the voice to a Voice (SpeechDispatcherVoice).
///
/// The detector and the voice are not owned and must outlive the announcer. The label belongs
/// to the main window, which may be made after the announcer: setLabel() hands it over later,
/// and until then announcements are kept (the last one is shown when the label arrives) but
/// reach nobody. A label that is destroyed is forgotten (QPointer).
class DesktopAnnouncer final : public Announcer
{
public:
    DesktopAnnouncer(const ScreenReaderDetector& screenReader, Voice& voice, AnnouncementLabel* label = nullptr);

    DesktopAnnouncer(const DesktopAnnouncer&) = delete;
    DesktopAnnouncer& operator=(const DesktopAnnouncer&) = delete;

    void setLabel(AnnouncementLabel* label);
    AnnouncementLabel* label() const { return label_.data(); }
    /// The text of the last postAnnouncement().
    const QString& lastAnnouncement() const { return lastAnnouncement_; }

    void postAnnouncement(const QString& text) override;
    bool isScreenReaderRunning() override;
    bool isSpeaking() override;
    void stopSpeaking() override;
    void speak(const QString& text) override;

    /// Speaks what speak() held back while the screen-reader question had no answer yet (the
    /// last such text), unless a screen reader runs. Call it when the first answer comes.
    void speakHeld();
    /// Lives as long as the announcer: a context for calls that must not outlive it.
    QObject* context() { return &context_; }

private:
    const ScreenReaderDetector& screenReader_;
    Voice& voice_;
    QPointer<AnnouncementLabel> label_;
    QString lastAnnouncement_;
    QString held_;
    QObject context_;
};

} // namespace plinkora
