#pragma once

#include <QString>

namespace plinkora {

/// Plinkora's own voice: speaks announcements when no screen reader runs.
class Voice
{
public:
    virtual ~Voice() = default;

    /// True from a speak() until that text has been spoken or cut off.
    virtual bool isSpeaking() const = 0;
    /// Cuts this program's own speech off at once; never another program's.
    virtual void stop() = 0;
    /// Speaks `text`, cutting off whatever this voice was saying. Returns at once.
    virtual void speak(const QString& text) = 0;
};

/// The voice where Plinkora has no speech service to use (a build without speech-dispatcher):
/// says nothing; announcements still reach the label and the screen readers.
class SilentVoice final : public Voice
{
public:
    bool isSpeaking() const override { return false; }
    void stop() override {}
    void speak(const QString&) override {}
};

/// Tells whether a screen reader runs. Must answer at once (no blocking call).
class ScreenReaderDetector
{
public:
    virtual ~ScreenReaderDetector() = default;

    virtual bool isRunning() const = 0;
    /// False until the first answer is in: until then isRunning() says false for want of knowing.
    virtual bool hasAnswered() const { return true; }
};

} // namespace plinkora
