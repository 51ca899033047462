// The built program: its command line, the display check, the second launch, and quitting on
// SIGTERM. Each plinkora started here runs on Qt's offscreen platform with the null MIDI
// system, a private runtime and settings folder, and a speech address that is never served (so
// no speech service is started); it is stopped by its process id, also when a test fails.

#include <QDeadlineTimer>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <csignal>
#include <memory>

namespace {

const QString kProgram = QStringLiteral(PLINKORA_BINARY);

struct Finished
{
    int exitCode = -1;
    QString out;
    QString err;
};

class ProgramTest : public ::testing::Test
{
protected:
    ProgramTest()
    {
        environment = QProcessEnvironment::systemEnvironment();
        environment.insert("XDG_RUNTIME_DIR", runtime.path());
        environment.insert("XDG_CONFIG_HOME", runtime.filePath("config"));
        environment.insert("HOME", runtime.path());
        environment.insert("SPEECHD_ADDRESS", "unix_socket:" + runtime.filePath("no-speech.sock"));
        environment.insert("QT_QPA_PLATFORM", "offscreen");
        environment.remove("QT_LINUX_ACCESSIBILITY_ALWAYS_ON");
    }

    ~ProgramTest() override
    {
        for (auto& process : started) {
            if (process->state() != QProcess::NotRunning) {
                process->kill(); // by its own process id
                process->waitForFinished(5000);
            }
        }
    }

    /// Under the X server `display`: `plinkora --midi-api null` with the key handling's debug lines,
    /// started and ready; then `keys` (xdotool commands, one shell line) typed into its window once
    /// it has the focus.
    QProcess* playUnderX11(const QString& display, QString& output, const QString& keys)
    {
        environment.remove("QT_QPA_PLATFORM");
        environment.insert("DISPLAY", display);
        environment.insert("QT_LOGGING_RULES", "plinkora.keys.debug=true");
        QProcess& plinkora = start({"--midi-api", "null"});
        EXPECT_TRUE(waitForOutput(plinkora, output, "MIDI output: null"));

        QProcess xdotool;
        xdotool.setProcessEnvironment(environment);
        const QString script = "for i in $(seq 400); do w=$(xdotool search --name '^Plinkora$' | head -1); "
                               "[ -n \"$w\" ] && break; sleep 0.05; done; xdotool windowfocus --sync $w; sleep 0.3; "
            + keys;
        xdotool.start("/bin/sh", {"-c", script});
        EXPECT_TRUE(xdotool.waitForFinished(30000));
        EXPECT_EQ(xdotool.exitCode(), 0) << xdotool.readAllStandardError().toStdString();
        return &plinkora;
    }

    Finished run(const QStringList& arguments, const QProcessEnvironment& env)
    {
        QProcess process;
        process.setProcessEnvironment(env);
        process.start(kProgram, arguments);
        EXPECT_TRUE(process.waitForFinished(15000));
        Finished result;
        result.exitCode = process.exitCode();
        result.out = QString::fromLocal8Bit(process.readAllStandardOutput());
        result.err = QString::fromLocal8Bit(process.readAllStandardError());
        if (process.state() != QProcess::NotRunning) {
            process.kill();
            process.waitForFinished(5000);
        }
        return result;
    }

    QProcess& start(const QStringList& arguments)
    {
        started.push_back(std::make_unique<QProcess>());
        QProcess& process = *started.back();
        process.setProcessEnvironment(environment);
        // The built-in synthesizer (its sound font loading, its audio output) is not what these
        // tests look at.
        process.start(kProgram,
                      QStringList(arguments) << "--synth"
                                             << "off");
        EXPECT_TRUE(process.waitForStarted(5000));
        return process;
    }

    /// Reads the process's standard output until it holds `text`.
    static bool waitForOutput(QProcess& process, QString& output, const QString& text, int timeoutMs = 15000)
    {
        QDeadlineTimer deadline(timeoutMs);
        while (!output.contains(text)) {
            if (deadline.hasExpired() || process.state() == QProcess::NotRunning)
                return output.contains(text);
            process.waitForReadyRead(50);
            output += QString::fromLocal8Bit(process.readAllStandardOutput());
        }
        return true;
    }

