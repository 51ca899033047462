#include "platform/lazy_sound_player.h"

#include "platform/sound_folder.h"

#include <QDir>
#include <QFileInfo>
#include <QLibrary>

namespace plinkora {

LazySoundPlayer::LazySoundPlayer(QStringList folders)
    : folders_(std::move(folders))
{
}

LazySoundPlayer::~LazySoundPlayer()
{
    // The player's code is in the module: it goes first. The module stays loaded (Qt
    // Multimedia's threads and plug-ins may still run until the application ends).
    player_.reset();
}

QStringList LazySoundPlayer::moduleFolders()
{
    const QString executable = executableFolder();
    return {executable,
            QDir::cleanPath(QDir(executable).filePath(QStringLiteral("../" PLINKORA_INSTALL_LIBDIR "/plinkora"))),
            QStringLiteral(PLINKORA_INSTALL_FULL_LIBDIR "/plinkora")};
}

std::optional<std::string> LazySoundPlayer::resourcePath() const
{
    return soundFolder();
}

bool LazySoundPlayer::play(const std::string& path, std::string& error)
{
    SoundPlayer* player = load(error);
    return player != nullptr && player->play(path, error);
}

SoundPlayer* LazySoundPlayer::load(std::string& error)
{
    if (player_)
        return player_.get();
    QString tried;
    for (const QString& folder : folders_) {
        const QString file = QDir(folder).filePath(QString::fromLatin1(kModuleName));
        if (!QFileInfo::exists(file))
            continue;
        auto module = std::make_unique<QLibrary>(file);
        using Factory = SoundPlayer* (*)();
        const auto make = reinterpret_cast<Factory>(module->resolve(kFactoryName));
        if (make == nullptr) {
            tried += (tried.isEmpty() ? QString() : QStringLiteral("; ")) + module->errorString();
            continue;
        }
        player_.reset(make());
        module_ = std::move(module);
        return player_.get();
    }
    error = "no sound output: the sound module " + std::string(kModuleName) + " could not be loaded ("
        + (tried.isEmpty() ? "not found in " + folders_.join(QStringLiteral(", ")).toStdString() : tried.toStdString())
        + ")";
    return nullptr;
}

} // namespace plinkora
