// ScreenReaderMonitor against the real accessibility stack: a private session bus, the real
// at-spi-bus-launcher and AT-SPI registry, and the real Orca under a private X server.
#include "platform/screen_reader_monitor.h"

#include "platform/support/private_services.h"

#include <QDBusConnection>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>

#include <unistd.h>

namespace plinkora {
namespace {

using namespace testing;

// Connects this process to a private bus under a name of its own, and disconnects at the end.
class BusConnection
{
public:
    explicit BusConnection(const std::string& address)
        : name_(QStringLiteral("plinkora-test-bus-%1").arg(++count_))
        , connection_(QDBusConnection::connectToBus(QString::fromStdString(address), name_))
    {
    }
    ~BusConnection() { QDBusConnection::disconnectFromBus(name_); }
    BusConnection(const BusConnection&) = delete;
    BusConnection& operator=(const BusConnection&) = delete;

    const QDBusConnection& get() const { return connection_; }

private:
    static inline int count_ = 0;
    QString name_;
    QDBusConnection connection_;
};

// Counts the monitor's completed refreshes.
class RefreshCounter
{
public:
    explicit RefreshCounter(ScreenReaderMonitor& monitor)
    {
        QObject::connect(&monitor, &ScreenReaderMonitor::refreshed, [this] { ++count; });
    }
    int count = 0;
};

bool waitForRefresh(RefreshCounter& counter, int atLeast = 1, std::chrono::milliseconds timeout = 10s)
{
    return waitUntilProcessingEvents([&] { return counter.count >= atLeast; }, timeout);
}

void requirePrograms(std::initializer_list<const char*> programs)
{
    for (const char* program : programs) {
        if (!programExists(program))
            GTEST_SKIP() << program << " is not installed";
    }
}

class ScreenReaderMonitorTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        requirePrograms(
            {"dbus-daemon", "busctl", "/usr/libexec/at-spi-bus-launcher", "/usr/libexec/at-spi2-registryd"});
        if (IsSkipped())
            return;
        sessionBus_ = std::make_unique<PrivateSessionBus>(folder_.path() / "session");
    }

    TempDir folder_{"plinkora-screen-reader"};
    std::unique_ptr<PrivateSessionBus> sessionBus_;
};

TEST_F(ScreenReaderMonitorTest, FollowsTheDesktopsScreenReaderSwitch)
{
    AccessibilityBus accessibility(*sessionBus_, folder_.subfolder("run"));
    BusConnection session(sessionBus_->address());
    ASSERT_TRUE(session.get().isConnected());
    ScreenReaderMonitor monitor(session.get());
    RefreshCounter refreshes(monitor);
    ASSERT_TRUE(waitForRefresh(refreshes));
    EXPECT_FALSE(monitor.isRunning());

    accessibility.setScreenReaderEnabled(true);
    EXPECT_TRUE(waitUntilProcessingEvents([&] { return monitor.isRunning(); }, 5s));
    EXPECT_TRUE(monitor.screenReaderSwitchOn());
    EXPECT_FALSE(monitor.orcaListening());

    accessibility.setScreenReaderEnabled(false);
    EXPECT_TRUE(waitUntilProcessingEvents([&] { return !monitor.isRunning(); }, 5s));

    // A monitor made while the switch is on knows it from its first refresh.
    accessibility.setScreenReaderEnabled(true);
    ScreenReaderMonitor late(session.get());
    RefreshCounter lateRefreshes(late);
    ASSERT_TRUE(waitForRefresh(lateRefreshes));
    EXPECT_TRUE(late.isRunning());
}

TEST_F(ScreenReaderMonitorTest, AnswersFalseWithoutAnAccessibilityBus)
{
    BusConnection session(sessionBus_->address());
    ScreenReaderMonitor monitor(session.get());
    RefreshCounter refreshes(monitor);
    QElapsedTimer clock;
    clock.start();
    ASSERT_TRUE(waitForRefresh(refreshes, 1, 5s));
    EXPECT_LT(clock.elapsed(), 2000);
    EXPECT_FALSE(monitor.isRunning());
}

TEST_F(ScreenReaderMonitorTest, NoticesAnAccessibilityBusThatStartsLater)
{
    BusConnection session(sessionBus_->address());
    ScreenReaderMonitor monitor(session.get());
    RefreshCounter refreshes(monitor);
    ASSERT_TRUE(waitForRefresh(refreshes));
    AccessibilityBus accessibility(*sessionBus_, folder_.subfolder("run"));
    accessibility.setScreenReaderEnabled(true);
    EXPECT_TRUE(waitUntilProcessingEvents([&] { return monitor.isRunning(); }, 5s));
}

