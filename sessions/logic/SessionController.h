#pragma once
// Turns "open a terminal in this remote directory" into a live terminal tab: creates the remote PTY,
// prepares it with the user's environment lines and a sentinel echo, reveals it only once the sentinel
// comes back, and keeps the map of live sessions in step with the agent. Main thread only.
#include <QElapsedTimer>
#include <QHash>
#include <QMap>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "Message.h"
#include "SessionInterfaces.h"
#include "WeakDelegate.h"

namespace ostv {

// How errors reach the user: a modal warning titled "连接错误" with one button "确定".
class ErrorPresenter {
public:
    virtual ~ErrorPresenter() = default;
    virtual void showError(const QString& text) = 0;
};

struct PtySetupContext {
    QString title;
    std::optional<QString> envCommands;
    std::optional<QString> command;
    QString sessionPath;
    std::optional<QString> postRevealCommand;
    int retryCount = 0;
};

class SessionController : public QObject {
    Q_OBJECT
public:
    explicit SessionController(QObject* parent = nullptr);
    ~SessionController() override;

    void setLink(RelayLink* link) { link_.set(link); }
    void setTerminal(TerminalSurface* terminal) { terminal_.set(terminal); }
    void setSessionList(SessionListSink* list) { sessionList_.set(list); }
    void setErrorPresenter(ErrorPresenter* presenter) { errors_.set(presenter); }

    // Session state (the workspace reads and writes these directly).
    bool isConnected = false;
    int64_t nextPtyId = 1;
    std::optional<QString> pendingEnvCommands;
    std::map<int64_t, QString> activeSessions;  // PTY id -> normalised working directory, this client's only
    // The running shells of other clients on the agent, by their session row id. Their PTY ids are
    // chosen by those clients and may equal ours, so they never share a map or a row id with ours.
    struct OtherSession {
        int64_t ptyId = 0;
        QString cwd;
    };
    std::map<QString, OtherSession> otherSessions;
    // This client's PTYs the agent reported ended (exit or error) on the current link. Their numbers are
    // no longer ours there: they are never closed, and a list from before the end does not revive them.
    std::set<int64_t> endedPtys;
    QHash<QString, QString> controllerNicknames;
    QHash<QString, QString> controllerNicknameHistory;
    bool pendingAutoCreate = false;
    const QString sentinelMarker = QStringLiteral("__OSTVARREN_READY__");
    double setupTimeout = 3.0;  // seconds per set-up attempt
    std::map<int64_t, PtySetupContext> pendingSetup;
    std::map<int64_t, QPointer<QTimer>> setupTimers;
    std::map<int64_t, QElapsedTimer> setupStartTimes;

    // The fixed delays of the set-up and close sequences; tests shorten them, the order stays.
    struct Delays {
        int createToSetupMs = 300;     // CREATE_PTY -> set-up line
        int revealToResizeMs = 200;    // tab created -> resize and focus
        int resizeToCommandMs = 100;   // -> post-reveal command
        int closeToListMs = 500;       // close -> LIST_PTY
        int reattachToResizeMs = 300;  // re-attached tabs -> resize and focus
    } delays;

    // Opening and closing sessions.
    void allocateAndCreatePty(const QString& title, const std::optional<QString>& command,
                              const std::optional<QString>& envCommands, const QString& sessionPath,
                              const std::optional<QString>& postRevealCommand = std::nullopt);
    std::optional<int64_t> findExistingPty(const QString& forPath) const;
    QString normalizePath(const QString& path) const;
    // "~" and "~/..." expanded against `home` (when known), then one trailing "/" dropped ("/" stays).
    static QString normalizePath(const QString& path, const QString& home);
    void closeAndCleanupPty(int64_t ptyId);
    // Forgets one of this client's sessions and asks the agent to close its PTY: at most once per
    // session, and never for one that has ended. Answers whether "CLOSE_PTY" was asked for.
    bool releasePty(int64_t ptyId);
    // Everything known about sessions on the current link (ours, ended ones and other clients'), and
    // the environment lines waiting for the first session: they belong to that link and agent only.
    void forgetLinkSessions();
    static std::optional<int64_t> parsePtyId(const QString& rowId);
    // The row id of another client's shell: "pty-" + id + "@" + that client, never one of ours.
    static QString otherSessionRowId(int64_t ptyId, const QString& owner);

    // Set-up steps.
    void sendSetupCommands(int64_t ptyId);
    void startSetupTimer(int64_t ptyId);
    void handleSetupTimeout(int64_t ptyId);
    void completePtySetup(int64_t ptyId);
    void cleanupSetup(int64_t ptyId);
    void cleanupAllSetup();

    // Per-PTY callbacks of the connection manager, forwarded by the workspace on the main thread.
    void didReceiveOutput(const std::string& base64, int64_t ptyId);
    void didReceivePtyExit(int64_t ptyId, int64_t exitCode);
    void didReceivePtyError(int64_t ptyId, const QString& reason);
    void didReceivePtyList(const std::vector<PtyInfo>& ptys);

    void showError(const QString& text);

    // The user's display name: the stored "lastNickname", else the local login name.
    static QString userNickname();
    static QString lastPathComponent(const QString& path);  // "~" when there is none

private:
    bool linkConnected() const;
    void send(const Message& m);
    bool hasTab(int64_t ptyId) const;
    void removeTabOf(int64_t ptyId);  // the last tab going leaves the placeholder
    bool showsSentinel(const QString& text) const;

    WeakDelegate<RelayLink> link_;
    WeakDelegate<TerminalSurface> terminal_;
    WeakDelegate<SessionListSink> sessionList_;
    WeakDelegate<ErrorPresenter> errors_;
};

}  // namespace ostv
