#include "common/user_text.h"

#include <QCoreApplication>

namespace plinkora {

namespace {
/// All at once, so that a name holding "%2" stays as it is.
QString filledIn(const QString& text, const QList<UserText>& arguments, QString UserText::*form)
{
    const auto at = [&](qsizetype i) -> const QString& { return arguments[i].*form; };
    switch (arguments.size()) {
    case 0:
        return text;
    case 1:
        return text.arg(at(0));
    case 2:
        return text.arg(at(0), at(1));
    default:
        Q_ASSERT(arguments.size() == 3);
        return text.arg(at(0), at(1), at(2));
    }
}
} // namespace

UserText UserText::announcement(const char* source, const QList<UserText>& arguments)
{
    return translated("Announcement", source, arguments);
}

UserText UserText::translated(const char* context, const char* source, const QList<UserText>& arguments)
{
    return {filledIn(QString::fromUtf8(source), arguments, &UserText::english),
            filledIn(QCoreApplication::translate(context, source), arguments, &UserText::shown)};
}

} // namespace plinkora
