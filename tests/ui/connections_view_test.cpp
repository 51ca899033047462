#include "midi/connection_keeper.h"
#include "support/engine_fixture.h"
#include "support/fake_patchbay.h"
#include "ui/connections_view.h"
#include "ui/preferences_window.h"

#include <QAccessible>
#include <QApplication>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QTest>

#include <memory>

using namespace plinkora;
using namespace plinkora::testing;

namespace {

const MIDIDestination kFluid{"fluidsynth", "midi_00"};
const MIDIDestination kSampler{"sampler", "in_1"};

class ConnectionsViewTest : public EngineFixture
{
protected:
    ConnectionsViewTest()
    {
        patchbay.present = {kFluid, kSampler};
        keeper.connectionsVisible = false;
        keeper.start();
        QCoreApplication::processEvents();
        heard.clear();
    }

    /// The view in a window of its own, shown and active, the list focused.
    ConnectionsView& shownView()
    {
        if (!window_) {
            window_ = std::make_unique<QWidget>();
            view_ = new ConnectionsView(keeper, window_.get());
            window_->resize(400, 250);
            view_->resize(400, 250);
            window_->show();
            EXPECT_TRUE(QTest::qWaitForWindowActive(window_.get()));
            view_->list()->setFocus();
        }
        return *view_;
    }

    QAccessibleInterface* accessibleList() { return QAccessible::queryAccessibleInterface(shownView().list()); }

    FakePatchbay patchbay;
    StubSynthControl synth;
    QStringList heard;
    ConnectionKeeper keeper{
        patchbay, settings, [this](const UserText& text) { heard << text.shown; }, &synth, QStringLiteral("jack"),
        true};
    std::unique_ptr<QWidget> window_;
    ConnectionsView* view_ = nullptr;
};

} // namespace

TEST_F(ConnectionsViewTest, TheListIsNamedConnectionsAndEachEntrySaysItsNameAndState)
{
    QAccessibleInterface* list = accessibleList();
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->role(), QAccessible::List);
    EXPECT_EQ(list->text(QAccessible::Name), "Connections");
    EXPECT_EQ(shownView().headingLabel()->text(), "Connections");
    EXPECT_EQ(shownView().headingLabel()->buddy(), shownView().list());

    ASSERT_EQ(list->childCount(), 3);
    const QStringList expected{"Built-in synthesizer, playing", "fluidsynth:midi_00, not connected",
                               "sampler:in_1, not connected"};
    for (int i = 0; i < 3; ++i) {
        QAccessibleInterface* entry = list->child(i);
        ASSERT_NE(entry, nullptr);
        EXPECT_EQ(entry->role(), QAccessible::ListItem);
        EXPECT_EQ(entry->text(QAccessible::Name), expected[i]);
        EXPECT_TRUE(entry->state().checkable);
        EXPECT_EQ(bool(entry->state().checked), i == 0);
    }
}

TEST_F(ConnectionsViewTest, ArrowKeysMoveAndSpaceConnectsAndDisconnects)
{
    QListWidget* list = shownView().list();
    EXPECT_EQ(list->currentRow(), 0);
    QTest::keyClick(list, Qt::Key_Down);
    EXPECT_EQ(list->currentRow(), 1);

    QTest::keyClick(list, Qt::Key_Space);
    EXPECT_TRUE(patchbay.isConnected(kFluid));
    EXPECT_EQ(heard, QStringList{"Connected to fluidsynth:midi_00"});
    EXPECT_EQ(keeper.remembered(), QStringList{"fluidsynth:midi_00"});
    QCoreApplication::processEvents();
    EXPECT_EQ(list->currentRow(), 1) << "the list keeps its place when it is shown again";
    EXPECT_EQ(list->item(1)->checkState(), Qt::Checked);
    EXPECT_EQ(accessibleList()->child(1)->text(QAccessible::Name), "fluidsynth:midi_00, connected");

    QTest::keyClick(list, Qt::Key_Space);
    EXPECT_FALSE(patchbay.isConnected(kFluid));
    EXPECT_EQ(heard.last(), "fluidsynth:midi_00 disconnected");
    EXPECT_TRUE(keeper.remembered().isEmpty());
}

TEST_F(ConnectionsViewTest, TheListFollowsInputsThatComeAndGoAndOutsideConnections)
{
    QListWidget* list = shownView().list();
    patchbay.add({"ardour", "midi in"});
    patchbay.connectFromOutside(kSampler);
    QCoreApplication::processEvents();
    QCoreApplication::processEvents();
    ASSERT_EQ(list->count(), 4);
    EXPECT_EQ(list->item(3)->text(), "ardour:midi in");
    EXPECT_EQ(list->item(2)->checkState(), Qt::Checked);

    patchbay.remove(kSampler);
    patchbay.remove({"ardour", "midi in"});
    QCoreApplication::processEvents();
    QCoreApplication::processEvents();
    EXPECT_EQ(list->count(), 2);
}

TEST_F(ConnectionsViewTest, ARememberedInputThatIsNotThereIsListedAndCanBeForgotten)
{
    settings.setStringList({"gone:port"}, QString::fromLatin1(ConnectionKeeper::kConnectionsKey));
    keeper.refresh();
    QListWidget* list = shownView().list();
    ASSERT_EQ(list->count(), 4);
    EXPECT_EQ(list->item(3)->text(), "gone:port (not there now)");
    EXPECT_EQ(accessibleList()->child(3)->text(QAccessible::Name), "gone:port, remembered, not there now");
    list->setCurrentRow(3);
    QTest::keyClick(list, Qt::Key_Space);
    EXPECT_TRUE(keeper.remembered().isEmpty());
    QCoreApplication::processEvents();
    EXPECT_EQ(list->count(), 3);
}

TEST_F(ConnectionsViewTest, ThePreferencesWindowGainsTheSectionAfterTheFunctionKeysAndTheSynthesizer)
{
    PreferencesWindow window(*monitor().benderController, settings, &keeper);
    ASSERT_NE(window.connectionsView(), nullptr);
    EXPECT_EQ(window.height(),
              PreferencesWindow::kHeight + PreferencesWindow::kAudioRowHeight + PreferencesWindow::kConnectionsHeight);
    window.show();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&window));
    window.ccField(3)->setFocus();
    QTest::keyClick(window.ccField(3), Qt::Key_Tab);
    EXPECT_TRUE(window.soundFontButton()->hasFocus()) << "Tab from F4 reaches the sound font button";
    QTest::keyClick(window.soundFontButton(), Qt::Key_Tab);
    EXPECT_TRUE(window.audioDeviceBox()->hasFocus()) << "then the audio device";
    QTest::keyClick(window.audioDeviceBox(), Qt::Key_Tab);
    EXPECT_TRUE(window.connectionsView()->list()->hasFocus()) << "then the list";
    EXPECT_GE(window.connectionsView()->list()->mapTo(&window, QPoint(0, 0)).y(),
              window.audioDeviceBox()->geometry().bottom())
        << "below the audio device";
    const QRect list = window.connectionsView()->list()->geometry();
    EXPECT_GE(list.height(), 100) << "room for several entries";

    PreferencesWindow without(*monitor().benderController, settings);
    EXPECT_EQ(without.connectionsView(), nullptr);
    EXPECT_EQ(without.height(), PreferencesWindow::kHeight + PreferencesWindow::kAudioRowHeight);
}
