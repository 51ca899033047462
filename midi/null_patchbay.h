#pragma once

#include "midi/midi_patchbay.h"

namespace plinkora {

/// The connections of a service that has none (the null output): nothing to list or connect.
class NullPatchbay final : public MidiPatchbay
{
public:
    std::vector<MidiDestination> destinations() override { return {}; }
    std::vector<MidiDestination> connections() override { return {}; }
    bool sourcePublished() override { return false; }
    bool connect(const MidiDestination&) override { return false; }
    bool disconnect(const MidiDestination&) override { return true; }
    void setChangeCallback(std::function<void()>) override {}
};

} // namespace plinkora
