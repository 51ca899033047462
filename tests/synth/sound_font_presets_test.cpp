// A sound font's presets and the fonts cut down to some of them: on small fonts built here, on
// broken ones, and with FluidSynth and the default General MIDI font, where every program must
// choose the same preset as with the whole font.
#include "synth/sound_font_presets.h"

#include <fluidsynth.h>

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

using namespace plinkora;

namespace {

using Bytes = std::vector<std::uint8_t>;

void put16(Bytes& to, unsigned value)
{
    to.push_back(static_cast<std::uint8_t>(value));
    to.push_back(static_cast<std::uint8_t>(value >> 8U));
}
void put32(Bytes& to, std::size_t value)
{
    for (int i = 0; i < 4; ++i)
        to.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}
Bytes chunk(const char* id, const Bytes& data)
{
    Bytes bytes(id, id + 4);
    put32(bytes, data.size());
    bytes.insert(bytes.end(), data.begin(), data.end());
    if (data.size() % 2 != 0)
        bytes.push_back(0);
    return bytes;
}
Bytes list(const char* type, const std::vector<Bytes>& chunks)
{
    Bytes data(type, type + 4);
    for (const Bytes& c : chunks)
        data.insert(data.end(), c.begin(), c.end());
    return chunk("LIST", data);
}
Bytes filled(std::size_t size, std::uint8_t first)
{
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<std::uint8_t>(first + i);
    return bytes;
}

/// A small SoundFont 2 file. Each preset has zones of generators (operator, amount); each zone
/// has one modulator. Instruments, samples and sample data are bytes that only need to stay as
/// they are.
struct TestFont
{
    struct Preset
    {
        int bank;
        int program;
        std::vector<std::vector<std::pair<unsigned, unsigned>>> zones;
    };
    std::vector<Preset> presets = {
        {0, 0, {{{43, 0x7F00}, {41, 0}}}},
        {0, 5, {{{17, 0x0101}}, {{43, 0x3C30}, {41, 1}}}}, // a global zone, then one zone
        {128, 0, {{{41, 1}}}},
    };
    std::vector<const char*> pdtaOrder = {"phdr", "pbag", "pmod", "pgen", "inst", "ibag", "imod", "igen", "shdr"};

    Bytes sampleData = filled(101, 0x10); // odd: the sdta list ends with a pad byte
    Bytes instruments = filled(44, 0x40);

    Bytes pdtaChunk(const char* id) const
    {
        Bytes data;
        if (std::strcmp(id, "phdr") == 0) {
            unsigned bag = 0;
            for (const Preset& preset : presets) {
                Bytes name(20, 0);
                std::copy_n("preset", 6, name.begin());
                data.insert(data.end(), name.begin(), name.end());
                put16(data, static_cast<unsigned>(preset.program));
                put16(data, static_cast<unsigned>(preset.bank));
                put16(data, bag);
                put32(data, 0), put32(data, 0), put32(data, 0);
                bag += static_cast<unsigned>(preset.zones.size());
            }
            Bytes eop(20, 0);
            std::copy_n("EOP", 3, eop.begin());
            data.insert(data.end(), eop.begin(), eop.end());
            put16(data, 0), put16(data, 0), put16(data, bag);
            put32(data, 0), put32(data, 0), put32(data, 0);
        } else if (std::strcmp(id, "pbag") == 0) {
            unsigned gen = 0;
            unsigned mod = 0;
            for (const Preset& preset : presets)
                for (const auto& zone : preset.zones) {
                    put16(data, gen), put16(data, mod);
                    gen += static_cast<unsigned>(zone.size());
                    ++mod;
                }
            put16(data, gen), put16(data, mod);
        } else if (std::strcmp(id, "pmod") == 0) {
            // Each zone's modulator names its zone.
            for (const Preset& preset : presets)
                for (std::size_t zone = 0; zone < preset.zones.size(); ++zone) {
                    put16(data, 0x0502), put16(data, 48), put16(data, static_cast<unsigned>(preset.program));
                    put16(data, static_cast<unsigned>(preset.bank)), put16(data, static_cast<unsigned>(zone));
                }
            data.insert(data.end(), 10, 0);
        } else if (std::strcmp(id, "pgen") == 0) {
            for (const Preset& preset : presets)
                for (const auto& zone : preset.zones)
                    for (const auto& [op, amount] : zone)
                        put16(data, op), put16(data, amount);
            put32(data, 0);
        } else if (std::strcmp(id, "inst") == 0) {
            data.assign(instruments.begin(), instruments.end());
        } else {
            data = filled(std::strcmp(id, "shdr") == 0 ? 92 : std::strcmp(id, "imod") == 0 ? 10 : 8, 0x60);
        }
        return chunk(id, data);
    }

