#include <gtest/gtest.h>

#include <QHostAddress>
#include <QThread>
#include <mutex>

#include "ConnectionManager.h"
#include "QuicServer.h"
#include "ServerConfig.h"
#include "TestSupport.h"
#include "ThreadedRelay.h"

using namespace ostv;
using namespace ostv::server;
using namespace ostv::test;

namespace {

class Events : public QObject, public ConnectionManagerDelegate, public DirectoryResultConsumer {
public:
    std::mutex m;
    std::vector<std::string> log;  // in arrival order
    std::vector<ConnectionState> states;
    std::vector<PtyInfo> lastPtys;
    std::vector<std::pair<std::string, int64_t>> output;
    bool awaitingPathCheck = false;
    std::vector<bool> pathAnswers;
    QList<DirectoryItem> top;
    std::vector<std::pair<QString, int>> children;

    void add(std::string s) { std::lock_guard l(m); log.push_back(std::move(s)); }
    bool has(const std::string& s) { std::lock_guard l(m); return std::find(log.begin(), log.end(), s) != log.end(); }
    size_t count(const std::string& prefix) {
        std::lock_guard l(m);
        return std::count_if(log.begin(), log.end(), [&](const std::string& e) { return e.rfind(prefix, 0) == 0; });
    }

    void connectionManagerDidChangeState(ConnectionManager*, const ConnectionState& s) override {
        states.push_back(s);
        add("state " + s.description());
    }
    void connectionManagerDidReceivePtyList(ConnectionManager*, const std::vector<PtyInfo>& p) override {
        lastPtys = p;
        add("ptys " + std::to_string(p.size()));
    }
    void connectionManagerDidReceiveControllerList(ConnectionManager*, const std::vector<ControllerInfo>& l, int64_t limit,
                                                   int64_t current) override {
        add("controllers " + std::to_string(l.size()) + " " + std::to_string(limit) + " " + std::to_string(current));
    }
    void connectionManagerWasKicked(ConnectionManager*, const std::string& r, const std::string& by) override {
        add("kicked " + r + " by " + by);
    }
    bool keepOutputData = true;
    void connectionManagerDidReceiveOutput(ConnectionManager*, const std::string& b64, int64_t id) override {
        output.emplace_back(keepOutputData ? b64 : std::to_string(b64.size()), id);
        add("output " + std::to_string(id));
    }
    void connectionManagerDidReceivePtyExit(ConnectionManager*, int64_t id, int64_t code) override {
        add("exit " + std::to_string(id) + " " + std::to_string(code));
    }
    void connectionManagerDidReceivePtyError(ConnectionManager*, int64_t id, const std::string& r) override {
        add("pty_error " + std::to_string(id) + " " + r);
    }
    void connectionManagerDidReceiveError(ConnectionManager*, const std::string& msg) override { add("error " + msg); }
    void connectionManagerControllerJoined(ConnectionManager*, const std::string& id, const std::string& n) override {
        add("joined " + id + " " + n);
    }
    void connectionManagerControllerLeft(ConnectionManager*, const std::string& id) override { add("left " + id); }
    void connectionManagerDidMeasureLatency(ConnectionManager*, int64_t ms, double cpu, double mem) override {
        add("latency " + std::to_string(ms >= 0) + " " + std::to_string(int(cpu)) + " " + std::to_string(int(mem)));
    }
    bool isAwaitingPathCheck() const override { return awaitingPathCheck; }
    void pathCheckAnswered(bool ok) override { awaitingPathCheck = false; pathAnswers.push_back(ok); }
    void topLevelDirectories(const QList<DirectoryItem>& items) override { top = items; }
    void childDirectories(const QList<DirectoryItem>& items, const QString& path) override {
        children.emplace_back(path, static_cast<int>(items.size()));
    }
};

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
        EXPECT_TRUE(server.listen(QHostAddress::LocalHost, 0));
        ServerConfig::setString(SettingsKey::serverHost, "127.0.0.1");
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

TEST_F(Manager, PairingHandshakeReachesConnectedAndStartsThePingTimer) {
    Relay relay;
    StdoutCapture log;
    pair(relay);
    EXPECT_EQ(relay.serverNames, std::vector<QString>{"ctrl-123456"});
    auto first = Message::decode(relay.lines.at(0));
    ASSERT_TRUE(first.ok());
    EXPECT_EQ(first->type, "pair");
    EXPECT_EQ(first->code, "123456");
    EXPECT_EQ(first->protoVer, "2.0.0");
    EXPECT_EQ(first->appVer, "2.1.0");
    EXPECT_EQ(first->nickname, "alice");
    ASSERT_GE(ev.states.size(), 2u);
    EXPECT_EQ(ev.states[0].kind, ConnectionState::Kind::waitingForList);
    EXPECT_EQ(ev.states[1].agentId, "ctl-1");
    EXPECT_EQ(ev.states[1].homeDir, "/home/u");
    EXPECT_EQ(mgr.agentHomeDir(), "/home/u");
    // LIST_PTY at once, a ping per tick and LIST_PTY again on every third tick.
    ASSERT_TRUE(waitUntil([&] { return relay.count("latency_ping") >= 6; }, 5000));
    EXPECT_EQ(Message::decode(relay.lines.at(1))->type, "LIST_PTY");
    const size_t pings = relay.count("latency_ping");
    EXPECT_GE(relay.count("LIST_PTY"), 1 + (pings - 1) / 3);
    EXPECT_LE(relay.count("LIST_PTY"), 1 + (pings + 1) / 3);
    ASSERT_TRUE(waitUntil([&] { return ev.has("latency 1 12 40"); }, 5000));  // cpu 12.6 passed on, shown rounded later
    const std::string text = log.text();
    EXPECT_NE(text.find("[Info] Connecting with code: 123456"), std::string::npos);
    EXPECT_NE(text.find("[Info] QUIC: Ready! Sending pair message..."), std::string::npos);
}

TEST_F(Manager, PairedAgainRestartsTheTimerWithAnImmediateListRequest) {
    Relay relay;
    pair(relay);
    ASSERT_TRUE(waitUntil([&] { return mgr.pingCount() >= 2; }, 5000));
    const size_t lists = relay.count("LIST_PTY");
    const size_t states = ev.states.size();
    relay.push(R"({"type":"paired","home_dir":"/elsewhere"})");  // without "id": changes nothing
    relay.push(R"({"type":"paired","id":"ctl-2","home_dir":"/root"})");
    ASSERT_TRUE(waitUntil([&] { return mgr.state().agentId == "ctl-2"; }, 5000));
    EXPECT_EQ(ev.states.size(), states + 1);
    EXPECT_LT(mgr.pingCount(), 2);
    EXPECT_FALSE(mgr.state().os.has_value());  // replaced, not merged
    ASSERT_TRUE(waitUntil([&] { return relay.count("LIST_PTY") > lists; }, 5000));
}

TEST_F(Manager, ReadyWhileWaitingForTheListIsIgnored) {
    Relay relay;
    relay.answerPair = false;
    mgr.connect(Host{}, "123456", std::string("n"));
    ASSERT_TRUE(waitUntil([&] { return mgr.state().kind == ConnectionState::Kind::waitingForList; }, 10000));
    ASSERT_TRUE(waitUntil([&] { return relay.count("pair") == 1; }, 5000));
    StdoutCapture log;
    mgr.quicTransportDidChangeState(mgr.transport(), {QUICTransportState::Kind::ready, {}});
    spin(100);
    EXPECT_EQ(relay.count("pair"), 1u);
    EXPECT_NE(log.text().find("[Info] QUIC: Ready (ignored, already paired)"), std::string::npos);
    EXPECT_EQ(mgr.state().kind, ConnectionState::Kind::waitingForList);  // no pairing time-out here
}

TEST_F(Manager, MissingNicknameReportsNoPairingCode) {
    Relay relay;
    mgr.connect(Host{}, "123456", std::nullopt);
    ASSERT_TRUE(waitUntil([&] { return ev.has("error No pairing code"); }, 10000));
    EXPECT_EQ(mgr.state().kind, ConnectionState::Kind::connecting);
    EXPECT_EQ(relay.count("pair"), 0u);
}

TEST_F(Manager, NegativePortMeansTheDefaultAndAPortAboveRangeFailsCleanly) {
    ServerConfig::setInteger(SettingsKey::serverQuicPort, -5);
    mgr.connect(Host{}, "1", std::string("n"));
    EXPECT_EQ(mgr.transport()->endpointText(), "127.0.0.1:9090");
    mgr.disconnect();
    ServerConfig::setInteger(SettingsKey::serverQuicPort, 70000);
    mgr.connect(Host{}, "1", std::string("n"));
    EXPECT_EQ(mgr.transport(), nullptr);
    EXPECT_EQ(mgr.state().kind, ConnectionState::Kind::disconnected);
    EXPECT_EQ(ev.count("error Connection failed"), 1u);
}

TEST_F(Manager, DispatchTableWithItsDeliberateDefaults) {
    Relay relay;
    pair(relay);
    relay.push(R"({"type":"PTY_DATA","data":"aGk="})"
               "\n" R"({"type":"output","pty_id":3})");  // two messages in one chunk
    relay.push(R"({"type":"PTY_EXIT"})");
    relay.push(R"({"type":"PTY_ERROR","pty_id":2})");
    relay.push(R"({"type":"error"})");
    relay.push(R"({"type":"controller_joined","id":"c9"})");  // no nickname: ignored
    relay.push(R"({"type":"controller_joined","id":"c9","nickname":"bob"})");
    relay.push(R"({"type":"controller_left"})");
    relay.push(R"({"type":"controller_left","id":"c9"})");
    relay.push(R"({"type":"something_new","id":"x"})");
    relay.push(R"({"type":"PTY_LIST","ptys":[{"pty_id":1,"cwd":"/","state":"running","controller_id":"c"}]})");
    relay.push(R"({"type":"controller_list"})");
    ASSERT_TRUE(waitUntil([&] { return ev.has("controllers 0 8 0"); }, 5000));
    EXPECT_EQ(ev.output.at(0), (std::pair<std::string, int64_t>{"aGk=", 1}));
    EXPECT_EQ(ev.output.at(1), (std::pair<std::string, int64_t>{"", 3}));
    EXPECT_TRUE(ev.has("exit 0 -1"));
    EXPECT_TRUE(ev.has("pty_error 2 未知错误"));
    EXPECT_TRUE(ev.has("error Unknown error"));
    EXPECT_EQ(ev.count("joined"), 1u);
    EXPECT_EQ(ev.count("left"), 1u);
    EXPECT_EQ(ev.lastPtys.at(0).clientId, "");
    EXPECT_EQ(mgr.state().kind, ConnectionState::Kind::selecting);  // without a state-change call
    EXPECT_EQ(ev.states.back().kind, ConnectionState::Kind::connected);
}

// A window that has gone (its delegate destroyed) is told nothing; the link still follows what arrives.
TEST_F(Manager, WithTheDelegateGoneEveryMessageIsHandledAndNobodyIsCalled) {
    Relay relay;
    pair(relay);
    auto gone = std::make_unique<Events>();
    mgr.setDelegate(gone.get());
    gone.reset();
    const size_t heard = ev.count("");
    relay.push(R"({"type":"PTY_DATA","pty_id":1,"data":"aGk="})");
    relay.push(R"({"type":"PTY_EXIT","pty_id":1})");
    relay.push(R"({"type":"PTY_ERROR","pty_id":2,"error":"x"})");
    relay.push(R"({"type":"PTY_LIST","ptys":[]})");
    relay.push(R"({"type":"controller_joined","id":"c9","nickname":"bob"})");
    relay.push(R"({"type":"controller_left","id":"c9"})");
    relay.push(R"({"type":"latency_pong","ts":1})");
    relay.push(R"({"type":"error","error":"x"})");
    relay.push(R"({"type":"paired","id":"ctl-9"})");
    ASSERT_TRUE(waitUntil([&] { return mgr.state().agentId == "ctl-9"; }, 5000));
    relay.push(R"({"type":"kicked","reason":"taken","by":"bob"})");
    ASSERT_TRUE(waitUntil([&] { return mgr.state().kind == ConnectionState::Kind::disconnected; }, 5000));
    spin(100);
    EXPECT_EQ(ev.count(""), heard);
}

TEST_F(Manager, SplitLinesAreDispatchedOnceWhenTheirLineFeedArrives) {
    Relay relay;
    mgr.setPingIntervalForTesting(600000);  // nothing else may arrive while the test feeds the chunks itself
    pair(relay);
    spin(100);
    const size_t before = ev.output.size();
    mgr.quicTransportDidReceiveData(mgr.transport(), R"({"type":"PTY_DA)");
    mgr.quicTransportDidReceiveData(mgr.transport(), R"(TA","pty_id":7,"data":"eA=="})");
    spin(50);
    EXPECT_EQ(ev.output.size(), before);
    mgr.quicTransportDidReceiveData(mgr.transport(), "\n");
    ASSERT_TRUE(waitUntil([&] { return ev.output.size() == before + 1; }, 2000));
    EXPECT_EQ(ev.output.back().second, 7);
}

