#include "synth/built_in_synth.h"

#include "common/diagnostics.h"
#include "common/settings_store.h"

#include <filesystem>

namespace plinkora {

namespace {

/// A problem line of the engine in both forms: its known beginnings are translated, the rest (a
/// path, the audio systems' own words) stays as it is.
UserText problemText(const std::string& line)
{
    static const char* const kProblems[] = {
        QT_TRANSLATE_NOOP("Announcement", "Sound font not found: %1"),
        QT_TRANSLATE_NOOP("Announcement", "Sound font could not be read: %1"),
        QT_TRANSLATE_NOOP("Announcement", "Audio output failed: %1"),
    };
    const QString text = QString::fromStdString(line);
    for (const char* problem : kProblems) {
        const QString start = QString::fromUtf8(problem).chopped(2); // without "%1"
        if (text.startsWith(start))
            return UserText::announcement(problem, {text.mid(start.size())});
    }
    return text;
}
constexpr const char* kFluidR3 = "/usr/share/sounds/sf2/FluidR3_GM.sf2";
constexpr const char* kFluidR3Compressed = "/usr/share/sounds/sf3/FluidR3_GM.sf3";
constexpr const char* kTimGM6mb = "/usr/share/sounds/sf2/TimGM6mb.sf2";

std::string absolute(const std::string& path)
{
    std::error_code error;
    const std::filesystem::path full = std::filesystem::absolute(path, error);
    return error ? path : full.lexically_normal().string();
}

SynthMode initialMode(const SettingsStore& settings, const std::optional<SynthMode>& given)
{
    if (given)
        return *given;
    const QString stored = settings.stringForKey(QString::fromLatin1(BuiltInSynth::kModeKey)).trimmed();
    if (stored.isEmpty())
        return SynthMode::Auto;
    if (const std::optional<SynthMode> mode = parseSynthMode(stored.toStdString()))
        return *mode;
    printLine("Ignoring the setting \"" + std::string(BuiltInSynth::kModeKey) + "\" in "
              + settings.fileName().toStdString() + ": \"" + stored.toStdString() + "\" is not auto, on or off");
    return SynthMode::Auto;
}
} // namespace

std::string BuiltInSynth::storedAudioDriver(const SettingsStore& settings, const std::vector<std::string>& available)
{
    const QString stored = settings.stringForKey(QString::fromLatin1(kAudioDriverKey)).trimmed();
    if (stored.isEmpty())
        return std::string(kAutomaticAudioDriver);
    if (const std::optional<std::string> driver = parseAudioDriver(stored.toStdString(), available))
        return *driver;
    printLine("Ignoring the setting \"" + std::string(kAudioDriverKey) + "\" in " + settings.fileName().toStdString()
              + ": \"" + stored.toStdString() + "\" is not auto or an audio output of FluidSynth");
    return std::string(kAutomaticAudioDriver);
}

BuiltInSynth::BuiltInSynth(SettingsStore& settings, Options options)
    : settings_(settings)
    , engine_(std::move(options.engine))
    , policy_(initialMode(settings, options.mode))
{
    if (options.soundFont) {
        soundFont_ = absolute(*options.soundFont);
        settings_.setString(QString::fromStdString(soundFont_), QString::fromLatin1(kSoundFontKey));
    } else {
        soundFont_ = settings_.stringForKey(QString::fromLatin1(kSoundFontKey)).trimmed().toStdString();
        if (soundFont_.empty())
            soundFont_ = defaultSoundFont();
    }
    if (options.audioDriver) {
        audioDriver_ = *options.audioDriver;
        settings_.setString(QString::fromStdString(audioDriver_), QString::fromLatin1(kAudioDriverKey));
    } else {
        audioDriver_ = storedAudioDriver(settings_, FluidEngine::availableDrivers());
    }
    if (audioDriver_ != kAutomaticAudioDriver)
        engine_.setDrivers(audioDriversFor(audioDriver_));
    engine_.setPlaying(policy_.shouldPlay());
    policy_.setPlayingChanged([this](bool playing) { playingChanged(playing); });
    engine_.setChangedCallback([this] { notify(); });
    engine_.setProblemCallback([this](const std::string& line) {
        if (announce_)
            announce_(problemText(line));
    });
}

BuiltInSynth::~BuiltInSynth()
{
    policy_.setPatchbay(nullptr);
}

std::string BuiltInSynth::defaultSoundFont()
{
    std::error_code error;
    for (const char* path : {kFluidR3, kFluidR3Compressed})
        if (std::filesystem::is_regular_file(path, error))
            return path;
    return kTimGM6mb;
}

void BuiltInSynth::start()
{
    started_ = true;
    printLine("Built-in synthesizer: " + std::string(synthModeName(mode())));
    if (mode() != SynthMode::Off && !loadRequested_) {
        loadRequested_ = true;
        engine_.load(soundFont_);
    }
}

void BuiltInSynth::setSoundFont(const std::string& path)
{
    soundFont_ = absolute(path);
    settings_.setString(QString::fromStdString(soundFont_), QString::fromLatin1(kSoundFontKey));
    if (!started_ || mode() == SynthMode::Off)
        return;
    loadRequested_ = true;
    engine_.load(soundFont_);
}

void BuiltInSynth::setAudioDriver(const std::string& choice)
{
    audioDriver_ = choice.empty() ? std::string(kAutomaticAudioDriver) : choice;
    settings_.setString(QString::fromStdString(audioDriver_), QString::fromLatin1(kAudioDriverKey));
    printLine("Built-in synthesizer: audio output " + audioDriver_);
    engine_.setDrivers(audioDriversFor(audioDriver_));
    notify();
}

void BuiltInSynth::setPatchbay(MIDIPatchbay* patchbay)
{
    if (patchbay)
        printLine("Built-in synthesizer: following PLK's readers");
    policy_.setPatchbay(patchbay);
}

void BuiltInSynth::setMode(SynthMode mode)
{
    settings_.setString(QString::fromLatin1(synthModeName(mode).data()), QString::fromLatin1(kModeKey));
    if (mode == policy_.mode())
        return;
    policy_.setMode(mode);
    printLine("Built-in synthesizer: " + std::string(synthModeName(mode)));
    if (started_ && mode != SynthMode::Off && !loadRequested_) {
        loadRequested_ = true;
        engine_.load(soundFont_);
    }
    notify();
}

bool BuiltInSynth::isAudible() const
{
    return policy_.shouldPlay() && engine_.isReady();
}

void BuiltInSynth::midiSent(MIDIBytes message)
{
    playMessages(message, engine_);
}

void BuiltInSynth::playingChanged(bool playing)
{
    engine_.setPlaying(playing);
    if (mode() == SynthMode::Auto)
        printLine(playing ? "Built-in synthesizer: playing, nobody else reads PLK"
                          : "Built-in synthesizer: silent while another program reads PLK");
    notify();
}

void BuiltInSynth::notify()
{
    if (changed_)
        changed_();
}

} // namespace plinkora
