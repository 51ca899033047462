#include "synth/fluid_engine.h"

#include "common/diagnostics.h"
#include "midi/midi_service_probe.h"
#include "midi/port_name.h"
#include "synth/fluid_font_files.h"
#include "synth/sound_font_presets.h"

#if defined(PLINKORA_HAVE_ALSA)
#include <alsa/asoundlib.h>
#endif
#include <fluidsynth.h>

#include <QMetaObject>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>

#include <malloc.h>
#include <unistd.h>

namespace plinkora {

namespace {

// FluidSynth's error messages are kept (the last one explains a failed audio output) instead
// of printed: trying the outputs one after the other would print an error for each.
std::mutex logMutex;
std::array<char, 256> lastError{};

void keepError(int, const char* message, void*)
{
    const std::lock_guard lock(logMutex);
    std::strncpy(lastError.data(), message ? message : "", lastError.size() - 1);
}

void dropMessage(int, const char*, void*) {}

void quietFluidSynth()
{
    static const bool done = [] {
        fluid_set_log_function(FLUID_PANIC, keepError, nullptr);
        fluid_set_log_function(FLUID_ERR, keepError, nullptr);
        fluid_set_log_function(FLUID_WARN, dropMessage, nullptr);
        fluid_set_log_function(FLUID_INFO, dropMessage, nullptr);
        fluid_set_log_function(FLUID_DBG, dropMessage, nullptr);
        return true;
    }();
    (void)done;
}

std::string takeLastError()
{
    const std::lock_guard lock(logMutex);
    std::string text = lastError.data();
    lastError[0] = '\0';
    return text;
}

// A JACK server runs when its socket is there: /dev/shm/jack_<server>_<uid>_0. Cheaper and
// quieter than opening a client; the JACK output then says itself whether it works.
bool jackServerSocketExists()
{
    const char* server = std::getenv("JACK_DEFAULT_SERVER");
    const std::string name = server && *server ? server : "default";
    const std::string socket = "/dev/shm/jack_" + name + "_" + std::to_string(getuid()) + "_0";
    return access(socket.c_str(), F_OK) == 0;
}

#if defined(PLINKORA_HAVE_ALSA)
void dropAlsaMessage(const char*, int, const char*, int, const char*, ...) {}

// alsa-lib prints several lines of its own when there is no sound card; the failure is said in
// one line instead.
class QuietAlsa
{
public:
    QuietAlsa() { snd_lib_error_set_handler(dropAlsaMessage); }
    ~QuietAlsa() { snd_lib_error_set_handler(nullptr); }
    QuietAlsa(const QuietAlsa&) = delete;
    QuietAlsa& operator=(const QuietAlsa&) = delete;
};
#else
class QuietAlsa // no alsa-lib in this build: nothing to quieten
{
};
#endif

} // namespace

// A muted synthesizer closes its audio output this long after its voices were told to stop.
constexpr std::chrono::milliseconds kMutedClose{200};

// Voices are made as the music needs them (each takes about 10 KiB): 64 at first, all 128 as
// soon as more than 48 sound at once, which leaves room for the voices of the next notes.
constexpr int kFirstVoices = 64;
constexpr int kMostVoices = 128;
constexpr int kMoreVoicesAbove = 48;

/// A font cut down to some presets, loaded into a synthesizer.
struct FluidEngine::CutDownFont
{
    int id = FLUID_FAILED;
    std::string name; // its name for FluidSynth's file callbacks
    std::set<PresetNumber> presets;
};

/// A synthesizer with its settings, loaded font and audio output, deleted in the right order.
struct FluidEngine::Instance
{
    fluid_settings_t* settings = nullptr;
    fluid_synth_t* synth = nullptr;
    fluid_audio_driver_t* driver = nullptr;
    int voices = kFirstVoices;
    /// The font's presets, when it is loaded cut down to those in use; otherwise it is loaded whole.
    std::optional<SoundFontPresets> presets;
    std::string soundFont;
    CutDownFont loaded;
    /// Cut-down fonts replaced by a larger one, unloaded once no channel has a preset of theirs.
    std::vector<CutDownFont> retired;

