#pragma once
// The content of the main window while signed in: host list, resource panel, terminal view and status
// bar, and the reactions to everything the relay link reports. Owns the session controller.
#include <QPointer>
#include <QWidget>
#include <functional>
#include <optional>

#include "ConnectPanelViewController.h"
#include "ConnectionManager.h"
#include "ControllerListViewController.h"
#include "HostListView.h"
#include "ResourcePanelView.h"
#include "SessionController.h"
#include "StatusBarView.h"
#include "TerminalView.h"

namespace ostv {

class MainViewController : public QWidget,
                           public ConnectionManagerDelegate,
                           public DirectoryResultConsumer,
                           public HostListViewDelegate,
                           public ResourcePanelViewDelegate,
                           public ConnectPanelDelegate,
                           public ControllerListViewControllerDelegate,
                           public TerminalViewDelegate,
                           public ErrorPresenter {
    Q_OBJECT
public:
    explicit MainViewController(ConnectionManager* manager = nullptr, QWidget* parent = nullptr);
    ~MainViewController() override;

    HostListView* hostListView = nullptr;
    ResourcePanelView* resourcePanelView = nullptr;
    TerminalView* terminalView = nullptr;
    StatusBarView* statusBar = nullptr;
    std::optional<Host> currentHost;
    QPointer<ConnectPanelViewController> currentConnectPanel;
    QPointer<ControllerListViewController> controllerChooser;
    bool pendingPathValidation = false;
    SessionController& sessions() { return sessions_; }

    // What the shell does when the admin server no longer accepts the token (back to login).
    std::function<void()> onNeedsLogin;
    // How a question is put to the user (tests answer it themselves): true for the first button.
    std::function<bool(const QString& message, const QString& text, const QString& yes, const QString& no)> confirm;

    QString windowTitleForHost(const Host& h) const { return QStringLiteral("Quorv Client - ") + h.title(); }
    static QString percent(double value);  // "%.0f%%"

    // ConnectionManagerDelegate
    void connectionManagerDidChangeState(ConnectionManager*, const ConnectionState& state) override;
    void connectionManagerDidReceivePtyList(ConnectionManager*, const std::vector<PtyInfo>& ptys) override;
    void connectionManagerDidReceiveControllerList(ConnectionManager*, const std::vector<ControllerInfo>& list,
                                                   int64_t limit, int64_t current) override;
    void connectionManagerWasKicked(ConnectionManager*, const std::string& reason, const std::string& by) override;
    void connectionManagerDidReceiveOutput(ConnectionManager*, const std::string& base64, int64_t ptyId) override;
    void connectionManagerDidReceivePtyExit(ConnectionManager*, int64_t ptyId, int64_t exitCode) override;
    void connectionManagerDidReceivePtyError(ConnectionManager*, int64_t ptyId, const std::string& reason) override;
    void connectionManagerDidReceiveError(ConnectionManager*, const std::string& message) override;
    void connectionManagerControllerJoined(ConnectionManager*, const std::string& id, const std::string& nickname) override;
    void connectionManagerControllerLeft(ConnectionManager*, const std::string& id) override;
    void connectionManagerDidMeasureLatency(ConnectionManager*, int64_t ms, double cpu, double mem) override;

    // DirectoryResultConsumer
    bool isAwaitingPathCheck() const override { return pendingPathValidation; }
    void pathCheckAnswered(bool exists) override;
    void topLevelDirectories(const QList<DirectoryItem>& items) override;
    void childDirectories(const QList<DirectoryItem>& items, const QString& path) override;

    // HostListViewDelegate
    void hostListViewDidSelectHost(HostListView*, const Host& host) override;
    void hostListViewDidDoubleClickHost(HostListView*, const Host& host) override;
    void hostListViewDidRequestAddHost(HostListView*) override;
    void hostListViewNeedsLogin(HostListView*) override;

    // ResourcePanelViewDelegate and ConnectPanelDelegate
    void resourcePanelViewDidClickAddSession(ResourcePanelView*) override;
    void resourcePanelViewDidClickSession(ResourcePanelView*, const User& user) override;
    void resourcePanelViewDidRequestEditSession(ResourcePanelView*, const User& user) override;
    void resourcePanelViewDidRequestDeleteSession(ResourcePanelView*, const User& user) override;
    void resourcePanelViewDidRequestCloseSession(ResourcePanelView*, const User& user) override;
    void resourcePanelViewDidClickKickSession(ResourcePanelView*, const User& user) override;
    bool isConnected() const override { return sessions_.isConnected; }
    void allocateAndCreatePty(const QString& title, const std::optional<QString>& command,
                              const std::optional<QString>& envCommands, const QString& sessionPath) override;
    void connectPanelDidRequestPairWithCode(ConnectPanelViewController*, const QString& code, const QString& nickname) override;
    void setCurrentConnectPanel(ConnectPanelViewController* panel) override { currentConnectPanel = panel; }
    void setPendingPathValidation(bool pending) override { pendingPathValidation = pending; }
    void setPendingAutoCreate(bool pending) override { sessions_.pendingAutoCreate = pending; }
    void setPendingEnvCommands(const std::optional<QString>& commands) override { sessions_.pendingEnvCommands = commands; }

    // ControllerListViewControllerDelegate
    void controllerListViewControllerDidSelectController(ControllerListViewController*, const ControllerInfo& c) override;
    void controllerListViewControllerDidCancel(ControllerListViewController*) override;

    // TerminalViewDelegate
    void terminalViewDidRequestNewTab(TerminalView*) override;
    void terminalViewDidSwitchToTab(TerminalView*, int64_t ptyId) override;
    void terminalViewDidCloseTab(TerminalView*, int64_t ptyId) override;

    // ErrorPresenter: a warning titled "连接错误" with one button "确定"
    void showError(const QString& text) override;

    void switchToAgent(const Host& host);

protected:
    void showEvent(QShowEvent* e) override;

private:
    void dropLinkState();  // everything bound to the link goes; stored settings stay
    void openConnectPanel(const ConnectPanelMode& mode);
    void openNewSessionPanel();
    void setWindowTitleFor(const Host& h);
    void appendUnique(const char* key, const QString& value);
    void takeOverSession(const User& user);
    // The working directory of a session row, ours or another client's; none for a row gone by now.
    std::optional<QString> sessionDirectory(const User& user) const;
    // The one alert for connection errors; a kick's reason stays in it until the user dismisses it.
    void presentConnectionAlert(const QString& text, bool isKick);

    ConnectionManager* manager_;
    SessionController sessions_;
    bool started_ = false;
};

}  // namespace ostv
