// The program's sound player loads Qt Multimedia only when the first sound plays. A process of
// its own, linked like the program (without the sound module's libraries).
#include "platform/lazy_sound_player.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <string>

namespace plinkora {
namespace {

// Whether a library whose file name starts with `name` is mapped into this process.
bool isMapped(const char* name)
{
    QFile maps(QStringLiteral("/proc/self/maps"));
    if (!maps.open(QIODevice::ReadOnly))
        return false;
    const QByteArray wanted = QByteArray("/") + name;
    return maps.readAll().contains(wanted);
}

TEST(LazySoundPlayerTest, QtMultimediaAndQtNetworkAreLoadedWithTheFirstSound)
{
    // GIVEN the program's sound player, made as at start-up
    LazySoundPlayer player(QStringList{QStringLiteral(PLINKORA_SOUND_MODULE_DIR)});
    ASSERT_TRUE(player.resourcePath().has_value());
    EXPECT_FALSE(player.isLoaded());
    EXPECT_FALSE(isMapped("libQt6Multimedia.so"));
    EXPECT_FALSE(isMapped("libQt6Network.so"));

    // WHEN it is first asked to play (a file that is not there)
    std::string error;
    EXPECT_FALSE(player.play("/nonexistent/up.wav", error));

    // THEN the sound module has loaded, and the player in it checked the file
    EXPECT_TRUE(player.isLoaded());
    EXPECT_TRUE(isMapped("libQt6Multimedia.so"));
    EXPECT_NE(error.find("/nonexistent/up.wav"), std::string::npos) << error;
}

TEST(LazySoundPlayerTest, AMissingModuleIsSaidAtEveryTry)
{
    QTemporaryDir empty;
    LazySoundPlayer player(QStringList{empty.path()});
    for (int attempt = 0; attempt < 2; ++attempt) {
        std::string error;
        EXPECT_FALSE(player.play("/nonexistent/up.wav", error));
        EXPECT_NE(error.find("libplinkora_sound_output.so could not be loaded"), std::string::npos) << error;
        EXPECT_NE(error.find(empty.path().toStdString()), std::string::npos) << error;
        EXPECT_FALSE(player.isLoaded());
    }
}

} // namespace
} // namespace plinkora
