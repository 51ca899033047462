#include "platform/desktop_announcer.h"

#include <utility>

namespace plinkora {

DesktopAnnouncer::DesktopAnnouncer(const ScreenReaderDetector& screenReader, Voice& voice, AnnouncementLabel* label)
    : screenReader_(screenReader)
    , voice_(voice)
    , label_(label)
{
}

void DesktopAnnouncer::setLabel(AnnouncementLabel* label)
{
    label_ = label;
    // Show what was last announced, without announcing it again.
    if (label_ && !lastAnnouncement_.isEmpty()) {
        label_->setText(lastAnnouncement_);
        label_->setAccessibleName(lastAnnouncement_);
    }
}

void DesktopAnnouncer::postAnnouncement(const QString& text)
{
    lastAnnouncement_ = text;
    if (label_)
        label_->announce(text);
}

bool DesktopAnnouncer::isScreenReaderRunning()
{
    return screenReader_.isRunning();
}

bool DesktopAnnouncer::isSpeaking()
{
    return voice_.isSpeaking();
}

void DesktopAnnouncer::stopSpeaking()
{
    voice_.stop();
}

void DesktopAnnouncer::speak(const QString& text)
{
    // Just after start the screen-reader question has no answer yet: speaking now could talk
    // over a screen reader that says the same text.
    if (!screenReader_.hasAnswered()) {
        held_ = text;
        return;
    }
    voice_.speak(text);
}

void DesktopAnnouncer::speakHeld()
{
    const QString text = std::exchange(held_, QString());
    if (!text.isEmpty() && !screenReader_.isRunning())
        voice_.speak(text);
}

} // namespace plinkora
