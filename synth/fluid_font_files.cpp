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

// The fonts by name, and FluidSynth's file callbacks on one open font.
class Registry
{
public:
    static std::string add(std::shared_ptr<const SoundFontSubset> font, const std::string& original)
    {
        const std::lock_guard lock(mutex());
        static std::uint64_t counter = 0;
        std::string name = "plinkora-presets:" + std::to_string(++counter) + ":" + original;
        fonts()[name] = {std::move(font), original};
        return name;
    }
    static void remove(const std::string& name)
    {
        const std::lock_guard lock(mutex());
        fonts().erase(name);
    }

    // FluidSynth's file callbacks, on one open font.
    static void* open(const char* name)
    {
        Entry entry;
        {
            const std::lock_guard lock(mutex());
            const auto found = fonts().find(name);
            if (found == fonts().end())
                return nullptr;
            entry = found->second;
        }
        const int fd = ::open(entry.original.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            return nullptr;
        return new OpenFont{std::move(entry.font), fd, fileBytes(fd), 0};
    }
    static int read(void* buffer, fluid_long_long_t count, void* handle)
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
    static int seek(void* handle, fluid_long_long_t offset, int origin)
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
    static fluid_long_long_t tell(void* handle)
    {
        return static_cast<fluid_long_long_t>(static_cast<OpenFont*>(handle)->position);
    }
    static int close(void* handle)
    {
        auto* file = static_cast<OpenFont*>(handle);
        ::close(file->fd);
        delete file;
        return FLUID_OK;
    }

private:
    struct Entry
    {
        std::shared_ptr<const SoundFontSubset> font;
        std::string original;
    };
    struct OpenFont
    {
        std::shared_ptr<const SoundFontSubset> font;
        int fd;
        ByteSource original;
        std::uint64_t position;
    };
    static std::mutex& mutex()
    {
        static std::mutex instance;
        return instance;
    }
    static std::map<std::string, Entry>& fonts()
    {
        static std::map<std::string, Entry> instance;
        return instance;
    }
};

} // namespace

std::string CutDownFonts::add(std::shared_ptr<const SoundFontSubset> font, const std::string& original)
{
    return Registry::add(std::move(font), original);
}

void CutDownFonts::remove(const std::string& name)
{
    Registry::remove(name);
}

fluid_sfloader_t* CutDownFonts::newLoader(fluid_settings_t* settings)
{
    fluid_sfloader_t* loader = new_fluid_defsfloader(settings);
    fluid_sfloader_set_callbacks(loader, Registry::open, Registry::read, Registry::seek, Registry::tell,
                                 Registry::close);
    return loader;
}

} // namespace plinkora
