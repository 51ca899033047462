#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

namespace plinkora {

/// A preset of a sound font, by its MIDI bank and program.
struct PresetNumber
{
    int bank = 0;
    int program = 0;
    bool operator==(const PresetNumber&) const = default;
    bool operator<(const PresetNumber& other) const
    {
        return bank != other.bank ? bank < other.bank : program < other.program;
    }
};

/// Where a font's bytes come from: `read(offset, out)` fills `out` from `offset` on, false when
/// the bytes are not there.
struct ByteSource
{
    std::uint64_t size = 0;
    std::function<bool(std::uint64_t offset, std::span<std::uint8_t> out)> read;
};

/// The bytes of the open file `fd` (which stays open as long as they are read).
ByteSource fileBytes(int fd);
/// The bytes of `bytes` (which stay as long as they are read).
ByteSource memoryBytes(std::span<const std::uint8_t> bytes);

class SoundFontSubset;

/// The presets of a SoundFont 2 file (.sf2, or .sf3 with compressed samples), read from its
/// chunk headers and its four preset chunks only, and the smaller fonts made of it: the same
/// file with the preset chunks cut down to some presets. Instruments, samples and everything
/// else stay as they are, so a kept preset sounds exactly as in the whole font, while the
/// synthesizer builds the zones of the kept presets only (for a General MIDI font, a few KiB
/// each instead of about 5 MiB for all of them).
class SoundFontPresets
{
public:
    /// Reads the file at `path`, or `source`. Nothing, with `why` set, when it is not a
    /// SoundFont 2 file whose presets can be cut down: not RIFF "sfbk", sizes that do not add
    /// up, preset records that point outside their chunks, or the preset data's nine chunks not
    /// in their usual order.
    static std::optional<SoundFontPresets> read(const std::string& path, std::string& why);
    static std::optional<SoundFontPresets> read(const ByteSource& source, std::string& why);

    /// Every preset of the font, in the file's order.
    const std::vector<PresetNumber>& presets() const { return presets_; }
    bool has(PresetNumber preset) const;

    /// The font with only the presets of `kept` that it has (in the file's order). With none of
    /// them, it keeps the font's first preset, since a font needs one.
    std::shared_ptr<const SoundFontSubset> subset(const std::set<PresetNumber>& kept) const;

private:
    /// The first zone (bag) of `preset`; of the terminal record, the end of the last preset's.
    std::size_t firstBag(std::size_t preset) const;

    struct Layout
    {
        std::uint64_t riffEnd = 0;       // end of the RIFF chunk's data
        std::uint64_t pdtaOffset = 0;    // the "LIST" header of the preset data
        std::uint64_t pdtaEnd = 0;       // after the preset data and its pad byte
        std::uint64_t instOffset = 0;    // the "inst" header: from here to the end of the preset
        std::uint64_t instrumentEnd = 0; // data, instruments and samples are taken as they are
    };

    Layout layout_;
    std::vector<PresetNumber> presets_;
    // The four preset chunks' records, terminal records included.
    std::vector<std::uint8_t> phdr_;
    std::vector<std::uint8_t> pbag_;
    std::vector<std::uint8_t> pmod_;
    std::vector<std::uint8_t> pgen_;
};

/// A cut-down font: pieces of its own (the RIFF header and the preset chunks) and ranges of the
/// original file, read through the original's `ByteSource`.
class SoundFontSubset
{
public:
    std::uint64_t size() const { return size_; }
    const std::vector<PresetNumber>& presets() const { return presets_; }

    /// Copies the bytes from `offset` on into `out`, taking those of the original from `original`;
    /// false when they run past the end or the original cannot be read.
    bool read(std::uint64_t offset, std::span<std::uint8_t> out, const ByteSource& original) const;

private:
    friend class SoundFontPresets;
    struct Piece
    {
        std::uint64_t offset = 0; // in this font
        std::uint64_t length = 0;
        std::uint64_t originalOffset = 0; // where `bytes` is empty
        std::vector<std::uint8_t> bytes;
    };
    std::vector<Piece> pieces_;
    std::uint64_t size_ = 0;
    std::vector<PresetNumber> presets_;
};

/// The preset a General MIDI synthesizer chooses for `program` on `channel` (0 to 15) from
/// `font`: bank 0, or the drum bank 128 on channel 10 (index 9), falling back to program 0 of
/// that bank when the font lacks the program, as FluidSynth does with General MIDI bank
/// selection. Nothing when the font has neither.
std::optional<PresetNumber> chosenPreset(const SoundFontPresets& font, int channel, int program);

} // namespace plinkora
