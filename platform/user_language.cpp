#include "platform/user_language.h"

#include <QCoreApplication>
#include <QDir>
#include <QLibraryInfo>
#include <QTranslator>

#include <algorithm>
#include <memory>

namespace plinkora {

namespace {

struct Installed
{
    std::unique_ptr<QTranslator> plinkora;
    std::unique_ptr<QTranslator> qt;
    QLocale language{QLocale::English};
};

Installed& installed()
{
    static Installed state;
    return state;
}

void remove(std::unique_ptr<QTranslator>& translator)
{
    if (translator && QCoreApplication::instance() != nullptr)
        QCoreApplication::removeTranslator(translator.get());
    translator.reset();
}

} // namespace

QStringList translationFolders()
{
    QStringList folders;
    if (QCoreApplication::instance() != nullptr)
        folders << QDir::cleanPath(QCoreApplication::applicationDirPath() + QStringLiteral("/../translations"));
    folders << QStringLiteral(PLINKORA_INSTALL_DATADIR "/translations");
    return folders;
}

QLocale installTranslations(const QLocale& locale)
{
    Installed& state = installed();
    remove(state.plinkora);
    remove(state.qt);
    state.language = QLocale(QLocale::English);

    // The user's languages in order of preference: the first that is English or has a
    // translation wins (LANGUAGE=en:de stays English).
    auto translator = std::make_unique<QTranslator>();
    const QStringList folders = translationFolders();
    for (const QString& uiLanguage : locale.uiLanguages()) {
        const QLocale wanted(uiLanguage);
        if (wanted.language() == QLocale::English || wanted.language() == QLocale::C)
            break;
        const auto found = std::find_if(folders.begin(), folders.end(), [&](const QString& folder) {
            return translator->load(wanted, QStringLiteral("plinkora"), QStringLiteral("_"), folder);
        });
        if (found != folders.end()) {
            state.language = QLocale(translator->language());
            QCoreApplication::installTranslator(translator.get());
            state.plinkora = std::move(translator);
            break;
        }
    }
    // Qt's own texts only in a language Plinkora speaks too, so that a window never mixes two.
    if (state.plinkora) {
        auto qt = std::make_unique<QTranslator>();
        if (qt->load(state.language, QStringLiteral("qtbase"), QStringLiteral("_"),
                     QLibraryInfo::path(QLibraryInfo::TranslationsPath))) {
            QCoreApplication::installTranslator(qt.get());
            state.qt = std::move(qt);
        }
    }
    return state.language;
}

QLocale userLanguage()
{
    return installed().language;
}

} // namespace plinkora
