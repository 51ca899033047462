#pragma once

#include "midi/midi_patchbay.h"
#include "synth/synth_control.h"

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

namespace plinkora::testing {

/// A MIDI service's connections held in memory: inputs come and go, connections are made by
/// PLK or from outside, and every change calls the change callback, as a real service does
/// (on the caller's thread here).
class FakePatchbay final : public MIDIPatchbay
{
public:
    std::vector<MIDIDestination> destinations() override { return present; }
    std::vector<MIDIDestination> connections() override { return connected; }
    bool connect(const MIDIDestination& destination) override
    {
        ++connectCalls;
        if (refuse || !has(present, destination))
            return false;
        if (!has(connected, destination)) {
            connected.push_back(destination);
            changed();
        }
        return true;
    }
    bool disconnect(const MIDIDestination& destination) override
    {
        if (std::erase(connected, destination) > 0)
            changed();
        return true;
    }
    void setChangeCallback(std::function<void()> callback) override { callback_ = std::move(callback); }

    /// A receiver starts: its input appears.
    void add(const MIDIDestination& destination)
    {
        present.push_back(destination);
        changed();
    }
    /// A receiver ends: its input and PLK's connection to it go.
    void remove(const MIDIDestination& destination)
    {
        std::erase(present, destination);
        std::erase(connected, destination);
        changed();
    }
    /// Another program connects PLK or disconnects it.
    void connectFromOutside(const MIDIDestination& destination)
    {
        connected.push_back(destination);
        changed();
    }
    void disconnectFromOutside(const MIDIDestination& destination)
    {
        std::erase(connected, destination);
        changed();
    }
    bool isConnected(const MIDIDestination& destination) const { return has(connected, destination); }
    bool hasCallback() const { return static_cast<bool>(callback_); }

    std::vector<MIDIDestination> present;
    std::vector<MIDIDestination> connected;
    bool refuse = false; // connect() fails
    int connectCalls = 0;

private:
    static bool has(const std::vector<MIDIDestination>& list, const MIDIDestination& destination)
    {
        return std::find(list.begin(), list.end(), destination) != list.end();
    }
    void changed()
    {
        if (callback_)
            callback_();
    }

    std::function<void()> callback_;
};

/// The built-in synthesizer's control without a synthesizer: heard when its mode lets it
/// play and `works` is true (on, or auto with nothing else reading PLK is up to the test).
class StubSynthControl final : public SynthControl
{
public:
    SynthMode mode() const override { return mode_; }
    void setMode(SynthMode mode) override
    {
        mode_ = mode;
        changed();
    }
    bool isAudible() const override { return works && mode_ != SynthMode::Off; }
    void setChangeCallback(std::function<void()> callback) override { callback_ = std::move(callback); }

    /// The synthesizer fails (its audio output closes) or works again.
    void setWorks(bool working)
    {
        works = working;
        changed();
    }

    bool works = true;

private:
    void changed()
    {
        if (callback_)
            callback_();
    }

    SynthMode mode_ = SynthMode::Auto;
    std::function<void()> callback_;
};

} // namespace plinkora::testing