    Bytes bytes() const
    {
        std::vector<Bytes> pdta;
        for (const char* id : pdtaOrder)
            pdta.push_back(pdtaChunk(id));
        Bytes data{'s', 'f', 'b', 'k'};
        for (const Bytes& part : {list("INFO", {chunk("ifil", {2, 0, 1, 0})}),
                                  list("sdta", {chunk("smpl", sampleData)}), list("pdta", pdta)})
            data.insert(data.end(), part.begin(), part.end());
        return chunk("RIFF", data);
    }
};

Bytes allOf(const SoundFontSubset& font, const Bytes& original)
{
    Bytes bytes(font.size());
    EXPECT_TRUE(font.read(0, bytes, memoryBytes(original)));
    return bytes;
}

// The data of the first chunk `id` at or after `from` (ids here never occur inside data).
Bytes chunkData(const Bytes& file, const char* id, std::size_t from = 12)
{
    const auto at = std::search(file.begin() + static_cast<std::ptrdiff_t>(from), file.end(), id, id + 4);
    if (at == file.end())
        return {};
    const std::size_t size = at[4] | (at[5] << 8U) | (at[6] << 16U) | (at[7] << 24U);
    return {at + 8, at + 8 + static_cast<std::ptrdiff_t>(size)};
}
// From the chunk `id` to the end of the file.
Bytes fromChunk(const Bytes& file, const char* id)
{
    const auto at = std::search(file.begin(), file.end(), id, id + 4);
    return {at, file.end()};
}

std::optional<SoundFontPresets> readFont(const Bytes& bytes, std::string* why = nullptr)
{
    std::string reason;
    auto font = SoundFontPresets::read(memoryBytes(bytes), reason);
    if (why)
        *why = reason;
    return font;
}

} // namespace

TEST(SoundFontPresets, ReadsEveryPresetInTheFilesOrder)
{
    const auto font = readFont(TestFont{}.bytes());
    ASSERT_TRUE(font);
    EXPECT_EQ(font->presets(), (std::vector<PresetNumber>{{0, 0}, {0, 5}, {128, 0}}));
    EXPECT_TRUE(font->has({0, 5}));
    EXPECT_FALSE(font->has({0, 6}));
}

TEST(SoundFontPresets, ACutDownFontHasTheKeptPresetsWithTheirZonesAndEverythingElseAsItWas)
{
    const TestFont whole;
    const Bytes original = whole.bytes();
    const auto font = readFont(original);
    ASSERT_TRUE(font);
    const auto cut = font->subset({{0, 5}, {128, 0}, {0, 99}});
    EXPECT_EQ(cut->presets(), (std::vector<PresetNumber>{{0, 5}, {128, 0}}));
    const Bytes bytes = allOf(*cut, original);
    EXPECT_EQ(bytes.size(), cut->size());
    EXPECT_EQ(chunkData(bytes, "RIFF", 0).size(), bytes.size() - 8);

    // Read again, it has those presets; their records are those of a font made of them alone.
    const auto again = readFont(bytes);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->presets(), cut->presets());
    TestFont expected = whole;
    expected.presets.erase(expected.presets.begin());
    const Bytes alone = expected.bytes();
    for (const char* id : {"phdr", "pbag", "pmod", "pgen"})
        EXPECT_EQ(chunkData(bytes, id), chunkData(alone, id)) << id;
    // The sample data, instruments and samples are the original's, byte for byte.
    EXPECT_EQ(chunkData(bytes, "smpl"), whole.sampleData);
    EXPECT_EQ(fromChunk(bytes, "inst"), fromChunk(original, "inst"));
    EXPECT_EQ(chunkData(bytes, "ifil"), (Bytes{2, 0, 1, 0}));
}

TEST(SoundFontPresets, WithNoneOfTheKeptPresetsTheFirstPresetIsKept)
{
    const Bytes original = TestFont{}.bytes();
    const auto font = readFont(original);
    ASSERT_TRUE(font);
    const auto cut = font->subset({{3, 3}});
    EXPECT_EQ(cut->presets(), (std::vector<PresetNumber>{{0, 0}}));
    const auto again = readFont(allOf(*cut, original));
    ASSERT_TRUE(again);
    EXPECT_EQ(again->presets(), cut->presets());
}

