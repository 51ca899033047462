#include "midi/midi_service_probe.h"

#if defined(PLINKORA_HAVE_JACK)
#include <jack/jack.h>
#endif

#if defined(PLINKORA_HAVE_ALSA)
#include <alsa/asoundlib.h>

#include <unistd.h>
#endif

#include <cstdlib>

namespace plinkora {

namespace {
#if defined(PLINKORA_HAVE_ALSA)
void dropAlsaMessage(const char*, int, const char*, int, const char*, ...) {}
#endif
} // namespace

#if defined(PLINKORA_HAVE_JACK)
namespace {
void dropJackMessage(const char*) {}
} // namespace

QuietJackMessages::QuietJackMessages()
    : error_(jack_error_callback)
    , info_(jack_info_callback)
{
    jack_set_error_function(dropJackMessage);
    jack_set_info_function(dropJackMessage);
}

QuietJackMessages::~QuietJackMessages()
{
    jack_set_error_function(error_);
    jack_set_info_function(info_);
}

void forbidJackServerStart()
{
    setenv("JACK_NO_START_SERVER", "1", 0);
}

bool jackServerRunning()
{
    forbidJackServerStart();
    const QuietJackMessages quiet;
    jack_status_t status{};
    jack_client_t* client = jack_client_open("PLK-probe", JackNoStartServer, &status);
    if (client == nullptr)
        return false;
    jack_client_close(client);
    return true;
}
#else
// Built without JACK: no server can be reached, and there is nothing to quieten.
QuietJackMessages::QuietJackMessages()
    : error_(nullptr)
    , info_(nullptr)
{
}

QuietJackMessages::~QuietJackMessages() = default;

void forbidJackServerStart() {}

bool jackServerRunning()
{
    return false;
}
#endif

bool alsaSequencerAvailable()
{
#if defined(PLINKORA_HAVE_ALSA)
    // Without the device there is no sequencer; this spares loading alsa-lib's configuration.
    if (access("/dev/snd/seq", F_OK) != 0)
        return false;
    // alsa-lib prints "open /dev/snd/seq failed" itself when there is no sequencer.
    const snd_lib_error_handler_t previous = snd_lib_error;
    snd_lib_error_set_handler(dropAlsaMessage);
    snd_seq_t* sequencer = nullptr;
    const int result = snd_seq_open(&sequencer, "default", SND_SEQ_OPEN_OUTPUT, SND_SEQ_NONBLOCK);
    if (result == 0)
        snd_seq_close(sequencer);
    snd_lib_error_set_handler(previous);
    return result == 0;
#else
    return false;
#endif
}

} // namespace plinkora
