// The synthesizer engine where Plinkora is built without FluidSynth: it never gets a sound font
// or an audio output, so it is never ready and plays nothing. The desktop does not make the
// built-in synthesizer in such a build; this keeps the code that refers to it whole.
#include "synth/fluid_engine.h"

namespace plinkora {

struct FluidEngine::Instance
{
};

struct FluidEngine::Outcome
{
};

FluidEngine::FluidEngine()
    : FluidEngine(Options{})
{
}

FluidEngine::FluidEngine(Options options)
    : options_(std::move(options))
{
}

FluidEngine::~FluidEngine() = default;

void FluidEngine::load(const std::string&) {}
void FluidEngine::retryAudio() {}
void FluidEngine::setDrivers(std::vector<std::string>) {}
std::vector<std::string> FluidEngine::availableDrivers()
{
    return {}; // no audio output at all
}
void FluidEngine::setPlaying(bool playing)
{
    playing_ = playing;
}
void FluidEngine::waitForWorker() {}
int FluidEngine::activeVoices() const
{
    return 0;
}
int FluidEngine::voices() const
{
    return 0;
}
int FluidEngine::program(int) const
{
    return -1;
}
std::set<PresetNumber> FluidEngine::presetsLoaded() const
{
    return {};
}
void FluidEngine::noteOn(int, int, int) {}
void FluidEngine::noteOff(int, int) {}
void FluidEngine::controlChange(int, int, int) {}
void FluidEngine::programChange(int, int) {}
void FluidEngine::pitchBend(int, int) {}
void FluidEngine::channelPressure(int, int) {}
void FluidEngine::keyPressure(int, int, int) {}

} // namespace plinkora