TEST(SoundFontPresets, ReadsAcrossItsPiecesAndNotPastTheEnd)
{
    const Bytes original = TestFont{}.bytes();
    const auto cut = readFont(original)->subset({{0, 5}});
    const Bytes whole = allOf(*cut, original);
    for (std::uint64_t offset = 0; offset < whole.size(); offset += 7) {
        Bytes part(std::min<std::uint64_t>(40, whole.size() - offset));
        ASSERT_TRUE(cut->read(offset, part, memoryBytes(original)));
        EXPECT_TRUE(std::equal(part.begin(), part.end(), whole.begin() + static_cast<std::ptrdiff_t>(offset)));
    }
    Bytes one(1);
    EXPECT_FALSE(cut->read(whole.size(), one, memoryBytes(original)));
    Bytes two(2);
    EXPECT_FALSE(cut->read(whole.size() - 1, two, memoryBytes(original)));
    EXPECT_TRUE(cut->read(whole.size(), std::span<std::uint8_t>(), memoryBytes(original)));
}

TEST(SoundFontPresets, BrokenFilesAreRefusedWithAReason)
{
    std::string why;
    EXPECT_FALSE(readFont({}, &why));
    EXPECT_EQ(why, "not a SoundFont 2 file");

    Bytes notSf = TestFont{}.bytes();
    std::copy_n("sfbq", 4, notSf.begin() + 8);
    EXPECT_FALSE(readFont(notSf, &why));
    EXPECT_EQ(why, "not a SoundFont 2 file");

    Bytes truncated = TestFont{}.bytes();
    truncated.resize(truncated.size() - 10);
    EXPECT_FALSE(readFont(truncated, &why));
    EXPECT_EQ(why, "the file is shorter than its RIFF header says");

    TestFont outOfOrder;
    std::swap(outOfOrder.pdtaOrder[1], outOfOrder.pdtaOrder[2]);
    EXPECT_FALSE(readFont(outOfOrder.bytes(), &why));
    EXPECT_EQ(why, "the preset data's chunks are not in their usual order");

    TestFont noPdta;
    noPdta.pdtaOrder.clear();
    Bytes withoutList = noPdta.bytes();
    std::copy_n("xdta", 4, withoutList.end() - 4);
    EXPECT_FALSE(readFont(withoutList, &why));
    EXPECT_EQ(why, "no preset data");

    // A preset whose first zone lies beyond the zones.
    Bytes badBag = TestFont{}.bytes();
    const auto phdr = std::search(badBag.begin(), badBag.end(), "phdr", "phdr" + 4);
    phdr[8 + 38 + 24] = 200;
    EXPECT_FALSE(readFont(badBag, &why));
    EXPECT_EQ(why, "a preset's zones lie outside the preset zones");

    // A zone whose generators run past the generator chunk.
    Bytes badGen = TestFont{}.bytes();
    const auto pbag = std::search(badGen.begin(), badGen.end(), "pbag", "pbag" + 4);
    pbag[8 + 4] = 90;
    EXPECT_FALSE(readFont(badGen, &why));
    EXPECT_EQ(why, "a preset zone's generators or modulators lie outside their chunks");

    // A preset header chunk that is not a whole number of records.
    Bytes badSize = TestFont{}.bytes();
    const auto header = std::search(badSize.begin(), badSize.end(), "phdr", "phdr" + 4);
    header[4] = static_cast<std::uint8_t>(header[4] - 2);
    EXPECT_FALSE(readFont(badSize, &why));
    EXPECT_FALSE(why.empty());
}

TEST(SoundFontPresets, AFileThatCannotBeOpenedSaysWhy)
{
    std::string why;
    EXPECT_FALSE(SoundFontPresets::read("/no/such/font.sf2", why));
    EXPECT_EQ(why, "No such file or directory");
}

TEST(SoundFontPresets, TheChosenPresetIsTheProgramsInBankZeroOrTheDrumBankElseProgramZero)
{
    const auto font = readFont(TestFont{}.bytes());
    ASSERT_TRUE(font);
    EXPECT_EQ(chosenPreset(*font, 0, 5), (PresetNumber{0, 5}));
    EXPECT_EQ(chosenPreset(*font, 15, 6), (PresetNumber{0, 0}));
    EXPECT_EQ(chosenPreset(*font, 9, 5), (PresetNumber{128, 0}));
    EXPECT_EQ(chosenPreset(*font, 9, 0), (PresetNumber{128, 0}));
    TestFont noDrums;
    noDrums.presets.pop_back();
    EXPECT_EQ(chosenPreset(*readFont(noDrums.bytes()), 9, 0), std::nullopt);
}

