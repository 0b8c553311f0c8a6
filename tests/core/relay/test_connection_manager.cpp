#include <gtest/gtest.h>

#include <QHostAddress>
#include <QPointer>
#include <QThread>
#include <atomic>
#include <functional>
#include <new>
#include <nlohmann/json.hpp>

#include "ConnectionManager.h"
#include "ManagerEvents.h"
#include "QuicServer.h"
#include "ServerConfig.h"
#include "TestSupport.h"

using namespace ostv;
using namespace ostv::server;
using namespace ostv::test;

namespace {

using Events = ManagerEvents;

// A scripted relay: records every line and answers "pair" with "paired" unless told otherwise.
struct Relay {
    QuicServer server;
    std::vector<std::string> lines;
    std::vector<QString> serverNames;
    QPointer<QuicConnection> conn;
    bool answerPair = true;
    Relay() {
        server.onConnection = [this](QuicConnection* c) {
            conn = c;
            serverNames.push_back(c->serverName());
            c->onLine = [this, c](std::string_view line) {
                lines.emplace_back(line);
                auto m = Message::decode(line);
                if (answerPair && m && m->type == "pair")
                    c->sendLine(R"({"type":"paired","id":"ctl-1","home_dir":"/home/u","os":"linux","machine_id":"m-1"})");
                if (m && m->type == "latency_ping")
                    c->sendLine(R"({"type":"latency_pong","ts":)" + std::to_string(*m->ts) + R"(,"cpu":12.6,"mem":40})");
            };
        };
        EXPECT_TRUE(server.listen(QHostAddress::LocalHost, 0));  // the default host is 127.0.0.1
        ServerConfig::setInteger(SettingsKey::serverQuicPort, server.port());
    }
    size_t count(const std::string& type) {
        return std::count_if(lines.begin(), lines.end(), [&](const std::string& l) {
            auto m = Message::decode(l);
            return m && m->type == type;
        });
    }
    void push(const std::string& line) { conn->sendLine(line); }
};

class Manager : public ::testing::Test {
protected:
    Events ev;
    ConnectionManager mgr;
    void SetUp() override {
        ServerConfig::defaults().clear();
        mgr.setDelegate(&ev);
        mgr.setDirectoryConsumer(&ev);
        mgr.setPingIntervalForTesting(40);
    }
    void pair(Relay& relay, std::optional<std::string> nickname = std::string("alice")) {
        mgr.connect(Host{}, "123456", nickname);
        ASSERT_TRUE(waitUntil([&] { return mgr.state().isConnected(); }, 10000)) << relay.lines.size();
    }
};

// One link from before pairing to being kicked: the handshake, the ping timer, "paired" again, a close;
// then a second link that the relay ends.
TEST_F(Manager, PairingPingsPairedAgainCloseKickedAndTheRelayGoingAway) {
    StdoutCapture log;
    mgr.closePty(3);
    EXPECT_NE(log.text().find("[Info] [CLOSE_PTY] SKIPPED — not connected, ptyId=3"), std::string::npos);
    Relay relay;
    pair(relay);
    EXPECT_EQ(relay.serverNames, std::vector<QString>{"ctrl-123456"});
    EXPECT_EQ(nlohmann::json::parse(relay.lines.at(0), nullptr, false),
              (nlohmann::json{{"type", "pair"}, {"code", "123456"}, {"proto_ver", "2.0.0"}, {"app_ver", "2.1.0"}, {"nickname", "alice"}}));
    ASSERT_GE(ev.states.size(), 2u);
    EXPECT_EQ(ev.states[0].kind, ConnectionState::Kind::waitingForList);
    EXPECT_EQ(ev.states[1].agentId, "ctl-1");
    EXPECT_EQ(ev.states[1].homeDir, "/home/u");
    EXPECT_EQ(mgr.agentHomeDir(), "/home/u");
    // LIST_PTY at once, a ping per tick and LIST_PTY again right after every third ping.
    ASSERT_TRUE(waitUntil([&] { return relay.count("latency_ping") >= 7; }, 5000));
    std::string sequence;
    for (const std::string& line : relay.lines) {
        const std::string type = Message::decode(line).value().type;
        sequence += type == "latency_ping" ? 'p' : type == "LIST_PTY" ? 'L' : '-';
    }
    EXPECT_EQ(sequence.substr(0, 11), "-LpppLpppLp");
    ASSERT_TRUE(waitUntil([&] { return ev.has("latency 1 12 40"); }, 5000));  // cpu 12.6 passed on, shown rounded later
    EXPECT_NE(log.text().find("[Info] Connecting with code: 123456"), std::string::npos);
    EXPECT_NE(log.text().find("[Info] QUIC: Ready! Sending pair message..."), std::string::npos);

    // "paired" again restarts the timer with an immediate list request; one without "id" changes nothing.
    ASSERT_TRUE(waitUntil([&] { return mgr.pingCount() >= 2; }, 5000));
    const size_t lists = relay.count("LIST_PTY");
    size_t states = ev.states.size();
    relay.push(R"({"type":"paired","home_dir":"/elsewhere"})");
    relay.push(R"({"type":"paired","id":"ctl-2","home_dir":"/root"})");
    ASSERT_TRUE(waitUntil([&] { return mgr.state().agentId == "ctl-2"; }, 5000));
    EXPECT_EQ(ev.states.size(), states + 1);
    EXPECT_LT(mgr.pingCount(), 2);
    EXPECT_FALSE(mgr.state().os.has_value());  // replaced, not merged
    ASSERT_TRUE(waitUntil([&] { return relay.count("LIST_PTY") > lists; }, 5000));

    mgr.closePty(4);
    ASSERT_TRUE(waitUntil([&] { return relay.count("CLOSE_PTY") == 1; }, 5000));
    EXPECT_NE(log.text().find("[Info] [CLOSE_PTY] sending ptyId=4"), std::string::npos);

    // Kicked: the timer stops and the link goes, without a state-change call.
    states = ev.states.size();
    relay.push(R"({"type":"kicked","by":"carol"})");
    ASSERT_TRUE(waitUntil([&] { return ev.has("kicked  by carol"); }, 5000));
    EXPECT_FALSE(mgr.isPingTimerActive());
    EXPECT_EQ(mgr.state().kind, ConnectionState::Kind::disconnected);
    EXPECT_EQ(mgr.transport(), nullptr);
    const size_t pings = relay.count("latency_ping");
    spin(200);
    EXPECT_EQ(relay.count("latency_ping"), pings);
    EXPECT_EQ(ev.states.size(), states);

    // Paired again, the relay goes away by ending its stream, its last bytes in that same frame: the
    // line that came whole is handled before the link is reported gone, the unfinished one is no message.
    pair(relay);
    relay.conn->endStream(R"({"type":"PTY_EXIT","pty_id":4})" "\n" R"({"type":"PTY_EXIT","pty_id":5)");
    ASSERT_TRUE(waitUntil([&] { return mgr.state().kind == ConnectionState::Kind::disconnected; }, 10000));
    spin(100);
    ASSERT_TRUE(ev.has("exit 4 -1"));
    EXPECT_LT(ev.index("exit 4 -1"), ev.index("state " + ConnectionState::of(ConnectionState::Kind::disconnected).description()));
    EXPECT_EQ(ev.count("exit"), 1u);
    EXPECT_EQ(ev.count("error Connection failed: "), 1u);
    EXPECT_EQ(ev.count("error Connection failed: 连接失败"), 0u);  // the prefix once, not twice
    EXPECT_FALSE(mgr.isPingTimerActive());
}

// Attempts that never pair: a port out of range fails cleanly (a negative one means the default);
// without a nickname nothing is sent; a second "ready" while waiting for the list changes nothing.
TEST_F(Manager, PortsOutOfRangeMissingNicknameAndReadyWhileWaiting) {
    ServerConfig::setInteger(SettingsKey::serverQuicPort, -5);
    mgr.connect(Host{}, "1", std::string("n"));
    EXPECT_EQ(mgr.transport()->endpointText(), "127.0.0.1:9090");
    mgr.disconnect();
    ServerConfig::setInteger(SettingsKey::serverQuicPort, 65536);  // the first port out of range
    mgr.connect(Host{}, "1", std::string("n"));
    EXPECT_EQ(mgr.transport(), nullptr);
    EXPECT_EQ(mgr.state().kind, ConnectionState::Kind::disconnected);
    EXPECT_EQ(ev.count("error Connection failed"), 1u);

    Relay relay;
    relay.answerPair = false;
    mgr.connect(Host{}, "123456", std::nullopt);
    ASSERT_TRUE(waitUntil([&] { return ev.has("error No pairing code"); }, 10000));
    EXPECT_EQ(mgr.state().kind, ConnectionState::Kind::connecting);
    mgr.connect(Host{}, "123456", std::string("n"));
    ASSERT_TRUE(waitUntil([&] { return relay.count("pair") == 1; }, 10000));
    ASSERT_TRUE(waitUntil([&] { return mgr.state().kind == ConnectionState::Kind::waitingForList; }, 5000));
    StdoutCapture log;
    mgr.quicTransportDidChangeState(mgr.transport(), {QUICTransportState::Kind::ready, {}});
    spin(100);
    EXPECT_EQ(relay.count("pair"), 1u);
    EXPECT_NE(log.text().find("[Info] QUIC: Ready (ignored, already paired)"), std::string::npos);
    EXPECT_EQ(mgr.state().kind, ConnectionState::Kind::waitingForList);  // no pairing time-out here
    EXPECT_FALSE(mgr.isPingTimerActive()) << "pinging a relay that never paired";
    mgr.disconnect();
    EXPECT_EQ(mgr.state().kind, ConnectionState::Kind::disconnected);
}

// What the relay sends, on one link: bad input (a line over the size limit too) is logged and the stream
// goes on; folder listings go to
// the session side; every kind of message with the defaults it deliberately takes; then a window that
// has gone (its delegate destroyed) is told nothing while the link still follows what arrives.
TEST_F(Manager, BadInputDirectoriesDispatchTableAndAGoneDelegate) {
    Relay relay;
    pair(relay);
    StdoutCapture log;
    relay.push("garbage that is not json");
    relay.push(std::string("{\"type\":\"PTY_DATA\",\"data\":\"\xff\xfe\"}"));
    relay.push(R"({"type":"PTY_DATA","pty_id":"1"})");
    relay.push(R"({"type":"PTY_LIST","ptys":[{"pty_id":1}]})");
    relay.push(R"({"type":"fs_result","op":"list"})");
    relay.push(R"({"type":"PTY_DATA","data":")" + std::string(6 * 1024 * 1024, 'A') + R"(","pty_id":4})");
    relay.push(std::string(17 * 1024 * 1024, 'x'));  // over the limit: dropped whole, not buffered
    relay.push(R"({"type":"PTY_EXIT","pty_id":5})");
    ASSERT_TRUE(waitUntil([&] { return ev.has("exit 5 -1"); }, 20000));
    ASSERT_EQ(ev.output.size(), 1u);
    EXPECT_EQ(ev.output.back().first.size(), 6u * 1024 * 1024);
    EXPECT_NE(log.text().find("[Error] Decode error: "), std::string::npos);
    EXPECT_NE(log.text().find("[Error] PTY_LIST decode failed, raw: {\"type\":\"PTY_LIST\""), std::string::npos);
    EXPECT_NE(log.text().find("[Error] Dropped a line of more than 16 MiB from the relay\n"), std::string::npos);
    EXPECT_TRUE(mgr.state().isConnected());

    relay.push(R"({"type":"fs_result","op":"list","success":true,"data":[{"name":"a","path":"/a","type":"directory","is_symlink":false},{"name":"f","path":"/f","type":"file","is_symlink":false}]})");
    ASSERT_TRUE(waitUntil([&] { return ev.top.size() == 2; }, 5000));  // no path: the top level
    relay.push(R"({"type":"fs_result","op":"list","path":"/a","success":true,"data":[]})");
    ASSERT_TRUE(waitUntil([&] { return !ev.children.empty(); }, 5000));
    EXPECT_EQ(ev.children[0], (std::pair<QString, int>{"/a", 0}));
    ev.awaitingPathCheck = true;
    relay.push(R"({"type":"fs_result","op":"list","path":"/nope","success":false})");
    ASSERT_TRUE(waitUntil([&] { return !ev.pathAnswers.empty(); }, 5000));
    EXPECT_EQ(ev.pathAnswers, std::vector<bool>{false});
    EXPECT_EQ(ev.children.size(), 1u);

    const char* everyKind[] = {
        R"({"type":"PTY_DATA","data":"aGk="})" "\n" R"({"type":"output","pty_id":3})",  // two messages in one chunk
        R"({"type":"PTY_EXIT"})", R"({"type":"PTY_ERROR","pty_id":2})", R"({"type":"error"})",
        R"({"type":"controller_joined","id":"c9"})",  // no nickname: ignored
        R"({"type":"controller_joined","id":"c9","nickname":"bob"})", R"({"type":"controller_left"})",
        R"({"type":"controller_left","id":"c9"})", R"({"type":"something_new","id":"x"})",
        R"({"type":"PTY_LIST","ptys":[{"pty_id":1,"cwd":"/","state":"running","controller_id":"c"}]})",
        R"({"type":"latency_pong","ts":1})", R"({"type":"controller_list"})"};
    for (const char* line : everyKind) relay.push(line);
    ASSERT_TRUE(waitUntil([&] { return ev.has("controllers 0 8 0"); }, 5000));
    EXPECT_EQ(ev.output.at(1), (std::pair<std::string, int64_t>{"aGk=", 1}));
    EXPECT_EQ(ev.output.at(2), (std::pair<std::string, int64_t>{"", 3}));
    EXPECT_TRUE(ev.has("exit 0 -1"));
    EXPECT_TRUE(ev.has("pty_error 2 未知错误"));
    EXPECT_TRUE(ev.has("error Unknown error"));
    EXPECT_EQ(ev.count("joined"), 1u);
    EXPECT_EQ(ev.count("left"), 1u);
    EXPECT_EQ(ev.lastPtys.at(0).clientId, "");
    EXPECT_EQ(mgr.state().kind, ConnectionState::Kind::selecting);  // without a state-change call
    EXPECT_EQ(ev.states.back().kind, ConnectionState::Kind::connected);

    // Destroyed in memory that stays ours, so that a call through a stale reference is seen whether or
    // not the build checks memory: it is counted, or aborts on a base's pure virtual function.
    alignas(Events) unsigned char storage[sizeof(Events)];
    mgr.setDelegate(new (storage) Events);
    std::launder(reinterpret_cast<Events*>(storage))->~Events();
    const size_t heard = ev.count("");
    for (const char* line : everyKind) relay.push(line);
    relay.push(R"({"type":"paired","id":"ctl-9"})");
    ASSERT_TRUE(waitUntil([&] { return mgr.state().agentId == "ctl-9"; }, 5000));
    relay.push(R"({"type":"kicked","reason":"taken","by":"bob"})");
    ASSERT_TRUE(waitUntil([&] { return mgr.state().kind == ConnectionState::Kind::disconnected; }, 5000));
    spin(100);
    EXPECT_EQ(ev.count(""), heard);
    EXPECT_EQ(Events::lateCalls, 0);
}

// A relay on a thread of its own, the way the relay is another process: the main thread can stall (a
// slow UI) without stalling the relay. It pairs anyone ("paired" with a fresh id each time) and floods
// shell output lines of 8 KiB whose pty_id tells their order.
class FloodingRelay {
public:
    FloodingRelay() {
        thread_.start();
        context_.moveToThread(&thread_);
        run([this] {
            server_ = new QuicServer;
            server_->onConnection = [this](QuicConnection* c) {
                conn_ = c;
                c->onLine = [this, c](std::string_view line) {
                    if (auto m = Message::decode(line); m && m->type == "pair")
                        c->sendLine(R"({"type":"paired","id":"ctl-)" + std::to_string(++pairs_) + R"("})");
                };
            };
            listening = server_->listen(QHostAddress::LocalHost, 0);
            port = server_->port();
        });
    }
    ~FloodingRelay() {
        run([this] { delete server_; });
        thread_.quit();
        thread_.wait();
    }
    bool listening = false;  // set on the relay thread while the constructor waits
    quint16 port = 0;
    std::atomic<size_t> floodQueued{0};  // lines of the latest flood handed to the connection so far

