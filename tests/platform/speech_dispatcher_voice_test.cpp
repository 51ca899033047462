// SpeechDispatcherVoice against a private speech-dispatcher whose only output module records
// what it is asked to say (see support/private_services.h).
#include "platform/speech_dispatcher_voice.h"
#include "platform/user_language.h"

#include "platform/support/private_services.h"

#include <QElapsedTimer>
#include <QLocale>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <regex>
#include <thread>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace plinkora {
namespace {

using namespace testing;

// libspeechd starts the service itself ("autospawn") when none answers, with the command in
// SPEECHD_CMD. In these tests that must never start anything: the command does not exist. Set
// before any test runs (and before any voice's thread reads the environment).
class NoAutospawnEnvironment : public ::testing::Environment
{
public:
    void SetUp() override { ::setenv("SPEECHD_CMD", "/nonexistent/speech-dispatcher", 1); }
};
[[maybe_unused]] ::testing::Environment* const noAutospawn =
    ::testing::AddGlobalTestEnvironment(new NoAutospawnEnvironment);

constexpr const char* kClient = "plinkora-test";

bool contains(const std::vector<std::string>& lines, const std::string& wanted)
{
    return std::find(lines.begin(), lines.end(), wanted) != lines.end();
}

bool anyContains(const std::vector<std::string>& lines, const std::string& part)
{
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& line) { return line.find(part) != std::string::npos; });
}

class SpeechDispatcherVoiceTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!programExists("speech-dispatcher") || !programExists("/usr/lib/speech-dispatcher-modules/sd_generic"))
            GTEST_SKIP() << "speech-dispatcher (with its generic module) is not installed";
        service_ = std::make_unique<PrivateSpeechDispatcher>(folder_.path() / "speech",
                                                             PrivateSpeechDispatcher::Options{700ms});
        service_->start();
    }

    SpeechDispatcherVoice::Options options(bool autospawn = false) const
    {
        SpeechDispatcherVoice::Options options;
        options.address = service_->address();
        options.autospawn = autospawn;
        options.clientName = kClient;
        options.firstRetryPause = 100ms;
        options.longestRetryPause = 400ms;
        return options;
    }

    std::optional<PrivateSpeechDispatcher::Utterance> said(const std::string& text) const
    {
        for (const auto& utterance : service_->utterances()) {
            if (utterance.text == text)
                return utterance;
        }
        return std::nullopt;
    }

    bool waitUntilSaid(const std::string& text, bool toTheEnd, std::chrono::milliseconds timeout = 10s) const
    {
        return waitUntil(
            [&] {
                const auto utterance = said(text);
                return utterance && (!toTheEnd || utterance->finished);
            },
            timeout);
    }

    TempDir folder_{"plinkora-speech"};
    std::unique_ptr<PrivateSpeechDispatcher> service_;
};

TEST_F(SpeechDispatcherVoiceTest, SpeaksTheTextExactly)
{
    QElapsedTimer clock;
    clock.start();
    SpeechDispatcherVoice voice(options());
    const double constructMicroseconds = static_cast<double>(clock.nsecsElapsed()) / 1e3;
    std::printf("SpeechDispatcherVoice(): %.1f us; connected after %.1f ms\n", constructMicroseconds, [&] {
        waitUntil([&] { return voice.isConnected(); }, 10s, 1ms);
        return static_cast<double>(clock.nsecsElapsed()) / 1e6;
    }());
    ASSERT_TRUE(waitUntil([&] { return voice.isConnected(); }, 10s));
    EXPECT_FALSE(voice.isSpeaking());

    clock.restart();
    voice.speak(QStringLiteral("Program: 0, 2 of 8"));
    const double speakMicroseconds = static_cast<double>(clock.nsecsElapsed()) / 1e3;
    EXPECT_TRUE(voice.isSpeaking());
    ASSERT_TRUE(waitUntilSaid("Program: 0, 2 of 8", false, 10s));
    const double untilSpeakingMilliseconds = static_cast<double>(clock.nsecsElapsed()) / 1e6;
    std::printf("speak(): %.1f us on the caller's thread; the module started after %.1f ms\n", speakMicroseconds,
                untilSpeakingMilliseconds);
    EXPECT_LT(speakMicroseconds, 5000.0);
    ASSERT_TRUE(waitUntilSaid("Program: 0, 2 of 8", true));
    EXPECT_TRUE(waitUntil([&] { return !voice.isSpeaking(); }, 5s));

    voice.speak(QStringLiteral("Flöte – plus 6 (it's \"loud\")"));
    ASSERT_TRUE(waitUntilSaid("Flöte – plus 6 (it's \"loud\")", true));

    const auto utterances = service_->utterances();
    ASSERT_EQ(utterances.size(), 2u);
    EXPECT_EQ(utterances[0].text, "Program: 0, 2 of 8");

    // Priority "text", full volume, the rate left at the service's default.
    const auto commands = service_->commandsOf(kClient);
    EXPECT_TRUE(contains(commands, "SET SELF PRIORITY TEXT"));
    EXPECT_TRUE(contains(commands, "SET SELF VOLUME 100"));
    EXPECT_FALSE(anyContains(commands, "RATE"));
    EXPECT_TRUE(anyContains(commands, "SET SELF CLIENT_NAME"));
}

