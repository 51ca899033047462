#pragma once

// Cheap checks of which MIDI services this machine offers, for choosing a back end and for
// failing cleanly (a status, no noise on standard error) when a service is missing.
namespace plinkora {

/// True when the ALSA sequencer can be opened (Linux only; false elsewhere).
bool alsaSequencerAvailable();

/// True when the JACK library of this process is PipeWire's JACK interface (the program runs
/// under pw-jack, or the system puts PipeWire's library in libjack's place) and PipeWire's
/// socket is there ($PIPEWIRE_RUNTIME_DIR, else $XDG_RUNTIME_DIR; $PIPEWIRE_REMOTE, else
/// pipewire-0). Opens nothing.
bool pipeWireJackAvailable();

/// Makes sure no JACK client of this process starts a JACK server: sets JACK_NO_START_SERVER
/// unless it is set already. Called before anything touches libjack.
void forbidJackServerStart();

/// While it lives, libjack's error and information messages are dropped instead of printed
/// (libjack prints several lines when it finds no server). Main thread only.
class QuietJackMessages
{
public:
    QuietJackMessages();
    ~QuietJackMessages();
    QuietJackMessages(const QuietJackMessages&) = delete;
    QuietJackMessages& operator=(const QuietJackMessages&) = delete;

private:
    void (*error_)(const char*);
    void (*info_)(const char*);
};

} // namespace plinkora
