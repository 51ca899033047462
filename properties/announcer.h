#pragma once

#include <QString>

namespace plinkora {

/// The four things an announcement needs from the desktop: post it to assistive technology,
/// tell whether a screen reader runs, and Plinkora's own voice (is it speaking, stop it at
/// once, speak a text at the default rate and full volume).
class Announcer
{
public:
    virtual ~Announcer() = default;

    /// Posts `text` as a high-priority accessibility announcement, without moving focus.
    virtual void postAnnouncement(const QString& text) = 0;
    /// True while a screen reader runs; must answer at once (no blocking call).
    virtual bool isScreenReaderRunning() = 0;
    /// True while Plinkora's own voice is speaking.
    virtual bool isSpeaking() = 0;
    /// Cuts Plinkora's own speech off at once; never another program's.
    virtual void stopSpeaking() = 0;
    /// Speaks `text` in the user's language, at the default rate and full volume.
    virtual void speak(const QString& text) = 0;
};

} // namespace plinkora