TEST(ScreenReaderMonitorNoBusTest, AnswersFalseAtOnceWhenThereIsNoSessionBus)
{
    const QString name = QStringLiteral("plinkora-test-no-bus");
    QElapsedTimer clock;
    clock.start();
    {
        const QDBusConnection none =
            QDBusConnection::connectToBus(QStringLiteral("unix:path=/nonexistent/plinkora/bus"), name);
        ASSERT_FALSE(none.isConnected());
        ScreenReaderMonitor monitor(none);
        RefreshCounter refreshes(monitor);
        EXPECT_FALSE(monitor.isRunning());
        ASSERT_TRUE(waitForRefresh(refreshes, 1, 2s));
        EXPECT_FALSE(monitor.isRunning());
        monitor.refresh();
        EXPECT_EQ(refreshes.count, 2); // nothing to ask: done at once
    }
    QDBusConnection::disconnectFromBus(name);
    EXPECT_LT(clock.elapsed(), 1000);
}

TEST(ScreenReaderMonitorNamesTest, OnlyOrcaCountsAsAScreenReader)
{
    EXPECT_TRUE(ScreenReaderMonitor::isScreenReaderProcessName(QStringLiteral("orca")));
    EXPECT_FALSE(ScreenReaderMonitor::isScreenReaderProcessName(QStringLiteral("python3")));
    EXPECT_FALSE(ScreenReaderMonitor::isScreenReaderProcessName(QStringLiteral("orca-helper")));
    EXPECT_FALSE(ScreenReaderMonitor::isScreenReaderProcessName(QString()));
    // The kernel keeps the first 15 characters of the executable's name.
    EXPECT_TRUE(QStringLiteral("plinkora_platform_tests")
                    .startsWith(ScreenReaderMonitor::processName(static_cast<std::uint32_t>(::getpid()))));
    EXPECT_FALSE(ScreenReaderMonitor::processName(static_cast<std::uint32_t>(::getpid())).isEmpty());
    EXPECT_TRUE(ScreenReaderMonitor::processName(0xFFFFFFF0u).isEmpty());
}

// Orca started by hand leaves the desktop's switch off: the monitor finds it among the
// registry's event listeners. Also measures what the monitor costs.
class OrcaTest : public ScreenReaderMonitorTest
{
protected:
    void SetUp() override
    {
        ScreenReaderMonitorTest::SetUp();
        if (IsSkipped())
            return;
        requirePrograms({"Xvfb", "orca", "speech-dispatcher"});
        if (IsSkipped())
            return;
        if (!PrivateOrca::canIsolate() && runCommand({"pgrep", "-x", "orca"}).exitCode == 0)
            GTEST_SKIP() << "another Orca runs and this one cannot be kept apart from it";
        display_ = std::make_unique<PrivateXServer>();
        accessibility_ = std::make_unique<AccessibilityBus>(*sessionBus_, folder_.subfolder("run"),
                                                            display_->display());
        speech_ = std::make_unique<PrivateSpeechDispatcher>(folder_.path() / "orca-speech",
                                                            PrivateSpeechDispatcher::Options{200ms});
        speech_->start();
    }

    std::unique_ptr<PrivateOrca> startOrca()
    {
        return std::make_unique<PrivateOrca>(PrivateOrca::Options{display_->display(), sessionBus_->address(),
                                                                  folder_.path() / "orca", speech_->address()});
    }

    std::unique_ptr<PrivateXServer> display_;
    std::unique_ptr<AccessibilityBus> accessibility_;
    std::unique_ptr<PrivateSpeechDispatcher> speech_;
};

