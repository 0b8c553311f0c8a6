#pragma once
// An in-process controller link for driving the relay: records what the relay sends, counts queued
// bytes like a transport whose peer has not acknowledged them yet, and reports closes from the event
// loop as the real link does. The relay deletes a link once it is closed, so what the test looks at
// lives in a Wire that the test keeps.
#include <QPointer>
#include <QTimer>
#include <memory>
#include <string>
#include <vector>

#include "Message.h"
#include "Requests.h"
#include "TestSupport.h"
#include "relay/ControllerLink.h"

namespace ostv::server::test {

struct Wire {
    std::vector<std::string> lines;  // sent by the relay to this peer
    size_t sentBytes = 0;
    size_t pending = 0;
    bool holdAcks = false;  // true: sent bytes stay pending until ackAll()
    bool closed = false;
    bool closedByServer = false;
    bool readPaused = false;
    size_t lineLimit = 0;           // the last limit the server set (0: none)
    bool enforceLineLimit = false;  // true: longer lines are dropped before the server sees them
    size_t droppedLines = 0;
    bool authenticated = false;

    std::vector<Message> received(const std::string& type = {}, size_t from = 0) const {
        return ostv::test::decodedLines(lines, type, from);
    }
    std::string output(int64_t ptyId, size_t from = 0) const { return ostv::test::ptyOutput(lines, ptyId, from); }
    bool waitOutput(int64_t ptyId, const std::string& needle, size_t from = 0, int ms = 8000) const {
        return ostv::test::waitUntil([&] { return output(ptyId, from).find(needle) != std::string::npos; }, ms);
    }
};

class FakeLink : public ControllerLink {
public:
    explicit FakeLink(std::shared_ptr<Wire> wire, QString sni = {}) : wire_(std::move(wire)), sni_(std::move(sni)) {}

    QString serverName() const override { return sni_; }
    QString peerAddress() const override { return QStringLiteral("fake:1"); }
    void sendLine(std::string_view line) override {
        if (wire_->closed) return;
        wire_->lines.emplace_back(line);
        wire_->sentBytes += line.size() + 1;
        if (wire_->holdAcks) wire_->pending += line.size() + 1;
    }
    size_t pendingBytes() const override { return wire_->pending; }
    void close(uint64_t) override {
        if (wire_->closed) return;
        wire_->closedByServer = true;
        finish(QStringLiteral("closed by server"));
    }
    void setReadPaused(bool p) override { wire_->readPaused = p; }
    void setLineLimit(size_t bytes) override { wire_->lineLimit = bytes; }
    void markAuthenticated() override { wire_->authenticated = true; }

    void deliver(const std::string& line) {
        if (wire_->enforceLineLimit && wire_->lineLimit && line.size() > wire_->lineLimit) {
            ++wire_->droppedLines;  // as the real link's line splitter does
            return;
        }
        if (!wire_->closed && onLine) onLine(line);
    }
    void peerClose() { finish(QStringLiteral("peer closed")); }
    void ackAll() {
        wire_->pending = 0;
        if (onDrained) onDrained();
    }

private:
    void finish(const QString& why) {
        if (wire_->closed) return;
        wire_->closed = true;
        QTimer::singleShot(0, this, [this, why] {
            if (onClosed) onClosed(why);
        });
    }
    std::shared_ptr<Wire> wire_;
    QString sni_;
};

// One simulated controller: its wire and, while the relay still has it, its link.
struct Peer {
    std::shared_ptr<Wire> wire = std::make_shared<Wire>();
    QPointer<FakeLink> link;

    void send(const Message& m) { sendRaw(m.encode()); }
    void sendRaw(const std::string& line) {
        if (link) link->deliver(line);
    }
    void leave() {
        if (link) link->peerClose();
    }
    void ackAll() {
        if (link) link->ackAll();
    }
    Wire* operator->() { return wire.get(); }
};

}  // namespace ostv::server::test
