#include "synth/fluid_font_files.h"

#include "synth/sound_font_presets.h"

#include <cstdint>
#include <cstdio>
#include <map>
#include <mutex>
#include <span>

#include <fcntl.h>
#include <unistd.h>

namespace plinkora {

namespace {

struct Entry
{
    std::shared_ptr<const SoundFontSubset> font;
    std::string original;
};

// The fonts by name, under fontsMutex.
std::mutex fontsMutex;
std::map<std::string, Entry> fonts;

// FluidSynth's file callbacks, on one open font.
struct OpenFont
{
    std::shared_ptr<const SoundFontSubset> font;
    int fd;
    ByteSource original;
    std::uint64_t position;
};

void* openFont(const char* name)
{
    Entry entry;
    {
        const std::lock_guard lock(fontsMutex);
        const auto found = fonts.find(name);
        if (found == fonts.end())
            return nullptr;
        entry = found->second;
    }
    const int fd = ::open(entry.original.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    return new OpenFont{std::move(entry.font), fd, fileBytes(fd), 0};
}

int readFont(void* buffer, fluid_long_long_t count, void* handle)
{
    auto& file = *static_cast<OpenFont*>(handle);
    if (count < 0
        || !file.font->read(file.position,
                            std::span(static_cast<std::uint8_t*>(buffer), static_cast<std::size_t>(count)),
                            file.original))
        return FLUID_FAILED;
    file.position += static_cast<std::uint64_t>(count);
    return FLUID_OK;
}

int seekFont(void* handle, fluid_long_long_t offset, int origin)
{
    auto& file = *static_cast<OpenFont*>(handle);
    const auto base = static_cast<fluid_long_long_t>(origin == SEEK_CUR       ? file.position
                                                         : origin == SEEK_END ? file.font->size()
                                                                              : 0);
    if (base + offset < 0 || static_cast<std::uint64_t>(base + offset) > file.font->size())
        return FLUID_FAILED;
    file.position = static_cast<std::uint64_t>(base + offset);
    return FLUID_OK;
}

fluid_long_long_t tellFont(void* handle)
{
    return static_cast<fluid_long_long_t>(static_cast<OpenFont*>(handle)->position);
}

int closeFont(void* handle)
{
    auto* file = static_cast<OpenFont*>(handle);
    ::close(file->fd);
    delete file;
    return FLUID_OK;
}

} // namespace

std::string CutDownFonts::add(std::shared_ptr<const SoundFontSubset> font, const std::string& original)
{
    const std::lock_guard lock(fontsMutex);
    static std::uint64_t counter = 0;
    std::string name = "plinkora-presets:" + std::to_string(++counter) + ":" + original;
    fonts[name] = {std::move(font), original};
    return name;
}

void CutDownFonts::remove(const std::string& name)
{
    const std::lock_guard lock(fontsMutex);
    fonts.erase(name);
}

fluid_sfloader_t* CutDownFonts::newLoader(fluid_settings_t* settings)
{
    fluid_sfloader_t* loader = new_fluid_defsfloader(settings);
    fluid_sfloader_set_callbacks(loader, openFont, readFont, seekFont, tellFont, closeFont);
    return loader;
}

} // namespace plinkora
