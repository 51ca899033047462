#include "ui/preferences_window.h"

#include "benders/bender_controller.h"
#include "common/settings_store.h"
#include "input/function_key_config.h"
#include "synth/built_in_synth.h"
#include "ui/connections_view.h"
#include "ui/design_fonts.h"
#include "ui/preference_controls.h"

#include <QAccessibleWidget>
#include <QCloseEvent>
#include <QComboBox>
#include <QFileDialog>
#include <QFileInfo>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QScreen>
#include <QVBoxLayout>

#include <cstdio>
#include <optional>

namespace plinkora {

namespace {

/// The frames are drawn bottom-up (y from the parent's bottom edge); Qt counts from the top.
QRect frameInParent(int x, int y, int width, int height, int parentHeight)
{
    return {x, parentHeight - y - height, width, height};
}

/// A speed as the window shows it: C's "%.0f" (no decimals, the C library's rounding).
QString speedText(double speed)
{
    char buffer[400]; // room for the largest finite double in full
    std::snprintf(buffer, sizeof buffer, "%.0f", speed);
    return QString::fromLatin1(buffer);
}

/// The window's role for screen readers: a window (Qt gives a plain QWidget "client", which
/// AT-SPI presents as "filler").
QAccessibleInterface* preferencesWindowAccessibility(const QString& className, QObject* object)
{
    if (className == QLatin1String(PreferencesWindow::staticMetaObject.className())) {
        if (auto* window = qobject_cast<PreferencesWindow*>(object))
            return new QAccessibleWidget(window, QAccessible::Window);
    }
    return nullptr;
}

QLabel* makeLabel(const QString& text, QWidget* parent, const QRect& frame)
{
    auto* label = new QLabel(text, parent);
    label->setTextFormat(Qt::PlainText);
    label->setTextInteractionFlags(Qt::NoTextInteraction);
    label->setGeometry(frame);
    return label;
}

constexpr int kBenderGroupHeight = 190;
constexpr int kFunctionKeyGroupHeight = 162;

} // namespace

PreferencesWindow::PreferencesWindow(BenderController& benderController, SettingsStore& settings,
                                     ConnectionKeeper* connections)
    : QWidget(nullptr,
              Qt::Window | Qt::CustomizeWindowHint | Qt::WindowTitleHint | Qt::WindowSystemMenuHint
                  | Qt::WindowCloseButtonHint)
    , benderController_(benderController)
    , settings_(settings)
{
    static const bool accessibilityInstalled = [] {
        QAccessible::installFactory(preferencesWindowAccessibility);
        return true;
    }();
    (void)accessibilityInstalled;
    setWindowTitle(tr("Preferences"));
    // Titled and closable, neither resizable nor minimisable.
    setFixedSize(kWidth, kHeight + kAudioRowHeight + (connections ? kConnectionsHeight : 0));
    // Closing hides the window; its owner deletes it when told by `closed`.
    setAttribute(Qt::WA_DeleteOnClose, false);
    setBackgroundRole(QPalette::Window);
    setAutoFillBackground(true);
    setupUI();
    if (connections)
        setupConnections(*connections);
    // Centred on the screen.
    if (const QScreen* where = screen())
        move(where->availableGeometry().center() - QPoint(kWidth / 2, height() / 2));
}

PreferencesWindow::~PreferencesWindow()
{
    // No control reaches the window while it is torn down: the sliders first, then the fields.
    for (QWidget* slider : {static_cast<QWidget*>(pitchSpeedSlider_), static_cast<QWidget*>(modSpeedSlider_)}) {
        slider->disconnect(this);
        slider->removeEventFilter(this);
    }
    for (QLineEdit* field : ccFields_) {
        field->disconnect(this);
        field->removeEventFilter(this);
    }
    if (connectionsView_)
        connectionsView_->list()->removeEventFilter(this);
}

void PreferencesWindow::setupUI()
{
    setupBenderGroup();
    setupFunctionKeyGroup();
    setupSoundFontRow();
    setupAudioDeviceRow();

    // The whole window by keyboard: the two sliders, then F1 to F4.
    setTabOrder(pitchSpeedSlider_, modSpeedSlider_);
    setTabOrder(modSpeedSlider_, ccFields_[0]);
    for (std::size_t i = 1; i < ccFields_.size(); ++i)
        setTabOrder(ccFields_[i - 1], ccFields_[i]);
    setTabOrder(ccFields_.back(), soundFontButton_);
    setTabOrder(soundFontButton_, audioDeviceBox_);

    // The close key is the window's: it is looked at before the focused control, which might
    // otherwise take Ctrl+Alt+W as a typed character.
    pitchSpeedSlider_->installEventFilter(this);
    modSpeedSlider_->installEventFilter(this);
    for (QLineEdit* field : ccFields_)
        field->installEventFilter(this);
    audioDeviceBox_->installEventFilter(this);
}

void PreferencesWindow::setupConnections(ConnectionKeeper& keeper)
{
    // Below the function keys, the sound font and the audio device, in the added height.
    constexpr int top = kHeight - 30 + kAudioRowHeight;
    auto* group = new SettingsGroup(ConnectionsView::tr(ConnectionsView::kHeading), this);
    group->setGeometry(0, top, kWidth, kHeight + kAudioRowHeight + kConnectionsHeight - top);
    auto* layout = new QVBoxLayout(group);
    layout->setContentsMargins(0, 0, 0, 0);
    connectionsView_ = new ConnectionsView(keeper, group);
    layout->addWidget(connectionsView_);

    setTabOrder(audioDeviceBox_, connectionsView_->list());
    connectionsView_->list()->installEventFilter(this);
}

void PreferencesWindow::setupBenderGroup()
{
    constexpr int h = kBenderGroupHeight;
    benderGroup_ = new SettingsGroup(tr("Bender Settings"), this);
    benderGroup_->setGeometry(frameInParent(0, 260, 400, h, kHeight));

    QLabel* heading = makeLabel(tr("Bender Settings"), benderGroup_, frameInParent(20, 140, 360, 30, h));
    heading->setFont(designfonts::systemFont(18, QFont::Bold));

    const auto speedRow = [this](const QString& caption, int rowY, double speed, QLabel*& valueLabel,
                                 SpeedSlider*& slider, const QString& sliderName) {
        QLabel* captionLabel = makeLabel(caption, benderGroup_, frameInParent(20, rowY, 150, 20, h));
        captionLabel->setFont(designfonts::systemFont(14));

        valueLabel = makeLabel(speedText(speed), benderGroup_, frameInParent(320, rowY, 60, 20, h));
        valueLabel->setFont(designfonts::monospacedFont(14));
        valueLabel->setAlignment(Qt::AlignRight | Qt::AlignVCenter);

        slider = new SpeedSlider(kMinimumSpeed, kMaximumSpeed, benderGroup_);
        slider->setGeometry(frameInParent(20, rowY - 30, 360, 25, h));
        slider->setAccessibleName(sliderName);
        // Setting the start value is not a user's move: nothing is applied or stored.
        slider->setDoubleValue(speed);
    };
    speedRow(tr("Pitch Bend Speed:"), 100, benderController_.pitchBendSpeed, pitchSpeedLabel_, pitchSpeedSlider_,
             tr("Pitch Bend Speed"));
    speedRow(tr("Modulation Speed:"), 30, benderController_.modulationSpeed, modSpeedLabel_, modSpeedSlider_,
             tr("Modulation Speed"));

    // Sliders report while dragged (Qt's default, tracking), as the user moves them.
    connect(pitchSpeedSlider_, &QSlider::valueChanged, this, &PreferencesWindow::pitchSpeedChanged);
    connect(modSpeedSlider_, &QSlider::valueChanged, this, &PreferencesWindow::modSpeedChanged);
}

void PreferencesWindow::setupFunctionKeyGroup()
{
    constexpr int h = kFunctionKeyGroupHeight;
    functionKeyGroup_ = new SettingsGroup(tr("Function Key MIDI Controllers"), this);
    // Its top edge lies 10 inside the bottom of the bender group, as drawn.
    functionKeyGroup_->setGeometry(frameInParent(0, 108, 400, h, kHeight));

    QLabel* heading = makeLabel(tr("Function Key MIDI Controllers"), functionKeyGroup_,
                                frameInParent(20, 132, 360, 30, h));
    heading->setFont(designfonts::systemFont(18, QFont::Bold));

    using Handler = void (PreferencesWindow::*)();
    const std::array<Handler, 4> handlers{&PreferencesWindow::f1CCChanged, &PreferencesWindow::f2CCChanged,
                                          &PreferencesWindow::f3CCChanged, &PreferencesWindow::f4CCChanged};
    for (int n = 1; n <= 4; ++n) {
        const int index = n - 1;
        const int rowY = 100 - 30 * index;
        QLabel* caption = makeLabel(tr("F%1 CC:").arg(n), functionKeyGroup_, frameInParent(20, rowY + 2, 80, 20, h));
        caption->setAlignment(Qt::AlignRight | Qt::AlignVCenter);

        auto* field = new QLineEdit(storedCCText(index), functionKeyGroup_);
        field->setGeometry(frameInParent(110, rowY, 60, 24, h));
        // The caption is not the field's buddy: a buddy becomes the field's "labelled by"
        // relation, which screen readers read instead of the accessible name.
        field->setAccessibleName(tr("F%1 MIDI CC number").arg(n));
        ccFields_[static_cast<std::size_t>(index)] = field;

        // Return commits what is typed, as the field's action. Leaving the field (Tab, a click
        // elsewhere, another window, closing) commits it too, but only when the user changed
        // the text, so that what the field shows is what is stored and a number put back
        // after a rejected entry is never stored by merely leaving.
        connect(field, &QLineEdit::returnPressed, this, handlers[static_cast<std::size_t>(index)]);
        connect(field, &QLineEdit::editingFinished, this, [this, index] { commitIfEdited(index); });
    }
}

void PreferencesWindow::setupSoundFontRow()
{
    // Below the function keys: the built-in synthesizer's sound font and a button to choose one.
    makeLabel(tr("Sound font:"), this, frameInParent(20, 72, 100, 20, kHeight));
    soundFontButton_ = new QPushButton(tr("Choose…"), this);
    soundFontButton_->setGeometry(frameInParent(280, 68, 100, 28, kHeight));
    soundFontButton_->setAccessibleName(tr("Choose sound font"));
    soundFontLabel_ = makeLabel(QString(), this, frameInParent(20, 40, 360, 20, kHeight));
    soundFontLabel_->setAccessibleName(tr("Sound font"));
    soundFontLabel_->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    QString path = settings_.stringForKey(QString::fromLatin1(BuiltInSynth::kSoundFontKey)).trimmed();
    showSoundFont(path.isEmpty() ? QString::fromStdString(BuiltInSynth::defaultSoundFont()) : path);
    connect(soundFontButton_, &QPushButton::clicked, this, &PreferencesWindow::chooseSoundFont);
}

void PreferencesWindow::setupAudioDeviceRow()
{
    // Below the sound font, in the row added under the design's height.
    constexpr int top = kHeight - 32;
    QLabel* caption = makeLabel(tr("Audio device:"), this, QRect(20, top + 4, 100, 20));
    audioDeviceBox_ = new QComboBox(this);
    // On Linux Qt names a combo box by its current entry; screen readers say what it is from
    // its "labelled by" relation, which the caption's buddy gives.
    caption->setBuddy(audioDeviceBox_);
    audioDeviceBox_->setGeometry(130, top, 250, 28);
    audioDeviceBox_->setAccessibleName(tr("Audio device"));
    for (const AudioDriverChoice& choice : audioDriverChoices(FluidEngine::availableDrivers()))
        audioDeviceBox_->addItem(choice.name == kAutomaticAudioDriver ? tr("Automatic")
                                                                      : QString::fromStdString(choice.text),
                                 QString::fromStdString(choice.name));
    const std::string stored = BuiltInSynth::storedAudioDriver(settings_, FluidEngine::availableDrivers());
    const int index = audioDeviceBox_->findData(QString::fromStdString(stored));
    audioDeviceBox_->setCurrentIndex(index >= 0 ? index : 0);
    // A choice by the user only (not the start value); the same entry again tries again.
    connect(audioDeviceBox_, &QComboBox::activated, this,
            [this](int chosen) { emit audioDriverChosen(audioDeviceBox_->itemData(chosen).toString()); });
}

void PreferencesWindow::showSoundFont(const QString& path)
{
    soundFontLabel_->setText(soundFontLabel_->fontMetrics().elidedText(path, Qt::ElideMiddle, 360));
    soundFontLabel_->setToolTip(path);
    soundFontLabel_->setAccessibleDescription(path);
}

void PreferencesWindow::chooseSoundFont()
{
    const QString current = soundFontLabel_->toolTip();
    const QString path = QFileDialog::getOpenFileName(
        this, tr("Choose a sound font"), QFileInfo(current).absolutePath(), tr("Sound fonts (*.sf2 *.sf3)"));
    if (path.isEmpty())
        return;
    showSoundFont(path);
    emit soundFontChosen(path);
}

QString PreferencesWindow::storedCCText(int index) const
{
    return QString::number(kFunctionKeyConfig.controllerNumber(settings_, index));
}

void PreferencesWindow::pitchSpeedChanged()
{
    const double speed = pitchSpeedSlider_->doubleValue();
    benderController_.pitchBendSpeed = speed;
    pitchSpeedLabel_->setText(speedText(speed));
    settings_.setDouble(speed, QString::fromLatin1(BenderController::kPitchBendSpeedKey));
}

void PreferencesWindow::modSpeedChanged()
{
    const double speed = modSpeedSlider_->doubleValue();
    benderController_.modulationSpeed = speed;
    modSpeedLabel_->setText(speedText(speed));
    settings_.setDouble(speed, QString::fromLatin1(BenderController::kModulationSpeedKey));
}

void PreferencesWindow::f1CCChanged()
{
    ccChanged(0);
}

void PreferencesWindow::f2CCChanged()
{
    ccChanged(1);
}

void PreferencesWindow::f3CCChanged()
{
    ccChanged(2);
}

void PreferencesWindow::f4CCChanged()
{
    ccChanged(3);
}

void PreferencesWindow::ccChanged(int index)
{
    QLineEdit* field = ccField(index);
    const std::optional<QString> putBack = kFunctionKeyConfig.storeTypedText(settings_, index, field->text());
    // Rejected: show the stored number again, silently (no sound, no message).
    if (putBack)
        field->setText(*putBack);
    // Committed either way: leaving the field now changes nothing.
    field->setModified(false);
}

void PreferencesWindow::commitIfEdited(int index)
{
    if (ccField(index)->isModified())
        ccChanged(index);
}

bool PreferencesWindow::isCloseKey(const QKeyEvent& event)
{
    // Ctrl+W (Command+W on macOS) closes, also with Alt or Meta held; with Shift it is a
    // capital W and does not.
    return event.type() == QEvent::KeyPress && (event.modifiers() & Qt::ControlModifier)
        && !(event.modifiers() & Qt::ShiftModifier) && event.key() == Qt::Key_W;
}

bool PreferencesWindow::eventFilter(QObject* watched, QEvent* event)
{
    if (event->type() == QEvent::KeyPress && isCloseKey(*static_cast<QKeyEvent*>(event))) {
        event->accept();
        close();
        return true;
    }
    return QWidget::eventFilter(watched, event);
}

void PreferencesWindow::keyPressEvent(QKeyEvent* event)
{
    if (isCloseKey(*event)) {
        event->accept();
        close();
        return;
    }
    QWidget::keyPressEvent(event);
}

void PreferencesWindow::closeEvent(QCloseEvent* event)
{
    QWidget::closeEvent(event);
    if (event->isAccepted())
        emit closed();
}

} // namespace plinkora
