#include "properties/midi_property.h"

#include <QStringList>

#include <gtest/gtest.h>

#include <functional>

using namespace plinkora;

TEST(MIDIPropertyList, HoldsTheEightPropertiesInOrderWithTheirStartingValues)
{
    struct Row
    {
        const char* name;
        MIDIPropertyType type;
        std::int64_t value, min, max, small, large;
        std::optional<std::uint8_t> cc;
    };
    using T = MIDIPropertyType;
    const std::vector<Row> expected{
        {"Channel", T::channel, 0, 0, 15, 1, 4, std::nullopt},
        {"Program", T::program, 0, 0, 127, 1, 10, std::nullopt},
        {"Bank", T::bank, 0, 0, 127, 1, 10, 0},
        {"Volume", T::volume, 100, 0, 127, 1, 10, 7},
        {"Pan", T::pan, 64, 0, 127, 1, 16, 10},
        {"Reverb", T::reverb, 40, 0, 127, 1, 10, 91},
        {"Chorus", T::chorus, 0, 0, 127, 1, 10, 93},
        {"Transpose", T::transpose, 0, -24, 24, 1, 6, std::nullopt},
    };
    const auto list = makeProperties();
    ASSERT_EQ(list.size(), expected.size());
    for (std::size_t i = 0; i < list.size(); ++i) {
        const MIDIProperty& p = *list[i];
        EXPECT_EQ(p.name, QString::fromLatin1(expected[i].name));
        EXPECT_EQ(p.type, expected[i].type);
        EXPECT_EQ(p.value, expected[i].value);
        EXPECT_EQ(p.minValue, expected[i].min);
        EXPECT_EQ(p.maxValue, expected[i].max);
        EXPECT_EQ(p.smallStep, expected[i].small);
        EXPECT_EQ(p.largeStep, expected[i].large);
        EXPECT_EQ(p.ccNumber, expected[i].cc);
    }
}

TEST(MIDIPropertyList, DisplayTextsOfAFreshList)
{
    QStringList texts;
    for (const auto& p : makeProperties())
        texts << p->displayText();
    EXPECT_EQ(texts,
              (QStringList{"Channel: 1", "Program: 0", "Bank: 0", "Volume: 100", "Pan: 64", "Reverb: 40", "Chorus: 0",
                           "Transpose: +0"}));
}

TEST(MIDIProperty, ChannelFifteenShowsAsSixteenAndTranspositionCarriesItsSign)
{
    auto list = makeProperties();
    list[0]->value = 15;
    EXPECT_EQ(list[0]->displayText(), "Channel: 16");
    list[7]->value = -24;
    EXPECT_EQ(list[7]->displayText(), "Transpose: -24");
    list[7]->value = 24;
    EXPECT_EQ(list[7]->displayText(), "Transpose: +24");
    list[7]->value = -12;
    EXPECT_EQ(list[7]->displayText(), "Transpose: -12");
}

TEST(MIDIProperty, ConstructorStoresItsFieldsUnchecked)
{
    const MIDIProperty p("Odd", MIDIPropertyType::volume, 500, 10, 0, 3, 7, 200);
    EXPECT_EQ(p.value, 500);
    EXPECT_EQ(p.minValue, 10);
    EXPECT_EQ(p.maxValue, 0);
    EXPECT_EQ(p.smallStep, 3);
    EXPECT_EQ(p.ccNumber, 200);
    EXPECT_EQ(p.displayText(), "Odd: 500");
}

TEST(MIDIPropertyType, SameTypesCompareAndHashAlikeAndNeighboursDiffer)
{
    const auto list = makeProperties();
    const std::hash<MIDIPropertyType> hash;
    EXPECT_EQ(MIDIPropertyType::pan, list[4]->type);
    EXPECT_EQ(hash(MIDIPropertyType::pan), hash(list[4]->type));
    EXPECT_NE(MIDIPropertyType::pan, MIDIPropertyType::reverb);
    EXPECT_NE(list[4]->type, list[5]->type);
}

TEST(MIDIPropertyType, DeclarationOrderDiffersFromTheListOrder)
{
    EXPECT_EQ(static_cast<int>(MIDIPropertyType::channel), 0);
    EXPECT_EQ(static_cast<int>(MIDIPropertyType::reverb), 4);
    EXPECT_EQ(static_cast<int>(MIDIPropertyType::chorus), 5);
    EXPECT_EQ(static_cast<int>(MIDIPropertyType::pan), 6);
    EXPECT_EQ(static_cast<int>(MIDIPropertyType::transpose), 7);
}
