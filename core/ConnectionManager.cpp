#include "ConnectionManager.h"

#include <QCoreApplication>
#include <QStringDecoder>
#include <chrono>
#include <limits>

#include "Logger.h"
#include "MainThread.h"
#include "OutputTrace.h"
#include "ServerConfig.h"

namespace ostv {

namespace {
bool isValidUtf8(std::string_view bytes) {
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    (void)decoder.decode(QByteArrayView(bytes.data(), static_cast<qsizetype>(bytes.size())));
    return !decoder.hasError();
}

int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}
}  // namespace

std::string ConnectionState::description() const {
    switch (kind) {
        case Kind::connected:
            return "connected(agentId: " + agentId + ", homeDir: " + homeDir.value_or("nil") + ", os: " + os.value_or("nil") +
                   ", machineId: " + machineId.value_or("nil") + ")";
        case Kind::disconnected: return "disconnected";
        case Kind::connecting: return "connecting";
        case Kind::waitingForList: return "waitingForList";
        case Kind::selecting: return "selecting";
        case Kind::reconnecting: return "reconnecting";
    }
    return {};
}

ConnectionManager& ConnectionManager::shared() {
    // Made on first use and owned by the application object, so it goes away before the event loop's
    // resources do and takes its transport thread with it.
    static ConnectionManager* instance = new ConnectionManager(QCoreApplication::instance());
    return *instance;
}

ConnectionManager::ConnectionManager(QObject* parent) : QObject(parent) {
    pingTimer_.setSingleShot(false);
    QObject::connect(&pingTimer_, &QTimer::timeout, this, &ConnectionManager::onPingTick);
}

ConnectionManager::~ConnectionManager() {
    pingTimer_.stop();
    quicTransport_.reset();
}

QString ConnectionManager::agentHomeDir() const {
    return state_.isConnected() && state_.homeDir ? QString::fromStdString(*state_.homeDir) : QString();
}

void ConnectionManager::connect(const Host&, const std::string& code, std::optional<std::string> nickname) {
    state_ = ConnectionState::of(ConnectionState::Kind::connecting);
    pendingCode_ = code;
    pendingNickname_ = std::move(nickname);
    const QString host = ServerConfig::serverHost();
    const int64_t port = ServerConfig::quicPort();
    if (port > 65535) {
        // Such a port cannot be dialled: a clear error instead of a crash, and the attempt ends here.
        Logger::error("Invalid relay port in settings: " + std::to_string(port));
        quicTransport_.reset();
        setStateAndTell(ConnectionState::of(ConnectionState::Kind::disconnected));
        if (auto* d = delegate_.get()) d->connectionManagerDidReceiveError(this, "Connection failed: invalid relay port " + std::to_string(port));
        return;
    }
    // The previous transport is dropped first: its thread has ended before the buffer starts over.
    quicTransport_.reset();
    ++generation_;
    receiveBuffer_.clear();
    quicTransport_ = std::make_unique<QUICTransport>(host, static_cast<quint16>(port), QString::fromStdString("ctrl-" + code));
    quicTransport_->setDelegate(this);
    {
        std::lock_guard lock(pauseMutex_);
        applyReadPause(quicTransport_.get());
        quicTransport_->setReadNarrowed(uiNarrowed_);
    }
    quicTransport_->connect();
    Logger::info("Connecting with code: " + code);
}

void ConnectionManager::setStateAndTell(const ConnectionState& s) {
    state_ = s;
    if (auto* d = delegate_.get()) d->connectionManagerDidChangeState(this, state_);
}

void ConnectionManager::quicTransportDidChangeState(QUICTransport* t, const QUICTransportState& s) {
    if (t != quicTransport_.get()) return;  // a dropped attempt
    Logger::info("QUIC state: " + s.description().toStdString());
    switch (s.kind) {
        case QUICTransportState::Kind::waiting: Logger::info("QUIC: Waiting..."); break;
        case QUICTransportState::Kind::failed:
            Logger::error("QUIC: Failed - " + s.error.toStdString());
            // The state carries the library's error itself; the transport reports the same failure on
            // its own as "连接失败: ...", so the prefix is not added twice here.
            if (auto* d = delegate_.get()) d->connectionManagerDidReceiveError(this, "Connection failed: " + s.error.toStdString());
            pingTimer_.stop();
            setStateAndTell(ConnectionState::of(ConnectionState::Kind::disconnected));
            break;
        case QUICTransportState::Kind::setup: Logger::info("QUIC: Setup"); break;
        case QUICTransportState::Kind::preparing: Logger::info("QUIC: Preparing..."); break;
        case QUICTransportState::Kind::ready: {
            if (state_.kind != ConnectionState::Kind::connecting) {
                Logger::info("QUIC: Ready (ignored, already paired)");
                return;
            }
            Logger::info("QUIC: Ready! Sending pair message...");
            if (!pendingCode_ || !pendingNickname_) {
                if (auto* d = delegate_.get()) d->connectionManagerDidReceiveError(this, "No pairing code");
                return;
            }
            Message pair("pair");
            pair.code = *pendingCode_;
            pair.protoVer = "2.0.0";
            pair.appVer = "2.1.0";
            pair.nickname = *pendingNickname_;
            send(pair);
            setStateAndTell(ConnectionState::of(ConnectionState::Kind::waitingForList));
            break;
        }
        case QUICTransportState::Kind::cancelled:
            Logger::info("QUIC: Cancelled");
            pingTimer_.stop();
            setStateAndTell(ConnectionState::of(ConnectionState::Kind::disconnected));
            break;
    }
}