    explicit Instance(const std::string& audioFile)
    {
        settings = new_fluid_settings();
        fluid_settings_setint(settings, "synth.threadsafe-api", 1);
        fluid_settings_setint(settings, "synth.polyphony", kFirstVoices);
        // FluidSynth's own default (0.2) is quiet beside other programs; 0.5 leaves room for
        // chords before clipping.
        fluid_settings_setnum(settings, "synth.gain", 0.5);
        fluid_settings_setstr(settings, "synth.midi-bank-select", "gm");
        // Only the samples of the programs in use are in memory (loaded at the program change).
        fluid_settings_setint(settings, "synth.dynamic-sample-loading", 1);
        // JACK: the outputs go to the system's playback ports, under a name of Plinkora's own.
        fluid_settings_setint(settings, "audio.jack.autoconnect", 1);
        fluid_settings_setstr(settings, "audio.jack.id", helperClientName("synth").c_str());
        fluid_settings_setint(settings, "audio.realtime-prio", 60);
        // PipeWire, PulseAudio and ALSA: 256 frames a period (5.8 ms at 44.1 kHz).
        fluid_settings_setint(settings, "audio.period-size", 256);
        fluid_settings_setint(settings, "audio.periods", 2);
        fluid_settings_setstr(settings, "audio.pulseaudio.media-role", "music");
        if (!audioFile.empty())
            fluid_settings_setstr(settings, "audio.file.name", audioFile.c_str());
        synth = new_fluid_synth(settings);
        if (synth) {
            fluid_synth_add_sfloader(synth, CutDownFonts::newLoader(settings)); // the synthesizer owns it
        }
    }
    ~Instance()
    {
        closeDriver();
        if (synth)
            delete_fluid_synth(synth);
        delete_fluid_settings(settings);
        CutDownFonts::remove(loaded.name);
        for (const CutDownFont& font : retired)
            CutDownFonts::remove(font.name);
    }
    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;

    bool openDriver(const std::string& name)
    {
        fluid_settings_setstr(settings, "audio.driver", name.c_str());
        driver = new_fluid_audio_driver(settings, synth);
        return driver != nullptr;
    }
    void closeDriver()
    {
        if (driver)
            delete_fluid_audio_driver(driver);
        driver = nullptr;
    }

    /// Loads the font cut down to `presets` (on top of any font loaded already). FLUID_FAILED as
    /// its id when it cannot be read.
    CutDownFont loadCutDown(const std::set<PresetNumber>& kept, bool resetPresets) const
    {
        auto font = presets->subset(kept);
        CutDownFont cutDown{
            FLUID_FAILED, CutDownFonts::add(font, soundFont), {font->presets().begin(), font->presets().end()}};
        cutDown.id = fluid_synth_sfload(synth, cutDown.name.c_str(), resetPresets ? 1 : 0);
        if (cutDown.id == FLUID_FAILED) {
            CutDownFonts::remove(cutDown.name);
            cutDown.name.clear();
        }
        return cutDown;
    }

