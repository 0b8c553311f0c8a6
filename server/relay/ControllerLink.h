#pragma once
// One controller's line-based link to the relay, as the relay logic sees it. The production link
// wraps a QUIC connection (QuicControllerLink); tests drive the relay with in-process links.
#include <QObject>
#include <QString>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

namespace ostv::server {

class ControllerLink : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;
    ~ControllerLink() override = default;

    // The TLS server name the peer asked for ("ctrl-" + code), empty when it sent none.
    virtual QString serverName() const = 0;
    // The peer's address as text, for the log.
    virtual QString peerAddress() const = 0;
    // Queues one line (the terminator is added by the link). Ignored once the link is closed.
    virtual void sendLine(std::string_view line) = 0;
    // Bytes queued but not yet acknowledged by the peer.
    virtual size_t pendingBytes() const = 0;
    // Closes the link after what was queued so far has been handed to the transport.
    virtual void close(uint64_t appErrorCode = 0) = 0;
    // Stops (true) or resumes (false) delivering received lines; the transport's flow control then
    // holds the peer back.
    virtual void setReadPaused(bool paused) = 0;
    // Longest line accepted from now on; a longer one is dropped whole. Links without a limit of their
    // own ignore it.
    virtual void setLineLimit(size_t) {}
    // The peer has proved who it is (an agent, a seat): its transport stops counting it among the
    // unknown peers of its address. Links without such caps ignore it.
    virtual void markAuthenticated() {}

    // Set by the relay. onLine: one received line without its terminator. onDrained: the queue fell
    // back below the transport's low watermark. onClosed: the link is gone (peer close, idle
    // time-out, error or close()); called at most once, never from inside sendLine(), close() or
    // setReadPaused() (always later, from the event loop), and nothing is delivered after it.
    std::function<void(std::string_view)> onLine;
    std::function<void()> onDrained;
    std::function<void(const QString&)> onClosed;
};

}  // namespace ostv::server
