// The server's handling of what controllers send: every line goes through the relay's strict decoding
// and dispatch (pairing, takeover, listings, shells, input, sizes, closes, folder listings) into one
// agent, with up to three controllers whose links may stop acknowledging, drain, drop and come back.
// The agent's shells are the stand-in of PtyStandIn.cpp, so no input starts a process.
//
// Input: the first byte sets the agent's seat limit (1 or 2) and whether unpaired links time out at
// once. The rest is split at line feeds; a line is delivered by controller 0 unless it starts with a
// control byte:
//   0x01 / 0x02   the rest of the line comes from controller 1 / 2
//   0x03 n        controller n's link stops acknowledging (what is sent stays pending)
//   0x04 n        controller n's link acknowledges everything (and reports the drain)
//   0x05 n        controller n's peer closes the link
//   0x06 n        controller n connects again (a new link) once its old one is gone
// In a delivered line, "$FIRST" stands for the id of the first seated controller (ids are made up
// anew on every run), so that a recorded "takeover" names a real seat.
// Checked on every line the server sends: one line (no line feed inside) that the client's decoding
// accepts. Checked after every step: the agent never seats more controllers than its limit.
#include <QCoreApplication>
#include <QDir>
#include <QPointer>
#include <QTemporaryDir>
#include <QTimer>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <string>
#include <string_view>
#include <unistd.h>

#include "Message.h"
#include "agent/Agent.h"
#include "relay/ControllerLink.h"
#include "relay/Relay.h"

using namespace ostv;
using namespace ostv::server;

namespace {

[[noreturn]] void fail(const char* what, std::string_view line) {
    std::fprintf(stderr, "fuzz_relay_requests: %s: %.*s\n", what, static_cast<int>(std::min<size_t>(line.size(), 400)),
                 line.data());
    std::abort();
}

// The client's side of decoding a received line (as the connection manager does it).
void checkSentLine(std::string_view line) {
    if (line.find('\n') != std::string_view::npos) fail("a line feed inside a sent line", line);
    auto parsed = ReceivedLine::parse(line);
    if (!parsed) fail("sent a line that is not JSON", line);
    auto sniff = parsed.value().sniff();
    if (!sniff) fail("sent a line without a type", line);
    bool ok = false;
    if (sniff->type == "PTY_LIST")
        ok = parsed.value().takePtyList().ok();
    else if (sniff->type == "fs_result")
        ok = parsed.value().takeFsResult().ok();
    else
        ok = parsed.value().takeMessage().ok();
    if (!ok) fail("sent a line the client cannot decode", line);
}

struct Wire {
    size_t pending = 0;
    bool holdAcks = false;
    bool closed = false;
};

// Behaves as the production link does towards the relay: closes are reported later, from the event
// loop, and nothing is delivered after them.
class Link : public ControllerLink {
public:
    explicit Link(std::shared_ptr<Wire> wire) : wire_(std::move(wire)) {}
    QString serverName() const override { return QStringLiteral("ctrl-123456"); }
    QString peerAddress() const override { return QStringLiteral("fuzz:1"); }
    void sendLine(std::string_view line) override {
        if (wire_->closed) return;
        checkSentLine(line);
        if (wire_->holdAcks) wire_->pending += line.size() + 1;
    }
    size_t pendingBytes() const override { return wire_->pending; }
    void close(uint64_t) override { finish(QStringLiteral("closed by server")); }
    void setReadPaused(bool) override {}

    void deliver(std::string_view line) {
        if (!wire_->closed && onLine) onLine(line);
    }
    void ackAll() {
        wire_->pending = 0;
        if (!wire_->closed && onDrained) onDrained();
    }
    void finish(const QString& why) {
        if (wire_->closed) return;
        wire_->closed = true;
        QTimer::singleShot(0, this, [this, why] {
            if (onClosed) onClosed(why);
        });
    }

private:
    std::shared_ptr<Wire> wire_;
};

struct Slot {
    std::shared_ptr<Wire> wire;
    QPointer<Link> link;
    void connect(Relay& relay) {
        wire = std::make_shared<Wire>();
        link = new Link(wire);
        relay.accept(link);
    }
};

QString homePath;

void settle() {
    QCoreApplication::sendPostedEvents(nullptr, 0);
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    new QCoreApplication(*argc, *argv);
    // The server's log goes to standard output; libFuzzer reports on standard error.
    const int null = ::open("/dev/null", O_WRONLY);
    if (null >= 0) ::dup2(null, STDOUT_FILENO);
    static QTemporaryDir home;
    homePath = home.path();
    QDir(homePath).mkpath(QStringLiteral("project/src"));
    QDir(homePath).mkpath(QStringLiteral("notes"));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    AgentConfig config;
    config.code = "123456";
    config.machineId = "m-fuzz";
    config.homeDir = homePath;
    config.shell = QStringLiteral("/bin/sh");
    config.limit = 1 + (data[0] & 1);
    config.maxPtys = 4;
    Agent agent(config);
    {
        Relay relay({&agent}, [] { return std::pair<double, double>{12.5, 40.0}; });
        relay.setPairTimeoutMs((data[0] & 2) ? 0 : 60000);
        Slot peers[3];
        for (Slot& s : peers) s.connect(relay);

        std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
        while (!rest.empty()) {
            const size_t nl = rest.find('\n');
            std::string_view line = rest.substr(0, nl);
            rest.remove_prefix(nl == std::string_view::npos ? rest.size() : nl + 1);
            const unsigned char op = line.empty() ? 0 : static_cast<unsigned char>(line.front());
            if (op >= 0x03 && op <= 0x06) {
                Slot& s = peers[line.size() > 1 ? static_cast<unsigned char>(line[1]) % 3 : 0];
                if (op == 0x03) {
                    s.wire->holdAcks = true;
                } else if (op == 0x04) {
                    s.wire->holdAcks = false;
                    if (s.link) s.link->ackAll();
                } else if (op == 0x05) {
                    if (s.link) s.link->finish(QStringLiteral("peer closed"));
                } else if (!s.link) {
                    s.connect(relay);
                }
            } else {
                int from = 0;
                if (op == 0x01 || op == 0x02) {
                    from = op;
                    line.remove_prefix(1);
                }
                std::string text(line);
                if (const size_t at = text.find("$FIRST"); at != std::string::npos) {
                    const auto seated = agent.controllers();
                    text.replace(at, 6, seated.empty() ? std::string() : seated.front().id);
                }
                if (peers[from].link) peers[from].link->deliver(text);
            }
            settle();
            if (agent.controllerCount() > config.limit) fail("more controllers seated than the limit", line);
        }
        relay.closeAll();
        settle();
    }
    settle();
    return 0;
}
