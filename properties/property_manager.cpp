#include "properties/property_manager.h"

#include "common/diagnostics.h"
#include "midi/midi_manager.h"

#include <QCoreApplication>

#include <algorithm>
#include <string>

namespace plinkora {

namespace {
std::uint8_t checkedUInt8(std::int64_t value)
{
    if (value < 0 || value > 255)
        fatal("the value " + std::to_string(value) + " does not fit an unsigned byte");
    return static_cast<std::uint8_t>(value);
}
} // namespace

PropertyManager::PropertyManager(MIDIManager& manager, std::unique_ptr<Announcer> synthesizer)
    : midiManager(manager)
    , speechSynthesizer(std::move(synthesizer))
{
    setupProperties();
}

void PropertyManager::setupProperties()
{
    properties = makeProperties();
}

MIDIProperty* PropertyManager::selected()
{
    const auto count = static_cast<std::int64_t>(properties.size());
    if (count == 0 || currentIndex < 0 || currentIndex >= count)
        return nullptr;
    return properties[static_cast<std::size_t>(currentIndex)].get();
}

void PropertyManager::nextProperty()
{
    const auto count = static_cast<std::int64_t>(properties.size());
    if (count == 0)
        fatal("no properties to step through");
    currentIndex = (currentIndex + 1) % count;
    announceCurrentProperty();
}

void PropertyManager::previousProperty()
{
    const auto count = static_cast<std::int64_t>(properties.size());
    if (count == 0)
        fatal("no properties to step through");
    currentIndex = (currentIndex - 1 + count) % count;
    announceCurrentProperty();
}

void PropertyManager::adjust(std::int64_t delta)
{
    MIDIProperty* property = selected();
    if (!property)
        return;
    property->value = std::clamp(property->value + delta, property->minValue, property->maxValue);
    // Sent and announced even at a limit: the receiver and the user hear the limit again.
    sendPropertyValue(*property);
    announceValue();
}

void PropertyManager::increaseValue(bool large)
{
    if (const MIDIProperty* property = selected())
        adjust(large ? property->largeStep : 1);
}

void PropertyManager::decreaseValue(bool large)
{
    if (const MIDIProperty* property = selected())
        adjust(-(large ? property->largeStep : 1));
}

void PropertyManager::sendPropertyValue(const MIDIProperty& property)
{
    const std::uint8_t channel = getChannel();
    if (property.type == MIDIPropertyType::program)
        midiManager.sendProgramChange(checkedUInt8(property.value), channel);
    else if (property.ccNumber)
        midiManager.sendControlChange(*property.ccNumber, checkedUInt8(property.value), channel);
}

std::uint8_t PropertyManager::getChannel() const
{
    for (const auto& property : properties)
        if (property->type == MIDIPropertyType::channel)
            return checkedUInt8(property->value);
    return 0;
}

std::int64_t PropertyManager::getTranspose() const
{
    for (const auto& property : properties)
        if (property->type == MIDIPropertyType::transpose)
            return property->value;
    return 0;
}

void PropertyManager::announceCurrentProperty()
{
    const MIDIProperty* property = selected();
    if (!property)
        return;
    announce(UserText::announcement(
        QT_TRANSLATE_NOOP("Announcement", "%1, %2 of %3"),
        {property->text(), QString::number(currentIndex + 1), QString::number(properties.size())}));
}

void PropertyManager::announceValue()
{
    const MIDIProperty* property = selected();
    if (!property)
        return;
    switch (property->type) {
    case MIDIPropertyType::transpose:
        announce(property->value < 0 ? UserText::announcement(QT_TRANSLATE_NOOP("Announcement", "minus %1"),
                                                              {QString::number(-property->value)})
                                     : UserText::announcement(QT_TRANSLATE_NOOP("Announcement", "plus %1"),
                                                              {QString::number(property->value)}));
        break;
    case MIDIPropertyType::channel:
        announce(QString::number(property->value + 1));
        break;
    default:
        announce(QString::number(property->value));
        break;
    }
}

void PropertyManager::announce(const UserText& userText)
{
    printLine(("Announcing: " + userText.english).toStdString());
    const QString text = userText.shown;
    if (!QCoreApplication::instance())
        fatal("no application object to post the announcement through");
    QMetaObject::invokeMethod(
        &jobContext_,
        [this, text] {
            if (!speechSynthesizer)
                return;
            speechSynthesizer->postAnnouncement(text);
            if (speechSynthesizer->isScreenReaderRunning())
                return;
            if (speechSynthesizer->isSpeaking())
                speechSynthesizer->stopSpeaking();
            speechSynthesizer->speak(text);
        },
        Qt::QueuedConnection);
}

} // namespace plinkora
