#pragma once
// The local server's QUIC listener: one UDP socket, a self-signed certificate made at start, ALPN
// "ostvarren-ctrl", and for every client connection its one bidirectional stream as lines in and out.
// Lives on the thread that creates it.
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

#include "LineSplitter.h"
#include "QuicEngine.h"

namespace ostv::server {

class QuicServer;

class QuicConnection : public QObject {
    Q_OBJECT
public:
    QString serverName() const { return serverName_; }
    QString peerAddress() const { return peerAddress_; }
    void sendLine(std::string_view line);  // appends '\n'; queued and written as flow control allows
    size_t pendingBytes() const { return engine_ ? engine_->pendingBytes() : 0; }
    void close(uint64_t appErrorCode = 0);  // orderly CONNECTION_CLOSE, then onClosed
    void setReadPaused(bool paused);
    bool isClosed() const { return closed_; }

    std::function<void(std::string_view line)> onLine;
    std::function<void()> onDrained;
    std::function<void(const QString& why)> onClosed;
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
    std::function<void(QuicConnection*)> onConnection;  // after the handshake and the client's stream opened

    // Tests: the certificate to serve (made at listen): its common name and validity.
    void setCertificateOptions(const QString& commonName, const QDateTime& notBefore, const QDateTime& notAfter);
    size_t connectionCount() const { return byPeer_.size(); }

private:
    friend class QuicConnection;
    void readAll();
    void sendTo(const sockaddr* peer, socklen_t len, const uint8_t* data, size_t n);
    void forget(QuicConnection* c);
    bool makeCredentials();

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
};

}  // namespace ostv::server