TEST_F(Manager, BadInputIsLoggedAndTheStreamGoesOn) {
    Relay relay;
    pair(relay);
    StdoutCapture log;
    relay.push("garbage that is not json");
    relay.push(std::string("{\"type\":\"PTY_DATA\",\"data\":\"\xff\xfe\"}"));
    relay.push(R"({"type":"PTY_DATA","pty_id":"1"})");
    relay.push(R"({"type":"PTY_LIST","ptys":[{"pty_id":1}]})");
    relay.push(R"({"type":"fs_result","op":"list"})");
    relay.push(R"({"type":"PTY_DATA","data":")" + std::string(6 * 1024 * 1024, 'A') + R"(","pty_id":4})");
    relay.push(R"({"type":"PTY_EXIT","pty_id":5})");
    ASSERT_TRUE(waitUntil([&] { return ev.has("exit 5 -1"); }, 20000));
    EXPECT_EQ(ev.output.back().first.size(), 6u * 1024 * 1024);
    const std::string text = log.text();
    EXPECT_NE(text.find("[Error] Decode error: "), std::string::npos);
    EXPECT_NE(text.find("[Error] PTY_LIST decode failed, raw: {\"type\":\"PTY_LIST\""), std::string::npos);
    EXPECT_TRUE(mgr.state().isConnected());
}

