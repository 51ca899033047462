#pragma once

#include <QWidget>

#include <array>

class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;

namespace plinkora {

class BenderController;
class ConnectionKeeper;
class ConnectionsView;
class SettingsGroup;
class SettingsStore;
class SpeedSlider;

/// The settings window (400 by 484, titled "Preferences", not resizable): the two bender
/// speeds on sliders, applied to the bender controller at once and saved, and the controller
/// numbers of F1 to F4 in text fields, saved when committed (invalid entries are silently put
/// back); below them the built-in synthesizer's sound font and audio device. Ctrl+W (Command+W on macOS) closes it. It
/// does not delete itself when closed: it emits `closed` and its owner drops it. Main thread only.
class PreferencesWindow final : public QWidget
{
    Q_OBJECT

public:
    /// Builds the window with the controller's speeds and the stored controller numbers of this
    /// moment. A stored controller number outside 0 to 255 stops the program.
    /// With `connections`, the window is kConnectionsHeight taller and shows the Connections
    /// section below the function keys.
    PreferencesWindow(BenderController& benderController, SettingsStore& settings,
                      ConnectionKeeper* connections = nullptr);
    ~PreferencesWindow() override;

    PreferencesWindow() = delete;
    explicit PreferencesWindow(QWidget* parent) = delete;
    PreferencesWindow(const PreferencesWindow&) = delete;
    PreferencesWindow& operator=(const PreferencesWindow&) = delete;

    static constexpr int kWidth = 400;
    /// The height of the design's part, above the audio device row.
    static constexpr int kHeight = 450;
    static constexpr int kAudioRowHeight = 34;
    static constexpr int kConnectionsHeight = 230;
    static constexpr double kMinimumSpeed = 20.0;
    static constexpr double kMaximumSpeed = 500.0;

    SpeedSlider* pitchSpeedSlider() const { return pitchSpeedSlider_; }
    SpeedSlider* modSpeedSlider() const { return modSpeedSlider_; }
    QLabel* pitchSpeedLabel() const { return pitchSpeedLabel_; }
    QLabel* modSpeedLabel() const { return modSpeedLabel_; }
    /// The field of function key `index` (0 = F1 ... 3 = F4).
    QLineEdit* ccField(int index) const { return ccFields_.at(static_cast<std::size_t>(index)); }
    SettingsGroup* benderGroup() const { return benderGroup_; }
    SettingsGroup* functionKeyGroup() const { return functionKeyGroup_; }
    QPushButton* soundFontButton() const { return soundFontButton_; }
    QLabel* soundFontLabel() const { return soundFontLabel_; }
    /// Shows `path` as the built-in synthesizer's sound font (what choosing one does, too).
    void showSoundFont(const QString& path);
    /// The built-in synthesizer's audio device: "Automatic", then the outputs of FluidSynth;
    /// each entry's data is the name stored in the setting "AudioDriver".
    QComboBox* audioDeviceBox() const { return audioDeviceBox_; }
    /// The Connections section; null without a connection keeper.
    ConnectionsView* connectionsView() const { return connectionsView_; }

signals:
    /// The window was closed (close button, Ctrl+W or close()); the owner may now delete it.
    void closed();
    /// The user chose a sound font file for the built-in synthesizer (.sf2 or .sf3).
    void soundFontChosen(const QString& path);
    /// The user chose an audio device for the built-in synthesizer ("auto" or a driver's name);
    /// also when it is the one chosen before, so that a failed device is tried again.
    void audioDriverChosen(const QString& name);

protected:
    /// Sees the key presses of the window's controls first, as a window-level key equivalent.
    bool eventFilter(QObject* watched, QEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private slots:
    void pitchSpeedChanged();
    void modSpeedChanged();
    void f1CCChanged();
    void f2CCChanged();
    void f3CCChanged();
    void f4CCChanged();

private:
    void setupUI();
    void setupBenderGroup();
    void setupFunctionKeyGroup();
    void setupSoundFontRow();
    void chooseSoundFont();
    void setupAudioDeviceRow();
    void setupConnections(ConnectionKeeper& keeper);
    /// Applies the text of field `index` by the function keys' write rule.
    void ccChanged(int index);
    /// Commits field `index` when the user edited it since it was last filled or committed.
    void commitIfEdited(int index);
    /// True for the close key: a key press of W with Ctrl (Command on macOS) held and Shift
    /// not held; Alt and Meta do not matter.
    static bool isCloseKey(const QKeyEvent& event);
    /// The text field `index` shows when filled from the settings.
    QString storedCCText(int index) const;

    BenderController& benderController_;
    SettingsStore& settings_;
    SettingsGroup* benderGroup_ = nullptr;
    SettingsGroup* functionKeyGroup_ = nullptr;
    SpeedSlider* pitchSpeedSlider_ = nullptr;
    QLabel* pitchSpeedLabel_ = nullptr;
    SpeedSlider* modSpeedSlider_ = nullptr;
    QLabel* modSpeedLabel_ = nullptr;
    QPushButton* soundFontButton_ = nullptr;
    QLabel* soundFontLabel_ = nullptr;
    QComboBox* audioDeviceBox_ = nullptr;
    std::array<QLineEdit*, 4> ccFields_{};
    ConnectionsView* connectionsView_ = nullptr;
};

} // namespace plinkora