    QTemporaryDir runtime;
    QProcessEnvironment environment;
    std::vector<std::unique_ptr<QProcess>> started;
};

/// A private X server (Xvfb) on a free display number, stopped by its process id.
class PrivateXServer
{
public:
    PrivateXServer()
    {
        for (int number = 140; number < 200 && display_.isEmpty(); ++number) {
            if (QFile::exists(QStringLiteral("/tmp/.X11-unix/X%1").arg(number))
                || QFile::exists(QStringLiteral("/tmp/.X%1-lock").arg(number)))
                continue;
            process_.start(QStringLiteral("Xvfb"),
                           {QStringLiteral(":%1").arg(number), "-nolisten", "tcp", "-screen", "0", "1024x768x24"});
            if (!process_.waitForStarted(5000))
                return;
            QDeadlineTimer deadline(10000);
            while (!deadline.hasExpired() && process_.state() == QProcess::Running
                   && !QFile::exists(QStringLiteral("/tmp/.X11-unix/X%1").arg(number)))
                QThread::msleep(20);
            if (process_.state() == QProcess::Running)
                display_ = QStringLiteral(":%1").arg(number);
            else
                process_.waitForFinished(1000); // taken meanwhile: try the next number
        }
    }
    ~PrivateXServer()
    {
        if (process_.state() != QProcess::NotRunning) {
            process_.terminate();
            if (!process_.waitForFinished(5000)) {
                process_.kill();
                process_.waitForFinished(5000);
            }
        }
    }
    const QString& display() const { return display_; }

private:
    QProcess process_;
    QString display_;
};

} // namespace

TEST_F(ProgramTest, HelpAndVersionExitWithCodeZero)
{
    const Finished help = run({"--help"}, environment);
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_TRUE(help.out.startsWith("Usage: plinkora"));
    const Finished version = run({"--version"}, environment);
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.out, QStringLiteral("plinkora %1\n").arg(PLINKORA_VERSION));
}

TEST_F(ProgramTest, AnUnknownMIDIApiIsOneErrorLineAndExitCodeTwo)
{
    const Finished result = run({"--midi-api", "oss"}, environment);
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.err, QStringLiteral("plinkora: Unknown MIDI API \"oss\"; valid names are: alsa, jack, null\n"));
    EXPECT_TRUE(result.out.isEmpty());
}

TEST_F(ProgramTest, WithoutADisplayItSaysHowToRunUnderXvfbAndExitsWithCodeOne)
{
    QProcessEnvironment bare = environment;
    bare.remove("DISPLAY");
    bare.remove("WAYLAND_DISPLAY");
    bare.remove("QT_QPA_PLATFORM");
    const Finished result = run({"--midi-api", "null"}, bare);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err.count('\n'), 1);
    EXPECT_TRUE(result.err.contains("xvfb-run -a plinkora"));
    EXPECT_TRUE(result.out.isEmpty()); // nothing was made: no MIDI line
    EXPECT_FALSE(QFile::exists(runtime.filePath("plinkora.lock")));
}

