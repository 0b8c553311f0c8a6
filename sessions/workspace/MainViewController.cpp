#include "MainViewController.h"

#include <QHBoxLayout>
#include <QMessageBox>
#include <QPainter>
#include <QPushButton>
#include <QVBoxLayout>

#include "EnvStore.h"
#include "LocalUser.h"
#include "Logger.h"
#include "MainThread.h"
#include "ServerConfig.h"
#include "Theme.h"

namespace ostv {

namespace {
// A one-pixel line between the panels, drawn in the border colour of the current appearance.
class Divider : public QWidget {
public:
    using QWidget::QWidget;

protected:
    void paintEvent(QPaintEvent*) override { QPainter(this).fillRect(rect(), Theme::border()); }
};

QWidget* divider(QWidget* parent, bool vertical) {
    auto* d = new Divider(parent);
    if (vertical) d->setFixedWidth(1); else d->setFixedHeight(1);
    return d;
}
QString qs(const std::string& s) { return QString::fromStdString(s); }
std::optional<QString> qs(const std::optional<std::string>& s) {
    return s ? std::optional<QString>(QString::fromStdString(*s)) : std::nullopt;
}
}  // namespace

QString MainViewController::percent(double value) { return QString::asprintf("%.0f%%", value); }

MainViewController::MainViewController(ConnectionManager* manager, QWidget* parent)
    : QWidget(parent), manager_(manager ? manager : &ConnectionManager::shared()) {
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);
    auto* row = new QHBoxLayout();
    row->setSpacing(0);
    hostListView = new HostListView(this);
    hostListView->setFixedWidth(260);
    resourcePanelView = new ResourcePanelView(this);
    resourcePanelView->setFixedWidth(280);
    terminalView = new TerminalView(this);
    row->addWidget(hostListView);
    row->addWidget(divider(this, true));
    row->addWidget(resourcePanelView);
    row->addWidget(divider(this, true));
    row->addWidget(terminalView, 1);
    column->addLayout(row, 1);
    statusBar = new StatusBarView(this);
    column->addWidget(statusBar);

    hostListView->setDelegate(this);
    resourcePanelView->setDelegate(this);
    resourcePanelView->setLink(manager_);
    terminalView->setDelegate(this);
    terminalView->setLink(manager_);
    sessions_.setLink(manager_);
    sessions_.setTerminal(terminalView);
    sessions_.setSessionList(resourcePanelView);
    sessions_.setErrorPresenter(this);
    manager_->setDelegate(this);
    manager_->setDirectoryConsumer(this);

    confirm = [this](const QString& message, const QString& text, const QString& yes, const QString& no) {
        QMessageBox box(QMessageBox::Warning, message, message, QMessageBox::NoButton, this);
        box.setInformativeText(text);
        QPushButton* first = box.addButton(yes, QMessageBox::AcceptRole);
        box.addButton(no, QMessageBox::RejectRole);
        box.exec();
        return box.clickedButton() == first;
    };

    terminalView->showEmptyState(QStringLiteral("选择目录或添加会话以启动终端"));
    statusBar->setStatus(manager_->state().isConnected() ? ConnectionStatus::connected() : ConnectionStatus::disconnected());
}

MainViewController::~MainViewController() {
    // The link outlives this screen; it must not call into it any more.
    if (manager_) {
        manager_->setDelegate(nullptr);
        manager_->setDirectoryConsumer(nullptr);
    }
}

void MainViewController::showEvent(QShowEvent* e) {
    QWidget::showEvent(e);
    if (!started_) {
        started_ = true;
        hostListView->startRefreshing();
    }
}

void MainViewController::setWindowTitleFor(const Host& h) {
    if (QWidget* w = window()) w->setWindowTitle(windowTitleForHost(h));
}

void MainViewController::appendUnique(const char* key, const QString& value) {
    if (value.isEmpty()) return;
    QStringList list = ServerConfig::stringList(key).value_or(QStringList{});
    if (list.contains(value)) return;
    list << value;
    ServerConfig::setStringList(key, list);
    ServerConfig::defaults().sync();
}

// ---- link ----

void MainViewController::dropLinkState() {
    sessions_.isConnected = false;
    sessions_.pendingAutoCreate = false;
    sessions_.forgetLinkSessions();
    sessions_.cleanupAllSetup();
    terminalView->removeAllTabs();
    terminalView->showEmptyState(QStringLiteral("选择目录或添加会话以启动终端"));
    terminalView->setStatusColor(QColor(0x88, 0x88, 0x88));
    terminalView->hideLatency();
    terminalView->setHostName({});
    resourcePanelView->setUsers({}, ResourcePanelView::defaultUserLimit);
    resourcePanelView->setDirectories({});
}

