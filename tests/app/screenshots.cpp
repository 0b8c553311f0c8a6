// Renders the shell's screens in a real window (run under Xvfb) and saves them as PNG files, so that a
// person can look at them: the login screen in light and dark, the preferences sheet, the chooser.
#include <QApplication>
#include <QDir>
#include <QPalette>
#include <QStyleFactory>
#include <QTimer>

#include "AppDelegate.h"
#include "ClientIdentity.h"
#include "ControllerListViewController.h"
#include "PreferencesViewController.h"
#include "TestSupport.h"

using namespace ostv;

static QPalette darkPalette() {
    QPalette p;
    p.setColor(QPalette::Window, QColor(38, 38, 38));
    p.setColor(QPalette::WindowText, QColor(230, 230, 230));
    p.setColor(QPalette::Base, QColor(28, 28, 28));
    p.setColor(QPalette::AlternateBase, QColor(45, 45, 45));
    p.setColor(QPalette::Text, QColor(230, 230, 230));
    p.setColor(QPalette::Button, QColor(55, 55, 55));
    p.setColor(QPalette::ButtonText, QColor(230, 230, 230));
    p.setColor(QPalette::Highlight, QColor(0, 120, 212));
    p.setColor(QPalette::HighlightedText, Qt::white);
    p.setColor(QPalette::PlaceholderText, QColor(140, 140, 140));
    return p;
}

int main(int argc, char** argv) {
    QCoreApplication::setOrganizationName("Ostvarren");
    QCoreApplication::setApplicationName("Ostvarren");
    QApplication app(argc, argv);
    QApplication::setStyle(QStyleFactory::create("Fusion"));
    ostv::test::isolateSettings();
    SecretStore::useFileStoreOnlyForTesting(true, ostv::test::makeTempDir("shots") + "/s.json");
    const QString out = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QDir::currentPath();
    QDir().mkpath(out);

    auto shoot = [&](QWidget* w, const QString& name) {
        ostv::test::spin(400);
        w->grab().save(out + "/" + name + ".png");
    };
    for (bool dark : {false, true}) {
        QApplication::setPalette(dark ? darkPalette() : QApplication::style()->standardPalette());
        AppDelegate d;
        d.applicationDidFinishLaunching();
        const QString suffix = dark ? "-dark" : "-light";
        shoot(d.window(), "login" + suffix);
        d.showPreferences();
        auto* sheet = d.window()->findChild<PreferencesViewController*>();
        shoot(sheet, "preferences" + suffix);
        sheet->reject();
        ControllerListViewController chooser({{"c1", "alice", "/home/alice/projects/api", std::nullopt},
                                              {"c2", "bob", "/srv/build", std::string("3")}},
                                             2, 2, d.window());
        chooser.show();
        chooser.tableView->setCurrentRow(0);
        shoot(&chooser, "chooser" + suffix);
    }
    return 0;
}
