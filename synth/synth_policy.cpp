#include "synth/synth_policy.h"

#include "midi/midi_patchbay.h"

#include <QMetaObject>

namespace plinkora {

namespace {
bool plays(SynthMode mode, std::size_t readers)
{
    switch (mode) {
    case SynthMode::On:
        return true;
    case SynthMode::Off:
        return false;
    case SynthMode::Auto:
        break;
    }
    return readers == 0;
}
} // namespace

SynthPolicy::SynthPolicy(SynthMode mode)
    : mode_(mode)
{
}

SynthPolicy::~SynthPolicy()
{
    setPatchbay(nullptr);
}

void SynthPolicy::setMode(SynthMode mode)
{
    update(mode, readers_);
}

void SynthPolicy::setPatchbay(MIDIPatchbay* patchbay)
{
    if (patchbay_)
        patchbay_->setChangeCallback({});
    patchbay_ = patchbay;
    if (patchbay_) {
        // The patchbay may call from its service's thread: the count is taken on this one.
        patchbay_->setChangeCallback([this] {
            QMetaObject::invokeMethod(
                &context_, [this] { recount(); }, Qt::QueuedConnection);
        });
    }
    recount();
}

void SynthPolicy::recount()
{
    update(mode_, patchbay_ ? patchbay_->connections().size() : 0);
}

bool SynthPolicy::shouldPlay() const
{
    return plays(mode_, readers_);
}

void SynthPolicy::update(SynthMode mode, std::size_t readers)
{
    const bool before = shouldPlay();
    mode_ = mode;
    readers_ = readers;
    if (shouldPlay() != before && changed_)
        changed_(shouldPlay());
}

} // namespace plinkora