void MainViewController::connectionManagerDidChangeState(ConnectionManager*, const ConnectionState& state) {
    switch (state.kind) {
        case ConnectionState::Kind::disconnected: statusBar->setStatus(ConnectionStatus::disconnected()); break;
        case ConnectionState::Kind::connecting: statusBar->setStatus(ConnectionStatus::connecting()); break;
        case ConnectionState::Kind::reconnecting: statusBar->setStatus(ConnectionStatus::reconnecting(0)); break;
        case ConnectionState::Kind::connected:
            statusBar->setStatus(ConnectionStatus::connected(currentHost ? std::optional<QString>(currentHost->title()) : std::nullopt));
            break;
        case ConnectionState::Kind::waitingForList:
        case ConnectionState::Kind::selecting: break;
    }
    if (state.kind == ConnectionState::Kind::disconnected) {
        dropLinkState();
        if (currentHost) {
            Host h = *currentHost;
            h.status = HostStatus::offline;
            hostListView->updateHost(h);
        }
        return;
    }
    if (!state.isConnected()) return;

    sessions_.isConnected = true;
    if (currentHost) {
        Host h = *currentHost;
        h.status = HostStatus::online;
        hostListView->updateHost(h);
    }
    appendUnique(SettingsKey::confirmedMachines, qs(state.machineId.value_or("")));
    terminalView->setTitle(currentHost ? currentHost->title() : QStringLiteral("终端"));
    terminalView->setHostName(currentHost ? currentHost->hostname : QString());
    terminalView->setStatusColor(QColor(0x4e, 0xc9, 0xb0));
    const QString nickname = SessionController::userNickname();
    resourcePanelView->addUser(User{QStringLiteral("self"), nickname, nickname.left(2).toUpper(), true});
    if (currentConnectPanel) {
        currentConnectPanel->pairDidSucceed(qs(state.homeDir), qs(state.os));
    } else {
        manager_->send(Message("LIST_PTY"));
        Message list("fs_op");
        list.op = "list";
        list.path = ".";
        manager_->send(list);
    }
    hostListView->fetchAgents();
}

void MainViewController::connectionManagerDidReceivePtyList(ConnectionManager*, const std::vector<PtyInfo>& ptys) {
    sessions_.didReceivePtyList(ptys);
}

void MainViewController::connectionManagerDidReceiveControllerList(ConnectionManager*, const std::vector<ControllerInfo>& list,
                                                                   int64_t limit, int64_t current) {
    if (controllerChooser) controllerChooser->deleteLater();
    auto* chooser = new ControllerListViewController(list, limit, current, this);
    chooser->setAttribute(Qt::WA_DeleteOnClose);
    chooser->setDelegate(this);
    controllerChooser = chooser;
    if (currentConnectPanel) currentConnectPanel->pairDidFail(QStringLiteral("已达到最大连接数"));
    chooser->open();
}

void MainViewController::controllerListViewControllerDidSelectController(ControllerListViewController*,
                                                                         const ControllerInfo& c) {
    Message takeover("takeover");
    takeover.targetControllerId = c.id;
    manager_->send(takeover);
    statusBar->setStatus(ConnectionStatus::connecting());
    terminalView->setTitle(QStringLiteral("正在接管 ") + qs(c.nickname));
    terminalView->clearScreen(0, true);
}

void MainViewController::controllerListViewControllerDidCancel(ControllerListViewController*) {
    manager_->disconnect();
    dropLinkState();
    statusBar->setStatus(ConnectionStatus::disconnected());
    if (currentHost) {
        currentHost->status = HostStatus::offline;
        hostListView->updateHost(*currentHost);
    }
}

void MainViewController::connectionManagerWasKicked(ConnectionManager*, const std::string& reason, const std::string& by) {
    sessions_.cleanupAllSetup();
    sessions_.isConnected = false;
    sessions_.pendingAutoCreate = false;
    sessions_.forgetLinkSessions();
    presentConnectionAlert(qs(reason) + QStringLiteral(" (by ") + qs(by) + QLatin1Char(')'), true);
    terminalView->removeAllTabs();
    terminalView->showFrozenOverlay();
    terminalView->setStatusColor(QColor(0xff, 0xbd, 0x2e));
    terminalView->hideLatency();
    terminalView->setHostName({});
    statusBar->setStatus(ConnectionStatus::disconnected());  // the link is down after a kick
    resourcePanelView->setUsers({}, ResourcePanelView::defaultUserLimit);
    if (currentHost) {
        Host h = *currentHost;
        h.status = HostStatus::offline;
        hostListView->updateHost(h);
    }
}

