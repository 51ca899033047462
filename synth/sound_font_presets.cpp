#include "synth/sound_font_presets.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace plinkora {

namespace {

// SoundFont 2 record sizes of the preset data's chunks.
constexpr std::size_t kPhdrSize = 38; // name[20], program, bank, first bag, 3 x 32-bit reserved
constexpr std::size_t kBagSize = 4;   // first generator, first modulator
constexpr std::size_t kModSize = 10;
constexpr std::size_t kGenSize = 4;
constexpr std::size_t kPhdrNumbers = 20; // offset of program, then bank
constexpr std::size_t kPhdrFirstBag = 24;

// The preset data's chunks, in the order every reader expects them.
constexpr std::array<const char*, 9> kPdtaChunks = {"phdr", "pbag", "pmod", "pgen", "inst",
                                                    "ibag", "imod", "igen", "shdr"};

std::uint32_t le32(const std::uint8_t* p)
{
    return p[0] | (p[1] << 8U) | (p[2] << 16U) | (static_cast<std::uint32_t>(p[3]) << 24U);
}
std::uint16_t le16(const std::uint8_t* p)
{
    return static_cast<std::uint16_t>(p[0] | (p[1] << 8U));
}
void putLe32(std::uint8_t* p, std::uint64_t value)
{
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<std::uint8_t>(value >> (8 * i));
}
void putLe16(std::uint8_t* p, std::size_t value)
{
    p[0] = static_cast<std::uint8_t>(value);
    p[1] = static_cast<std::uint8_t>(value >> 8U);
}
bool isId(const std::uint8_t* p, const char* id)
{
    return std::memcmp(p, id, 4) == 0;
}

struct ChunkHeader
{
    std::array<std::uint8_t, 4> id{};
    std::uint64_t size = 0;
    std::uint64_t data = 0; // offset of the chunk's data
    std::uint64_t end() const { return data + size + (size & 1U); }
};

bool readHeader(const ByteSource& source, std::uint64_t offset, std::uint64_t limit, ChunkHeader& header)
{
    std::array<std::uint8_t, 8> bytes{};
    if (offset + 8 > limit || !source.read(offset, bytes))
        return false;
    std::copy_n(bytes.begin(), 4, header.id.begin());
    header.size = le32(bytes.data() + 4);
    header.data = offset + 8;
    return header.data + header.size <= limit;
}

// The 12 bytes that open a RIFF list: `id` (RIFF or LIST), its size (written later), its type.
std::vector<std::uint8_t> listHeader(const char* id, const char* type)
{
    std::vector<std::uint8_t> bytes(12);
    std::memcpy(bytes.data(), id, 4);
    std::memcpy(bytes.data() + 8, type, 4);
    return bytes;
}

std::vector<std::uint8_t> chunkBytes(const char* id, std::span<const std::uint8_t> data)
{
    std::vector<std::uint8_t> bytes(8 + data.size());
    std::memcpy(bytes.data(), id, 4);
    putLe32(bytes.data() + 4, data.size());
    std::copy(data.begin(), data.end(), bytes.begin() + 8);
    return bytes;
}

} // namespace

std::optional<SoundFontPresets> SoundFontPresets::read(const std::string& path, std::string& why)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        why = std::strerror(errno);
        return std::nullopt;
    }
    auto presets = read(fileBytes(fd), why);
    ::close(fd);
    return presets;
}

