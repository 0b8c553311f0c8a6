#pragma once
// One QUIC connection carrying newline-terminated lines on its one stream, either side: accepted by
// the relay's listener (QuicConnection) or dialled out by an agent (QuicClient).
#include <QObject>
#include <QString>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

namespace ostv::server {

class LineConnection : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;
    ~LineConnection() override = default;

    virtual QString serverName() const = 0;   // the TLS server name the client asked for
    virtual QString peerAddress() const = 0;  // for the log
    virtual void sendLine(std::string_view line) = 0;  // appends '\n'; queued and written as flow control allows
    virtual size_t pendingBytes() const = 0;           // queued or sent, not acknowledged yet
    virtual void close(uint64_t appErrorCode = 0) = 0;  // orderly CONNECTION_CLOSE, then onClosed
    virtual void setReadPaused(bool paused) = 0;
    virtual void setMaxLine(size_t bytes) = 0;  // a longer line from the peer is dropped (logged)
    // The peer has proved who it is (an agent's secret, a seat's key): from now on it no longer counts
    // against the caps that hold back unknown peers. Answers false when that cannot be (a bound of its
    // own is reached); the connection then stays counted as before.
    virtual bool markAuthenticated() { return false; }

    std::function<void(std::string_view line)> onLine;
    std::function<void()> onDrained;
    std::function<void(const QString& why)> onClosed;
};

}  // namespace ostv::server