    /// Whether the synthesizer has the preset `program` on `channel` would choose.
    bool canSelect(int channel, int program) const
    {
        if (!presets)
            return true;
        const std::optional<PresetNumber> chosen = chosenPreset(*presets, channel, program);
        return !chosen || loaded.presets.contains(*chosen);
    }
};

/// What the worker did: a new synthesizer (with the font), the output that opened, the lines; or
/// a larger cut-down font for the synthesizer in use (of `generation`).
struct FluidEngine::Outcome
{
    std::unique_ptr<Instance> instance;
    std::string soundFont;
    std::string driverName;
    std::string problem;
    std::vector<std::string> drivers; // those tried
    std::uint64_t generation = 0;
    CutDownFont extension;
};

namespace {

// The presets that the channels' programs choose (program 0 where none was given).
std::set<PresetNumber> presetsInUse(const SoundFontPresets& font, const std::array<std::int16_t, 16>& programs)
{
    std::set<PresetNumber> inUse;
    for (int channel = 0; channel < 16; ++channel)
        if (const auto chosen = chosenPreset(font, channel,
                                             std::max<int>(programs[static_cast<std::size_t>(channel)], 0)))
            inUse.insert(*chosen);
    return inUse;
}

} // namespace

// Opens the first of `drivers` that works for `instance`: its name, or empty and `problem` set to
// the line that says why none did. Outputs that this FluidSynth does not have are passed over.
std::string FluidEngine::openFirstDriver(Instance& instance, const std::vector<std::string>& drivers,
                                         std::string& problem)
{
    // One output chosen by name is tried whatever happens, so that its failure says why.
    const bool chosen = drivers.size() == 1;
    std::string failures;
    const auto fail = [&failures](const std::string& driver, const std::string& why) {
        failures += (failures.empty() ? "" : "; ") + driver + (why.empty() ? "" : ": " + why);
    };
    for (const std::string& driver : drivers) {
        // JACK: a JACK server, or PipeWire through its JACK library (under pw-jack).
        if (driver == "jack" && !jackServerSocketExists() && !pipeWireJackAvailable()) {
            if (chosen)
                fail(driver, "no JACK server is running");
            continue;
        }
        takeLastError();
        const QuietAlsa quiet;
        if (instance.openDriver(driver))
            return driver;
        const std::string why = takeLastError();
        if (why.starts_with("Couldn't find the requested audio driver")) {
            if (chosen)
                fail(driver, "not in this FluidSynth");
            continue;
        }
        fail(driver, why);
    }
    problem = "Audio output failed: " + (failures.empty() ? std::string("no audio output") : failures);
    return {};
}

FluidEngine::FluidEngine()
    : FluidEngine(Options{})
{
}

FluidEngine::FluidEngine(Options options)
    : options_(std::move(options))
{
    for (auto& channel : controllers_)
        channel.fill(-1);
    programs_.fill(-1);
    bends_.fill(-1);
    quietFluidSynth();
    // The JACK output must never start a JACK server of its own.
    forbidJackServerStart();
    idleTimer_.setSingleShot(true);
    idleTimer_.setInterval(options_.idleTime);
    QObject::connect(&idleTimer_, &QTimer::timeout, &context_, [this] { idleCheck(); });
}

FluidEngine::~FluidEngine()
{
    waitForWorker();
    instance_.reset();
}

void FluidEngine::waitForWorker()
{
    if (worker_.joinable())
        worker_.join();
}

void FluidEngine::startWorker(std::function<void(Outcome&)> job,
                              void (FluidEngine::*done)(const std::shared_ptr<Outcome>&))
{
    waitForWorker();
    worker_ = std::thread([this, job = std::move(job), done] {
        auto outcome = std::make_shared<Outcome>();
        job(*outcome);
        QMetaObject::invokeMethod(
            &context_, [this, outcome, done] { (this->*done)(outcome); }, Qt::QueuedConnection);
    });
}

void FluidEngine::load(const std::string& soundFont)
{
    const std::vector<std::string> drivers = options_.drivers;
    const std::string audioFile = options_.audioFile;
    const std::array<std::int16_t, 16> programs = programs_;
    startWorker(
        [soundFont, drivers, audioFile, programs](Outcome& outcome) {
            outcome.soundFont = soundFont;
            std::error_code error;
            if (!std::filesystem::is_regular_file(soundFont, error)) {
                outcome.problem = "Sound font not found: " + soundFont;
                return;
            }
            auto instance = std::make_unique<Instance>(audioFile);
            instance->soundFont = soundFont;
            if (instance->synth) {
                // Cut down to the presets in use; a font that cannot be cut down is read whole.
                std::string why;
                instance->presets = SoundFontPresets::read(soundFont, why);
                if (instance->presets)
                    instance->loaded = instance->loadCutDown(presetsInUse(*instance->presets, programs), true);
                if (instance->loaded.id == FLUID_FAILED)
                    instance->presets.reset();
            }
            if (!instance->synth
                || (!instance->presets && fluid_synth_sfload(instance->synth, soundFont.c_str(), 1) == FLUID_FAILED)) {
                outcome.problem = "Sound font could not be read: " + soundFont;
                return;
            }
            outcome.driverName = openFirstDriver(*instance, drivers, outcome.problem);
            outcome.drivers = drivers;
            outcome.instance = std::move(instance);
            // Reading the font leaves freed memory resident in this thread's heap.
            malloc_trim(0);
        },
        &FluidEngine::finish);
}

void FluidEngine::ensurePresets()
{
    // One load at a time: a load under way ends by coming here again.
    if (!instance_ || !instance_->presets || worker_.joinable())
        return;
    const std::set<PresetNumber> wanted = presetsInUse(*instance_->presets, programs_);
    const std::set<PresetNumber>& loaded = instance_->loaded.presets;
    if (std::includes(loaded.begin(), loaded.end(), wanted.begin(), wanted.end()))
        return;
    const Instance* instance = instance_.get();
    const std::uint64_t generation = generation_;
    startWorker(
        [instance, wanted, generation](Outcome& outcome) {
            outcome.generation = generation;
            outcome.extension = instance->loadCutDown(wanted, false);
            malloc_trim(0);
        },
        &FluidEngine::finishExtension);
}

void FluidEngine::finishExtension(const std::shared_ptr<Outcome>& outcome)
{
    waitForWorker();
    CutDownFont& font = outcome->extension;
    if (!instance_ || outcome->generation != generation_) {
        CutDownFonts::remove(font.name); // its synthesizer has gone
        return;
    }
    Instance& instance = *instance_;
    if (font.id == FLUID_FAILED) {
        // The file cannot be read any more: the presets loaded play on, and other programs fall
        // back to them.
        instance.presets.reset();
        report("Sound font could not be read: " + instance.soundFont);
        selectPrograms();
        return;
    }
    instance.retired.push_back(std::exchange(instance.loaded, std::move(font)));
    // Every channel takes its preset from the new font, on top of the old one.
    fluid_synth_program_reset(instance.synth);
    selectPrograms();
}

void FluidEngine::retryAudio()
{
    openAudio(true);
}

void FluidEngine::setDrivers(std::vector<std::string> drivers)
{
    options_.drivers = std::move(drivers);
    // A load under way tried the old ones: finish() opens the output again with these.
    if (!instance_)
        return;
    idleTimer_.stop();
    instance_->closeDriver();
    const bool wasReady = !driverName_.empty();
    driverName_.clear();
    suspended_ = false;
    openAudio(true);
    if (wasReady && driverName_.empty() && changed_)
        changed_();
}

std::vector<std::string> FluidEngine::availableDrivers()
{
    std::vector<std::string> names;
    fluid_settings_t* settings = new_fluid_settings();
    fluid_settings_foreach_option(settings, "audio.driver", &names, [](void* data, const char*, const char* option) {
        static_cast<std::vector<std::string>*>(data)->emplace_back(option);
    });
    delete_fluid_settings(settings);
    return names;
}

void FluidEngine::openAudio(bool sayWhyNot)
{
    if (!instance_ || instance_->driver)
        return;
    std::string problem;
    driverName_ = openFirstDriver(*instance_, options_.drivers, problem);
    if (driverName_.empty()) {
        if (sayWhyNot)
            report(problem);
        return;
    }
    suspended_ = false;
    touch();
    printLine("Built-in synthesizer: " + soundFontPath_ + " on " + driverName_);
    if (changed_)
        changed_();
}

void FluidEngine::finish(const std::shared_ptr<Outcome>& outcome)
{
    waitForWorker();
    if (outcome->instance) {
        soundFontPath_ = outcome->soundFont;
        driverName_ = outcome->driverName;
        adopt(std::move(outcome->instance));
        if (outcome->drivers != options_.drivers) {
            // Other outputs were chosen while the font loaded: those count.
            instance_->closeDriver();
            driverName_.clear();
            outcome->problem.clear();
            openAudio(true);
        } else if (!driverName_.empty()) {
            printLine("Built-in synthesizer: " + soundFontPath_ + " on " + driverName_);
        }
    }
    if (!outcome->problem.empty())
        report(outcome->problem);
    lastRetry_ = std::chrono::steady_clock::now();
    if (changed_)
        changed_();
}

void FluidEngine::adopt(std::unique_ptr<Instance> instance)
{
    idleTimer_.stop();
    heldNotes_.fill(0);
    ++generation_;
    instance_ = std::move(instance); // the old synthesizer and its output go
    suspended_ = false;
    restoreChannels();
    if (instance_->driver)
        touch();
}

void FluidEngine::restoreChannels()
{
    fluid_synth_t* synth = instance_->synth;
    for (int channel = 0; channel < 16; ++channel) {
        for (int controller = 0; controller < 128; ++controller)
            if (controllers_[channel][controller] >= 0)
                fluid_synth_cc(synth, channel, controller, controllers_[channel][controller]);
        if (bends_[channel] >= 0)
            fluid_synth_pitch_bend(synth, channel, bends_[channel]);
    }
    selectPrograms();
}

void FluidEngine::selectPrograms()
{
    fluid_synth_t* synth = instance_->synth;
    for (int channel = 0; channel < 16; ++channel) {
        const int program = programs_[static_cast<std::size_t>(channel)];
        if (program >= 0 && instance_->canSelect(channel, program))
            fluid_synth_program_change(synth, channel, program);
    }
    // Cut-down fonts replaced by a larger one go once no channel has a preset of theirs (the
    // voices still sounding keep theirs until they end).
    std::erase_if(instance_->retired, [synth](const CutDownFont& font) {
        for (int channel = 0; channel < 16; ++channel) {
            int id = FLUID_FAILED;
            int bank = 0;
            int program = 0;
            if (fluid_synth_get_program(synth, channel, &id, &bank, &program) == FLUID_OK && id == font.id)
                return false;
        }
        fluid_synth_sfunload(synth, font.id, 0);
        CutDownFonts::remove(font.name);
        return true;
    });
    ensurePresets();
}

void FluidEngine::report(const std::string& line)
{
    printLine(line);
    if (problem_)
        problem_(line);
}

void FluidEngine::setPlaying(bool playing)
{
    if (playing_ == playing)
        return;
    playing_ = playing;
    if (!instance_)
        return;
    if (!playing) {
        fluid_synth_all_sounds_off(instance_->synth, -1);
        heldNotes_.fill(0);
        if (instance_->driver && !suspended_)
            touch(); // muted: closes the audio output soon
    } else if (suspended_) {
        wake(); // open again now, so that the first note is not held up
    }
}

bool FluidEngine::wake()
{
    if (!instance_)
        return false;
    if (driverName_.empty()) {
        // No audio output opened: a note tries again, at most every 5 s (a sound server or
        // device may have come since).
        const auto now = std::chrono::steady_clock::now();
        if (now - lastRetry_ < std::chrono::seconds(5))
            return false;
        lastRetry_ = now;
        openAudio(false);
        return !driverName_.empty();
    }
    if (suspended_) {
        if (!instance_->openDriver(driverName_))
            return false;
        suspended_ = false;
        printLine("Built-in synthesizer: audio resumed");
        if (changed_)
            changed_();
    }
    touch();
    return true;
}

void FluidEngine::touch()
{
    if (!playing_) {
        // Muted, nothing sounds until it plays again: the audio output closes as soon as the
        // voices have ended (a few periods), not after the idle time. A muted synthesizer's
        // audio stream would cost as much as a playing one's.
        lastSound_ = std::chrono::steady_clock::now() - options_.idleTime;
        idleTimer_.start(kMutedClose);
        return;
    }
    // The timer is started once per quiet stretch, not for every note (starting it allocates).
    lastSound_ = std::chrono::steady_clock::now();
    if (!idleTimer_.isActive())
        idleTimer_.start(options_.idleTime);
}

void FluidEngine::suspend()
{
    instance_->closeDriver();
    suspended_ = true;
    printLine("Built-in synthesizer: audio suspended");
    if (changed_)
        changed_();
}

void FluidEngine::idleCheck()
{
    if (!instance_ || suspended_ || !instance_->driver)
        return;
    bool held = false;
    for (const std::uint16_t count : heldNotes_)
        held = held || count > 0;
    const auto quiet =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - lastSound_);
    if (quiet < options_.idleTime) {
        idleTimer_.start(options_.idleTime - quiet);
        return;
    }
    if (held || fluid_synth_get_active_voice_count(instance_->synth) > 0) {
        if (playing_)
            lastSound_ = std::chrono::steady_clock::now();
        idleTimer_.start(playing_ ? std::chrono::milliseconds(1000) : kMutedClose);
        return;
    }
    suspend();
}

