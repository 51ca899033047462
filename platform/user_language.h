#pragma once

#include <QLocale>
#include <QString>
#include <QStringList>

namespace plinkora {

/// The language of everything Plinkora shows and speaks. The English texts in the source are
/// the originals; a translation (translations/plinkora_LANG.ts, built into plinkora_LANG.qm)
/// replaces them when the desktop asks for its language.

/// Where plinkora_LANG.qm files are looked for, in this order: the build tree's translations
/// folder (beside the executable's bin/), then the installed one (<datadir>/plinkora/translations).
QStringList translationFolders();

/// Loads and installs Plinkora's translation for `locale` (by default the desktop's: LANGUAGE,
/// LC_ALL, LC_MESSAGES, LANG, as QLocale::system() reads them; its languages in order of
/// preference) and Qt's own for the same language (the buttons of the file chooser). Needs the
/// application object. A second call replaces what the first installed. Returns the language
/// the texts are in from now on: the translation's, or English when there is none.
QLocale installTranslations(const QLocale& locale = QLocale::system());

/// The language the shown and spoken texts are in: what installTranslations found, English
/// before it was called or when it found nothing. The voice speaks in it.
QLocale userLanguage();

} // namespace plinkora