std::optional<SoundFontPresets> SoundFontPresets::read(const ByteSource& source, std::string& why)
{
    const auto fail = [&why](const char* reason) {
        why = reason;
        return std::nullopt;
    };
    std::array<std::uint8_t, 12> riff{};
    if (source.size < 12 || !source.read(0, riff) || !isId(riff.data(), "RIFF") || !isId(riff.data() + 8, "sfbk"))
        return fail("not a SoundFont 2 file");
    SoundFontPresets font;
    Layout& layout = font.layout_;
    layout.riffEnd = 8 + static_cast<std::uint64_t>(le32(riff.data() + 4));
    if (layout.riffEnd > source.size)
        return fail("the file is shorter than its RIFF header says");

    // The top level: find the one LIST "pdta".
    ChunkHeader pdta;
    bool found = false;
    for (std::uint64_t offset = 12; offset + 8 <= layout.riffEnd;) {
        ChunkHeader chunk;
        if (!readHeader(source, offset, layout.riffEnd, chunk))
            return fail("a chunk runs past the end of the file");
        std::array<std::uint8_t, 4> type{};
        if (isId(chunk.id.data(), "LIST") && chunk.size >= 4 && source.read(chunk.data, type)
            && isId(type.data(), "pdta")) {
            if (found)
                return fail("two preset data lists");
            pdta = chunk;
            found = true;
        }
        offset = chunk.end();
    }
    if (!found)
        return fail("no preset data");
    layout.pdtaOffset = pdta.data - 8;
    layout.pdtaEnd = std::min(pdta.end(), layout.riffEnd);

    // The preset data: its nine chunks in order; the four preset chunks are kept.
    const std::uint64_t pdtaDataEnd = pdta.data + pdta.size;
    std::uint64_t offset = pdta.data + 4;
    std::array<std::vector<std::uint8_t>*, 4> kept = {&font.phdr_, &font.pbag_, &font.pmod_, &font.pgen_};
    constexpr std::array<std::size_t, 4> recordSizes = {kPhdrSize, kBagSize, kModSize, kGenSize};
    for (std::size_t index = 0; index < kPdtaChunks.size(); ++index) {
        ChunkHeader chunk;
        if (!readHeader(source, offset, pdtaDataEnd, chunk) || !isId(chunk.id.data(), kPdtaChunks[index]))
            return fail("the preset data's chunks are not in their usual order");
        if (index < kept.size()) {
            // Each chunk holds whole records and at least its terminal one.
            if (chunk.size % recordSizes[index] != 0 || chunk.size < recordSizes[index])
                return fail("a preset chunk's size is not a whole number of records");
            kept[index]->resize(chunk.size);
            if (!source.read(chunk.data, *kept[index]))
                return fail("the preset data cannot be read");
        }
        if (index == kept.size())
            layout.instOffset = offset;
        offset = chunk.end();
        layout.instrumentEnd = std::min(offset, pdtaDataEnd);
    }

    // Every preset's bags, and every bag's generators and modulators, lie within their chunks
    // and follow one another.
    const std::size_t presetCount = font.phdr_.size() / kPhdrSize - 1;
    const std::size_t bagCount = font.pbag_.size() / kBagSize - 1;
    const std::size_t modCount = font.pmod_.size() / kModSize - 1;
    const std::size_t genCount = font.pgen_.size() / kGenSize - 1;
    if (presetCount == 0)
        return fail("no preset");
    for (std::size_t preset = 0; preset < presetCount; ++preset)
        if (font.firstBag(preset) > font.firstBag(preset + 1) || font.firstBag(preset + 1) > bagCount)
            return fail("a preset's zones lie outside the preset zones");
    for (std::size_t bag = 0; bag < bagCount; ++bag) {
        const std::uint8_t* here = font.pbag_.data() + bag * kBagSize;
        const std::uint8_t* next = here + kBagSize;
        if (le16(here) > le16(next) || le16(next) > genCount || le16(here + 2) > le16(next + 2)
            || le16(next + 2) > modCount)
            return fail("a preset zone's generators or modulators lie outside their chunks");
    }
    for (std::size_t preset = 0; preset < presetCount; ++preset) {
        const std::uint8_t* record = font.phdr_.data() + preset * kPhdrSize;
        font.presets_.push_back({le16(record + kPhdrNumbers + 2), le16(record + kPhdrNumbers)});
    }
    return font;
}

std::size_t SoundFontPresets::firstBag(std::size_t preset) const
{
    return le16(phdr_.data() + preset * kPhdrSize + kPhdrFirstBag);
}

bool SoundFontPresets::has(PresetNumber preset) const
{
    return std::find(presets_.begin(), presets_.end(), preset) != presets_.end();
}