TEST_F(SpeechDispatcherVoiceTest, SpeaksInTheLanguageOfTheLocaleEnglishUnderC)
{
    SpeechDispatcherVoice voice(options());
    const std::string expected = SpeechDispatcherVoice::languageFor(userLanguage());
    EXPECT_EQ(voice.language(), expected);
    if (QLocale::system().language() == QLocale::C) {
        EXPECT_EQ(voice.language(), "en");
    }
    voice.speak(QStringLiteral("127"));
    ASSERT_TRUE(waitUntilSaid("127", false));
    EXPECT_EQ(said("127")->language, expected);
    EXPECT_TRUE(contains(service_->commandsOf(kClient), "SET SELF LANGUAGE " + expected));
}

TEST_F(SpeechDispatcherVoiceTest, ANewTextCutsThePreviousOneOff)
{
    SpeechDispatcherVoice voice(options());
    voice.speak(QStringLiteral("Program: 5, 6 of 8"));
    ASSERT_TRUE(waitUntilSaid("Program: 5, 6 of 8", false));
    voice.speak(QStringLiteral("minus 2"));
    ASSERT_TRUE(waitUntilSaid("minus 2", true));
    EXPECT_FALSE(said("Program: 5, 6 of 8")->finished);
    EXPECT_TRUE(waitUntil([&] { return !voice.isSpeaking(); }, 5s));

    // Many texts in one go are spoken as one, the last. (And what speak() costs the caller: a
    // lock, a copy and a wake-up of the voice's thread.)
    const auto before = service_->utterances().size();
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < 20; ++i)
        voice.speak(QString::number(i));
    std::printf("speak(): %.2f us per call, 20 in a row\n", static_cast<double>(clock.nsecsElapsed()) / 1e3 / 20);
    ASSERT_TRUE(waitUntilSaid("19", true));
    const auto utterances = service_->utterances();
    const auto burst = utterances.size() - before;
    // Normally just "19"; a machine that stalls the caller for longer than the voice's settle
    // time lets an earlier one through (and speech-dispatcher may then let it finish).
    EXPECT_LE(burst, 3u);
    int finished = 0;
    for (auto it = utterances.begin() + static_cast<std::ptrdiff_t>(before); it != utterances.end(); ++it)
        finished += it->finished ? 1 : 0;
    EXPECT_LE(finished, 2);
}