#if defined(PLINKORA_HAVE_FLUIDSYNTH)
namespace {

constexpr const char* kGeneralMIDIFont = "/usr/share/sounds/sf2/TimGM6mb.sf2";

// A FluidSynth synthesizer set up as the built-in one chooses presets.
struct Synth
{
    Synth()
    {
        fluid_settings_setstr(settings, "synth.midi-bank-select", "gm");
        fluid_settings_setint(settings, "synth.dynamic-sample-loading", 1);
        synth = new_fluid_synth(settings);
    }
    ~Synth()
    {
        delete_fluid_synth(synth);
        delete_fluid_settings(settings);
    }
    Synth(const Synth&) = delete;
    Synth& operator=(const Synth&) = delete;

    std::optional<PresetNumber> chosen(int channel, int program) const
    {
        fluid_synth_program_change(synth, channel, program);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
        fluid_preset_t* preset = fluid_synth_get_channel_preset(synth, channel);
#pragma GCC diagnostic pop
        if (preset == nullptr)
            return std::nullopt;
        return PresetNumber{fluid_preset_get_banknum(preset), fluid_preset_get_num(preset)};
    }
    std::vector<PresetNumber> presets() const
    {
        std::vector<PresetNumber> found;
        fluid_sfont_t* font = fluid_synth_get_sfont(synth, 0);
        fluid_sfont_iteration_start(font);
        while (fluid_preset_t* preset = fluid_sfont_iteration_next(font))
            found.push_back({fluid_preset_get_banknum(preset), fluid_preset_get_num(preset)});
        return found;
    }

    fluid_settings_t* settings = new_fluid_settings();
    fluid_synth_t* synth = nullptr;
};

} // namespace

TEST(SoundFontPresetsWithFluidSynth, EveryProgramChoosesThePresetFluidSynthChoosesFromTheWholeFont)
{
    std::string why;
    const auto font = SoundFontPresets::read(kGeneralMIDIFont, why);
    ASSERT_TRUE(font) << why;
    Synth whole;
    ASSERT_NE(fluid_synth_sfload(whole.synth, kGeneralMIDIFont, 1), FLUID_FAILED);
    EXPECT_EQ(whole.presets().size(), font->presets().size());
    for (const int channel : {0, 9, 15})
        for (int program = 0; program < 128; ++program)
            ASSERT_EQ(chosenPreset(*font, channel, program), whole.chosen(channel, program))
                << "channel " << channel << " program " << program;
}

TEST(SoundFontPresetsWithFluidSynth, FluidSynthReadsACutDownFontWithExactlyItsPresetsAndPlaysThemAsTheWhole)
{
    std::string why;
    const auto font = SoundFontPresets::read(kGeneralMIDIFont, why);
    ASSERT_TRUE(font) << why;
    std::ifstream in(kGeneralMIDIFont, std::ios::binary);
    const Bytes original{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    const auto cut = font->subset({{0, 0}, {0, 40}, {128, 0}});
    QTemporaryDir dir;
    const std::string path = dir.filePath("cut.sf2").toStdString();
    {
        const Bytes bytes = allOf(*cut, original);
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    Synth small;
    ASSERT_NE(fluid_synth_sfload(small.synth, path.c_str(), 1), FLUID_FAILED);
    EXPECT_EQ(small.presets(), (std::vector<PresetNumber>{{0, 0}, {0, 40}, {128, 0}}));

    // The same voices for the same notes: each key and velocity of the kept presets starts as
    // many voices as with the whole font.
    Synth whole;
    ASSERT_NE(fluid_synth_sfload(whole.synth, kGeneralMIDIFont, 1), FLUID_FAILED);
    for (const auto& [channel, program] : {std::pair{0, 0}, {0, 40}, {9, 0}}) {
        small.chosen(channel, program);
        whole.chosen(channel, program);
        for (int key = 24; key < 108; key += 5)
            for (const int velocity : {1, 64, 127}) {
                fluid_synth_noteon(small.synth, channel, key, velocity);
                fluid_synth_noteon(whole.synth, channel, key, velocity);
                ASSERT_EQ(fluid_synth_get_active_voice_count(small.synth),
                          fluid_synth_get_active_voice_count(whole.synth))
                    << "channel " << channel << " program " << program << " key " << key;
                fluid_synth_all_sounds_off(small.synth, -1);
                fluid_synth_all_sounds_off(whole.synth, -1);
            }
    }
}
#endif