void MainViewController::connectionManagerDidReceiveOutput(ConnectionManager*, const std::string& base64, int64_t ptyId) {
    sessions_.didReceiveOutput(base64, ptyId);
}

void MainViewController::connectionManagerDidReceivePtyExit(ConnectionManager*, int64_t ptyId, int64_t exitCode) {
    sessions_.didReceivePtyExit(ptyId, exitCode);
}

void MainViewController::connectionManagerDidReceivePtyError(ConnectionManager*, int64_t ptyId, const std::string& reason) {
    sessions_.didReceivePtyError(ptyId, qs(reason));
}

void MainViewController::connectionManagerDidReceiveError(ConnectionManager* m, const std::string& message) {
    // Transport errors arrive on the transport thread: everything here happens on the main thread. An
    // error from a link that has ended by then (kicked, given up, replaced by a new pairing) is no news:
    // the user has already been told why that link ended.
    QPointer<MainViewController> self(this);
    QPointer<ConnectionManager> link(m);
    const uint64_t attempt = m ? m->attempt() : 0;
    const QString text = qs(message);
    postToMain([self, link, attempt, text] {
        if (!self) return;
        if (link && link->attempt() != attempt) {
            Logger::info("Relay: an error from an earlier link, not shown: " + text.toStdString());
            return;
        }
        if (self->currentConnectPanel && !self->currentConnectPanel->isPaired()) {
            self->currentConnectPanel->pairDidFail(text);
            return;
        }
        Logger::error("Relay: " + text.toStdString());
        self->showError(text);
    });
}

void MainViewController::connectionManagerControllerJoined(ConnectionManager*, const std::string& id, const std::string& nickname) {
    const QString cid = qs(id), name = qs(nickname);
    sessions_.controllerNicknames[cid] = name;
    sessions_.controllerNicknameHistory[cid] = name;
    resourcePanelView->addUser(User{cid, name, name.left(2).toUpper(), false});
    hostListView->fetchAgents();
}

void MainViewController::connectionManagerControllerLeft(ConnectionManager*, const std::string& id) {
    sessions_.controllerNicknames.remove(qs(id));
    if (sessions_.isConnected) manager_->send(Message("LIST_PTY"));  // rebuilds the rows and the header
    hostListView->fetchAgents();
}

void MainViewController::connectionManagerDidMeasureLatency(ConnectionManager*, int64_t ms, double cpu, double mem) {
    terminalView->updateLatency(ms);
    if (currentHost) hostListView->updateHostResources(currentHost->id, percent(cpu), percent(mem));
}

// ---- directories ----

void MainViewController::pathCheckAnswered(bool exists) {
    pendingPathValidation = false;
    if (currentConnectPanel) currentConnectPanel->pathValidated(exists);
}

void MainViewController::topLevelDirectories(const QList<DirectoryItem>& items) { resourcePanelView->setDirectories(items); }

void MainViewController::childDirectories(const QList<DirectoryItem>& items, const QString& path) {
    resourcePanelView->setChildren(items, path);
}

// ---- host list ----

void MainViewController::hostListViewDidSelectHost(HostListView*, const Host& host) {
    currentHost = host;
    setWindowTitleFor(host);
}

void MainViewController::hostListViewDidDoubleClickHost(HostListView*, const Host& host) {
    if (host.machineId.isEmpty() && host.agentCode.isEmpty()) return;
    const QStringList machines = ServerConfig::stringList(SettingsKey::confirmedMachines).value_or(QStringList{});
    const QStringList codes = ServerConfig::stringList(SettingsKey::confirmedAgentCodes).value_or(QStringList{});
    if ((!host.machineId.isEmpty() && machines.contains(host.machineId)) ||
        (!host.agentCode.isEmpty() && codes.contains(host.agentCode))) {
        switchToAgent(host);
        return;
    }
    currentHost = host;
    openConnectPanel(ConnectPanelMode::newHost());
}

void MainViewController::switchToAgent(const Host& host) {
    if (manager_->state().isConnected()) manager_->disconnect();
    currentHost = host;
    sessions_.nextPtyId = 1;
    dropLinkState();
    sessions_.controllerNicknames.clear();
    sessions_.controllerNicknameHistory.clear();
    hostListView->fetchAgents();
    setWindowTitleFor(host);
    sessions_.pendingAutoCreate = true;
    const auto stored = ServerConfig::string(SettingsKey::lastNickname);
    const QString nickname = stored && !stored->isEmpty() ? *stored : localLoginName();
    statusBar->setStatus(ConnectionStatus::connecting());
    manager_->connect(host, host.agentCode.toStdString(), nickname.toStdString());
}

