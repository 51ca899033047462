#pragma once

#include <QList>
#include <QString>

#include <utility>

namespace plinkora {

/// A text for the user in two forms: `english`, the source text, for the diagnostic lines on
/// standard output (which never change with the desktop's language), and `shown`, the same text
/// in the user's language, for what the windows show and the voices speak.
///
/// Texts are marked where they are written, with QT_TRANSLATE_NOOP("Announcement", "...") so
/// that lupdate finds them, and translated here at run time.
struct UserText
{
    /// The same in every language: a number, a name.
    UserText(const QString& same)
        : english(same)
        , shown(same)
    {
    }
    UserText(QString english_, QString shown_)
        : english(std::move(english_))
        , shown(std::move(shown_))
    {
    }

    /// `source` from the "Announcement" context, its %1, %2, %3 replaced by `arguments` (at most
    /// three) in both forms.
    static UserText announcement(const char* source, const QList<UserText>& arguments = {});
    /// The same for a text that lupdate files under `context`.
    static UserText translated(const char* context, const char* source, const QList<UserText>& arguments = {});

    QString english;
    QString shown;
};

} // namespace plinkora
