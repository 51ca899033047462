#include "ui/keyboard_view.h"

#include "benders/bender_controller.h"
#include "common/diagnostics.h"
#include "input/keyboard_monitor.h"
#include "midi/midi_message.h"
#include "ui/design_fonts.h"

#include <QEvent>
#include <QLabel>
#include <QPalette>
#include <QStringList>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

namespace plinkora {

namespace {

QString statusText()
{
    return QStringLiteral("\u2713 ") + KeyboardView::tr("MIDI Device Active");
}

/// The shortcut modifier as the instructions name it: the Command key on macOS, Ctrl elsewhere.
QString shortcutModifierName()
{
#ifdef Q_OS_MACOS
    return KeyboardView::tr("Cmd");
#else
    return KeyboardView::tr("Ctrl");
#endif
}

/// The green of the "MIDI Device Active" line: a dark green on a light window, a light green on
/// a dark one, so that it stays readable (contrast above 4.5:1) in either theme.
QColor activeGreen(const QPalette& palette)
{
    return palette.color(QPalette::Window).lightness() >= 128 ? QColor(0x15, 0x70, 0x30) : QColor(0x4c, 0xd9, 0x64);
}

/// `value` truncated toward zero; a value that is not finite or does not fit a signed 64-bit
/// integer stops the program.
std::int64_t truncatedOrFatal(double value, const char* what)
{
    // -2^63 is exact in a double; 2^63 is the first value that no longer fits.
    if (!std::isfinite(value) || value >= 0x1p63 || value < -0x1p63) {
        fatal(QStringLiteral("the %1 value %2 cannot be shown as a whole number")
                  .arg(QLatin1String(what), QString::number(value, 'g', 17))
                  .toStdString());
    }
    return static_cast<std::int64_t>(value);
}

QLabel* makeLabel(QWidget* parent, const QString& text, const QFont& font, Qt::Alignment alignment)
{
    auto* label = new QLabel(text, parent);
    label->setFont(font);
    label->setAlignment(alignment);
    label->setTextInteractionFlags(Qt::NoTextInteraction);
    label->setTextFormat(Qt::PlainText);
    return label;
}

} // namespace

KeyboardView::KeyboardView(KeyboardMonitor& keyboardMonitor)
    : QWidget(nullptr)
    , keyboardMonitor_(keyboardMonitor)
{
    setupUI();
    startUpdateTimer();
}

KeyboardView::~KeyboardView()
{
    // No tick may reach a view that is being torn down.
    updateTimer_.stop();
    updateTimer_.disconnect(this);
}

QString KeyboardView::instructionsText()
{
    const QStringList lines{
        tr("KEYBOARD LAYOUT:"),
        QString(),
        tr("Number Keys (1-9, 0): Change octave"),
        QString(),
        tr("Piano Keys:"),
        tr("  W E   T Y U   O P   ]: Black keys (sharps)"),
        tr("A S D F G H J K L ; ` ': White keys"),
        tr("Q R I [ \\: Extended (G# A A# B C)"),
        QString(),
        tr("Velocity: Z=20  X=40  C=60  V=80  B=100  N=115  M=120  ,=127"),
        QString(),
        tr("Benders:"),
        tr("Up/down: Pitch Bend,  left/right: Modulation, period: Toggle Pitch Auto-Release, "
           "slash: Toggle Mod Auto-Release."),
        QString(),
        tr("This app appears as \"PLK\" in other MIDI applications."),
        tr("Keep this window focused to play. %1+Q to quit, %1+, for preferences.").arg(shortcutModifierName()),
    };
    return lines.join(QLatin1Char('\n'));
}

QSize KeyboardView::sizeHint() const
{
    return {kDesignWidth, std::max(kDesignHeight, contentHeight(kDesignWidth))};
}

int KeyboardView::contentHeight(int width) const
{
    const int statusBottom = 20 + titleLabel_->sizeHint().height() + 10 + statusLabel_->sizeHint().height();
    const int pitchBottom = statusBottom + 20 + octaveLabel_->sizeHint().height() + 10
        + pitchBendLabel_->sizeHint().height();
    const int modBottom = statusBottom + 20 + velocityLabel_->sizeHint().height() + 10
        + modulationLabel_->sizeHint().height();
    const int instructionsBottom = pitchBottom + 20 + instructionsLabel_->heightForWidth(std::max(0, width - 80));
    return std::max(instructionsBottom, modBottom);
}

void KeyboardView::setupUI()
{
    // The window's background colour behind every label.
    setBackgroundRole(QPalette::Window);
    setAutoFillBackground(true);

    // The view itself holds the keyboard focus while the user plays. Its name stays fixed:
    // renaming the focused object makes screen readers misread it. The live values are on the
    // labels.
    setFocusPolicy(Qt::StrongFocus);
    setAccessibleName(tr(kAccessibleName));
    setAccessibleDescription(tr("MIDI Device Active") + QStringLiteral(". ")
                             + instructionsText().section(QLatin1Char('\n'), -1));

    using designfonts::monospacedFont;
    using designfonts::systemFont;
    titleLabel_ = makeLabel(this, tr("Plinkora"), systemFont(24, QFont::Bold), Qt::AlignCenter);
    statusLabel_ = makeLabel(this, statusText(), systemFont(14), Qt::AlignCenter);
    QPalette statusPalette = statusLabel_->palette();
    statusPalette.setColor(QPalette::WindowText, activeGreen(palette()));
    statusLabel_->setPalette(statusPalette);
    octaveLabel_ = makeLabel(this, tr("Octave: %1").arg(4), monospacedFont(16, QFont::Medium), Qt::AlignCenter);
    velocityLabel_ = makeLabel(this, tr("Velocity: %1").arg(80), monospacedFont(16, QFont::Medium), Qt::AlignCenter);
    pitchBendLabel_ = makeLabel(this, tr("Pitch: %1").arg(0), monospacedFont(14), Qt::AlignCenter);
    modulationLabel_ = makeLabel(this, tr("Mod: %1").arg(0), monospacedFont(14), Qt::AlignCenter);
    instructionsLabel_ = makeLabel(this, instructionsText(), monospacedFont(12), Qt::AlignLeft | Qt::AlignTop);
    instructionsLabel_->setWordWrap(true);

    resize(sizeHint());
    layoutLabels();
}

void KeyboardView::startUpdateTimer()
{
    updateTimer_.setInterval(kRefreshIntervalMs);
    updateTimer_.setSingleShot(false);
    // The view is the context: the connection dies with it.
    connect(&updateTimer_, &QTimer::timeout, this, &KeyboardView::updateDisplay);
    updateTimer_.start();
}

void KeyboardView::updateDisplay()
{
    const BenderController& bender = *keyboardMonitor_.benderController;
    const std::int64_t bend = truncatedOrFatal(bender.pitchBend, "pitch bend");
    if (bend < std::numeric_limits<std::int64_t>::min() + kPitchBendCentre)
        fatal(
            QStringLiteral("the pitch bend value %1 minus %2 overflows").arg(bend).arg(kPitchBendCentre).toStdString());
    const ShownValues now{keyboardMonitor_.currentOctave, keyboardMonitor_.currentVelocity, bend - kPitchBendCentre,
                          truncatedOrFatal(bender.modulation, "modulation")};
    // Most refreshes find the same values: they build no text, repaint and move nothing.
    if (now == shown_)
        return;
    if (now.octave != shown_.octave)
        octaveLabel_->setText(tr("Octave: %1").arg(now.octave));
    if (now.velocity != shown_.velocity)
        velocityLabel_->setText(tr("Velocity: %1").arg(QString::number(now.velocity)));
    if (now.pitch != shown_.pitch)
        pitchBendLabel_->setText(tr("Pitch: %1").arg(now.pitch));
    if (now.modulation != shown_.modulation)
        modulationLabel_->setText(tr("Mod: %1").arg(now.modulation));
    shown_ = now;

    // The status lines keep their own widths, pinned to the left and right insets.
    layoutStatusLines();
}

// The layout, as anchors (V is this view):
//   title.top = V.top + 20, centred;         status.top = title.bottom + 10, centred;
//   octave.top = status.bottom + 20, left inset 40;  velocity: same top, right inset 40;
//   pitch.top = octave.bottom + 10, left inset 40;   mod.top = velocity.bottom + 10, right inset 40;
//   instructions.top = pitch.bottom + 20, 40 from both sides, as tall as its wrapped text.
// Every other label keeps its own (intrinsic) size.
namespace {
constexpr int kInset = 40;

/// Gives `label` its own size at (x, y); returns its bottom edge.
int place(QLabel* label, int x, int y)
{
    const QSize size = label->sizeHint();
    label->setGeometry(x, y, size.width(), size.height());
    return y + size.height();
}
} // namespace

void KeyboardView::layoutLabels()
{
    const int w = width();
    const int titleBottom = place(titleLabel_, (w - titleLabel_->sizeHint().width()) / 2, 20);
    place(statusLabel_, (w - statusLabel_->sizeHint().width()) / 2, titleBottom + 10);
    layoutStatusLines();

    const int instructionsWidth = std::max(0, w - 2 * kInset);
    instructionsLabel_->setGeometry(kInset, pitchBendLabel_->y() + pitchBendLabel_->height() + 20, instructionsWidth,
                                    instructionsLabel_->heightForWidth(instructionsWidth));
}

void KeyboardView::layoutStatusLines()
{
    const int w = width();
    const int top = statusLabel_->y() + statusLabel_->height() + 20;
    const int octaveBottom = place(octaveLabel_, kInset, top);
    const int velocityBottom = place(velocityLabel_, w - kInset - velocityLabel_->sizeHint().width(), top);
    place(pitchBendLabel_, kInset, octaveBottom + 10);
    place(modulationLabel_, w - kInset - modulationLabel_->sizeHint().width(), velocityBottom + 10);
}

void KeyboardView::takeFocusInWindow()
{
    setFocus(Qt::OtherFocusReason);
}

bool KeyboardView::event(QEvent* event)
{
    switch (event->type()) {
    case QEvent::ParentChange:
        // Placed in a window: become its focus widget. Taken out of one: nothing more.
        if (parentWidget() != nullptr)
            takeFocusInWindow();
        break;
    case QEvent::PaletteChange:
        if (statusLabel_ != nullptr) {
            QPalette statusPalette = statusLabel_->palette();
            statusPalette.setColor(QPalette::WindowText, activeGreen(palette()));
            statusLabel_->setPalette(statusPalette);
        }
        break;
    case QEvent::FontChange:
    case QEvent::StyleChange:
        if (instructionsLabel_ != nullptr)
            layoutLabels();
        break;
    default:
        break;
    }
    return QWidget::event(event);
}

void KeyboardView::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    takeFocusInWindow();
}

void KeyboardView::resizeEvent(QResizeEvent* event)
{
    QWidget::resizeEvent(event);
    layoutLabels();
}

} // namespace plinkora
