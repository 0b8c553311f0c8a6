#include <gtest/gtest.h>

#include <QHostAddress>
#include <mutex>

#include "MainThread.h"
#include "QUICTransport.h"
#include "QuicServer.h"
#include "TestSupport.h"

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
    std::vector<bool> dataOnMainThread;

    void quicTransportDidChangeState(QUICTransport*, const QUICTransportState& s) override {
        EXPECT_TRUE(isMainThread());
        states.push_back(s);
    }
    void quicTransportDidReceiveData(QUICTransport*, std::string_view chunk) override {
        std::lock_guard l(m);
        EXPECT_LE(chunk.size(), 65536u);
        received.append(chunk);
        dataOnMainThread.push_back(isMainThread());
    }
    void quicTransportDidEncounterError(QUICTransport*, const QUICTransportError& e) override {
        std::lock_guard l(m);
        errors.push_back(e.description());
    }
    std::string text() { std::lock_guard l(m); return received; }
    size_t errorCount() { std::lock_guard l(m); return errors.size(); }
    bool reached(QUICTransportState::Kind k) const {
        for (const auto& s : states) if (s.kind == k) return true;
        return false;
    }
};

struct EchoServer {
    QuicServer server;
    std::vector<QString> serverNames;
    std::vector<std::string> lines;
    QPointer<QuicConnection> last;
    EchoServer() {
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

TEST(QuicTransport, HandshakeSendsAndEchoesLinesWithServerName) {
    EchoServer echo;
    Recorder rec;
    QUICTransport t("127.0.0.1", echo.server.port(), QString("ctrl-123456"));
    t.setDelegate(&rec);
    StdoutCapture log;
    t.connect();
    ASSERT_TRUE(waitUntil([&] { return rec.reached(QUICTransportState::Kind::ready); }, 10000));
    EXPECT_EQ(rec.states.front().kind, QUICTransportState::Kind::preparing);
    t.send(R"({"type":"LIST_PTY"})");
    ASSERT_TRUE(waitUntil([&] { return rec.text() == "echo:{\"type\":\"LIST_PTY\"}\n"; }, 5000)) << rec.text();
    ASSERT_EQ(echo.lines.size(), 1u);
    EXPECT_EQ(echo.lines[0], R"({"type":"LIST_PTY"})");  // exactly the object, one line feed stripped
    EXPECT_EQ(echo.serverNames, std::vector<QString>{"ctrl-123456"});
    EXPECT_FALSE(rec.dataOnMainThread.empty());
    for (bool onMain : rec.dataOnMainThread) EXPECT_FALSE(onMain);
    const std::string text = log.text();
    EXPECT_NE(text.find("[Connection] QUIC connecting to 127.0.0.1:" + std::to_string(echo.server.port()) +
                        ", SNI: ctrl-123456"), std::string::npos);
    EXPECT_NE(text.find("[Connection] State: ready - QUIC connected"), std::string::npos);
}

TEST(QuicTransport, SendBeforeReadyIsNotConnectedAndWritesNothing) {
    EchoServer echo;
    Recorder rec;
    QUICTransport t("127.0.0.1", echo.server.port(), std::nullopt);
    t.setDelegate(&rec);
    std::optional<QUICTransportError> result;
    bool called = false;
    t.send("early", [&](std::optional<QUICTransportError> e) { called = true; result = e; });
    ASSERT_TRUE(called);
    ASSERT_TRUE(result.has_value());
    EXPECT_EQ(result->description(), "未连接到服务器");
    StdoutCapture log;
    t.connect();
    ASSERT_TRUE(waitUntil([&] { return rec.reached(QUICTransportState::Kind::ready); }, 10000));
    EXPECT_NE(log.text().find(", SNI: none"), std::string::npos);
    spin(100);
    EXPECT_TRUE(echo.lines.empty());  // nothing was queued for later
    EXPECT_TRUE(echo.serverNames.at(0).isEmpty());
}

TEST(QuicTransport, ServerGoingAwayIsReportedAsAFailure) {
    Recorder rec;
    auto echo = std::make_unique<EchoServer>();
    QUICTransport t("127.0.0.1", echo->server.port(), QString("ctrl-1"));
    t.setDelegate(&rec);
    t.connect();
    ASSERT_TRUE(waitUntil([&] { return rec.reached(QUICTransportState::Kind::ready); }, 10000));
    echo.reset();  // the listener closes its connections and its socket
    ASSERT_TRUE(waitUntil([&] { return rec.reached(QUICTransportState::Kind::failed); }, 20000));
    EXPECT_GE(rec.errorCount(), 1u);
    std::optional<QUICTransportError> r;
    t.send("x", [&](std::optional<QUICTransportError> e) { r = e; });
    EXPECT_TRUE(r.has_value());
}

TEST(QuicTransport, NobodyListeningLeavesTheAttemptWaiting) {
    Recorder rec;
    quint16 port;
    {
        QuicServer probe;
        ASSERT_TRUE(probe.listen(QHostAddress::LocalHost, 0));
        port = probe.port();
    }
    QUICTransport t("127.0.0.1", port, std::nullopt);
    t.setDelegate(&rec);
    t.connect();
    ASSERT_TRUE(waitUntil([&] { return rec.reached(QUICTransportState::Kind::waiting); }, 5000));
    EXPECT_FALSE(rec.reached(QUICTransportState::Kind::ready));
}

TEST(QuicTransport, DisconnectClosesTheServersConnectionAndStaysSilent) {
    EchoServer echo;
    Recorder rec;
    QString closedWhy;
    auto t = std::make_unique<QUICTransport>("127.0.0.1", echo.server.port(), QString("ctrl-2"));
    t->setDelegate(&rec);
    t->connect();
    ASSERT_TRUE(waitUntil([&] { return rec.reached(QUICTransportState::Kind::ready) && echo.last; }, 10000));
    echo.last->onClosed = [&](const QString& why) { closedWhy = why; };
    const size_t states = rec.states.size();
    t->disconnect();
    ASSERT_TRUE(waitUntil([&] { return !closedWhy.isEmpty(); }, 5000));  // CONNECTION_CLOSE reached the server
    spin(200);
    EXPECT_EQ(rec.states.size(), states);
    EXPECT_EQ(rec.errorCount(), 0u);
    t.reset();
}

TEST(QuicTransport, LargeTransfersArriveWholeAndInOrderBothWays) {
    EchoServer echo;
    Recorder rec;
    QUICTransport t("127.0.0.1", echo.server.port(), QString("ctrl-3"));
    t.setDelegate(&rec);
    t.connect();
    ASSERT_TRUE(waitUntil([&] { return rec.reached(QUICTransportState::Kind::ready); }, 10000));
    std::string expected;
    for (int i = 0; i < 200; ++i) {
        std::string line = "L" + std::to_string(i) + ":" + std::string(20000 + i, static_cast<char>('a' + i % 26));
        expected += "echo:" + line + "\n";
        t.send(line);
    }
    ASSERT_TRUE(waitUntil([&] { return rec.text().size() >= expected.size(); }, 30000)) << rec.text().size();
    EXPECT_TRUE(rec.text() == expected);
}

}  // namespace
