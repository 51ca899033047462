#include "ui/connections_view.h"

#include "midi/connection_keeper.h"
#include "ui/design_fonts.h"

#include <QLabel>
#include <QListWidget>
#include <QSignalBlocker>
#include <QVBoxLayout>

namespace plinkora {

namespace {

constexpr int kNameRole = Qt::UserRole;

/// The entry's name as the user reads it.
QString name(const ConnectionEntry& entry)
{
    return ConnectionKeeper::shownName(entry.name);
}

/// What a screen reader says for the entry: its name and its state.
QString spokenText(const ConnectionEntry& entry)
{
    switch (entry.kind) {
    case ConnectionEntry::Kind::Synth:
        return (entry.checked ? ConnectionsView::tr("%1, playing") : ConnectionsView::tr("%1, off")).arg(name(entry));
    case ConnectionEntry::Kind::Absent:
        return ConnectionsView::tr("%1, remembered, not there now").arg(name(entry));
    case ConnectionEntry::Kind::Destination:
        break;
    }
    return (entry.checked ? ConnectionsView::tr("%1, connected") : ConnectionsView::tr("%1, not connected"))
        .arg(name(entry));
}

/// What the entry shows beside its check box.
QString shownText(const ConnectionEntry& entry)
{
    if (entry.kind == ConnectionEntry::Kind::Absent)
        return ConnectionsView::tr("%1 (not there now)").arg(name(entry));
    return name(entry);
}

} // namespace

ConnectionsView::ConnectionsView(ConnectionKeeper& keeper, QWidget* parent)
    : QWidget(parent)
    , keeper_(keeper)
{
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(20, 0, 20, 10);

    heading_ = new QLabel(tr(kHeading), this);
    heading_->setFont(designfonts::systemFont(18, QFont::Bold));
    layout->addWidget(heading_);

    list_ = new QListWidget(this);
    list_->setAccessibleName(tr(kHeading));
    list_->setAccessibleDescription(
        tr("The MIDI inputs PLK can play into. Space connects or disconnects the selected one."));
    list_->setSelectionMode(QAbstractItemView::SingleSelection);
    list_->setTabKeyNavigation(false);
    heading_->setBuddy(list_);
    layout->addWidget(list_, 1);

    connect(list_, &QListWidget::itemChanged, this, &ConnectionsView::itemToggled);
    // Queued: the list is rebuilt after the check box's own handling has finished.
    connect(&keeper_, &ConnectionKeeper::changed, this, &ConnectionsView::updateList, Qt::QueuedConnection);
    updateList();
}

ConnectionsView::~ConnectionsView()
{
    keeper_.disconnect(this);
}

void ConnectionsView::updateList()
{
    const std::vector<ConnectionEntry> entries = keeper_.entries();
    const QSignalBlocker blocker(list_);
    const QString current = list_->currentItem() ? list_->currentItem()->data(kNameRole).toString() : QString();

    while (list_->count() > static_cast<int>(entries.size()))
        delete list_->takeItem(list_->count() - 1);
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const ConnectionEntry& entry = entries[i];
        const int row = static_cast<int>(i);
        QListWidgetItem* item = list_->item(row);
        if (!item) {
            item = new QListWidgetItem(list_);
            item->setFlags(Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsUserCheckable);
        }
        item->setText(shownText(entry));
        item->setData(kNameRole, entry.name);
        item->setData(Qt::AccessibleTextRole, spokenText(entry));
        item->setCheckState(entry.checked ? Qt::Checked : Qt::Unchecked);
        if (entry.name == current)
            list_->setCurrentRow(row);
    }
    if (!list_->currentItem() && list_->count() > 0)
        list_->setCurrentRow(0);
}

void ConnectionsView::itemToggled(QListWidgetItem* item)
{
    // Only the check box is editable: any change of the item is the user's choice.
    keeper_.setConnected(item->data(kNameRole).toString(), item->checkState() == Qt::Checked);
}

} // namespace plinkora
