#pragma once

#include "benders/sound_player.h"

#include <QString>
#include <QStringList>

#include <memory>
#include <optional>
#include <string>

class QLibrary;

namespace plinkora {

/// The program's feedback-sound player: QtSoundPlayer, in a module of its own that is loaded
/// with Qt Multimedia (and Qt Network, which it needs) when the first sound plays. Most runs play
/// no sound, and those libraries cost about 1 MiB of memory from the start otherwise.
///
/// The module is looked for beside the executable (a build tree), then in
/// <executable's folder>/../<library folder>/plinkora and in the installed library folder. When
/// it cannot be loaded, play() says so in `error`, every time.
class LazySoundPlayer final : public SoundPlayer
{
public:
    /// The module's file name.
    static constexpr const char* kModuleName = "libplinkora_sound_output.so";
    /// The function in the module that makes the player, as
    /// `SoundPlayer* plinkora_make_sound_player()` (the caller owns it).
    static constexpr const char* kFactoryName = "plinkora_make_sound_player";

    /// Looks for the module in `folders`, in order.
    explicit LazySoundPlayer(QStringList folders = moduleFolders());
    ~LazySoundPlayer() override;

    LazySoundPlayer(const LazySoundPlayer&) = delete;
    LazySoundPlayer& operator=(const LazySoundPlayer&) = delete;

    std::optional<std::string> resourcePath() const override;
    bool play(const std::string& path, std::string& error) override;

    /// True once the module is loaded (after the first play()).
    bool isLoaded() const { return player_ != nullptr; }

    /// Where the program looks for the module.
    static QStringList moduleFolders();

private:
    SoundPlayer* load(std::string& error);

    QStringList folders_;
    std::unique_ptr<QLibrary> module_;
    std::unique_ptr<SoundPlayer> player_;
};

} // namespace plinkora
