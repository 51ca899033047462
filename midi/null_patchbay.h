#pragma once

#include "midi/midi_patchbay.h"

namespace plinkora {

/// The connections of a service that has none (the null output): nothing to list or connect.
class NullPatchbay final : public MIDIPatchbay
{
public:
    std::vector<MIDIDestination> destinations() override { return {}; }
    std::vector<MIDIDestination> connections() override { return {}; }
    bool sourcePublished() override { return false; }
    bool connect(const MIDIDestination&) override { return false; }
    bool disconnect(const MIDIDestination&) override { return true; }
    void setChangeCallback(std::function<void()>) override {}
};

} // namespace plinkora
