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
#include <QTemporaryDir>
#include <QTimer>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <unistd.h>

#include "ClientDecoding.h"
#include "FakeLink.h"
#include "Message.h"
#include "agent/Agent.h"
#include "relay/Relay.h"

using namespace ostv;
using namespace ostv::server;
using ostv::server::test::FakeLink;
using ostv::server::test::Peer;

namespace {

[[noreturn]] void fail(const char* what, std::string_view line) {
    std::fprintf(stderr, "fuzz_relay_requests: %s: %.*s\n", what, static_cast<int>(std::min<size_t>(line.size(), 400)),
                 line.data());
    std::abort();
}

// Every line the server sends is one line that the client decodes.
void checkSentLine(std::string_view line) {
    if (line.find('\n') != std::string_view::npos) fail("a line feed inside a sent line", line);
    if (!fuzz::decodeAsTheClient(line)) fail("sent a line the client cannot decode", line);
}

// A controller's link as the production one behaves towards the relay (closes reported later, from the
// event loop, nothing delivered after them); every line sent on it is checked.
struct Slot {
    Peer peer;
    size_t checked = 0;  // lines of the wire already checked
    void connect(Relay& relay) {
        peer = Peer{};
        checked = 0;
        peer.link = new FakeLink(peer.wire, QStringLiteral("ctrl-123456"));
        relay.accept(peer.link);
    }
    void checkSent() {
        for (; checked < peer->lines.size(); ++checked) checkSentLine(peer->lines[checked]);
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
                    s.peer->holdAcks = true;
                } else if (op == 0x04) {
                    s.peer->holdAcks = false;
                    if (!s.peer->closed) s.peer.ackAll();
                } else if (op == 0x05) {
                    s.peer.leave();
                } else if (!s.peer.link) {
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
                peers[from].peer.sendRaw(text);
            }
            settle();
            for (Slot& s : peers) s.checkSent();
            if (agent.controllerCount() > config.limit) fail("more controllers seated than the limit", line);
        }
        relay.closeAll();
        settle();
        for (Slot& s : peers) s.checkSent();
    }
    settle();
    return 0;
}