int FluidEngine::activeVoices() const
{
    return instance_ ? fluid_synth_get_active_voice_count(instance_->synth) : 0;
}

int FluidEngine::voices() const
{
    return instance_ ? fluid_synth_get_polyphony(instance_->synth) : 0;
}

int FluidEngine::program(int channel) const
{
    int font = 0;
    int bank = 0;
    int program = -1;
    if (!instance_ || fluid_synth_get_program(instance_->synth, channel, &font, &bank, &program) != FLUID_OK)
        return -1;
    return program;
}

std::set<PresetNumber> FluidEngine::presetsLoaded() const
{
    return instance_ && instance_->presets ? instance_->loaded.presets : std::set<PresetNumber>{};
}

void FluidEngine::noteOn(int channel, int key, int velocity)
{
    if (!playing_ || !wake())
        return;
    if (fluid_synth_noteon(instance_->synth, channel, key, velocity) == FLUID_OK)
        ++heldNotes_[static_cast<std::size_t>(channel)];
    if (instance_->voices < kMostVoices && fluid_synth_get_active_voice_count(instance_->synth) > kMoreVoicesAbove) {
        fluid_synth_set_polyphony(instance_->synth, kMostVoices);
        instance_->voices = kMostVoices;
    }
}

void FluidEngine::noteOff(int channel, int key)
{
    if (!instance_)
        return;
    if (fluid_synth_noteoff(instance_->synth, channel, key) == FLUID_OK
        && heldNotes_[static_cast<std::size_t>(channel)] > 0)
        --heldNotes_[static_cast<std::size_t>(channel)];
    if (!suspended_ && instance_->driver)
        touch();
}

