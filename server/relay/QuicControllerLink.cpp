#include "QuicControllerLink.h"

#include <QTimer>

#include "quic/LineConnection.h"

namespace ostv::server {

QuicControllerLink::QuicControllerLink(LineConnection* connection, QObject* parent)
    : ControllerLink(parent), conn_(connection) {
    serverName_ = connection->serverName();
    peerAddress_ = connection->peerAddress();
    connection->onLine = [this](std::string_view line) {
        if (!closed_ && !closing_ && onLine) onLine(line);
    };
    connection->onDrained = [this] {
        if (!closed_ && onDrained) onDrained();
    };
    connection->onClosed = [this](const QString& why) { reportClosed(why); };
    // The connection object may go away without a word (its server stopping).
    connect(connection, &QObject::destroyed, this, [this] { reportClosed(QStringLiteral("connection gone")); });
}

QuicControllerLink::~QuicControllerLink() {
    if (conn_) {
        conn_->onLine = nullptr;
        conn_->onDrained = nullptr;
        conn_->onClosed = nullptr;
        if (!closed_) conn_->close();
    }
}

QString QuicControllerLink::serverName() const { return serverName_; }
QString QuicControllerLink::peerAddress() const { return peerAddress_; }

void QuicControllerLink::sendLine(std::string_view line) {
    if (!closed_ && !closing_ && conn_) conn_->sendLine(line);
}

size_t QuicControllerLink::pendingBytes() const { return conn_ && !closed_ ? conn_->pendingBytes() : 0; }

// A connection close discards stream data the peer has not received yet, and the last line before a
// close is the one that matters ("kicked", "error"): the close waits until the peer has acknowledged
// everything, for at most a few seconds.
void QuicControllerLink::close(uint64_t appErrorCode) {
    if (closed_ || closing_ || !conn_) return;
    closing_ = true;
    closeCode_ = appErrorCode;
    conn_->setReadPaused(true);
    closeWhenFlushed();
}

void QuicControllerLink::closeWhenFlushed() {
    constexpr int kStepMs = 10;
    constexpr int kMaxWaitMs = 3000;
    if (closed_ || !conn_) return;
    if (conn_->pendingBytes() == 0 || flushWaitedMs_ >= kMaxWaitMs) {
        if (flushTimer_) flushTimer_->stop();
        conn_->close(closeCode_);
        return;
    }
    if (!flushTimer_) {
        flushTimer_ = new QTimer(this);
        flushTimer_->setInterval(kStepMs);
        connect(flushTimer_, &QTimer::timeout, this, [this] {
            flushWaitedMs_ += kStepMs;
            closeWhenFlushed();
        });
        flushTimer_->start();
    }
}

void QuicControllerLink::setReadPaused(bool paused) {
    if (!closed_ && conn_) conn_->setReadPaused(paused);
}

void QuicControllerLink::setLineLimit(size_t bytes) {
    if (!closed_ && conn_) conn_->setMaxLine(bytes);
}

void QuicControllerLink::markAuthenticated() {
    if (!closed_ && conn_) conn_->markAuthenticated();
}

void QuicControllerLink::reportClosed(const QString& why) {
    if (closed_) return;
    closed_ = true;
    if (flushTimer_) flushTimer_->stop();
    // Reported from the event loop, never from inside a call the relay is making.
    QTimer::singleShot(0, this, [this, why] {
        if (onClosed) onClosed(why);
    });
}

}  // namespace ostv::server