void MainViewController::hostListViewDidRequestAddHost(HostListView*) { openConnectPanel(ConnectPanelMode::newHost()); }

void MainViewController::hostListViewNeedsLogin(HostListView*) {
    if (onNeedsLogin) onNeedsLogin();
}

// ---- connect panel ----

void MainViewController::openConnectPanel(const ConnectPanelMode& mode) {
    if (currentConnectPanel) currentConnectPanel->close();
    auto* panel = new ConnectPanelViewController(mode, this);
    panel->setDelegate(this);
    panel->setLink(manager_);
    currentConnectPanel = panel;
    panel->present();
}

void MainViewController::openNewSessionPanel() {
    const QString code = currentHost ? currentHost->agentCode
                                     : ServerConfig::string(SettingsKey::lastPairCode).value_or(QString());
    const ConnectionState& s = manager_->state();
    openConnectPanel(ConnectPanelMode::newSession(code, s.isConnected() ? qs(s.homeDir) : std::nullopt,
                                                  s.isConnected() ? qs(s.os) : std::nullopt,
                                                  s.isConnected() ? qs(s.machineId) : std::nullopt));
}

void MainViewController::connectPanelDidRequestPairWithCode(ConnectPanelViewController*, const QString& code,
                                                            const QString& nickname) {
    ServerConfig::setString(SettingsKey::lastPairCode, code);
    ServerConfig::setString(SettingsKey::lastNickname, nickname);
    appendUnique(SettingsKey::confirmedAgentCodes, code);
    if (manager_->state().kind != ConnectionState::Kind::disconnected) manager_->disconnect();
    sessions_.nextPtyId = 1;
    dropLinkState();
    // The agent is the one whose code was typed, when the list has it (not a row selected earlier):
    // the status bar and the titles name it.
    if (auto listed = hostListView->findHost(code)) currentHost = *listed;
    if (currentHost) setWindowTitleFor(*currentHost);
    statusBar->setStatus(ConnectionStatus::connecting());
    manager_->connect(currentHost.value_or(Host{}), code.toStdString(), nickname.toStdString());
}

void MainViewController::allocateAndCreatePty(const QString& title, const std::optional<QString>& command,
                                              const std::optional<QString>& envCommands, const QString& sessionPath) {
    sessions_.allocateAndCreatePty(title, command, envCommands, sessionPath);
}

// ---- resource panel ----

void MainViewController::resourcePanelViewDidClickAddSession(ResourcePanelView*) { openNewSessionPanel(); }

void MainViewController::resourcePanelViewDidClickSession(ResourcePanelView*, const User& user) {
    if (!user.isSelf) return takeOverSession(user);
    const auto id = SessionController::parsePtyId(user.id);
    if (!id || *id < 1) return;
    if (terminalView->tabIds().contains(*id)) {
        terminalView->switchTab(*id);
        terminalView->focus();
    } else {
        terminalView->createTab(*id, user.name);
        terminalView->hideFrozenOverlay();
    }
}

void MainViewController::takeOverSession(const User& user) {
    // "CLOSE_PTY" names only a number, and the agent reads a number this client runs as its own
    // shell: while one of ours has the other client's number, closing theirs would end ours.
    const auto collides = [this](const QString& rowId) {
        const auto it = sessions_.otherSessions.find(rowId);
        return it != sessions_.otherSessions.end() && sessions_.activeSessions.count(it->second.ptyId) > 0;
    };
    if (collides(user.id)) {
        showError(QStringLiteral("无法接管：本机有一个编号相同的会话，请先关闭本机的该会话再接管"));
        return;
    }
    if (!sessions_.otherSessions.count(user.id)) return;  // the row is gone: its shell has ended
    if (!confirm(QStringLiteral("接管会话？"), QStringLiteral("将踢掉 ") + user.name + QStringLiteral(" 并接管此工作目录的会话。"),
                 QStringLiteral("接管"), QStringLiteral("取消")))
        return;
    // The list may have changed while the question was open.
    const auto it = sessions_.otherSessions.find(user.id);
    if (it == sessions_.otherSessions.end() || collides(user.id)) return;
    const SessionController::OtherSession other = it->second;
    const QString cwd = other.cwd.isEmpty() ? QStringLiteral("~") : other.cwd;
    manager_->closePty(other.ptyId);
    sessions_.otherSessions.erase(it);
    QPointer<MainViewController> self(this);
    QTimer::singleShot(500, this, [self, cwd] {
        if (self)
            self->sessions_.allocateAndCreatePty(SessionController::lastPathComponent(cwd), std::nullopt, std::nullopt, cwd);
    });
}

