// FluidSynth starts libinstpatch in every synthesizer it makes, for its DLS loader: several
// hundred GObject types and converters, about 0.75 MiB that a font of the SF2 family never uses.
// Where FluidSynth is built with libinstpatch, the program holds that start back: FluidSynth's
// calls into libinstpatch reach these functions first (an executable's own definitions come
// before those of the libraries it loads). ipatch_init and ipatch_close are counted, and the
// first call that needs libinstpatch running (FluidSynth's DLS loader, when a font is none that
// the other loaders read: a DLS file, or a file that is no font at all) starts it. Every call is
// then handed to libinstpatch's own function.

#include <dlfcn.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace plinkora {

namespace {

std::recursive_mutex startMutex;
int initCalls = 0;    // FluidSynth's ipatch_init calls not yet closed
bool started = false; // libinstpatch's own ipatch_init has run

template <typename Function> Function libInstPatch(const char* name)
{
    void* function = dlsym(RTLD_NEXT, name);
    if (function == nullptr) {
        std::fprintf(stderr, "plinkora: libinstpatch has no %s\n", name);
        std::abort();
    }
    return reinterpret_cast<Function>(function);
}

void startNow()
{
    const std::lock_guard lock(startMutex);
    if (started)
        return;
    started = true;
    libInstPatch<void (*)()>("ipatch_init")();
}

} // namespace

} // namespace plinkora

using plinkora::libInstPatch;
using plinkora::startNow;

extern "C" {

// FluidSynth's start of its DLS loader, with every new synthesizer: counted only.
void ipatch_init()
{
    const std::lock_guard lock(plinkora::startMutex);
    ++plinkora::initCalls;
}

// FluidSynth's end of its DLS loader, with every synthesizer deleted: libinstpatch is closed
// with the last one, if it was started.
void ipatch_close()
{
    const std::lock_guard lock(plinkora::startMutex);
    if (plinkora::initCalls > 0)
        --plinkora::initCalls;
    if (plinkora::initCalls == 0 && plinkora::started) {
        plinkora::started = false;
        libInstPatch<void (*)()>("ipatch_close")();
    }
}

// The DLS loader's first calls, and the type check of a RIFF file that is not an SF2 font.
void* ipatch_dls_file_new()
{
    startNow();
    return libInstPatch<void* (*)()>("ipatch_dls_file_new")();
}

std::size_t ipatch_file_identify(void* file, void** error)
{
    startNow();
    return libInstPatch<std::size_t (*)(void*, void**)>("ipatch_file_identify")(file, error);
}

void* ipatch_file_identify_open(const char* fileName, void** error)
{
    startNow();
    return libInstPatch<void* (*)(const char*, void**)>("ipatch_file_identify_open")(fileName, error);
}

} // extern "C"
