// Renders the navigation panels with sample data and saves them as PNG files for a person to look at:
// the host list and the resource panel side by side, and the connect panel in its three modes, each in
// the light and the dark appearance. Run under Xvfb (or offscreen): panels_screenshots <out-dir>.
#include <QApplication>
#include <QDir>
#include <QHBoxLayout>
#include <QMenu>
#include <QPalette>
#include <QStyleFactory>

#include "ConnectPanelViewController.h"
#include "EnvStore.h"
#include "HostListView.h"
#include "ResourcePanelView.h"
#include "TestSupport.h"

using namespace ostv;

namespace {

QPalette darkPalette() {
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
    p.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(120, 120, 120));
    p.setColor(QPalette::Disabled, QPalette::Text, QColor(120, 120, 120));
    return p;
}

// As the admin client makes it: titled by the system name unless the list gives a host name.
Host host(const QString& id, const QString& hostname, HostStatus status, const QString& os, int users,
          const QString& cpu, const QString& mem) {
    Host h;
    h.id = id;
    h.name = AdminAgents::displayName(os);
    h.hostname = hostname;
    h.status = status;
    h.os = os;
    h.userCount = users;
    h.cpuLoad = cpu;
    h.memLoad = mem;
    h.machineId = "m-" + id;
    h.agentCode = "1000" + id;
    return h;
}

DirectoryItem dir(const QString& path) {
    DirectoryItem d;
    d.id = QUuid::createUuid();
    d.path = path;
    d.name = path.section('/', -1);
    d.isDirectory = true;
    return d;
}

}  // namespace

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
        QApplication::setPalette(dark ? darkPalette() : QApplication::style()->standardPalette());
        const QString suffix = dark ? "-dark" : "-light";

        QWidget window;
        auto* row = new QHBoxLayout(&window);
        row->setContentsMargins(0, 0, 0, 0);
        row->setSpacing(0);
        auto* hosts = new HostListView;
        hosts->setFixedWidth(260);
        hosts->model()->setFetchFunction([](HostListModel::FetchCompletion done) {
            done(AgentFetchResult::success({
                host("1", "dev-workstation", HostStatus::online, "linux", 2, "12%", "41%"),
                host("2", "build-mac-mini", HostStatus::online, "darwin", 0, "3%", ""),
                host("3", "win-gpu-box-with-a-very-long-machine-name", HostStatus::offline, "windows", 0, "-", ""),
                host("4", "edge-router", HostStatus::connecting, "freebsd", 1, "-", ""),
                host("5", "", HostStatus::online, "linux", 0, "7%", "22%"),  // a server that sends no host name
            }));
        });
        auto* divider1 = new QFrame;
        divider1->setFixedWidth(1);
        divider1->setAutoFillBackground(true);
        QPalette dp = divider1->palette();
        dp.setColor(QPalette::Window, dark ? QColor(51, 51, 51) : QColor(217, 217, 217));
        divider1->setPalette(dp);
        auto* resources = new ResourcePanelView;
        resources->setFixedWidth(280);
        row->addWidget(hosts);
        row->addWidget(divider1);
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
        resources->setDirectories({dir("/home/dev/projects"), dir("/home/dev/Downloads"), dir("/home/dev/.config"),
                                   dir("/home/dev/notes")});
        resources->setChildren({dir("/home/dev/projects/api"), dir("/home/dev/projects/web"),
                                dir("/home/dev/projects/infra")},
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
