// Renders the shell's screens in a real window (run under Xvfb) and saves them as PNG files, so that a
// person can look at them: the login screen (also with an error and while signing in), the preferences
// sheet, the takeover chooser and the about box, each in the light and the dark appearance.
#include <QApplication>
#include <QDir>

#include "AppDelegate.h"
#include "ClientIdentity.h"
#include "ControllerListViewController.h"
#include "LoginViewController.h"
#include "PreferencesViewController.h"
#include "TestSupport.h"
#include "Theme.h"

using namespace ostv;

int main(int argc, char** argv) {
    QCoreApplication::setOrganizationName("Ostvarren");
    QCoreApplication::setApplicationName("Ostvarren");
    QApplication app(argc, argv);
    Theme::install();
    QApplication::setWindowIcon(AppDelegate::applicationIcon());
    ostv::test::isolateSettings();
    SecretStore::useFileStoreOnlyForTesting(true, ostv::test::makeTempDir("shots") + "/s.json");
    const QString out = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QDir::currentPath();
    QDir().mkpath(out);

    auto shoot = [&](QWidget* w, const QString& name) {
        ostv::test::spin(400);
        w->grab().save(out + "/" + name + ".png");
    };
    for (bool dark : {false, true}) {
        QApplication::setPalette(Theme::palette(dark));
        const QString suffix = dark ? "-dark" : "-light";
        AppDelegate d;
        d.applicationDidFinishLaunching();
        shoot(d.window(), "login" + suffix);

        auto* login = qobject_cast<LoginViewController*>(d.currentScreen());
        login->errorLabel->setText("无法连接到服务器：Could not connect to the server. (http://203.0.113.77:8080)");
        login->errorLabel->show();
        login->isLoading = true;
        login->loginButton->setText("登录中…");
        for (QWidget* w : {static_cast<QWidget*>(login->loginButton), static_cast<QWidget*>(login->hostField),
                           static_cast<QWidget*>(login->userField), static_cast<QWidget*>(login->passField)})
            w->setEnabled(false);
        shoot(d.window(), "login-error" + suffix);

        d.showPreferences();
        auto* sheet = d.window()->findChild<PreferencesViewController*>();
        sheet->serverField->clear();
        sheet->onSave();  // the red message
        shoot(sheet, "preferences" + suffix);
        sheet->reject();

        ControllerListViewController chooser(
            {{"c1", "alice", "/home/alice/projects/api", std::nullopt},
             {"c2", "bob", "/srv/build", std::string("3")},
             {"c3", "carol-with-a-rather-long-nickname-for-this-row",
              "/home/carol/work/clients/northwind/deployments/2026/november/staging/services/api-gateway",
              std::string("12")}},
            3, 3, d.window());
        chooser.show();
        chooser.tableView->setCurrentRow(0);
        shoot(&chooser, "chooser" + suffix);
        chooser.close();

        d.showAbout();
        shoot(d.aboutPanel(), "about" + suffix);
        d.aboutPanel()->close();
    }
    return 0;
}
