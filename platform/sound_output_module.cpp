// The feedback-sound module: QtSoundPlayer with Qt Multimedia, loaded by LazySoundPlayer when
// the first sound plays.

#include "platform/qt_sound_player.h"

extern "C" Q_DECL_EXPORT plinkora::SoundPlayer* plinkora_make_sound_player()
{
    return new plinkora::QtSoundPlayer();
}
