#include "properties/midi_property.h"

namespace plinkora {

MIDIProperty::MIDIProperty(QString name_, MIDIPropertyType type_, std::int64_t value_, std::int64_t minValue_,
                           std::int64_t maxValue_, std::int64_t smallStep_, std::int64_t largeStep_,
                           std::optional<std::uint8_t> ccNumber_)
    : name(std::move(name_))
    , type(type_)
    , value(value_)
    , minValue(minValue_)
    , maxValue(maxValue_)
    , smallStep(smallStep_)
    , largeStep(largeStep_)
    , ccNumber(ccNumber_)
{
}

QString MIDIProperty::displayText() const
{
    switch (type) {
    case MIDIPropertyType::channel:
        return name + QStringLiteral(": ") + QString::number(value + 1);
    case MIDIPropertyType::transpose:
        return name + QStringLiteral(": ") + (value >= 0 ? QStringLiteral("+") : QString()) + QString::number(value);
    default:
        return name + QStringLiteral(": ") + QString::number(value);
    }
}

std::vector<std::unique_ptr<MIDIProperty>> makeProperties()
{
    using T = MIDIPropertyType;
    std::vector<std::unique_ptr<MIDIProperty>> list;
    list.reserve(8);
    // Channels 1, 5, 9 and 13 are one large step apart; pan moves by 16; transposition by half
    // an octave. The bank goes out as bank select (coarse) alone.
    list.push_back(std::make_unique<MIDIProperty>(QStringLiteral("Channel"), T::channel, 0, 0, 15, 1, 4, std::nullopt));
    list.push_back(std::make_unique<MIDIProperty>(QStringLiteral("Program"), T::program, 0, 0, 127, 1, 10, std::nullopt));
    list.push_back(std::make_unique<MIDIProperty>(QStringLiteral("Bank"), T::bank, 0, 0, 127, 1, 10, 0));
    list.push_back(std::make_unique<MIDIProperty>(QStringLiteral("Volume"), T::volume, 100, 0, 127, 1, 10, 7));
    list.push_back(std::make_unique<MIDIProperty>(QStringLiteral("Pan"), T::pan, 64, 0, 127, 1, 16, 10));
    list.push_back(std::make_unique<MIDIProperty>(QStringLiteral("Reverb"), T::reverb, 40, 0, 127, 1, 10, 91));
    list.push_back(std::make_unique<MIDIProperty>(QStringLiteral("Chorus"), T::chorus, 0, 0, 127, 1, 10, 93));
    list.push_back(std::make_unique<MIDIProperty>(QStringLiteral("Transpose"), T::transpose, 0, -24, 24, 1, 6, std::nullopt));
    return list;
}

} // namespace plinkora