std::optional<QString> MainViewController::sessionDirectory(const User& user) const {
    if (!user.isSelf) {
        const auto it = sessions_.otherSessions.find(user.id);
        return it != sessions_.otherSessions.end() ? std::optional<QString>(it->second.cwd) : std::nullopt;
    }
    const auto id = SessionController::parsePtyId(user.id);
    if (!id) return std::nullopt;
    const auto it = sessions_.activeSessions.find(*id);
    return it != sessions_.activeSessions.end() ? std::optional<QString>(it->second) : std::nullopt;
}

void MainViewController::resourcePanelViewDidRequestEditSession(ResourcePanelView*, const User& user) {
    const auto cwd = sessionDirectory(user);
    if (!isConnected() || !cwd) return;
    const ConnectionState& s = manager_->state();
    const QString code = currentHost ? currentHost->agentCode
                                     : ServerConfig::string(SettingsKey::lastPairCode).value_or(QString());
    openConnectPanel(ConnectPanelMode::editSession(code, sessions_.normalizePath(*cwd), qs(s.os), qs(s.machineId)));
}

// Closing and deleting act on this client's own sessions only: another client's row is taken over
// (with its own question), never closed in passing.
void MainViewController::resourcePanelViewDidRequestDeleteSession(ResourcePanelView*, const User& user) {
    const auto id = SessionController::parsePtyId(user.id);
    if (!user.isSelf || !id) return;
    const ConnectionState& s = manager_->state();
    if (const auto cwd = sessionDirectory(user))
        if (auto key = EnvStore::sessionStorageKey(qs(s.machineId.value_or("")), *cwd, qs(s.homeDir.value_or(""))))
            EnvStore::remove(*key);
    sessions_.closeAndCleanupPty(*id);
}

void MainViewController::resourcePanelViewDidRequestCloseSession(ResourcePanelView*, const User& user) {
    if (!user.isSelf) return;
    if (const auto id = SessionController::parsePtyId(user.id)) sessions_.closeAndCleanupPty(*id);
}

void MainViewController::resourcePanelViewDidClickKickSession(ResourcePanelView* panel, const User& user) {
    if (user.isSelf)
        resourcePanelViewDidRequestCloseSession(panel, user);
    else
        takeOverSession(user);
}

// ---- terminal view ----

void MainViewController::terminalViewDidRequestNewTab(TerminalView*) {
    if (isConnected()) openNewSessionPanel();
}

void MainViewController::terminalViewDidSwitchToTab(TerminalView*, int64_t ptyId) { resourcePanelView->highlightSession(ptyId); }

// Every way a tab goes ends here, also the session controller's own closes: the controller sends
// "CLOSE_PTY" once per session and none for a shell that has ended.
void MainViewController::terminalViewDidCloseTab(TerminalView*, int64_t ptyId) { sessions_.releasePty(ptyId); }

void MainViewController::showError(const QString& text) { presentConnectionAlert(text, false); }

void MainViewController::presentConnectionAlert(const QString& text, bool isKick) {
    // One alert at a time: a failing link reports itself more than once (the transport's error, then
    // the failed state), and a stack of modal boxes helps nobody. The open one says the latest, except
    // that why the user was pushed out is never overwritten by what the ended link reports after it.
    static const char* const kickProperty = "showsKick";
    for (QMessageBox* open : findChildren<QMessageBox*>(QStringLiteral("connectionErrorAlert"), Qt::FindDirectChildrenOnly)) {
        if (open->isVisible()) {
            if (open->property(kickProperty).toBool() && !isKick) {
                Logger::info("Relay: not shown over the kick's reason: " + text.toStdString());
                return;
            }
            open->setInformativeText(text);
            open->setProperty(kickProperty, isKick);
            return;
        }
    }
    auto* box = new QMessageBox(QMessageBox::Warning, QStringLiteral("连接错误"), QStringLiteral("连接错误"),
                                QMessageBox::NoButton, this);
    box->setInformativeText(text);
    box->addButton(QStringLiteral("确定"), QMessageBox::AcceptRole);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setObjectName(QStringLiteral("connectionErrorAlert"));
    box->setProperty(kickProperty, isKick);
    box->open();  // window-modal, the event loop goes on
}

}  // namespace ostv