void ConnectionManager::quicTransportDidEncounterError(QUICTransport*, const QUICTransportError& error) {
    // Reported directly on the transport thread; the state is not changed here.
    if (auto* d = delegate_.get()) d->connectionManagerDidReceiveError(this, error.description().toStdString());
}

void ConnectionManager::quicTransportDidReceiveData(QUICTransport* t, std::string_view chunk) {
    const uint64_t gen = generation_.load();
    const size_t droppedBefore = receiveBuffer_.droppedLines();
    receiveBuffer_.feed(chunk, [this, t, gen](std::string_view line) { lineReceived(t, gen, line); });
    if (receiveBuffer_.droppedLines() != droppedBefore)
        Logger::error("Dropped a line of more than " + std::to_string(kMaxLineBytes / (1024 * 1024)) +
                      " MiB from the relay");
}

void ConnectionManager::lineReceived(QUICTransport* t, uint64_t gen, std::string_view line) {
    auto parsed = ReceivedLine::parse(line);
    if (!parsed) {
        Logger::error("Decode error: " + parsed.error());
        return;
    }
    ReceivedLine& received = parsed.value();
    auto sniff = received.sniff();
    const size_t cost = line.size();
    auto post = [this, t, gen, cost](auto fn) {
        // Bounded hand-off: past a few MiB waiting for the main thread, reading pauses (here, at once: the
        // main thread may be the one that is stuck) until the main thread has caught up to half of that.
        if (awaitingDispatch_.fetch_add(cost) + cost > kMaxAwaitingDispatch) {
            std::lock_guard lock(pauseMutex_);
            if (!backlogPaused_ && awaitingDispatch_.load() > kMaxAwaitingDispatch) {
                backlogPaused_ = true;
                applyReadPause(t);
            }
        }
        QMetaObject::invokeMethod(
            this,
            [this, gen, cost, fn = std::move(fn)]() mutable {
                if (awaitingDispatch_.fetch_sub(cost) - cost < kMaxAwaitingDispatch / 2) {
                    std::lock_guard lock(pauseMutex_);
                    if (backlogPaused_ && awaitingDispatch_.load() < kMaxAwaitingDispatch / 2) {
                        backlogPaused_ = false;
                        applyReadPause(quicTransport_.get());
                    }
                }
                if (gen != generation_.load()) return;  // from an attempt that has since been replaced
                fn();
            },
            Qt::QueuedConnection);
    };
    if (sniff && sniff->type == "PTY_LIST") {
        auto env = received.takePtyList();
        if (!env) {
            Logger::error("PTY_LIST decode failed, raw: " + (isValidUtf8(line) ? std::string(line) : std::string("?")));
            return;
        }
        post([this, ptys = toPtyInfos(env.value())] {
            if (auto* d = delegate_.get()) d->connectionManagerDidReceivePtyList(this, ptys);
        });
        return;
    }
    if (sniff && sniff->type == "fs_result") {
        auto env = received.takeFsResult();
        if (!env) return;  // dropped silently
        post([this, e = std::move(env).value()] { handleFsResult(e); });
        return;
    }
    auto m = received.takeMessage();
    if (!m) {
        Logger::error("Decode error: " + m.error());
        return;
    }
    if (m->ptyId && m->type == "PTY_DATA") trace::mark(trace::Stage::received, *m->ptyId);
    post([this, msg = std::move(m).value()]() mutable { dispatch(std::move(msg)); });
}

// Called with pauseMutex_ held, so the last value handed to the transport is always the current one.
void ConnectionManager::applyReadPause(QUICTransport* t) {
    if (t) t->setReadPaused(uiPaused_ || backlogPaused_);
}

void ConnectionManager::setReceiveNarrowed(bool narrowed) {
    std::lock_guard lock(pauseMutex_);
    uiNarrowed_ = narrowed;
    if (quicTransport_) quicTransport_->setReadNarrowed(narrowed);
}

void ConnectionManager::setReceivePaused(bool paused) {
    std::lock_guard lock(pauseMutex_);
    uiPaused_ = paused;
    applyReadPause(quicTransport_.get());
}

