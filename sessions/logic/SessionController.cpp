#include "SessionController.h"

#include <QByteArray>
#include <QStringDecoder>
#include <utility>

#include "ClientIdentity.h"
#include "LocalUser.h"
#include "Logger.h"
#include "ServerConfig.h"

namespace ostv {

namespace {
const QString kPlaceholder = QStringLiteral("选择目录以启动终端");
const QString kSetupFailed = QStringLiteral("终端初始化失败：链路不通");

std::string str(const QString& s) { return s.toStdString(); }
}  // namespace

SessionController::SessionController(QObject* parent) : QObject(parent) {}

SessionController::~SessionController() { cleanupAllSetup(); }

bool SessionController::linkConnected() const {
    RelayLink* l = link_.get();
    return l && l->isLinkConnected();
}

void SessionController::send(const Message& m) {
    if (!linkConnected()) return;  // skipped silently; bookkeeping goes on
    link_->send(m);
}

bool SessionController::hasTab(int64_t ptyId) const {
    TerminalSurface* t = terminal_.get();
    return t && t->tabIds().contains(ptyId);
}

QString SessionController::normalizePath(const QString& path) const {
    return normalizePath(path, link_ ? link_->agentHomeDir() : QString());
}

QString SessionController::normalizePath(const QString& path, const QString& home) {
    QString p = path;
    if (!home.isEmpty()) {
        if (p == QLatin1String("~"))
            p = home;
        else if (p.startsWith(QLatin1String("~/")))
            p = home + QLatin1Char('/') + p.mid(2);
    }
    if (p.size() >= 2 && p.endsWith(QLatin1Char('/'))) p.chop(1);
    return p;
}

std::optional<int64_t> SessionController::findExistingPty(const QString& forPath) const {
    const QString wanted = normalizePath(forPath);
    // Only a session this window shows (or is setting up) counts: another controller's shell in the same
    // folder has no tab here to switch to.
    for (const auto& [id, path] : activeSessions)
        if ((hasTab(id) || pendingSetup.count(id)) && normalizePath(path) == wanted) return id;
    return std::nullopt;
}

std::optional<int64_t> SessionController::parsePtyId(const QString& rowId) {
    if (!rowId.startsWith(QLatin1String("pty-"))) return std::nullopt;
    bool ok = false;
    const qlonglong id = rowId.mid(4).toLongLong(&ok);
    if (!ok) return std::nullopt;
    return static_cast<int64_t>(id);
}

QString SessionController::otherSessionRowId(int64_t ptyId, const QString& owner) {
    return QStringLiteral("pty-%1@%2").arg(ptyId).arg(owner);
}

QString SessionController::lastPathComponent(const QString& path) {
    QString p = path;
    while (p.size() > 1 && p.endsWith(QLatin1Char('/'))) p.chop(1);
    const qsizetype slash = p.lastIndexOf(QLatin1Char('/'));
    const QString last = slash >= 0 ? p.mid(slash + 1) : p;
    return last.isEmpty() ? QStringLiteral("~") : last;
}

QString SessionController::userNickname() {
    if (auto stored = ServerConfig::string(SettingsKey::lastNickname); stored && !stored->isEmpty()) return *stored;
    return localLoginName();
}

void SessionController::allocateAndCreatePty(const QString& title, const std::optional<QString>& command,
                                             const std::optional<QString>& envCommands, const QString& sessionPath,
                                             const std::optional<QString>& postRevealCommand) {
    const QString path = normalizePath(sessionPath);
    if (auto existing = findExistingPty(path)) {
        Logger::session(str(QStringLiteral("cwd=%1 already active as pty=%2, switching tab").arg(path).arg(*existing)));
        if (terminal_) {
            terminal_->switchTab(*existing);
            terminal_->focus();
        }
        return;
    }
    // The agent tells shells apart by client, but "CLOSE_PTY" names only a number: a number that no other
    // client runs keeps a later takeover of their shell from meaning one of ours.
    const auto takenByOthers = [this](int64_t id) {
        for (const auto& [row, other] : otherSessions)
            if (other.ptyId == id) return true;
        return false;
    };
    while (nextPtyId < INT64_MAX && takenByOthers(nextPtyId)) ++nextPtyId;
    if (nextPtyId == INT64_MAX) {
        showError(QStringLiteral("会话编号已用尽"));  // cannot happen in practice; never wrap into a live id
        return;
    }
    const int64_t ptyId = nextPtyId++;
    activeSessions[ptyId] = path;
    pendingSetup[ptyId] = PtySetupContext{title, envCommands, command, path, postRevealCommand, 0};

    if (linkConnected()) {
        Message create("CREATE_PTY");
        create.ptyId = ptyId;
        create.cols = 80;
        create.rows = 24;
        create.cwd = str(path);
        create.clientId = str(ClientIdentity::getOrCreate());
        link_->send(create);
    }
    QPointer<SessionController> self(this);
    QTimer::singleShot(delays.createToSetupMs, this, [self, ptyId] {
        if (self) self->sendSetupCommands(ptyId);
    });
}

void SessionController::sendSetupCommands(int64_t ptyId) {
    auto it = pendingSetup.find(ptyId);
    if (it == pendingSetup.end() || !isConnected) return;
    const PtySetupContext& ctx = it->second;

    QStringList commands;
    if (ctx.envCommands) {
        for (const QString& piece : ctx.envCommands->split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
            const QString trimmed = piece.trimmed();
            if (!trimmed.isEmpty()) commands << trimmed;
        }
    }
    if (ctx.command && !ctx.command->isEmpty()) commands << *ctx.command;
    commands << QStringLiteral("clear") << QStringLiteral("echo ") + sentinelMarker;
    const QString line = commands.join(QStringLiteral(" && "));
    Logger::ptySetup(str(QStringLiteral("pty=%1 sending %2 env commands + sentinel").arg(ptyId).arg(commands.size() - 2)));

    Message exec("EXEC");
    exec.ptyId = ptyId;
    exec.command = str(line);
    send(exec);

    setupStartTimes[ptyId].start();
    startSetupTimer(ptyId);
}

void SessionController::startSetupTimer(int64_t ptyId) {
    if (auto it = setupTimers.find(ptyId); it != setupTimers.end()) {
        if (it->second) it->second->deleteLater();
        setupTimers.erase(it);
    }
    auto* timer = new QTimer(this);
    timer->setSingleShot(true);
    QPointer<SessionController> self(this);
    connect(timer, &QTimer::timeout, this, [self, ptyId] {
        if (self) self->handleSetupTimeout(ptyId);
    });
    timer->start(static_cast<int>(setupTimeout * 1000.0));
    setupTimers[ptyId] = timer;
}

void SessionController::handleSetupTimeout(int64_t ptyId) {
    auto it = pendingSetup.find(ptyId);
    if (it == pendingSetup.end()) return;
    if (it->second.retryCount == 0) {
        it->second.retryCount = 1;
        Logger::ptySetup(str(QStringLiteral("pty=%1 sentinel timeout, retrying echo...").arg(ptyId)));
        Message exec("EXEC");
        exec.ptyId = ptyId;
        exec.command = str(QStringLiteral("echo ") + sentinelMarker);
        send(exec);
        startSetupTimer(ptyId);
        return;
    }
    Logger::ptySetup(str(QStringLiteral("pty=%1 FAILED — link unresponsive after 2 attempts").arg(ptyId)));
    cleanupSetup(ptyId);
    releasePty(ptyId);
    showError(kSetupFailed);
}

void SessionController::didReceiveOutput(const std::string& base64, int64_t ptyId) {
    if (pendingSetup.count(ptyId)) {
        auto decoded = QByteArray::fromBase64Encoding(QByteArray::fromRawData(base64.data(), static_cast<qsizetype>(base64.size())),
                                                      QByteArray::AbortOnBase64DecodingErrors);
        if (!decoded) return;
        QStringDecoder utf8(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
        const QString text = utf8(decoded.decoded);
        if (utf8.hasError()) return;
        if (showsSentinel(text)) completePtySetup(ptyId);
        return;  // output of a PTY under set-up is never shown
    }
    if (hasTab(ptyId)) terminal_->writeOutput(base64, ptyId);
}

bool SessionController::showsSentinel(const QString& text) const {
    // The terminal echoes the set-up line as it is typed, and that echo carries the marker too, right
    // behind "echo ". Only the marker the shell printed, after running everything before it, counts.
    static const QString echoWord = QStringLiteral("echo ");
    for (qsizetype at = text.indexOf(sentinelMarker); at >= 0; at = text.indexOf(sentinelMarker, at + 1)) {
        if (at >= echoWord.size() && QStringView(text).sliced(at - echoWord.size(), echoWord.size()) == echoWord)
            continue;
        return true;
    }
    return false;
}

void SessionController::completePtySetup(int64_t ptyId) {
    auto it = pendingSetup.find(ptyId);
    if (it == pendingSetup.end() || !isConnected) {
        cleanupSetup(ptyId);
        return;
    }
    const PtySetupContext ctx = it->second;
    qint64 ms = 0;
    if (auto st = setupStartTimes.find(ptyId); st != setupStartTimes.end() && st->second.isValid())
        ms = st->second.elapsed();
    Logger::ptySetup(str(QStringLiteral("pty=%1 sentinel OK (%2ms) — creating tab").arg(ptyId).arg(ms)));
    cleanupSetup(ptyId);
    if (terminal_) {
        terminal_->createTab(ptyId, ctx.title);
        terminal_->hideFrozenOverlay();
    }
    if (sessionList_) sessionList_->highlightSession(ptyId);

    Message clear("EXEC");
    clear.ptyId = ptyId;
    clear.command = "clear";
    send(clear);
    send(Message("LIST_PTY"));  // the new session shows in the list now, not at the next periodic list

    QPointer<SessionController> self(this);
    const int commandDelay = delays.resizeToCommandMs;
    QTimer::singleShot(delays.revealToResizeMs, this, [self, ptyId, ctx, commandDelay] {
        if (!self) return;
        if (self->terminal_) {
            self->terminal_->triggerResize(ptyId, false);
            self->terminal_->focus();
        }
        if (ctx.postRevealCommand && !ctx.postRevealCommand->isEmpty()) {
            const QString command = *ctx.postRevealCommand;
            QTimer::singleShot(commandDelay, self.data(), [self, ptyId, command] {
                if (!self) return;
                Message exec("EXEC");
                exec.ptyId = ptyId;
                exec.command = command.toStdString();
                self->send(exec);
            });
        }
    });
}

void SessionController::cleanupSetup(int64_t ptyId) {
    pendingSetup.erase(ptyId);
    if (auto it = setupTimers.find(ptyId); it != setupTimers.end()) {
        if (it->second) {
            it->second->stop();
            it->second->deleteLater();
        }
        setupTimers.erase(it);
    }
    setupStartTimes.erase(ptyId);
}

void SessionController::cleanupAllSetup() {
    std::vector<int64_t> ids;
    for (const auto& [id, ctx] : pendingSetup) ids.push_back(id);
    for (const auto& [id, timer] : setupTimers) ids.push_back(id);
    for (int64_t id : ids) cleanupSetup(id);
}

void SessionController::closeAndCleanupPty(int64_t ptyId) {
    const int tabs = terminal_ ? static_cast<int>(terminal_->tabIds().size()) : 0;
    Logger::session(str(QStringLiteral("closeAndCleanupPty ptyId=%1 connected=%2 localTabs=%3")
                            .arg(ptyId)
                            .arg(isConnected ? "true" : "false")
                            .arg(tabs)));
    releasePty(ptyId);
    removeTabOf(ptyId);
    QPointer<SessionController> self(this);
    QTimer::singleShot(delays.closeToListMs, this, [self] {
        if (self && self->isConnected) self->send(Message("LIST_PTY"));
    });
}

bool SessionController::releasePty(int64_t ptyId) {
    // Only a session still held as live: one that was closed already, or whose shell has ended, is no
    // longer ours on the agent, and the number may well be another client's there.
    if (activeSessions.erase(ptyId) == 0 || endedPtys.count(ptyId)) return false;
    if (!link_) return false;
    link_->closePty(ptyId);
    return true;
}

void SessionController::removeTabOf(int64_t ptyId) {
    if (!hasTab(ptyId)) return;
    if (terminal_->tabIds().size() < 2) {
        terminal_->removeAllTabs();
        terminal_->showEmptyState(kPlaceholder);
    } else {
        terminal_->closeTab(ptyId);
    }
}

void SessionController::forgetLinkSessions() {
    activeSessions.clear();
    otherSessions.clear();
    endedPtys.clear();
    pendingEnvCommands.reset();
}

void SessionController::didReceivePtyExit(int64_t ptyId, int64_t exitCode) {
    endedPtys.insert(ptyId);
    if (pendingSetup.count(ptyId)) {
        cleanupSetup(ptyId);
        activeSessions.erase(ptyId);
        return;
    }
    activeSessions.erase(ptyId);
    if (hasTab(ptyId)) {
        terminal_->maskTab(ptyId, exitCode == -1 ? QStringLiteral("会话已被接管")
                                                 : QStringLiteral("会话已终止 (exit %1)").arg(exitCode));
    }
    if (isConnected) send(Message("LIST_PTY"));
}

void SessionController::didReceivePtyError(int64_t ptyId, const QString& reason) {
    endedPtys.insert(ptyId);
    if (pendingSetup.count(ptyId)) {
        cleanupSetup(ptyId);
        activeSessions.erase(ptyId);
    } else {
        activeSessions.erase(ptyId);
        removeTabOf(ptyId);
    }
    showError(reason);
}

void SessionController::didReceivePtyList(const std::vector<PtyInfo>& ptys) {
    const QString clientId = ClientIdentity::getOrCreate();
    const auto isMine = [&clientId](const PtyInfo& p) { return QString::fromStdString(p.clientId) == clientId; };
    // A shell of ours seen ending stays ended: a list asked for before the end still calls it running.
    std::vector<PtyInfo> running;
    for (const PtyInfo& p : ptys)
        if (p.state == "running" && !(isMine(p) && endedPtys.count(p.ptyId))) running.push_back(p);

    const QString nickname = userNickname();
    // Another client is named by its client id, or by its controller when it gave none.
    const auto ownerOf = [](const PtyInfo& p) {
        return QString::fromStdString(p.clientId.empty() ? p.controllerId : p.clientId);
    };

    activeSessions.clear();
    otherSessions.clear();
    for (const PtyInfo& p : running) {
        if (!isMine(p))
            otherSessions[otherSessionRowId(p.ptyId, ownerOf(p))] = {p.ptyId, QString::fromStdString(p.cwd)};
        else
            activeSessions[p.ptyId] = QString::fromStdString(p.cwd);
    }
    // A list asked for before a session was created does not know it yet (the agent answers in order);
    // a session still being set up stays active, or the same folder could open twice.
    for (const auto& [id, ctx] : pendingSetup) activeSessions.try_emplace(id, ctx.sessionPath);

    QList<User> rows;
    for (const PtyInfo& p : running) {
        QString ownerName;
        const bool mine = isMine(p);
        if (mine)
            ownerName = nickname;
        else if (auto it = controllerNicknameHistory.find(QString::fromStdString(p.controllerId));
                 it != controllerNicknameHistory.end())
            ownerName = it.value();
        else
            ownerName = QString::fromStdString(p.controllerId).left(8);
        User row;
        row.id = mine ? QStringLiteral("pty-%1").arg(p.ptyId) : otherSessionRowId(p.ptyId, ownerOf(p));
        row.name = lastPathComponent(QString::fromStdString(p.cwd)) + QStringLiteral(" (") + ownerName + QLatin1Char(')');
        row.avatar = ownerName.left(2).toUpper();
        row.isSelf = mine;
        rows.push_back(row);
    }
    if (sessionList_) sessionList_->setUsers(rows, 8);

    // This client's own PTYs live on across reconnections and restarts: new ids must stay clear of them.
    for (const PtyInfo& p : running)
        if (isMine(p) && p.ptyId >= nextPtyId && p.ptyId < INT64_MAX) nextPtyId = p.ptyId + 1;

    if (!pendingAutoCreate) return;
    pendingAutoCreate = false;

    std::vector<PtyInfo> mine;
    for (const PtyInfo& p : running)
        if (isMine(p)) mine.push_back(p);

    if (!mine.empty()) {
        if (terminal_) {
            for (const PtyInfo& p : mine)
                if (!hasTab(p.ptyId)) terminal_->createTab(p.ptyId, lastPathComponent(QString::fromStdString(p.cwd)));
            terminal_->hideFrozenOverlay();
        }
        QPointer<SessionController> self(this);
        QTimer::singleShot(delays.reattachToResizeMs, this, [self] {
            if (!self || !self->terminal_) return;
            self->terminal_->triggerResize(0, true);
            self->terminal_->focus();
        });
    } else {
        // The lines are for the first session after pairing only: taken, not kept for the next one.
        const std::optional<QString> env = std::exchange(pendingEnvCommands, std::nullopt);
        allocateAndCreatePty(QStringLiteral("终端"), std::nullopt, env, QStringLiteral("~"), std::nullopt);
    }
}

void SessionController::showError(const QString& text) {
    if (errors_) errors_->showError(text);
}

}  // namespace ostv
