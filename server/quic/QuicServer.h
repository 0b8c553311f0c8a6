#pragma once
// The local server's QUIC listener: one UDP socket, a self-signed certificate (kept in a state folder
// when one is given, else made at start), ALPN "ostvarren-ctrl", and for every client connection its
// one bidirectional stream as lines in and out. Lives on the thread that creates it.
//
// Before a connection is anything, it is bounded: at most maxConnections in total and maxPerAddress
// from one address (further Initials are dropped, logged once a minute), and once more than
// retryAbove handshakes are under way a new client must first prove its address with a Retry round
// trip, so that spoofed Initials cost no state and no crypto. A connection whose peer has proved who
// it is (markAuthenticated: an agent, a seat) leaves those counts, so that many agents behind one
// address, or one agent with many seats, do not crowd out controllers; up to maxAuthenticated of them
// are held apart like that.
#include <QDateTime>
#include <QHostAddress>
#include <QObject>
#include <QPointer>
#include <QSocketNotifier>
#include <QString>
#include <QTimer>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include <gnutls/gnutls.h>

#include "LineConnection.h"
#include "LineSplitter.h"
#include "QuicEngine.h"

namespace ostv::server {

class QuicServer;

class QuicConnection : public LineConnection {
    Q_OBJECT
public:
    QString serverName() const override { return serverName_; }
    QString peerAddress() const override { return peerAddress_; }
    void sendLine(std::string_view line) override;
    // Ends the stream with these bytes in its last frame, as any QUIC peer may; the relay itself closes
    // the connection instead.
    void endStream(std::string_view lastBytes);
    size_t pendingBytes() const override { return engine_ ? engine_->pendingBytes() : 0; }
    void close(uint64_t appErrorCode = 0) override;
    void setReadPaused(bool paused) override;
    bool isClosed() const { return closed_; }
    // The protocol the peer speaks: kRelayAlpn (a controller) or kAgentAlpn (an agent).
    std::string alpn() const { return engine_ ? engine_->selectedAlpn() : std::string(); }
    void setMaxLine(size_t bytes) override { splitter_.setMaxLine(bytes); }
    bool markAuthenticated() override;

    static constexpr size_t lowWatermark() { return 256 * 1024; }

private:
    friend class QuicServer;
    explicit QuicConnection(QuicServer* server);
    void deliver(const char* data, size_t len);
    void finish(const QString& why);

    QuicServer* server_;
    std::unique_ptr<QuicEngine> engine_;
    QTimer timer_{this};
    LineSplitter splitter_{16 * 1024 * 1024};
    bool announced_ = false;
    bool closed_ = false;
    QString serverName_;
    QString peerAddress_;
    sockaddr_storage peer_{};
    socklen_t peerLen_ = 0;
    std::vector<std::string> cids_;
    std::string sourceKey_;
    bool authenticated_ = false;
    int droppedLogged_ = 0;
};

class QuicServer : public QObject {
    Q_OBJECT
public:
    explicit QuicServer(QObject* parent = nullptr);
    ~QuicServer() override;

    bool listen(const QHostAddress& address, quint16 port);  // port 0 = any free port
    quint16 port() const { return port_; }
    QString errorString() const { return error_; }

    size_t maxLineBytes = 16 * 1024 * 1024;  // a longer line is dropped (logged) and the stream goes on
    // The largest datagram clients are told they may send: as large as the receive buffer takes, so a
    // client on the same machine sends few, large datagrams.
    uint64_t maxUdpPayloadSize = NGTCP2_DEFAULT_MAX_RECV_UDP_PAYLOAD_SIZE;
    size_t maxConnections = 1024;
    size_t maxPerAddress = 64;
    size_t maxAuthenticated = 8192;
    size_t retryAbove = 16;  // handshakes under way beyond which new clients get a Retry first

    // Where the certificate and key are kept (made there on the first start). Empty: a new pair on
    // every start. Set before listen().
    void setStateDir(const QString& dir) { stateDir_ = dir; }
    std::function<void(QuicConnection*)> onConnection;  // after the handshake and the client's stream opened

    // Tests: the certificate to serve (made at listen): its common name and validity.
    void setCertificateOptions(const QString& commonName, const QDateTime& notBefore, const QDateTime& notAfter);
    size_t connectionCount() const { return byPeer_.size(); }
    size_t authenticatedCount() const { return authenticated_; }
    uint64_t retriesSent() const { return retriesSent_; }

private:
    friend class QuicConnection;
    void readAll();
    void sendTo(const sockaddr* peer, socklen_t len, const uint8_t* data, size_t n);
    void forget(QuicConnection* c);
    bool makeCredentials();
    bool loadOrMakeCredentials();
    void refuseLogged(const std::string& why);
    bool sendRetry(const sockaddr* peer, socklen_t peerLen, const ngtcp2_pkt_hd& hd);

    int fd_ = -1;
    quint16 port_ = 0;
    QString error_;
    QSocketNotifier* notifier_ = nullptr;
    gnutls_certificate_credentials_t credentials_ = nullptr;
    sockaddr_storage local_{};
    socklen_t localLen_ = 0;
    QString certName_ = QStringLiteral("ostvarren-relay");
    QDateTime notBefore_;
    QDateTime notAfter_;
    std::map<std::string, QPointer<QuicConnection>> byCid_;
    std::map<std::string, QPointer<QuicConnection>> byPeer_;
    std::map<std::string, size_t> perSource_;  // connections from each address, authenticated ones left out
    size_t authenticated_ = 0;
    QString stateDir_;
    bool certOptionsSet_ = false;
    uint8_t retrySecret_[32] = {};
    uint64_t retriesSent_ = 0;
    int64_t lastRefusalLogMs_ = -1;
    int refusedSinceLog_ = 0;
};

}  // namespace ostv::server
