#pragma once
// A QUIC connection dialled out from this program (an agent to its relay): its own UDP socket, one
// client-opened stream of lines. Lives on the thread that creates it.
#include <QHostAddress>
#include <QSocketNotifier>
#include <QTimer>
#include <memory>
#include <string>
#include <vector>
#include <sys/socket.h>

#include "LineConnection.h"
#include "LineSplitter.h"
#include "QuicEngine.h"

namespace ostv::server {

// One address to dial.
struct DialAddress {
    sockaddr_storage addr{};
    socklen_t len = 0;
};

// Every address `host` resolves to for UDP `port`, in the resolver's order; empty with *error set when none.
std::vector<DialAddress> resolveHost(const std::string& host, uint16_t port, std::string* error);

class QuicClient : public LineConnection {
    Q_OBJECT
public:
    explicit QuicClient(QObject* parent = nullptr);
    ~QuicClient() override;

    // The protocol to speak (set before dial): an agent's, or a controller's (tools and benchmarks).
    std::string alpn = kAgentAlpn;
    // Starts the handshake to `to`; onEstablished once the stream is
    // usable, onClosed (from the event loop) if it never gets there or once it ends. False with
    // *error when not even the socket could be set up (or bound to `from`).
    //
    // `from` is the local address to dial from (any free port on it). When it is null, the
    // kSourceAddressProperty of the nearest owner that has one is used (so that many agents in one
    // process, each owning its connections, can each come from an address of its own: 127.0.x.y on
    // loopback); when none has one, the system picks as usual.
    bool dial(const DialAddress& to, const std::string& serverName, std::string* error, const QHostAddress& from = {});
    static constexpr const char* kSourceAddressProperty = "quicSourceAddress";
    bool isEstablished() const { return engine_ && engine_->isEstablished() && !closed_; }

    QString serverName() const override { return serverName_; }
    QString peerAddress() const override { return peerAddress_; }
    void sendLine(std::string_view line) override;
    size_t pendingBytes() const override { return engine_ && !closed_ ? engine_->pendingBytes() : 0; }
    void close(uint64_t appErrorCode = 0) override;
    void setReadPaused(bool paused) override;
    void setMaxLine(size_t bytes) override { splitter_.setMaxLine(bytes); }

    std::function<void()> onEstablished;

    static constexpr int kKeepAliveMs = 5000;

private:
    void readAll();
    void finish(const QString& why);

    int fd_ = -1;
    QSocketNotifier* notifier_ = nullptr;
    QTimer timer_{this};
    std::unique_ptr<QuicEngine> engine_;
    LineSplitter splitter_{16 * 1024 * 1024};
    QString serverName_;
    QString peerAddress_;
    bool closed_ = false;
    bool refused_ = false;
};

}  // namespace ostv::server
