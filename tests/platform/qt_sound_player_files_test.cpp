// What the sound player says about files, and where it looks for them. (Playing through a sound
// server is in qt_sound_player_test.cpp, and without one in no_services_test.cpp.)
#include "platform/qt_sound_player.h"
#include "platform/sound_folder.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdlib>

#include <optional>
#include <string>
#include <unistd.h>

namespace plinkora {
namespace {

void touch(const QString& path, const QByteArray& content = "RIFF")
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << path.toStdString();
    file.write(content);
}

TEST(QtSoundPlayerFilesTest, AMissingFileIsNamed)
{
    QtSoundPlayer player;
    std::string error;
    EXPECT_FALSE(player.play("/nonexistent/plinkora/down.wav", error));
    EXPECT_EQ(error, "file not found: /nonexistent/plinkora/down.wav");
    EXPECT_FALSE(player.isPlaying());
}

TEST(QtSoundPlayerFilesTest, AFileThatIsNoSoundIsRefused)
{
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("up.wav"));
    touch(path, "this is text, not a sound");
    QtSoundPlayer player;
    std::string error;
    EXPECT_FALSE(player.play(path.toStdString(), error));
    EXPECT_EQ(error, path.toStdString() + " is not a WAV file");
}

TEST(QtSoundPlayerFilesTest, AFolderIsRefused)
{
    QTemporaryDir folder;
    QtSoundPlayer player;
    std::string error;
    EXPECT_FALSE(player.play(folder.path().toStdString(), error));
    EXPECT_EQ(error.rfind("cannot read " + folder.path().toStdString(), 0), 0u) << error;
}

TEST(QtSoundPlayerFilesTest, AnUnreadableFileIsRefused)
{
    if (::geteuid() == 0)
        GTEST_SKIP() << "root reads every file";
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("down.wav"));
    touch(path);
    QFile::setPermissions(path, QFileDevice::Permissions());
    QtSoundPlayer player;
    std::string error;
    EXPECT_FALSE(player.play(path.toStdString(), error));
    EXPECT_EQ(error.rfind("cannot read " + path.toStdString(), 0), 0u) << error;
}

TEST(QtSoundPlayerFilesTest, TheEnvironmentVariableDecidesFirst)
{
    QTemporaryDir executable;
    touch(executable.filePath(QStringLiteral("up.wav")));
    EXPECT_EQ(findSoundFolder(QStringLiteral("/opt/sounds"), executable.path()),
              std::optional<std::string>("/opt/sounds"));
}

TEST(QtSoundPlayerFilesTest, AnInstalledPlinkoraUsesShare)
{
    QTemporaryDir prefix;
    touch(prefix.filePath(QStringLiteral("share/plinkora/up.wav")));
    QDir().mkpath(prefix.filePath(QStringLiteral("bin")));
    touch(prefix.filePath(QStringLiteral("bin/up.wav"))); // the installed folder still wins
    EXPECT_EQ(findSoundFolder(std::nullopt, prefix.filePath(QStringLiteral("bin"))),
              std::optional<std::string>(prefix.filePath(QStringLiteral("share/plinkora")).toStdString()));
}

TEST(QtSoundPlayerFilesTest, ABuildTreeUsesTheExecutablesFolder)
{
    QTemporaryDir build;
    touch(build.filePath(QStringLiteral("bin/up.wav")));
    EXPECT_EQ(findSoundFolder(std::nullopt, build.filePath(QStringLiteral("bin"))),
              std::optional<std::string>(build.filePath(QStringLiteral("bin")).toStdString()));
}

TEST(QtSoundPlayerFilesTest, NoSoundsNoFolder)
{
    QTemporaryDir empty;
    QDir().mkpath(empty.filePath(QStringLiteral("bin")));
    EXPECT_EQ(findSoundFolder(std::nullopt, empty.filePath(QStringLiteral("bin"))), std::nullopt);
}

TEST(QtSoundPlayerFilesTest, TheBuildsOwnSoundsAreFound)
{
    EXPECT_EQ(findSoundFolder(std::nullopt, QStringLiteral(PLINKORA_TEST_SOUNDS_DIR)),
              std::optional<std::string>(QDir::cleanPath(QStringLiteral(PLINKORA_TEST_SOUNDS_DIR)).toStdString()));
}

TEST(QtSoundPlayerFilesTest, ResourcePathReadsTheEnvironment)
{
    const QByteArray saved = qgetenv("PLINKORA_RESOURCE_DIR");
    const bool wasSet = qEnvironmentVariableIsSet("PLINKORA_RESOURCE_DIR");
    qputenv("PLINKORA_RESOURCE_DIR", "/somewhere/sounds");
    QtSoundPlayer player;
    EXPECT_EQ(player.resourcePath(), std::optional<std::string>("/somewhere/sounds"));
    if (wasSet)
        qputenv("PLINKORA_RESOURCE_DIR", saved);
    else
        qunsetenv("PLINKORA_RESOURCE_DIR");
}

} // namespace
} // namespace plinkora