TEST_F(Manager, DirectoryResultsGoToTheSessionSide) {
    Relay relay;
    pair(relay);
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
}

TEST_F(Manager, KickedStopsTheTimerAndDisconnectsWithoutAStateCall) {
    Relay relay;
    pair(relay);
    const size_t states = ev.states.size();
    relay.push(R"({"type":"kicked","by":"carol"})");
    ASSERT_TRUE(waitUntil([&] { return ev.has("kicked  by carol"); }, 5000));
    EXPECT_FALSE(mgr.isPingTimerActive());
    EXPECT_EQ(mgr.state().kind, ConnectionState::Kind::disconnected);
    EXPECT_EQ(mgr.transport(), nullptr);
    const size_t pings = relay.count("latency_ping");
    spin(200);
    EXPECT_EQ(relay.count("latency_ping"), pings);
    EXPECT_EQ(ev.states.size(), states);
}

TEST_F(Manager, TheRelayGoingAwayGivesAnErrorAndTheDisconnectedState) {
    auto relay = std::make_unique<Relay>();
    pair(*relay);
    relay.reset();
    ASSERT_TRUE(waitUntil([&] { return mgr.state().kind == ConnectionState::Kind::disconnected; }, 20000));
    EXPECT_EQ(ev.states.back().kind, ConnectionState::Kind::disconnected);
    EXPECT_GE(ev.count("error Connection failed: "), 1u);
    EXPECT_EQ(ev.count("error Connection failed: 连接失败"), 0u);  // the prefix once, not twice
    EXPECT_FALSE(mgr.isPingTimerActive());
}

