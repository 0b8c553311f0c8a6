#pragma once
// The one QUIC connection from this client to the relay: ALPN "ostvarren-ctrl", the per-pairing TLS
// server name, any server certificate accepted, one client-opened bidirectional stream carrying
// newline-terminated JSON. Runs on its own thread "com.ostvarren.quic"; knows nothing of message types.
#include <QObject>
#include <QPointer>
#include <QString>
#include <QThread>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "WeakDelegate.h"

namespace ostv {

struct QUICTransportState {
    enum class Kind { setup, waiting, preparing, ready, failed, cancelled };
    Kind kind = Kind::setup;
    QString error;  // waiting and failed
    QString description() const;
    bool operator==(const QUICTransportState& o) const { return kind == o.kind && error == o.error; }
};

struct QUICTransportError {
    enum class Kind { connectionFailed, sendFailed, notConnected, invalidState, cancelled };
    Kind kind = Kind::connectionFailed;
    QString underlying;  // connectionFailed and sendFailed
    QString description() const;  // the user-facing text
};

class QUICTransport;

class QUICTransportDelegate {
public:
    virtual ~QUICTransportDelegate() = default;
    // On the main thread.
    virtual void quicTransportDidChangeState(QUICTransport* transport, const QUICTransportState& state) = 0;
    // On the transport thread: one received chunk (at most 65536 bytes), unparsed.
    virtual void quicTransportDidReceiveData(QUICTransport* transport, std::string_view chunk) = 0;
    // On the transport thread.
    virtual void quicTransportDidEncounterError(QUICTransport* transport, const QUICTransportError& error) = 0;
};

class QuicClientWorker;

class QUICTransport : public QObject {
    Q_OBJECT
public:
    QUICTransport(const QString& host, quint16 port, std::optional<QString> sni);
    ~QUICTransport() override;  // a dropped transport ends its loops silently

    void setDelegate(QUICTransportDelegate* d) { delegate_.set(d); }
    void connect();
    // Appends one line feed and sends, from any thread. Before the ready state: notConnected.
    void send(std::string data, std::function<void(std::optional<QUICTransportError>)> completion = {});
    void disconnect();  // orderly close; the delegate is not notified
    // Back-pressure: while paused the peer gets no new flow-control credit and soon stops sending.
    // From any thread; the last value set wins. On the transport thread (inside a data callback) it
    // takes effect at once, so a reader that falls behind stops the very next credit update.
    void setReadPaused(bool paused);
    // While narrowed the peer gets credit for a small window only: the reader is behind and everything
    // in flight queues in front of what it waits for. From any thread, like setReadPaused.
    void setReadNarrowed(bool narrowed);

    QUICTransportState state() const;
    bool isCancelled() const { return isCancelled_.load(); }
    QString endpointText() const;
    const std::optional<QString>& sni() const { return sni_; }

private:
    friend class QuicClientWorker;
    void setState(const QUICTransportState& s);  // transport thread
    void stopWorker();
    void applyReadState();  // the wanted pause and narrowing, to the engine on its thread

    WeakDelegate<QUICTransportDelegate> delegate_;
    QString host_;
    quint16 port_;
    std::optional<QString> sni_;
    mutable std::mutex stateMutex_;
    QUICTransportState state_;
    std::atomic<bool> isCancelled_{false};
    std::atomic<bool> ready_{false};
    std::atomic<bool> readPauseWanted_{false};
    std::atomic<bool> readNarrowWanted_{false};
    QThread* thread_ = nullptr;
    QuicClientWorker* worker_ = nullptr;
};

}  // namespace ostv
