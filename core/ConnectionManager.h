#pragma once
// The single owner of the relay session: pairs with an agent by code over a QUICTransport, keeps the
// connection state, pings every 3 s (and asks for the PTY list every third tick), splits and decodes the
// received stream on the transport thread, and dispatches each message on the main thread.
#include <QList>
#include <QObject>
#include <QString>
#include <QTimer>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "DomainRecords.h"
#include "LineSplitter.h"
#include "Message.h"
#include "QUICTransport.h"
#include "RelayLink.h"
#include "WeakDelegate.h"

namespace ostv {

struct ConnectionState {
    enum class Kind { connected, disconnected, connecting, waitingForList, selecting, reconnecting };
    Kind kind = Kind::disconnected;
    std::string agentId;  // connected
    std::optional<std::string> homeDir;
    std::optional<std::string> os;
    std::optional<std::string> machineId;

    static ConnectionState of(Kind k) { ConnectionState s; s.kind = k; return s; }
    bool isConnected() const { return kind == Kind::connected; }
    std::string description() const;
    bool operator==(const ConnectionState&) const = default;
};

class ConnectionManager;

class ConnectionManagerDelegate {
public:
    virtual ~ConnectionManagerDelegate() = default;
    virtual void connectionManagerDidChangeState(ConnectionManager* m, const ConnectionState& state) = 0;
    virtual void connectionManagerDidReceivePtyList(ConnectionManager* m, const std::vector<PtyInfo>& ptys) = 0;
    virtual void connectionManagerDidReceiveControllerList(ConnectionManager* m, const std::vector<ControllerInfo>& list,
                                                           int64_t limit, int64_t current) = 0;
    virtual void connectionManagerWasKicked(ConnectionManager* m, const std::string& reason, const std::string& by) = 0;
    virtual void connectionManagerDidReceiveOutput(ConnectionManager* m, const std::string& base64, int64_t ptyId) = 0;
    virtual void connectionManagerDidReceivePtyExit(ConnectionManager* m, int64_t ptyId, int64_t exitCode) = 0;
    virtual void connectionManagerDidReceivePtyError(ConnectionManager* m, int64_t ptyId, const std::string& reason) = 0;
    // On the main thread, except for transport errors, which arrive on the transport thread.
    virtual void connectionManagerDidReceiveError(ConnectionManager* m, const std::string& message) = 0;
    virtual void connectionManagerControllerJoined(ConnectionManager* m, const std::string& id, const std::string& nickname) = 0;
    virtual void connectionManagerControllerLeft(ConnectionManager* m, const std::string& id) = 0;
    virtual void connectionManagerDidMeasureLatency(ConnectionManager* m, int64_t ms, double cpu, double mem) = 0;
};

// Where directory listings ("fs_result") go: the session side.
class DirectoryResultConsumer {
public:
    virtual ~DirectoryResultConsumer() = default;
    virtual bool isAwaitingPathCheck() const = 0;
    virtual void pathCheckAnswered(bool exists) = 0;  // the check flag is cleared by the consumer
    virtual void topLevelDirectories(const QList<DirectoryItem>& items) = 0;
    virtual void childDirectories(const QList<DirectoryItem>& items, const QString& path) = 0;
};

class ConnectionManager : public QObject, public QUICTransportDelegate, public RelayLink {
    Q_OBJECT
public:
    static ConnectionManager& shared();
    explicit ConnectionManager(QObject* parent = nullptr);
    ~ConnectionManager() override;

    void setDelegate(ConnectionManagerDelegate* d) { delegate_.set(d); }
    void setDirectoryConsumer(DirectoryResultConsumer* c) { directoryConsumer_.set(c); }

    // Starts a pairing attempt; the relay address always comes from the settings store.
    void connect(const Host& to, const std::string& code, std::optional<std::string> nickname);
    void send(const Message& message) override;
    void closePty(int64_t ptyId) override;
    void disconnect();

    const ConnectionState& state() const { return state_; }
    QUICTransport* transport() const { return quicTransport_.get(); }
    int pingCount() const { return pingCount_; }
    bool isPingTimerActive() const { return pingTimer_.isActive(); }
    // The number of the current link attempt: it changes on every connect and disconnect. Readable from
    // any thread, so that an error reported on the transport thread can be matched, once on the main
    // thread, against the attempt that is current by then.
    uint64_t attempt() const { return generation_.load(); }
    void setPingIntervalForTesting(int ms) { pingIntervalMs_ = ms; }

    // RelayLink
    bool isLinkConnected() const override { return state_.isConnected(); }
    QString agentHomeDir() const override;
    void setReceivePaused(bool paused) override;
    void setReceiveNarrowed(bool narrowed) override;

    // QUICTransportDelegate
    void quicTransportDidChangeState(QUICTransport* t, const QUICTransportState& state) override;
    void quicTransportDidReceiveData(QUICTransport* t, std::string_view chunk) override;
    void quicTransportDidEncounterError(QUICTransport* t, const QUICTransportError& error) override;

    static constexpr size_t kMaxAwaitingDispatch = 4 * 1024 * 1024;
    // The longest line taken from the relay; a longer one is dropped whole (a broken or hostile relay
    // cannot make the client buffer without bound).
    static constexpr size_t kMaxLineBytes = 16 * 1024 * 1024;

private:
    void setStateAndTell(const ConnectionState& s);
    void dispatch(Message m);
    void handleFsResult(const FSResultEnvelope& env);
    void startPingTimer();
    void onPingTick();
    void applyReadPause(QUICTransport* t);
    void lineReceived(QUICTransport* t, uint64_t generation, std::string_view line);

    WeakDelegate<ConnectionManagerDelegate> delegate_;
    WeakDelegate<DirectoryResultConsumer> directoryConsumer_;
    ConnectionState state_;
    std::unique_ptr<QUICTransport> quicTransport_;
    std::atomic<uint64_t> generation_{0};  // which transport's messages are current
    LineSplitter receiveBuffer_{kMaxLineBytes};  // touched on the transport thread only
    std::optional<std::string> pendingCode_;
    std::optional<std::string> pendingNickname_;
    QTimer pingTimer_;
    int pingCount_ = 0;
    int pingIntervalMs_ = 3000;
    // Bytes of decoded messages posted to the main thread and not yet dispatched. Kept across attempts:
    // every posted message takes its cost back when it runs, current or not.
    std::atomic<size_t> awaitingDispatch_{0};
    std::mutex pauseMutex_;  // orders the pause decisions made on the two threads
    bool backlogPaused_ = false;
    bool uiPaused_ = false;
    bool uiNarrowed_ = false;
};

}  // namespace ostv
