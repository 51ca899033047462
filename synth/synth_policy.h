#pragma once

#include "synth/synth_control.h"

#include <QObject>

#include <cstddef>
#include <functional>

namespace plinkora {

class MIDIPatchbay;

/// When the built-in synthesizer plays: always ("on"), never ("off"), or ("auto") while no other
/// program reads PLK, so that someone who routes PLK to another synthesizer or a DAW never hears
/// everything twice. Counts PLK's readers from the patchbay each time it says its connections
/// changed (on any thread: the count is taken on the main thread). Main thread only.
class SynthPolicy
{
public:
    explicit SynthPolicy(SynthMode mode);
    ~SynthPolicy();
    SynthPolicy(const SynthPolicy&) = delete;
    SynthPolicy& operator=(const SynthPolicy&) = delete;

    SynthMode mode() const { return mode_; }
    void setMode(SynthMode mode);

    /// Follows the readers of PLK on `patchbay` (null: none; PLK then has no readers). The
    /// patchbay must outlive this policy or be detached with null.
    void setPatchbay(MIDIPatchbay* patchbay);
    /// Counts the readers again (what the patchbay's change callback leads to).
    void recount();
    std::size_t readers() const { return readers_; }

    /// True when the synthesizer should sound now.
    bool shouldPlay() const;

    /// Called (main thread) when shouldPlay() changes.
    void setPlayingChanged(std::function<void(bool playing)> changed) { changed_ = std::move(changed); }

private:
    void update(SynthMode mode, std::size_t readers);

    SynthMode mode_;
    std::size_t readers_ = 0;
    MIDIPatchbay* patchbay_ = nullptr;
    std::function<void(bool)> changed_;
    // Context of the queued recounts: they die with the policy.
    QObject context_;
};

} // namespace plinkora
