#pragma once
// The production line link: one QUIC connection, accepted by the relay (a controller, an agent) or
// dialled out by an agent (one per seated controller).
#include <QPointer>
#include <QTimer>

#include "ControllerLink.h"

namespace ostv::server {

class LineConnection;

class QuicControllerLink : public ControllerLink {
    Q_OBJECT
public:
    explicit QuicControllerLink(LineConnection* connection, QObject* parent = nullptr);
    ~QuicControllerLink() override;

    QString serverName() const override;
    QString peerAddress() const override;
    void sendLine(std::string_view line) override;
    size_t pendingBytes() const override;
    void close(uint64_t appErrorCode = 0) override;
    void setReadPaused(bool paused) override;
    void setLineLimit(size_t bytes) override;
    void markAuthenticated() override;

private:
    void reportClosed(const QString& why);
    void closeWhenFlushed();

    QPointer<LineConnection> conn_;
    QString serverName_;
    QString peerAddress_;
    bool closed_ = false;
    bool closing_ = false;  // close() was asked for; waiting for the peer to take what is queued
    uint64_t closeCode_ = 0;
    QTimer* flushTimer_ = nullptr;
    int flushWaitedMs_ = 0;
};

}  // namespace ostv::server
