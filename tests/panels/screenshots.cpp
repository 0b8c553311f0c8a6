// Renders the navigation panels with sample data and saves them as PNG files for a person to look at:
// the host list and the resource panel side by side, and the connect panel in its three modes, each in
// the light and the dark appearance. Run under Xvfb (or offscreen): panels_screenshots <out-dir>.
#include <QApplication>
#include <QDir>
#include <QHBoxLayout>
#include <QMenu>
#include <QStyleFactory>

#include "ConnectPanelViewController.h"
#include "EnvStore.h"
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
    QApplication::setStyle(QStyleFactory::create("Fusion"));
    test::isolateSettings();
    const QString out = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QDir::currentPath();
    QDir().mkpath(out);
    EnvStore::save(*EnvStore::storageKey("m-1", "/home/dev/projects/api"),
                   {{"NODE_ENV", "development"}, {"API_TOKEN", "s3cr3t value"}});

    auto shoot = [&](QWidget* w, const QString& name) {
        test::spin(300);
        w->grab().save(out + "/" + name + ".png");
    };

    for (bool dark : {false, true}) {
        QApplication::setPalette(Theme::palette(dark));
        const QString suffix = dark ? "-dark" : "-light";

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
        hosts->model()->setFetchFunction(
            [sample](HostListModel::FetchCompletion done) { done(AgentFetchResult::success(sample)); });
        auto* divider = new QFrame;
        divider->setFrameShape(QFrame::VLine);
        auto* resources = new ResourcePanelView;
        resources->setFixedWidth(280);
        row->addWidget(hosts);
        row->addWidget(divider);
        row->addWidget(resources);
        window.resize(541, 640);
        window.show();
        hosts->fetchAgents();
        test::waitUntil([&] { return !hosts->hosts().isEmpty(); });
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

        // The session row's menu, with its red delete entry.
        UserCell* cell = resources->userCells().at(1);
        QMenu* menu = cell->makeContextMenu(cell);
        menu->popup(cell->mapToGlobal(QPoint(40, 20)));
        shoot(menu, "session-menu" + suffix);
        menu->close();
        delete menu;

        // The connect panel: adding an agent after a failed pairing,
        auto* add = new ConnectPanelViewController(ConnectPanelMode::newHost(), &window);
        add->show();
        add->codeField->setText("12345６");
        add->onPair();
        add->pairDidFail("连接超时，请检查配对码和网络");
        shoot(add, "connect-newhost" + suffix);
        add->onCancel();

        // a new session with a bad path,
        auto* session = new ConnectPanelViewController(
            ConnectPanelMode::newSession("100001", QString("/home/dev"), QString("linux"), QString("m-1")), &window);
        session->show();
        session->pathField->setText("projects/api");
        session->onConfirm();
        shoot(session, "connect-newsession" + suffix);
        session->onCancel();

        // and editing a session's variables.
        auto* edit = new ConnectPanelViewController(
            ConnectPanelMode::editSession("100001", "/home/dev/projects/api", QString("linux"), QString("m-1")),
            &window);
        edit->show();
        test::spin(400);
        shoot(edit, "connect-edit" + suffix);
        edit->onCancel();
        test::spin(50);
    }
    return 0;
}