std::shared_ptr<const SoundFontSubset> SoundFontPresets::subset(const std::set<PresetNumber>& kept) const
{
    auto font = std::make_shared<SoundFontSubset>();
    std::vector<std::size_t> chosen;
    for (std::size_t preset = 0; preset < presets_.size(); ++preset)
        if (kept.contains(presets_[preset]))
            chosen.push_back(preset);
    if (chosen.empty())
        chosen.push_back(0);

    // The preset chunks of the kept presets, their bag, generator and modulator indices counted
    // anew; each chunk ends with the whole font's terminal record.
    std::vector<std::uint8_t> phdr;
    std::vector<std::uint8_t> pbag;
    std::vector<std::uint8_t> pmod;
    std::vector<std::uint8_t> pgen;
    const auto append = [](std::vector<std::uint8_t>& to, const std::vector<std::uint8_t>& from, std::size_t first,
                           std::size_t count, std::size_t size) {
        to.insert(to.end(), from.begin() + static_cast<std::ptrdiff_t>(first * size),
                  from.begin() + static_cast<std::ptrdiff_t>((first + count) * size));
    };
    // A preset record pointing at the bags that follow it; a bag pointing at the generators and
    // modulators that follow it.
    const auto addPresetRecord = [&](std::size_t preset) {
        append(phdr, phdr_, preset, 1, kPhdrSize);
        putLe16(phdr.data() + phdr.size() - kPhdrSize + kPhdrFirstBag, pbag.size() / kBagSize);
    };
    const auto addBag = [&] {
        std::array<std::uint8_t, kBagSize> record{};
        putLe16(record.data(), pgen.size() / kGenSize);
        putLe16(record.data() + 2, pmod.size() / kModSize);
        pbag.insert(pbag.end(), record.begin(), record.end());
    };
    for (const std::size_t preset : chosen) {
        addPresetRecord(preset);
        font->presets_.push_back(presets_[preset]);
        for (std::size_t bag = firstBag(preset); bag < firstBag(preset + 1); ++bag) {
            const std::uint8_t* here = pbag_.data() + bag * kBagSize;
            addBag();
            append(pgen, pgen_, le16(here), le16(here + kBagSize) - le16(here), kGenSize);
            append(pmod, pmod_, le16(here + 2), le16(here + kBagSize + 2) - le16(here + 2), kModSize);
        }
    }
    addPresetRecord(presets_.size()); // the terminal records
    addBag();
    append(pgen, pgen_, pgen_.size() / kGenSize - 1, 1, kGenSize);
    append(pmod, pmod_, pmod_.size() / kModSize - 1, 1, kModSize);

    // The new preset data: its LIST header, the four new chunks, then the original's instrument
    // and sample chunks.
    std::vector<std::uint8_t> list = listHeader("LIST", "pdta");
    for (const auto& [id, data] : {std::pair{"phdr", &phdr}, {"pbag", &pbag}, {"pmod", &pmod}, {"pgen", &pgen}}) {
        const std::vector<std::uint8_t> chunk = chunkBytes(id, *data);
        list.insert(list.end(), chunk.begin(), chunk.end());
    }
    const std::uint64_t instruments = layout_.instrumentEnd - layout_.instOffset;
    const std::uint64_t listSize = list.size() - 8 + instruments;
    putLe32(list.data() + 4, listSize);

    const auto addPiece = [&font](std::uint64_t length, std::uint64_t originalOffset, std::vector<std::uint8_t> bytes) {
        if (length == 0)
            return;
        font->pieces_.push_back({font->size_, length, originalOffset, std::move(bytes)});
        font->size_ += length;
    };
    addPiece(12, 0, listHeader("RIFF", "sfbk"));
    addPiece(layout_.pdtaOffset - 12, 12, {});
    addPiece(list.size(), 0, list);
    addPiece(instruments, layout_.instOffset, {});
    // A pad byte after an odd-sized list, and whatever follows the preset data.
    addPiece(listSize & 1U, 0, std::vector<std::uint8_t>(listSize & 1U));
    addPiece(layout_.riffEnd - layout_.pdtaEnd, layout_.pdtaEnd, {});
    putLe32(font->pieces_.front().bytes.data() + 4, font->size_ - 8);
    return font;
}

bool SoundFontSubset::read(std::uint64_t offset, std::span<std::uint8_t> out, const ByteSource& original) const
{
    if (offset > size_ || out.size() > size_ - offset)
        return false;
    // The piece holding `offset`, then those after it.
    auto piece = std::upper_bound(pieces_.begin(), pieces_.end(), offset,
                                  [](std::uint64_t at, const Piece& p) { return at < p.offset; })
        - 1;
    for (std::size_t done = 0; done < out.size(); ++piece) {
        const std::uint64_t within = offset + done - piece->offset;
        const std::size_t count =
            static_cast<std::size_t>(std::min<std::uint64_t>(piece->length - within, out.size() - done));
        const std::span<std::uint8_t> to = out.subspan(done, count);
        if (piece->bytes.empty()) {
            if (!original.read(piece->originalOffset + within, to))
                return false;
        } else {
            std::copy_n(piece->bytes.begin() + static_cast<std::ptrdiff_t>(within), count, to.begin());
        }
        done += count;
    }
    return true;
}

ByteSource memoryBytes(std::span<const std::uint8_t> bytes)
{
    return {bytes.size(), [bytes](std::uint64_t offset, std::span<std::uint8_t> out) {
                if (offset > bytes.size() || out.size() > bytes.size() - offset)
                    return false;
                std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), out.size(), out.begin());
                return true;
            }};
}

ByteSource fileBytes(int fd)
{
    const off_t size = lseek(fd, 0, SEEK_END);
    return {size < 0 ? 0 : static_cast<std::uint64_t>(size), [fd](std::uint64_t offset, std::span<std::uint8_t> out) {
                return pread(fd, out.data(), out.size(), static_cast<off_t>(offset))
                    == static_cast<ssize_t>(out.size());
            }};
}

std::optional<PresetNumber> chosenPreset(const SoundFontPresets& font, int channel, int program)
{
    const int bank = channel == 9 ? 128 : 0;
    for (const PresetNumber candidate : {PresetNumber{bank, program}, PresetNumber{bank, 0}})
        if (font.has(candidate))
            return candidate;
    return std::nullopt;
}

} // namespace plinkora
