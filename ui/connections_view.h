#pragma once

#include <QWidget>

class QLabel;
class QListWidget;
class QListWidgetItem;

namespace plinkora {

class ConnectionKeeper;

/// The Connections section of the preferences: the heading "Connections" and a list of the MIDI
/// inputs of the system (and the built-in synthesizer), each with a check box that says whether
/// PLK is connected to it. Keyboard: the arrow keys move, Space connects or disconnects. Each
/// entry's accessible name is its name and its state ("fluidsynth:midi_00, connected"), so that
/// a screen reader says both; the change itself is announced by the keeper. Follows the keeper
/// while it lives. Main thread only.
class ConnectionsView final : public QWidget
{
    Q_OBJECT

public:
    ConnectionsView(ConnectionKeeper& keeper, QWidget* parent);
    ~ConnectionsView() override;

    ConnectionsView() = delete;
    ConnectionsView(const ConnectionsView&) = delete;
    ConnectionsView& operator=(const ConnectionsView&) = delete;

    static constexpr const char* kHeading = QT_TR_NOOP("Connections");

    QLabel* headingLabel() const { return heading_; }
    QListWidget* list() const { return list_; }

    /// Shows the keeper's entries again, keeping the current row where it can.
    void updateList();

private:
    void itemToggled(QListWidgetItem* item);

    ConnectionKeeper& keeper_;
    QLabel* heading_ = nullptr;
    QListWidget* list_ = nullptr;
};

} // namespace plinkora