TEST_F(ProgramTest, ASecondLaunchBringsTheFirstForwardAndExitsBeforeMakingAPort)
{
    QProcess& first = start({"--midi-api", "null"});
    QString firstOutput;
    ASSERT_TRUE(waitForOutput(first, firstOutput, "MIDI output: null"));

    const Finished second = run({"--midi-api", "null"}, environment);
    EXPECT_EQ(second.exitCode, 0);
    EXPECT_EQ(second.out, QStringLiteral("Plinkora is already running; its window was brought forward.\n"));
    EXPECT_EQ(first.state(), QProcess::Running);

    ::kill(static_cast<pid_t>(first.processId()), SIGTERM);
    ASSERT_TRUE(first.waitForFinished(10000));
    EXPECT_EQ(first.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(first.exitCode(), 0);
}

TEST_F(ProgramTest, SigintSigtermAndSighupQuitCleanly)
{
    for (int signalNumber : {SIGINT, SIGTERM, SIGHUP}) {
        QProcess& process = start({"--midi-api", "null"});
        QString output;
        ASSERT_TRUE(waitForOutput(process, output, "MIDI output: null")) << signalNumber;
        ::kill(static_cast<pid_t>(process.processId()), signalNumber);
        ASSERT_TRUE(process.waitForFinished(10000)) << signalNumber;
        EXPECT_EQ(process.exitStatus(), QProcess::NormalExit) << signalNumber;
        EXPECT_EQ(process.exitCode(), 0) << signalNumber;
    }
}

TEST_F(ProgramTest, AfterACrashTheNextLaunchStarts)
{
    QProcess& crashed = start({"--midi-api", "null"});
    QString output;
    ASSERT_TRUE(waitForOutput(crashed, output, "MIDI output: null"));
    ::kill(static_cast<pid_t>(crashed.processId()), SIGKILL);
    ASSERT_TRUE(crashed.waitForFinished(5000));

    QProcess& next = start({"--midi-api", "null"});
    QString nextOutput;
    EXPECT_TRUE(waitForOutput(next, nextOutput, "MIDI output: null"));
    EXPECT_FALSE(nextOutput.contains("already running"));
    EXPECT_EQ(next.state(), QProcess::Running);
}

TEST_F(ProgramTest, UnderX11EveryKeyIsReadAheadOfQtActedOnOnceAndThenForwardedToQt)
{
    if (QStandardPaths::findExecutable("Xvfb").isEmpty() || QStandardPaths::findExecutable("xdotool").isEmpty())
        GTEST_SKIP() << "needs Xvfb and xdotool";
    PrivateXServer server;
    ASSERT_FALSE(server.display().isEmpty());
    // Twenty strokes of A and K as fast as xdotool types them, then Return as the end mark.
    QString output;
    QProcess* plinkora =
        playUnderX11(server.display(), output,
                     "for i in $(seq 10); do xdotool key --delay 1 a k; done; sleep 0.2; xdotool key Return");
    ASSERT_TRUE(waitForOutput(*plinkora, output, "Key event received: type=11 keyCode=36"));

    // Each press and release once, read ahead of Qt; Qt gets every one of them afterwards,
    // forwarded, and none from the X server directly.
    EXPECT_EQ(output.count("Key event received: type=10 keyCode=0"), 10);
    EXPECT_EQ(output.count("Key event received: type=11 keyCode=0"), 10);
    EXPECT_EQ(output.count("Key event received: type=10 keyCode=40"), 10);
    EXPECT_EQ(output.count("Key event received: type=11 keyCode=40"), 10);
    EXPECT_EQ(output.count("Key event received: type=10 keyCode=36"), 1);
    const QString log = QString::fromLocal8Bit(plinkora->readAllStandardError());
    EXPECT_TRUE(log.contains("now come to the key reader only")) << log.toStdString();
    EXPECT_EQ(log.count("acted on a key event read ahead of Qt"), 42) << log.toStdString();
    EXPECT_EQ(log.count("Qt's copy of a key event read ahead"), 42) << log.toStdString();
    EXPECT_EQ(log.count("acted on a key event at its window"), 0) << log.toStdString();

    ::kill(static_cast<pid_t>(plinkora->processId()), SIGTERM);
    EXPECT_TRUE(plinkora->waitForFinished(10000));
}

TEST_F(ProgramTest, UnderX11AHeldKeyIsPressedWithRepeatsAndReleasedOnce)
{
    if (QStandardPaths::findExecutable("Xvfb").isEmpty() || QStandardPaths::findExecutable("xdotool").isEmpty())
        GTEST_SKIP() << "needs Xvfb and xdotool";
    PrivateXServer server;
    ASSERT_FALSE(server.display().isEmpty());
    // A held for longer than the X server's repeat delay.
    QString output;
    QProcess* plinkora = playUnderX11(server.display(), output, "xdotool keydown a; sleep 1.5; xdotool keyup a");
    ASSERT_TRUE(waitForOutput(*plinkora, output, "Key event received: type=11 keyCode=0"));
    QThread::msleep(300);
    plinkora->waitForReadyRead(100);
    output += QString::fromLocal8Bit(plinkora->readAllStandardOutput());

    EXPECT_GE(output.count("Key event received: type=10 keyCode=0"), 2); // the press and its repeats
    EXPECT_EQ(output.count("Key event received: type=11 keyCode=0"), 1); // one release
    EXPECT_TRUE(QString::fromLocal8Bit(plinkora->readAllStandardError()).contains("detectable auto-repeat: true"));

    ::kill(static_cast<pid_t>(plinkora->processId()), SIGTERM);
    EXPECT_TRUE(plinkora->waitForFinished(10000));
}
