// Renders the client's screens in a real window (run under Xvfb) with sample data and saves them as PNG
// files for the README and for a person to look at: the login screen, the takeover chooser, and the host
// list beside the resource panel, each in the light and the dark appearance. app_screenshots <out-dir>.
#include <QApplication>
#include <QDir>
#include <QHBoxLayout>

#include "AppDelegate.h"
#include "ClientIdentity.h"
#include "ControllerListViewController.h"
#include "HostListView.h"
#include "PanelFakes.h"
#include "ResourcePanelView.h"
#include "TestSupport.h"
#include "Theme.h"

using namespace ostv;
using test::makeItem;

int main(int argc, char** argv) {
    QCoreApplication::setOrganizationName("Ostvarren");
    QCoreApplication::setApplicationName("Ostvarren");
    QApplication app(argc, argv);
    Theme::install();
    QApplication::setWindowIcon(AppDelegate::applicationIcon());
    test::isolateSettings();
    SecretStore::useFileStoreOnlyForTesting(true, test::makeTempDir("shots") + "/s.json");
    const QString out = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QDir::currentPath();
    QDir().mkpath(out);

    auto shoot = [&](QWidget* w, const QString& name) {
        test::spin(400);
        w->grab().save(out + "/" + name + ".png");
    };
    for (bool dark : {false, true}) {
        QApplication::setPalette(Theme::palette(dark));
        const QString suffix = dark ? "-dark" : "-light";
        AppDelegate d;
        d.applicationDidFinishLaunching();
        shoot(d.window(), "login" + suffix);

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

        QWidget window;
        auto* row = new QHBoxLayout(&window);
        row->setContentsMargins(0, 0, 0, 0);
        row->setSpacing(0);
        auto* hosts = new HostListView;
        hosts->setFixedWidth(260);
        // As the admin client decodes them, one of them from a server that sends no host name.
        QList<Host> sample = *AdminAgents::decodeHosts(R"([
            {"code":"10001","machine_id":"m-1","controller_count":2,"os":"linux","hostname":"dev-workstation","cpu":12,"mem":41},
            {"code":"10002","machine_id":"m-2","controller_count":0,"os":"darwin","hostname":"build-mac-mini","cpu":3},
            {"code":"10003","machine_id":"m-3","controller_count":0,"os":"windows","hostname":"win-gpu-box-with-a-very-long-machine-name"},
            {"code":"10004","machine_id":"m-4","controller_count":1,"os":"freebsd","hostname":"edge-router"},
            {"code":"10005","machine_id":"m-5","controller_count":0,"os":"linux","cpu":7,"mem":22}])");
        sample[2].status = HostStatus::offline;
        sample[3].status = HostStatus::connecting;
        auto* divider = new QFrame;
        divider->setFrameShape(QFrame::VLine);
        auto* resources = new ResourcePanelView;
        resources->setFixedWidth(280);
        row->addWidget(hosts);
        row->addWidget(divider);
        row->addWidget(resources);
        window.resize(541, 640);
        window.show();
        hosts->model()->applyFetchedHosts(sample);
        hosts->selectHost(0);

        resources->setUsers({{"pty-1", "api", "A", true}, {"pty-2", "web-frontend", "W", true},
                             {"pty-3", "alice · /srv/build", "AL", false}},
                            8);
        resources->highlightSession(2);
        resources->setDirectories({makeItem("/home/dev/projects"), makeItem("/home/dev/Downloads"),
                                   makeItem("/home/dev/.config"), makeItem("/home/dev/notes")});
        resources->setChildren({makeItem("/home/dev/projects/api"), makeItem("/home/dev/projects/web"),
                                makeItem("/home/dev/projects/infra")},
                               "/home/dev/projects");
        resources->outlineView->expand(resources->treeModel()->indexForPath("/home/dev/projects"));
        resources->outlineView->setCurrentIndex(resources->treeModel()->indexForPath("/home/dev/projects/web"));
        shoot(&window, "panels" + suffix);
    }
    return 0;
}