TEST_F(SpeechDispatcherVoiceTest, StopCancelsOnlyItsOwnSpeech)
{
    SpeechDispatcherVoice voice(options());
    ASSERT_TRUE(waitUntil([&] { return voice.isConnected(); }, 10s));

    // Its own speech is cut off.
    voice.speak(QStringLiteral("Velocity: 100"));
    ASSERT_TRUE(waitUntilSaid("Velocity: 100", false));
    voice.stop();
    EXPECT_FALSE(voice.isSpeaking());
    ASSERT_TRUE(waitUntil([&] { return anyContains(service_->commandsOf(kClient), "CANCEL"); }, 5s));

    // Another program's speech, on its own connection, goes on.
    const auto other = ChildProcess::start(
        "spd-say",
        childOptions({"--wait", "--priority", "message", "Another program speaks"},
                     {{"SPEECHD_ADDRESS", service_->address()}, {"SPEECHD_CMD", "/nonexistent/speech-dispatcher"}}));
    ASSERT_TRUE(waitUntilSaid("Another program speaks", false));
    voice.speak(QStringLiteral("Channel: 3"));
    voice.stop();
    EXPECT_TRUE(waitUntilSaid("Another program speaks", true));
    EXPECT_TRUE(other->waitForExit(10s).has_value());
    EXPECT_FALSE(said("Velocity: 100")->finished);
    const auto channel = said("Channel: 3");
    EXPECT_TRUE(!channel || !channel->finished);

    const auto commands = service_->commandsOf(kClient);
    EXPECT_TRUE(contains(commands, "CANCEL SELF"));
    EXPECT_FALSE(anyContains(commands, "CANCEL ALL"));
    EXPECT_FALSE(anyContains(commands, "STOP ALL"));
}

TEST_F(SpeechDispatcherVoiceTest, WhenTheServiceDiesItSaysSoOnceAndSpeaksAgainWhenItIsBack)
{
    // gtest reads the captured output after fflush(NULL), which waits for every stdio stream's
    // lock, and libspeechd's event thread holds the lock of its connection's stream while it
    // waits for the service: read the output only once the voice is gone.
    ::testing::internal::CaptureStdout();
    auto voice = std::make_unique<SpeechDispatcherVoice>(options());
    ASSERT_TRUE(waitUntil([&] { return voice->isConnected(); }, 10s));
    voice->speak(QStringLiteral("before"));
    ASSERT_TRUE(waitUntilSaid("before", false));

    service_->stop();
    EXPECT_TRUE(waitUntil([&] { return !voice->isConnected(); }, 5s));
    EXPECT_TRUE(waitUntil([&] { return !voice->isSpeaking(); }, 5s));
    for (int i = 0; i < 5; ++i) {
        voice->speak(QStringLiteral("while gone"));
        std::this_thread::sleep_for(50ms);
    }
    EXPECT_TRUE(waitUntil([&] { return !voice->isSpeaking(); }, 5s));

    service_->start();
    const bool back = waitUntil(
        [&] {
            voice->speak(QStringLiteral("after"));
            return said("after").has_value();
        },
        15s, 200ms);
    voice.reset();
    const std::string output = ::testing::internal::GetCapturedStdout();
    EXPECT_TRUE(back);
    EXPECT_FALSE(said("while gone"));
    const std::regex line("Speech unavailable: [^\n]+; announcements are shown and posted to screen readers only\n");
    const auto lines = std::distance(std::sregex_iterator(output.begin(), output.end(), line), std::sregex_iterator());
    EXPECT_EQ(lines, 1) << output;
    EXPECT_NE(output.find("connection to speech-dispatcher was lost"), std::string::npos) << output;
}

TEST_F(SpeechDispatcherVoiceTest, TheFirstTextAfterTheServiceIsBackWaitsForTheNextAttempt)
{
    // A long pause after a failed attempt: the service comes back well within it.
    auto opts = options();
    opts.firstRetryPause = 1500ms;
    opts.longestRetryPause = 1500ms;
    ::testing::internal::CaptureStdout(); // (see above on capturing)
    auto voice = std::make_unique<SpeechDispatcherVoice>(opts);
    ASSERT_TRUE(waitUntil([&] { return voice->isConnected(); }, 10s));

    service_->stop();
    ASSERT_TRUE(waitUntil([&] { return !voice->isConnected(); }, 5s));
    // Spoken while the service is gone: the attempt it causes fails and the pause begins.
    voice->speak(QStringLiteral("while gone"));
    ASSERT_TRUE(waitUntil([&] { return !voice->isSpeaking(); }, 5s));
    EXPECT_FALSE(voice->isConnected());

    service_->start();
    // One text, once, while the voice still waits for its next attempt.
    voice->speak(QStringLiteral("Program: 1, 2 of 8"));
    EXPECT_TRUE(voice->isSpeaking());
    const bool heard = waitUntilSaid("Program: 1, 2 of 8", true, 10s);
    voice.reset();
    ::testing::internal::GetCapturedStdout();
    EXPECT_TRUE(heard);
    EXPECT_FALSE(said("while gone"));
    EXPECT_EQ(service_->utterances().size(), 1u);
}