void FluidEngine::controlChange(int channel, int controller, int value)
{
    controllers_[static_cast<std::size_t>(channel)][static_cast<std::size_t>(controller)] =
        static_cast<std::int16_t>(value);
    if (instance_)
        fluid_synth_cc(instance_->synth, channel, controller, value);
    if (controller == 120 || controller == 123) // all sound off, all notes off
        heldNotes_[static_cast<std::size_t>(channel)] = 0;
}

void FluidEngine::programChange(int channel, int program)
{
    programs_[static_cast<std::size_t>(channel)] = static_cast<std::int16_t>(program);
    if (!instance_)
        return;
    // A program whose preset is not loaded keeps the channel's preset until it is.
    if (instance_->canSelect(channel, program))
        fluid_synth_program_change(instance_->synth, channel, program);
    else
        ensurePresets();
}

void FluidEngine::pitchBend(int channel, int value)
{
    bends_[static_cast<std::size_t>(channel)] = static_cast<std::int16_t>(value);
    if (instance_)
        fluid_synth_pitch_bend(instance_->synth, channel, value);
}

void FluidEngine::channelPressure(int channel, int value)
{
    if (instance_)
        fluid_synth_channel_pressure(instance_->synth, channel, value);
}

void FluidEngine::keyPressure(int channel, int key, int value)
{
    if (instance_)
        fluid_synth_key_pressure(instance_->synth, channel, key, value);
}

} // namespace plinkora