TEST_F(Manager, CloseSkipsWhileNotConnected) {
    StdoutCapture log;
    mgr.closePty(3);
    EXPECT_NE(log.text().find("[Info] [CLOSE_PTY] SKIPPED — not connected, ptyId=3"), std::string::npos);
    Relay relay;
    pair(relay);
    mgr.closePty(4);
    ASSERT_TRUE(waitUntil([&] { return relay.count("CLOSE_PTY") == 1; }, 5000));
    EXPECT_NE(log.text().find("[Info] [CLOSE_PTY] sending ptyId=4"), std::string::npos);
}

// A relay on its own thread that pairs anyone ("paired" with a fresh id each time).
struct FloodRelay {
    std::atomic<int> pairs{0};
    ThreadedRelay relay{[this](QuicConnection* c, std::string_view line) {
        auto m = Message::decode(line);
        if (m && m->type == "pair")
            c->sendLine(R"({"type":"paired","id":"ctl-)" + std::to_string(++pairs) + R"("})");
    }};
    FloodRelay() {
        EXPECT_TRUE(relay.isListening());
        ServerConfig::setString(SettingsKey::serverHost, "127.0.0.1");
        ServerConfig::setInteger(SettingsKey::serverQuicPort, relay.port());
    }
    // Shell output lines of 8 KiB each; pty_id firstId + i tells their order.
    void flood(size_t count, int64_t firstId) {
        relay.flood(count, [firstId](size_t i) {
            static const std::string data(8192, 'A');
            return R"({"type":"PTY_DATA","pty_id":)" + std::to_string(firstId + static_cast<int64_t>(i)) + R"(,"data":")" +
                   data + R"("})";
        });
    }
};

