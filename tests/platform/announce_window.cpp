// A window like Plinkora's main window for the accessibility tests: a text field that has the
// focus and a status bar holding an AnnouncementLabel. It announces every line appended to the
// control file given as its argument; the line "quit" ends it.
#include "common/diagnostics.h"
#include "platform/announcement_label.h"

#include <QApplication>
#include <QFile>
#include <QLineEdit>
#include <QMainWindow>
#include <QStatusBar>
#include <QTimer>

int main(int argc, char** argv)
{
    plinkora::switchOnAccessibilityBridge();
    QApplication app(argc, argv);
    if (argc != 2) {
        plinkora::printLine("usage: plinkora_announce_window CONTROL-FILE");
        return 2;
    }
    QMainWindow window;
    window.setWindowTitle(QStringLiteral("Plinkora announcement test"));
    auto* field = new QLineEdit(&window);
    field->setAccessibleName(QStringLiteral("Test field"));
    window.setCentralWidget(field);
    auto* label = new plinkora::AnnouncementLabel(&window);
    window.statusBar()->addWidget(label, 1);
    window.resize(600, 400);
    window.show();
    field->setFocus();

    QFile control(QString::fromLocal8Bit(argv[1]));
    QByteArray pending;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, [&] {
        if (!control.isOpen() && !control.open(QIODevice::ReadOnly))
            return;
        pending += control.readAll();
        for (qsizetype end = pending.indexOf('\n'); end >= 0; end = pending.indexOf('\n')) {
            const QString line = QString::fromUtf8(pending.left(end));
            pending.remove(0, end + 1);
            if (line == QLatin1String("quit")) {
                QCoreApplication::quit();
                return;
            }
            label->announce(line);
            plinkora::printLine("announced: " + line.toStdString());
        }
    });
    poll.start(50);
    plinkora::printLine("shown");
    return app.exec();
}
