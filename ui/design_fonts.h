#pragma once

#include <QFont>

namespace plinkora {

/// The fonts of Plinkora's windows. Sizes are given in the same unit as the windows' sizes
/// (the main window's content is 600 by 400, the preferences 400 by 450): device-independent
/// pixels. So a 12 unit font keeps the proportions the layout was drawn for, whatever the
/// screen's resolution, and the instructions fit the window as intended.
namespace designfonts {

/// The desktop's user-interface font at `size`, with `weight`.
QFont systemFont(int size, QFont::Weight weight = QFont::Normal);

/// The desktop's fixed-width font at `size`, with `weight`.
QFont monospacedFont(int size, QFont::Weight weight = QFont::Normal);

/// Loads the two fonts and the font configuration behind them, which the first window would
/// otherwise load as it is made. Needs the QApplication.
void loadFonts();

} // namespace designfonts
} // namespace plinkora
