#include "ui/design_fonts.h"

#include <QFontDatabase>
#include <QFontMetrics>

namespace plinkora::designfonts {

namespace {
QFont sized(QFont font, int size, QFont::Weight weight)
{
    font.setPixelSize(size);
    font.setWeight(weight);
    return font;
}
} // namespace

QFont systemFont(int size, QFont::Weight weight)
{
    return sized(QFontDatabase::systemFont(QFontDatabase::GeneralFont), size, weight);
}

QFont monospacedFont(int size, QFont::Weight weight)
{
    QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    font.setStyleHint(QFont::Monospace);
    font.setFixedPitch(true);
    return sized(font, size, weight);
}

void loadFonts()
{
    for (const QFont& font : {systemFont(14), systemFont(24, QFont::Bold), monospacedFont(12)})
        (void)QFontMetrics(font).horizontalAdvance(QLatin1Char('M'));
}

} // namespace plinkora::designfonts
