#include "midi/midi_service_probe.h"

#if defined(PLINKORA_HAVE_JACK)
#include <jack/jack.h>

#include <dlfcn.h>
#include <unistd.h>
#endif

#if defined(PLINKORA_HAVE_ALSA)
#include <alsa/asoundlib.h>

#include <unistd.h>
#endif

#include <cstdlib>
#include <cstring>
#include <string>

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

bool pipeWireJackAvailable()
{
    Dl_info library{};
    if (dladdr(reinterpret_cast<void*>(&jack_client_open), &library) == 0 || library.dli_fname == nullptr
        || std::strstr(library.dli_fname, "pipewire") == nullptr)
        return false;
    const char* directory = std::getenv("PIPEWIRE_RUNTIME_DIR");
    if (directory == nullptr || *directory == '\0')
        directory = std::getenv("XDG_RUNTIME_DIR");
    const char* remote = std::getenv("PIPEWIRE_REMOTE");
    if (directory == nullptr || *directory == '\0')
        return false;
    const std::string socket = std::string(directory) + '/' + (remote && *remote ? remote : "pipewire-0");
    return access(socket.c_str(), F_OK) == 0;
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

bool pipeWireJackAvailable()
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
