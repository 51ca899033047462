#include "platform/desktop_announcer.h"

#include <QElapsedTimer>
#include <QMainWindow>
#include <QStatusBar>
#include <QStringList>

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>

namespace plinkora {
namespace {

class FakeScreenReader final : public ScreenReaderDetector
{
public:
    bool isRunning() const override { return running; }
    bool hasAnswered() const override { return answered; }
    bool running = false;
    bool answered = true;
};

class FakeVoice final : public Voice
{
public:
    bool isSpeaking() const override { return speaking; }
    void stop() override
    {
        speaking = false;
        calls << QStringLiteral("stop");
    }
    void speak(const QString& text) override
    {
        speaking = true;
        calls << QStringLiteral("speak:") + text;
    }
    bool speaking = false;
    QStringList calls;
};

TEST(DesktopAnnouncerTest, PostsToTheLabel)
{
    FakeScreenReader screenReader;
    FakeVoice voice;
    QMainWindow window;
    auto* label = new AnnouncementLabel(&window);
    window.statusBar()->addWidget(label);
    window.show();
    DesktopAnnouncer announcer(screenReader, voice, label);

    announcer.postAnnouncement(QStringLiteral("Program: 0, 2 of 8"));

    EXPECT_EQ(label->text(), QStringLiteral("Program: 0, 2 of 8"));
    EXPECT_EQ(label->accessibleName(), QStringLiteral("Program: 0, 2 of 8"));
    EXPECT_TRUE(label->isVisible());
    EXPECT_TRUE(voice.calls.isEmpty()); // posting never speaks
}

TEST(DesktopAnnouncerTest, WorksBeforeTheLabelExistsAndShowsTheLastTextWhenItComes)
{
    FakeScreenReader screenReader;
    FakeVoice voice;
    DesktopAnnouncer announcer(screenReader, voice);

    announcer.postAnnouncement(QStringLiteral("plus 6"));
    announcer.postAnnouncement(QStringLiteral("127"));
    EXPECT_EQ(announcer.lastAnnouncement(), QStringLiteral("127"));

    QMainWindow window;
    auto* label = new AnnouncementLabel(&window);
    window.statusBar()->addWidget(label);
    announcer.setLabel(label);
    EXPECT_EQ(label->text(), QStringLiteral("127"));

    announcer.postAnnouncement(QStringLiteral("minus 1"));
    EXPECT_EQ(label->text(), QStringLiteral("minus 1"));
}

TEST(DesktopAnnouncerTest, ForgetsALabelThatIsGone)
{
    FakeScreenReader screenReader;
    FakeVoice voice;
    auto label = std::make_unique<AnnouncementLabel>();
    DesktopAnnouncer announcer(screenReader, voice, label.get());
    label.reset();
    EXPECT_EQ(announcer.label(), nullptr);
    announcer.postAnnouncement(QStringLiteral("still fine"));
    EXPECT_EQ(announcer.lastAnnouncement(), QStringLiteral("still fine"));
}

TEST(DesktopAnnouncerTest, AsksTheScreenReaderDetector)
{
    FakeScreenReader screenReader;
    FakeVoice voice;
    DesktopAnnouncer announcer(screenReader, voice);
    EXPECT_FALSE(announcer.isScreenReaderRunning());
    screenReader.running = true;
    EXPECT_TRUE(announcer.isScreenReaderRunning());
}

TEST(DesktopAnnouncerTest, HoldsItsVoiceUntilTheScreenReaderQuestionIsAnswered)
{
    FakeScreenReader screenReader;
    screenReader.answered = false;
    FakeVoice voice;
    DesktopAnnouncer announcer(screenReader, voice);
    announcer.speak(QStringLiteral("Connected to synth:in"));
    announcer.speak(QStringLiteral("Program: 3"));
    EXPECT_TRUE(voice.calls.isEmpty());

    // No screen reader: the last held text is spoken, once.
    screenReader.answered = true;
    announcer.speakHeld();
    announcer.speakHeld();
    EXPECT_EQ(voice.calls, (QStringList{QStringLiteral("speak:Program: 3")}));
}

TEST(DesktopAnnouncerTest, DropsTheHeldTextWhenAScreenReaderRuns)
{
    FakeScreenReader screenReader;
    screenReader.answered = false;
    FakeVoice voice;
    DesktopAnnouncer announcer(screenReader, voice);
    announcer.speak(QStringLiteral("Connected to synth:in"));
    screenReader.answered = true;
    screenReader.running = true;
    announcer.speakHeld();
    EXPECT_TRUE(voice.calls.isEmpty());
}

TEST(DesktopAnnouncerTest, SpeaksAndStopsThroughTheVoice)
{
    FakeScreenReader screenReader;
    FakeVoice voice;
    DesktopAnnouncer announcer(screenReader, voice);
    EXPECT_FALSE(announcer.isSpeaking());
    announcer.speak(QStringLiteral("Program: 3"));
    EXPECT_TRUE(announcer.isSpeaking());
    announcer.stopSpeaking();
    EXPECT_FALSE(announcer.isSpeaking());
    EXPECT_EQ(voice.calls, (QStringList{QStringLiteral("speak:Program: 3"), QStringLiteral("stop")}));
}

// What an announcement costs the caller (offscreen: the label's work without the accessibility
// bridge's D-Bus signals).
TEST(DesktopAnnouncerTest, PostingIsCheap)
{
    FakeScreenReader screenReader;
    FakeVoice voice;
    QMainWindow window;
    auto* label = new AnnouncementLabel(&window);
    window.statusBar()->addWidget(label, 1);
    window.show();
    DesktopAnnouncer announcer(screenReader, voice, label);
    constexpr int kPosts = 2000;
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < kPosts; ++i)
        announcer.postAnnouncement(QStringLiteral("Program: %1, 2 of 8").arg(i % 128));
    const double microsecondsPerPost = static_cast<double>(clock.nsecsElapsed()) / 1e3 / kPosts;
    clock.restart();
    constexpr int kQuestions = 10'000'000;
    int yes = 0;
    for (int i = 0; i < kQuestions; ++i)
        yes += announcer.isScreenReaderRunning() ? 1 : 0;
    const double nanosecondsPerQuestion = static_cast<double>(clock.nsecsElapsed()) / kQuestions;
    RecordProperty("postAnnouncement_us", std::to_string(microsecondsPerPost));
    std::printf("postAnnouncement(): %.2f us; isScreenReaderRunning(): %.2f ns\n", microsecondsPerPost,
                nanosecondsPerQuestion);
    EXPECT_EQ(yes, 0);
    EXPECT_LT(microsecondsPerPost, 2000.0);
    EXPECT_EQ(label->text(), QStringLiteral("Program: %1, 2 of 8").arg((kPosts - 1) % 128));
}

} // namespace
} // namespace plinkora
