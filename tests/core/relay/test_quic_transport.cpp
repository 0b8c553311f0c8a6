#include <gtest/gtest.h>

#include <QDateTime>
#include <QHostAddress>
#include <algorithm>
#include <functional>
#include <mutex>

#include "MainThread.h"
#include "QUICTransport.h"
#include "QuicServer.h"
#include "TestSupport.h"
#include "UdpForwarder.h"

using namespace ostv;
using namespace ostv::server;
using namespace ostv::test;

namespace {

// Records what the transport reports; data and errors arrive on the transport thread.
class Recorder : public QObject, public QUICTransportDelegate {
public:
    std::vector<QUICTransportState> states;  // main thread
    std::mutex m;
    std::string received;
    std::vector<QString> errors;
    bool anyDataOnMainThread = false;
    std::function<void()> onData;  // on the transport thread, after each chunk (set under m)

    void quicTransportDidChangeState(QUICTransport*, const QUICTransportState& s) override {
        EXPECT_TRUE(isMainThread());
        states.push_back(s);
    }
    void quicTransportDidReceiveData(QUICTransport*, std::string_view chunk) override {
        std::lock_guard l(m);
        EXPECT_LE(chunk.size(), 65536u);
        received.append(chunk);
        anyDataOnMainThread |= isMainThread();
        if (onData) onData();
    }
    void quicTransportDidEncounterError(QUICTransport*, const QUICTransportError& e) override {
        std::lock_guard l(m);
        errors.push_back(e.description());
    }
    std::string text() { std::lock_guard l(m); return received; }
    void setOnData(std::function<void()> fn) { std::lock_guard l(m); onData = std::move(fn); }
    size_t errorCount() { std::lock_guard l(m); return errors.size(); }
    bool reached(QUICTransportState::Kind k) const {
        return std::any_of(states.begin(), states.end(), [k](const QUICTransportState& s) { return s.kind == k; });
    }
    // Reports for `t` come here; connects it and waits until it is ready (false: failed or too late).
    bool connect(QUICTransport& t) {
        t.setDelegate(this);
        t.connect();
        waitUntil([&] { return reached(QUICTransportState::Kind::ready) || reached(QUICTransportState::Kind::failed); }, 10000);
        return reached(QUICTransportState::Kind::ready);
    }
};

struct EchoServer {
    QuicServer server;
    std::vector<QString> serverNames;
    std::vector<std::string> lines;
    QPointer<QuicConnection> last;
    explicit EchoServer(const std::function<void(QuicServer&)>& configure = {}) {
        if (configure) configure(server);
        server.onConnection = [this](QuicConnection* c) {
            serverNames.push_back(c->serverName());
            last = c;
            c->onLine = [this, c](std::string_view line) {
                lines.emplace_back(line);
                c->sendLine(std::string("echo:") + std::string(line));
            };
        };
        EXPECT_TRUE(server.listen(QHostAddress::LocalHost, 0)) << server.errorString().toStdString();
    }
};

// The relay's certificate is self-signed for some other name and may have expired: it is accepted.
TEST(QuicTransport, HandshakeEchoedLinesPausedReadingAndDisconnect) {
    const QDateTime now = QDateTime::currentDateTimeUtc();
    EchoServer echo([&](QuicServer& s) { s.setCertificateOptions("relay.elsewhere.test", now.addYears(-3), now.addYears(-2)); });
    Recorder rec;
    QUICTransport t("localhost", echo.server.port(), QString("ctrl-123456"));
    t.setDelegate(&rec);
    std::optional<QUICTransportError> early;
    t.send("early", [&](std::optional<QUICTransportError> e) { early = e; });  // answered at once
    ASSERT_TRUE(early.has_value());
    EXPECT_EQ(early->description(), "未连接到服务器");
    StdoutCapture log;
    ASSERT_TRUE(rec.connect(t)) << (rec.errors.empty() ? "" : rec.errors.at(0).toStdString());
    EXPECT_EQ(rec.states.front().kind, QUICTransportState::Kind::preparing);
    t.send(R"({"type":"LIST_PTY"})");
    ASSERT_TRUE(waitUntil([&] { return rec.text() == "echo:{\"type\":\"LIST_PTY\"}\n"; }, 5000)) << rec.text();
    // Exactly the object, one line feed stripped; the early line was not queued for later.
    EXPECT_EQ(echo.lines, std::vector<std::string>{R"({"type":"LIST_PTY"})"});
    EXPECT_EQ(echo.serverNames, std::vector<QString>{"ctrl-123456"});
    EXPECT_FALSE(rec.anyDataOnMainThread);
    const std::string text = log.text();
    EXPECT_NE(text.find("[Connection] QUIC connecting to localhost:" + std::to_string(echo.server.port()) +
                        ", SNI: ctrl-123456"), std::string::npos) << text;
    EXPECT_NE(text.find("[Connection] State: ready - QUIC connected"), std::string::npos);

    // Paused reading holds the peer back; resuming delivers everything in order.
    std::string expected = rec.text();
    ASSERT_TRUE(echo.last);
    t.setReadPaused(true);
    spin(50);
    bool drained = false;
    echo.last->onDrained = [&] { drained = true; };
    for (int i = 0; i < 1536; ++i) {  // 24 MiB
        const std::string line = std::to_string(i) + std::string(16 * 1024, 'x');
        echo.last->sendLine(line);
        expected += line + "\n";
    }
    spin(1000);
    // The peer may only fill the credit it had when reading paused: the client's receive window, 1 MiB.
    EXPECT_GE(rec.text().size(), 1024u * 1024 / 2);  // data did flow up to the credit...
    EXPECT_LE(rec.text().size(), 1024u * 1024);      // ...and no further
    EXPECT_GT(echo.last->pendingBytes(), 15u * 1024 * 1024);
    EXPECT_FALSE(drained);
    // Resumed while narrowed, and paused again by the first bytes that come: the peer had the narrow
    // window (64 KiB) to send, not the credit held back while paused nor the full window.
    const size_t beforeStep = rec.text().size();
    t.setReadNarrowed(true);
    rec.setOnData([&t] { t.setReadPaused(true); });  // on the transport thread: at once
    t.setReadPaused(false);
    spin(500);
    rec.setOnData(nullptr);
    const size_t step = rec.text().size() - beforeStep;
    EXPECT_GT(step, 0u);
    EXPECT_LE(step, 64u * 1024);
    t.setReadNarrowed(false);
    t.setReadPaused(false);
    ASSERT_TRUE(waitUntil([&] { return rec.text().size() >= expected.size(); }, 30000)) << rec.text().size();
    EXPECT_TRUE(rec.text() == expected);
    ASSERT_TRUE(waitUntil([&] { return drained; }, 5000));
    EXPECT_LT(echo.last->pendingBytes(), QuicConnection::lowWatermark());

    // Disconnecting closes the server's side of the connection and reports nothing more here.
    QString closedWhy;
    echo.last->onClosed = [&](const QString& why) { closedWhy = why; };
    const size_t states = rec.states.size();
    t.disconnect();
    ASSERT_TRUE(waitUntil([&] { return !closedWhy.isEmpty(); }, 5000));  // CONNECTION_CLOSE reached the server
    spin(200);
    EXPECT_EQ(rec.states.size(), states);
    EXPECT_EQ(rec.errorCount(), 0u);
}

// The peer's close: a plain one reads as such; one with an error code names it, for the log. Either way
// the attempt has failed and sends no more. Without a peer the attempt waits.
TEST(QuicTransport, ThePeersCloseErrorCodeIsNamedInTheFailureAndNobodyListeningLeavesItWaiting) {
    for (const uint64_t code : {uint64_t{0}, uint64_t{7}}) {
        Recorder rec;
        EchoServer echo;
        QUICTransport t("127.0.0.1", echo.server.port(), std::nullopt);
        StdoutCapture log;
        ASSERT_TRUE(rec.connect(t));
        EXPECT_NE(log.text().find(", SNI: none"), std::string::npos);
        t.send("hello\n");  // the server knows a connection by its stream
        ASSERT_TRUE(waitUntil([&] { return rec.text() == "echo:hello\n"; }, 10000));
        EXPECT_EQ(echo.serverNames, std::vector<QString>{QString()});  // no name sent
        ASSERT_TRUE(echo.last);
        echo.last->close(code);
        ASSERT_TRUE(waitUntil([&] { return rec.reached(QUICTransportState::Kind::failed); }, 10000));
        const QString error = rec.states.back().error;
        EXPECT_TRUE(error.contains("connection closed by peer")) << error.toStdString();
        EXPECT_EQ(error.contains("application error 7"), code == 7) << error.toStdString();
        EXPECT_EQ(rec.errorCount(), 1u);
        std::optional<QUICTransportError> r;
        t.send("x", [&](std::optional<QUICTransportError> e) { r = e; });
        EXPECT_TRUE(r.has_value());
    }
    // Nobody listening at all: the attempt is left waiting.
    Recorder rec;
    quint16 port = 0;
    if (QuicServer probe; probe.listen(QHostAddress::LocalHost, 0)) port = probe.port();
    ASSERT_NE(port, 0);
    QUICTransport t("127.0.0.1", port, std::nullopt);
    t.setDelegate(&rec);
    t.connect();
    ASSERT_TRUE(waitUntil([&] { return rec.reached(QUICTransportState::Kind::waiting); }, 5000));
    EXPECT_FALSE(rec.reached(QUICTransportState::Kind::ready));
}

// Large transfers arrive whole, and no datagram is larger than the peer said it takes. The handshake
// goes in standard-sized datagrams (a QUIC server on this machine that takes no more than that must still
// be reachable); after it, with our own server advertising large datagrams, loopback traffic uses them.
TEST(QuicTransport, DatagramsStayWithinWhatThePeerAdvertises) {
    for (const size_t advertised : {size_t{NGTCP2_DEFAULT_MAX_RECV_UDP_PAYLOAD_SIZE}, size_t{1350}}) {
        SCOPED_TRACE(advertised);
        EchoServer echo;
        echo.server.maxUdpPayloadSize = advertised;
        UdpForwarder path(echo.server.port());
        ASSERT_TRUE(path.ok());
        Recorder rec;
        QUICTransport t("127.0.0.1", path.port(), QString("ctrl-8"));
        ASSERT_TRUE(rec.connect(t));
        std::string expected;
        for (int i = 0; i < 100; ++i) {  // 3 MB each way: past the stream windows, whole and in order
            const std::string line = std::to_string(i) + std::string(30000 + i, static_cast<char>('a' + i % 26));
            expected += "echo:" + line + "\n";
            t.send(line);
        }
        ASSERT_TRUE(waitUntil([&] { return rec.text().size() >= expected.size(); }, 30000)) << rec.text().size();
        EXPECT_TRUE(rec.text() == expected);
        const std::vector<size_t> fromClient = path.sizesFromClient(), fromServer = path.sizesFromServer();
        ASSERT_FALSE(fromClient.empty() || fromServer.empty());
        EXPECT_GE(fromClient.front(), 1200u) << "an Initial is padded";
        EXPECT_LE(std::max(fromClient.front(), fromServer.front()), 1452u);
        const size_t largest = *std::max_element(fromClient.begin(), fromClient.end());
        EXPECT_LE(largest, advertised);
        if (advertised > 1452) {
            EXPECT_GT(largest, 1452u) << "loopback to our own server takes large datagrams";
        }
    }
}

}  // namespace