constexpr size_t kFloodLineBytes = 8192 + 48;

bool inOrder(const std::vector<std::pair<std::string, int64_t>>& out, size_t from, int64_t firstId, size_t count) {
    if (out.size() < from + count) return false;
    for (size_t i = 0; i < count; ++i)
        if (out[from + i].second != firstId + static_cast<int64_t>(i)) return false;
    return true;
}

TEST_F(Manager, ReceivePausedByTheTerminalHoldsOutputBackUntilResumed) {
    FloodRelay relay;
    ev.keepOutputData = false;
    mgr.setPingIntervalForTesting(600000);
    mgr.connect(Host{}, "123456", std::string("n"));
    ASSERT_TRUE(waitUntil([&] { return mgr.state().isConnected(); }, 10000));
    mgr.setReceivePaused(true);
    spin(50);
    relay.flood(4000, 1);  // about 32 MiB
    spin(1500);
    // Only what the relay had credit for when reading paused gets through.
    EXPECT_LT(ev.output.size() * kFloodLineBytes, 12u * 1024 * 1024);
    EXPECT_FALSE(relay.relay.floodQueuedAll());
    mgr.setReceivePaused(false);
    ASSERT_TRUE(waitUntil([&] { return ev.output.size() >= 4000; }, 60000)) << ev.output.size();
    EXPECT_EQ(ev.output.size(), 4000u);
    EXPECT_TRUE(inOrder(ev.output, 0, 1, 4000));
    EXPECT_EQ(ev.output.back().first, "8192");
}

TEST_F(Manager, AStalledMainThreadHoldsTheRelayBackAndLosesNothing) {
    FloodRelay relay;
    ev.keepOutputData = false;
    mgr.setPingIntervalForTesting(600000);
    mgr.connect(Host{}, "123456", std::string("n"));
    ASSERT_TRUE(waitUntil([&] { return mgr.state().isConnected(); }, 10000));
    relay.flood(6000, 1);  // about 48 MiB
    QThread::msleep(2500);  // the UI is stuck: nothing is dispatched meanwhile
    // Decoded output waiting for the main thread stays near its bound: the relay is held back by
    // flow control instead (bound + the link's receive window + the relay's own queue).
    EXPECT_LT(relay.relay.floodQueued() * kFloodLineBytes, 30u * 1024 * 1024);
    ASSERT_TRUE(waitUntil([&] { return ev.output.size() >= 6000; }, 60000)) << ev.output.size();
    EXPECT_TRUE(inOrder(ev.output, 0, 1, 6000));
}

TEST_F(Manager, ANewAttemptWhileOutputWaitsDropsTheOldOutputAndIsNotHeldBack) {
    FloodRelay relay;
    ev.keepOutputData = false;
    mgr.setPingIntervalForTesting(600000);
    mgr.connect(Host{}, "111111", std::string("n"));
    ASSERT_TRUE(waitUntil([&] { return mgr.state().agentId == "ctl-1"; }, 10000));
    relay.flood(3000, 1);
    QThread::msleep(1000);  // a backlog builds up for the main thread
    const size_t before = ev.output.size();
    mgr.connect(Host{}, "222222", std::string("n"));
    ASSERT_TRUE(waitUntil([&] { return mgr.state().agentId == "ctl-2"; }, 10000));
    const size_t atSecond = ev.output.size();
    EXPECT_EQ(atSecond, before);  // nothing of the replaced attempt was dispatched
    relay.flood(3000, 100000);   // more than the receive windows: needs reading to resume and resume
    ASSERT_TRUE(waitUntil([&] { return ev.output.size() >= atSecond + 3000; }, 60000)) << ev.output.size() - atSecond;
    EXPECT_TRUE(inOrder(ev.output, atSecond, 100000, 3000));
}

}  // namespace