    // Sends `count` lines with ids from firstId on to the newest connection as fast as the link takes
    // them, keeping at most about 2 MiB queued (more whenever the connection reports it drained).
    void flood(size_t count, int64_t firstId) {
        run([this, count, firstId] {
            QuicConnection* c = conn_;
            if (!c) return;
            floodQueued = 0;
            auto pump = [this, c, count, firstId] {
                for (; floodQueued < count && c->pendingBytes() < 2 * 1024 * 1024; ++floodQueued)
                    c->sendLine(R"({"type":"PTY_DATA","pty_id":)" + std::to_string(firstId + static_cast<int64_t>(floodQueued)) +
                                R"(,"data":")" + std::string(8192, 'A') + R"("})");
            };
            c->onDrained = pump;
            pump();
        });
    }

private:
    // Runs fn on the relay thread and waits for it.
    void run(const std::function<void()>& fn) { QMetaObject::invokeMethod(&context_, fn, Qt::BlockingQueuedConnection); }

    QThread thread_;
    QObject context_;
    QuicServer* server_ = nullptr;   // relay thread
    QPointer<QuicConnection> conn_;  // relay thread
    int pairs_ = 0;                  // relay thread
};

constexpr size_t kFloodLineBytes = 8192 + 48;

class ManagerFlood : public Manager {
protected:
    FloodingRelay relay;
    void SetUp() override {
        Manager::SetUp();
        ASSERT_TRUE(relay.listening);
        ServerConfig::setInteger(SettingsKey::serverQuicPort, relay.port);
        ev.keepOutputData = false;
        mgr.setPingIntervalForTesting(600000);
        pairAs("111111", "ctl-1");
    }
    void pairAs(const char* code, const std::string& id) {
        mgr.connect(Host{}, code, std::string("n"));
        ASSERT_TRUE(waitUntil([&] { return mgr.state().agentId == id; }, 10000));
    }
    // All `count` outputs from index `from` on, with ids counting up from firstId.
    bool inOrder(size_t from, int64_t firstId, size_t count) {
        for (size_t i = 0; i < count; ++i)
            if (from + i >= ev.output.size() || ev.output[from + i].second != firstId + static_cast<int64_t>(i)) return false;
        return true;
    }
};

// Output floods one link: held back while the terminal pauses reading, bounded while the main thread
// stalls, dropped when a new attempt replaces the link; nothing lost or reordered otherwise.
TEST_F(ManagerFlood, PausedByTheTerminalAStalledMainThreadAndANewAttempt) {
    mgr.setReceivePaused(true);
    spin(50);
    relay.flood(4000, 1);  // about 32 MiB
    spin(1500);
    // Only what the relay had credit for when reading paused gets through.
    EXPECT_LT(ev.output.size() * kFloodLineBytes, 12u * 1024 * 1024);
    EXPECT_LT(relay.floodQueued, 4000u);
    mgr.setReceivePaused(false);
    ASSERT_TRUE(waitUntil([&] { return ev.output.size() >= 4000; }, 60000)) << ev.output.size();
    EXPECT_EQ(ev.output.size(), 4000u);
    EXPECT_TRUE(inOrder(0, 1, 4000));
    EXPECT_EQ(ev.output.back().first, "8192");

    relay.flood(6000, 10001);  // about 48 MiB
    QThread::msleep(2500);  // the UI is stuck: nothing is dispatched meanwhile
    // Decoded output waiting for the main thread stays near its bound: the relay is held back by
    // flow control instead (bound + the link's receive window + the relay's own queue).
    EXPECT_LT(relay.floodQueued * kFloodLineBytes, 30u * 1024 * 1024);
    ASSERT_TRUE(waitUntil([&] { return ev.output.size() >= 10000; }, 60000)) << ev.output.size();
    EXPECT_TRUE(inOrder(4000, 10001, 6000));

    relay.flood(3000, 20001);
    QThread::msleep(1000);  // a backlog builds up for the main thread
    const size_t before = ev.output.size();
    pairAs("222222", "ctl-2");
    const size_t atSecond = ev.output.size();
    EXPECT_EQ(atSecond, before);  // nothing of the replaced attempt was dispatched
    relay.flood(3000, 100000);  // more than the receive windows: needs reading to resume and resume
    ASSERT_TRUE(waitUntil([&] { return ev.output.size() >= atSecond + 3000; }, 60000)) << ev.output.size() - atSecond;
    EXPECT_TRUE(inOrder(atSecond, 100000, 3000));
}

}  // namespace