void ConnectionManager::dispatch(Message m) {
    ConnectionManagerDelegate* d = delegate_.get();
    if (m.type == "paired") {
        if (!m.id) return;  // a "paired" without an id changes nothing
        ConnectionState s = ConnectionState::of(ConnectionState::Kind::connected);
        s.agentId = *m.id;
        s.homeDir = m.homeDir;
        s.os = m.os;
        s.machineId = m.machineId;
        state_ = s;
        if (d) d->connectionManagerDidChangeState(this, state_);
        startPingTimer();
    } else if (m.type == "latency_pong") {
        if (!m.ts) return;
        int64_t latency = 0;
        if (__builtin_sub_overflow(nowMs(), *m.ts, &latency)) {
            Logger::error("Ignored a latency answer with an impossible time stamp");
            return;
        }
        if (d) d->connectionManagerDidMeasureLatency(this, latency, m.cpu.value_or(0), m.mem.value_or(0));
    } else if (m.type == "controller_list") {
        state_ = ConnectionState::of(ConnectionState::Kind::selecting);
        if (d)
            d->connectionManagerDidReceiveControllerList(this, m.controllers.value_or(std::vector<ControllerInfo>{}),
                                                         m.limit.value_or(8), m.current.value_or(0));
    } else if (m.type == "kicked") {
        if (d) d->connectionManagerWasKicked(this, m.reason.value_or(""), m.by.value_or(""));
        disconnect();
    } else if (m.type == "PTY_DATA" || m.type == "output") {
        trace::mark(trace::Stage::dispatched, m.ptyId.value_or(1));
        if (d) d->connectionManagerDidReceiveOutput(this, m.data.value_or(""), m.ptyId.value_or(1));
    } else if (m.type == "PTY_EXIT") {
        if (d) d->connectionManagerDidReceivePtyExit(this, m.ptyId.value_or(0), -1);
    } else if (m.type == "PTY_ERROR") {
        if (d) d->connectionManagerDidReceivePtyError(this, m.ptyId.value_or(0), m.reason.value_or("未知错误"));
    } else if (m.type == "error") {
        if (d) d->connectionManagerDidReceiveError(this, m.msg.value_or("Unknown error"));
    } else if (m.type == "controller_joined") {
        if (!m.id || !m.nickname) return;
        if (d) d->connectionManagerControllerJoined(this, *m.id, *m.nickname);
    } else if (m.type == "controller_left") {
        if (!m.id) return;
        if (d) d->connectionManagerControllerLeft(this, *m.id);
    }
}

void ConnectionManager::handleFsResult(const FSResultEnvelope& env) {
    QList<DirectoryItem> items;
    if (env.data)
        for (const FSFileInfo& f : *env.data) items.push_back(DirectoryItem::fromFileInfo(f));
    const QString path = QString::fromStdString(env.path.value_or("."));
    DirectoryResultConsumer* c = directoryConsumer_.get();
    if (!c) return;
    if (c->isAwaitingPathCheck()) {
        c->pathCheckAnswered(env.success);
        return;
    }
    if (!env.success || !env.data || env.op != "list") return;
    if (path == QLatin1String("."))
        c->topLevelDirectories(items);
    else
        c->childDirectories(items, path);
}

void ConnectionManager::startPingTimer() {
    pingTimer_.stop();
    pingCount_ = 0;
    send(Message("LIST_PTY"));
    pingTimer_.start(pingIntervalMs_);
}

void ConnectionManager::onPingTick() {
    if (!state_.isConnected()) return;  // the timer keeps running until disconnect
    send(Message::latencyPing());
    ++pingCount_;
    if (pingCount_ % 3 == 0) send(Message("LIST_PTY"));
}

void ConnectionManager::closePty(int64_t ptyId) {
    if (state_.isConnected()) {
        Logger::info("[CLOSE_PTY] sending ptyId=" + std::to_string(ptyId));
        Message m("CLOSE_PTY");
        m.ptyId = ptyId;
        send(m);
    } else {
        Logger::info("[CLOSE_PTY] SKIPPED — not connected, ptyId=" + std::to_string(ptyId));
    }
}

void ConnectionManager::send(const Message& message) {
    if (!quicTransport_) return;
    std::string bytes;
    try {
        bytes = message.encode();
    } catch (const std::exception& e) {
        Logger::error(std::string("Send error: ") + e.what());
        return;
    }
    quicTransport_->send(std::move(bytes), [](std::optional<QUICTransportError> e) {
        if (e) Logger::error("Send error: " + e->description().toStdString());
    });
}

void ConnectionManager::disconnect() {
    pingTimer_.stop();
    if (quicTransport_) {
        quicTransport_->disconnect();
        quicTransport_.reset();
    }
    ++generation_;
    state_ = ConnectionState::of(ConnectionState::Kind::disconnected);
}

}  // namespace ostv