TEST_F(OrcaTest, SeesOrcaStartedByHandAndItsEnd)
{
    BusConnection session(sessionBus_->address());
    ScreenReaderMonitor monitor(session.get());
    RefreshCounter refreshes(monitor);
    ASSERT_TRUE(waitForRefresh(refreshes));
    EXPECT_FALSE(monitor.isRunning());

    auto orca = startOrca();
    ASSERT_TRUE(orca->waitUntilListening(30s)) << "Orca did not start; see " << orca->debugLog();
    EXPECT_TRUE(waitUntilProcessingEvents([&] { return monitor.isRunning(); }, 10s));
    EXPECT_TRUE(monitor.orcaListening());
    EXPECT_FALSE(monitor.screenReaderSwitchOn());

    // A monitor made while Orca runs finds it by asking the registry.
    ScreenReaderMonitor late(session.get());
    RefreshCounter lateRefreshes(late);
    ASSERT_TRUE(waitForRefresh(lateRefreshes));
    EXPECT_TRUE(late.isRunning());

    // The cost of the question on the key path, and of asking everything again.
    constexpr int kCalls = 10'000'000;
    int yes = 0;
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < kCalls; ++i)
        yes += late.isRunning() ? 1 : 0;
    const double nanosecondsPerCall = static_cast<double>(clock.nsecsElapsed()) / kCalls;
    EXPECT_EQ(yes, kCalls);
    EXPECT_LT(nanosecondsPerCall, 100.0);

    // A full refresh: the switch, the bus address, the registry's listeners and the process
    // behind each, all asynchronous; timed from the call to the last answer.
    constexpr int kRefreshes = 20;
    qint64 refreshNanoseconds = 0;
    for (int i = 1; i <= kRefreshes; ++i) {
        QEventLoop loop;
        QObject::connect(&late, &ScreenReaderMonitor::refreshed, &loop, &QEventLoop::quit);
        QTimer::singleShot(5000, &loop, &QEventLoop::quit);
        clock.restart();
        late.refresh();
        loop.exec();
        refreshNanoseconds += clock.nsecsElapsed();
        ASSERT_EQ(lateRefreshes.count, 1 + i);
    }
    const double millisecondsPerRefresh = static_cast<double>(refreshNanoseconds) / 1e6 / kRefreshes;
    EXPECT_TRUE(late.isRunning());
    RecordProperty("isRunning_ns", std::to_string(nanosecondsPerCall));
    RecordProperty("refresh_ms", std::to_string(millisecondsPerRefresh));
    std::printf("isRunning(): %.2f ns per call; full refresh with Orca listening: %.3f ms\n", nanosecondsPerCall,
                millisecondsPerRefresh);

    orca->stop();
    EXPECT_TRUE(waitUntilProcessingEvents([&] { return !monitor.isRunning() && !late.isRunning(); }, 10s));
    EXPECT_FALSE(monitor.orcaListening());
}

// The announcement label, in a real window, spoken by the real Orca: Orca 43.1 speaks a
// Notification that is shown again, and inside a status bar it says the text alone.
TEST_F(OrcaTest, OrcaSpeaksTheAnnouncements)
{
    if (!programExists("openbox"))
        GTEST_SKIP() << "openbox is not installed";
    PrivateWindowManager windowManager(display_->display(), folder_.path() / "openbox");
    auto orca = startOrca();
    ASSERT_TRUE(orca->waitUntilListening(30s)) << "Orca did not start; see " << orca->debugLog();

    const fs::path control = folder_.path() / "announce-control";
    std::ofstream(control).close();
    const auto window =
        ChildProcess::start(PLINKORA_ANNOUNCE_WINDOW,
                            childOptions({control.string()},
                                         {{"DISPLAY", display_->display()},
                                          {"DBUS_SESSION_BUS_ADDRESS", sessionBus_->address()},
                                          {"AT_SPI_BUS_ADDRESS", std::nullopt},
                                          {"QT_QPA_PLATFORM", "xcb"},
                                          {"QT_LINUX_ACCESSIBILITY_ALWAYS_ON", std::nullopt},
                                          {"QT_ACCESSIBILITY", std::nullopt},
                                          {"XDG_RUNTIME_DIR", folder_.subfolder("window-run").string()}}));
    // What Orca says reaches the private speech service at once (its debug log is written in
    // blocks, later). Orca says the texts alone (with a full stop at the end).
    const auto orcaSaid = [&](const std::string& text) {
        const auto said = speech_->utterances();
        return std::any_of(said.begin(), said.end(), [&](const auto& utterance) {
            std::string spoken = utterance.text;
            if (!spoken.empty() && spoken.back() == '.')
                spoken.pop_back();
            return spoken == text;
        });
    };
    const auto whatOrcaSaid = [&] {
        std::string text = "Orca said:";
        for (const auto& utterance : speech_->utterances())
            text += " [" + utterance.text + "]";
        return text + "; " + window->describe();
    };
    // Orca presents the new window (its title) once it has noticed it.
    ASSERT_TRUE(waitUntil([&] { return orcaSaid("Plinkora announcement test frame"); }, 40s, 20ms))
        << "Orca did not present the window. " << whatOrcaSaid();

    const std::vector<std::string> texts{"Program: 0, 2 of 8", "plus 6", "127"};
    for (const std::string& text : texts) {
        std::ofstream(control, std::ios::app) << text << '\n';
        EXPECT_TRUE(waitUntil([&] { return orcaSaid(text); }, 20s, 20ms))
            << "Orca did not say \"" << text << "\". " << whatOrcaSaid();
    }
    std::ofstream(control, std::ios::app) << "quit\n";
    EXPECT_TRUE(window->waitForExit(10s).has_value());
}

} // namespace
} // namespace plinkora