TEST_F(SpeechDispatcherVoiceTest, WhenNoServiceRunsItSaysSoOnceAndSpeaksOnceOneStarts)
{
    service_->stop();
    ::testing::internal::CaptureStdout();
    QElapsedTimer clock;
    clock.start();
    // The program's own default: start the service on demand. Here that cannot work.
    auto voice = std::make_unique<SpeechDispatcherVoice>(options(true)); // (see above on capturing)
    voice->speak(QStringLiteral("nobody hears this"));
    voice->stop();
    voice->speak(QStringLiteral("nobody hears this either"));
    const auto callsTook = clock.elapsed();
    EXPECT_TRUE(waitUntil([&] { return !voice->isSpeaking(); }, 10s));
    for (int i = 0; i < 5; ++i) {
        voice->speak(QStringLiteral("still nobody"));
        std::this_thread::sleep_for(30ms);
    }
    EXPECT_TRUE(waitUntil([&] { return !voice->isSpeaking(); }, 10s));
    EXPECT_FALSE(voice->isConnected());

    service_->start();
    const bool back = waitUntil(
        [&] {
            voice->speak(QStringLiteral("hello again"));
            return said("hello again").has_value();
        },
        15s, 200ms);
    voice.reset();
    const std::string output = ::testing::internal::GetCapturedStdout();
    EXPECT_LT(callsTook, 50);
    EXPECT_TRUE(back);
    EXPECT_TRUE(service_->utterances().size() >= 1);
    EXPECT_FALSE(said("nobody hears this"));
    const std::regex line("Speech unavailable: [^\n]+; announcements are shown and posted to screen readers only\n");
    const auto lines = std::distance(std::sregex_iterator(output.begin(), output.end(), line), std::sregex_iterator());
    EXPECT_EQ(lines, 1) << output;
    EXPECT_NE(output.find(service_->socketPath().string()), std::string::npos) << output;
}

// A service that accepts the connection and then never answers: nothing the program calls
// waits for it.
TEST(SpeechDispatcherVoiceHangTest, AHangingServiceNeverBlocksTheCaller)
{
    TempDir folder("plinkora-speech-hang");
    const fs::path socketPath = folder.path() / "silent.sock";
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(listener, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath.c_str(), sizeof(address.sun_path) - 1);
    ASSERT_EQ(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener, 4), 0);

    QElapsedTimer clock;
    clock.start();
    {
        SpeechDispatcherVoice::Options options;
        options.address = "unix_socket:" + socketPath.string();
        options.autospawn = false;
        ::testing::internal::CaptureStdout();
        SpeechDispatcherVoice voice(options);
        for (int i = 0; i < 10; ++i) {
            voice.speak(QStringLiteral("into the void"));
            voice.isSpeaking();
            voice.stop();
        }
        EXPECT_LT(clock.elapsed(), 50);
        std::this_thread::sleep_for(200ms);
        // The service goes: the waiting connection fails and the voice gives up on it.
        ::close(listener);
        clock.restart();
    }
    const auto closing = clock.elapsed();
    ::testing::internal::GetCapturedStdout();
    std::printf("closing the voice of a hung service took %lld ms\n", static_cast<long long>(closing));
    EXPECT_LT(closing, 3000);
}

TEST(SpeechDispatcherVoiceLanguageTest, TakesTheLanguageOfTheLocale)
{
    EXPECT_EQ(SpeechDispatcherVoice::languageFor(QLocale::c()), "en");
    EXPECT_EQ(SpeechDispatcherVoice::languageFor(QLocale(QStringLiteral("de_DE"))), "de");
    EXPECT_EQ(SpeechDispatcherVoice::languageFor(QLocale(QStringLiteral("pt_BR"))), "pt");
    EXPECT_EQ(SpeechDispatcherVoice::languageFor(QLocale(QStringLiteral("en_GB"))), "en");
    EXPECT_EQ(SpeechDispatcherVoice::languageFor(QLocale(QStringLiteral("fr"))), "fr");
}

} // namespace
} // namespace plinkora
