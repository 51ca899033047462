#pragma once

#include <QTimer>
#include <QWidget>

#include <cstdint>

class QLabel;

namespace plinkora {

class KeyboardMonitor;

/// The main window's content: the title, the "MIDI Device Active" line, four live status lines
/// (octave, velocity, pitch bend, modulation) refreshed ten times a second from the keyboard
/// monitor, and the playing instructions. Takes keyboard focus whenever it is placed in a
/// window. Plays nothing and handles no key itself. Main thread only.
class KeyboardView final : public QWidget
{
    Q_OBJECT

public:
    /// Builds the labels and starts the 100 ms refresh timer.
    explicit KeyboardView(KeyboardMonitor& keyboardMonitor);
    /// Stops the refresh timer first.
    ~KeyboardView() override;

    KeyboardView() = delete;
    explicit KeyboardView(QWidget* parent) = delete;
    KeyboardView(const KeyboardView&) = delete;
    KeyboardView& operator=(const KeyboardView&) = delete;

    /// The sixteen lines of the playing instructions, with the platform's shortcut modifier
    /// ("Ctrl", or "Cmd" on macOS).
    static QString instructionsText();

    /// The refresh interval in milliseconds.
    static constexpr int kRefreshIntervalMs = 100;
    /// The fixed accessible name of the view, which has the keyboard focus while playing.
    static constexpr const char* kAccessibleName = QT_TR_NOOP("Plinkora keyboard");
    static constexpr int kDesignWidth = 600;
    static constexpr int kDesignHeight = 400;

    /// One refresh: reads the monitor and its bender controller into the four status lines.
    /// Texts are set and the lines placed again only for values that changed since the last
    /// refresh, so an idle refresh repaints nothing.
    void updateDisplay();

    /// The size the layout is drawn for, 600 by 400; taller only when the desktop's fonts need
    /// more height for every line of the instructions to show (see contentHeight).
    QSize sizeHint() const override;
    /// The height the labels take at `width`: down to the last line of the instructions (or of
    /// the modulation line, were it lower).
    int contentHeight(int width) const;

    QLabel* titleLabel() const { return titleLabel_; }
    QLabel* statusLabel() const { return statusLabel_; }
    QLabel* octaveLabel() const { return octaveLabel_; }
    QLabel* velocityLabel() const { return velocityLabel_; }
    QLabel* pitchBendLabel() const { return pitchBendLabel_; }
    QLabel* modulationLabel() const { return modulationLabel_; }
    QLabel* instructionsLabel() const { return instructionsLabel_; }
    const QTimer& updateTimer() const { return updateTimer_; }

protected:
    bool event(QEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private:
    void setupUI();
    void startUpdateTimer();
    /// Places the labels by the layout's anchors (see the .cpp).
    void layoutLabels();
    /// Places the four status lines again (their widths follow their texts).
    void layoutStatusLines();
    /// Makes this view its window's focus widget, when it is inside a window.
    void takeFocusInWindow();

    KeyboardMonitor& keyboardMonitor_;
    QLabel* titleLabel_ = nullptr;
    QLabel* statusLabel_ = nullptr;
    QLabel* instructionsLabel_ = nullptr;
    QLabel* octaveLabel_ = nullptr;
    QLabel* velocityLabel_ = nullptr;
    QLabel* pitchBendLabel_ = nullptr;
    QLabel* modulationLabel_ = nullptr;
    QTimer updateTimer_;

    /// The values the four status lines show (their initial texts until the first refresh).
    struct ShownValues
    {
        std::int64_t octave = 4;
        std::int64_t velocity = 80;
        std::int64_t pitch = 0;
        std::int64_t modulation = 0;
        bool operator==(const ShownValues&) const = default;
    };
    ShownValues shown_;
};

} // namespace plinkora
