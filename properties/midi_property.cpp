#include "properties/midi_property.h"

#include <QCoreApplication>

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
    return text().english;
}

UserText MIDIProperty::text() const
{
    QString valueText;
    switch (type) {
    case MIDIPropertyType::channel:
        valueText = QString::number(value + 1);
        break;
    case MIDIPropertyType::transpose:
        valueText = (value >= 0 ? QStringLiteral("+") : QString()) + QString::number(value);
        break;
    default:
        valueText = QString::number(value);
        break;
    }
    const QByteArray source = name.toUtf8();
    return UserText::translated("Property", QT_TRANSLATE_NOOP("Property", "%1: %2"),
                                {{name, QCoreApplication::translate("Property", source.constData())}, valueText});
}

std::vector<std::unique_ptr<MIDIProperty>> makeProperties()
{
    using T = MIDIPropertyType;
    std::vector<std::unique_ptr<MIDIProperty>> list;
    list.reserve(8);
    // The names stay English here (they name the properties everywhere); text() translates them.
    const auto add = [&list](const char* name, T type, std::int64_t value, std::int64_t minValue, std::int64_t maxValue,
                             std::int64_t smallStep, std::int64_t largeStep, std::optional<std::uint8_t> ccNumber) {
        list.push_back(std::make_unique<MIDIProperty>(QString::fromUtf8(name), type, value, minValue, maxValue,
                                                      smallStep, largeStep, ccNumber));
    };
    // Channels 1, 5, 9 and 13 are one large step apart; pan moves by 16; transposition by half
    // an octave. The bank goes out as bank select (coarse) alone.
    add(QT_TRANSLATE_NOOP("Property", "Channel"), T::channel, 0, 0, 15, 1, 4, std::nullopt);
    add(QT_TRANSLATE_NOOP("Property", "Program"), T::program, 0, 0, 127, 1, 10, std::nullopt);
    add(QT_TRANSLATE_NOOP("Property", "Bank"), T::bank, 0, 0, 127, 1, 10, 0);
    add(QT_TRANSLATE_NOOP("Property", "Volume"), T::volume, 100, 0, 127, 1, 10, 7);
    add(QT_TRANSLATE_NOOP("Property", "Pan"), T::pan, 64, 0, 127, 1, 16, 10);
    add(QT_TRANSLATE_NOOP("Property", "Reverb"), T::reverb, 40, 0, 127, 1, 10, 91);
    add(QT_TRANSLATE_NOOP("Property", "Chorus"), T::chorus, 0, 0, 127, 1, 10, 93);
    add(QT_TRANSLATE_NOOP("Property", "Transpose"), T::transpose, 0, -24, 24, 1, 6, std::nullopt);
    return list;
}

} // namespace plinkora
