// The relay and agent logic driven in-process through fake controller links, with real shells.
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <chrono>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <tuple>
#include <unistd.h>

#include "FakeLink.h"
#include "Requests.h"
#include "TestSupport.h"
#include "agent/Agent.h"
#include "agent/PtyProcess.h"
#include "link/AgentHub.h"
#include "link/AgentWire.h"
#include "relay/AgentPort.h"
#include "relay/Relay.h"

using namespace ostv;
using namespace ostv::server;
using namespace ostv::server::test;
using namespace ostv::test;

namespace {

class RelayTest : public ::testing::Test {
protected:
    void SetUp() override { build(8); }
    void TearDown() override {
        relay.reset();
        agents.clear();
        ChildReaper::drainAll(3000);
    }

    // One agent, code 111111, with a fresh home folder.
    void build(int limit) {
        relay.reset();
        agents.clear();
        home = makeTempDir(QStringLiteral("home"));
        agents.push_back(std::make_unique<Agent>(AgentConfig{.code = "111111", .machineId = "m1", .hostname = {},
                                                             .homeDir = home, .shell = QStringLiteral("/bin/sh"),
                                                             .limit = limit, .typingFirst = typingFirst}));
        relay = std::make_unique<Relay>(std::vector<Agent*>{agents[0].get()},
                                        [] { return std::pair<double, double>{12.5, 40.0}; });
    }

    Peer connect(const QString& sni = {}) {
        Peer p;
        p.link = new FakeLink(p.wire, sni);
        relay->accept(p.link);
        return p;
    }

    // A new controller paired with the agent, and its controller id.
    Peer paired(const std::string& nick, std::string* id = nullptr) {
        Peer p = connect();
        p.send(pairing("111111", nick));
        auto answer = p->received("paired");
        EXPECT_EQ(answer.size(), 1u) << nick;
        if (id) *id = answer.empty() ? std::string() : answer.front().id.value_or("");
        return p;
    }

    std::vector<PtyListItem> listPtys(Peer& p) {
        const size_t from = p->lines.size();
        p.send(Message("LIST_PTY"));
        auto env = PtyListEnvelope::decode(p->lines.size() > from ? p->lines.back() : "");
        EXPECT_TRUE(env.ok()) << "no PTY_LIST";
        return env ? env->ptys : std::vector<PtyListItem>{};
    }

    QString home;
    bool typingFirst = true;
    std::vector<std::unique_ptr<Agent>> agents;
    std::unique_ptr<Relay> relay;
};

// Controllers before pairing: a ping is answered, requests are refused, lines are short, a link that
// does not pair in time is closed, and wrong codes are refused and limited.
TEST_F(RelayTest, BeforePairingOnlyPingsAreAnsweredAndWrongCodesAreRefusedClosedAndLimited) {
    relay->setPairTimeoutMs(200);
    relay->setPairingPolicy({.freeFailures = 2, .firstWait = std::chrono::milliseconds(500)});

    Peer p = connect();
    p.send(ping(1700000000123));  // with the same stamp and the load
    auto pong = p->received("latency_pong");
    ASSERT_EQ(pong.size(), 1u);
    EXPECT_EQ(pong[0].ts, 1700000000123);
    EXPECT_DOUBLE_EQ(pong[0].cpu.value_or(-1), 12.5);
    EXPECT_DOUBLE_EQ(pong[0].mem.value_or(-1), 40.0);
    p.send(create(1, "c"));
    p.send(Message("LIST_PTY"));
    p.send(takeover("x"));
    p.sendRaw(R"({"type":"latency_ping","ts":1,"pad":")" + std::string(Relay::kUnpairedLineBytes, 'x') + "\"}");
    ASSERT_EQ(p->received("error").size(), 4u);
    EXPECT_EQ(p->received("error")[3].msg.value_or(""), "消息过长，已忽略");
    EXPECT_EQ(agents[0]->ptyCount(), 0u);
    EXPECT_TRUE(waitUntil([&] { return p->closedByServer; }, 2000)) << "not paired in time";

    // Guesses: two wrong codes are refused as such; then even the right code has to wait.
    const std::pair<const char*, const char*> tries[] = {
        {"999999", "配对码无效"}, {"123456", "配对码无效"}, {"111111", "配对尝试过多，请稍后再试"}};
    for (const auto& [code, answer] : tries) {
        Peer bad = connect();
        bad.send(pairing(code, "eve"));
        auto err = bad->received("error");
        ASSERT_EQ(err.size(), 1u) << code;
        EXPECT_EQ(err[0].msg.value_or(""), answer) << code;
        EXPECT_TRUE(bad->closedByServer) << code;
        EXPECT_TRUE(bad->received("paired").empty()) << code;
    }
    spin(600);
    Peer late = paired("late");  // the right code pairs once the wait is over

    // No code, but the server name carries it; no nickname: the others see a default one.
    Peer bySni = connect(QStringLiteral("ctrl-111111"));
    bySni.send(Message("pair"));
    EXPECT_EQ(bySni->received("paired").size(), 1u);
    ASSERT_EQ(late->received("controller_joined").size(), 1u);
    EXPECT_EQ(late->received("controller_joined")[0].nickname, "未命名");
}

// An agent connection: short lines until its hello has checked out, then the full limit and no longer
// one of its address's unknown peers; one that says nothing in time is closed.
TEST_F(RelayTest, AgentLinksTakeShortLinesUntilTheirHelloAndAreClosedWithoutOne) {
    AgentHub hub(relay.get(), "s3cret");
    hub.setHelloTimeoutMs(300);
    auto agentLink = [&] {
        Peer a;
        a->enforceLineLimit = true;
        a.link = new FakeLink(a.wire);
        hub.accept(a.link);
        return a;
    };
    Peer a = agentLink();
    EXPECT_EQ(a->lineLimit, Relay::kUnpairedLineBytes);
    AgentWire hello("agent_hello");
    hello.secret = "s3cret";
    hello.code = "654321";
    hello.machineId = "far";
    hello.hostname = std::string(Relay::kUnpairedLineBytes, 'h');
    a.sendRaw(hello.encode());
    EXPECT_EQ(a->droppedLines, 1u);
    EXPECT_TRUE(a->lines.empty()) << "a long hello is not read";
    hello.hostname = "far box";
    a.sendRaw(hello.encode());
    ASSERT_EQ(a->lines.size(), 1u);
    EXPECT_EQ(AgentWire::decode(a->lines[0], nullptr)->type, "agent_welcome");
    EXPECT_EQ(a->lineLimit, Relay::kMaxLineBytes);
    EXPECT_TRUE(a->authenticated);
    ASSERT_NE(relay->agentByCode("654321"), nullptr);
    EXPECT_EQ(relay->agentByCode("654321")->hostname(), "far box");
    a.sendRaw(R"({"type":"agent_status","cpu":33,"mem":44,"pad":")" + std::string(64 * 1024, 'p') + "\"}");
    EXPECT_EQ(relay->agentByCode("654321")->load(), (std::pair<double, double>{33, 44}));
    EXPECT_FALSE(a->closedByServer);

    Peer quiet = agentLink();
    EXPECT_TRUE(waitUntil([&] { return quiet->closedByServer; }, 3000)) << "no hello in time";
    EXPECT_FALSE(quiet->authenticated);
}

TEST_F(RelayTest, FullAgentOffersItsControllersAndTakeoverKicksTheChosenOne) {
    build(2);
    std::string idA, idB;
    Peer a = paired("alice", &idA);
    Peer b = paired("bob", &idB);
    a.send(create(1, "client-a"));

    const size_t bMark = b->lines.size();
    Peer c = connect();
    c.send(pairing("111111", "carol"));
    EXPECT_TRUE(c->received("paired").empty());
    Message offer("controller_list");
    offer.limit = offer.current = 2;
    offer.controllers = std::vector<ControllerInfo>{{idA, "alice", "~", "1"}, {idB, "bob", "~", std::nullopt}};
    EXPECT_EQ(c->received("controller_list"), std::vector{offer});
    EXPECT_EQ(agents[0]->controllerCount(), 2) << "a controller choosing is not seated";

    // A request before being seated is refused, and so is a seat nobody holds: the list is offered again.
    c.send(Message("LIST_PTY"));
    c.send(takeover("no-such-controller"));
    EXPECT_EQ(c->received("error").size(), 2u);
    EXPECT_EQ(c->received("controller_list").size(), 2u);

    c.send(takeover(idA));
    Message kicked("kicked");
    kicked.by = "carol";
    kicked.reason = "控制席位已被其他控制端接管";
    EXPECT_EQ(a->received("kicked"), std::vector{kicked});
    EXPECT_TRUE(a->closedByServer);

    // The others see the kicked one leave and the new one join, and the kicked link's close, a moment
    // later, does not count as a second departure.
    auto pairedC = c->received("paired");
    ASSERT_EQ(pairedC.size(), 1u);
    Message left("controller_left"), joined("controller_joined");
    left.id = idA;
    joined.id = pairedC[0].id;
    joined.nickname = "carol";
    spin(50);
    EXPECT_EQ(b->received({}, bMark), (std::vector{left, joined}));
    EXPECT_EQ(agents[0]->controllerCount(), 2);
    // Its shell lives on for its client, and the one who took the seat can end it.
    auto ptys = listPtys(c);
    ASSERT_EQ(ptys.size(), 1u);
    EXPECT_EQ(ptys[0].clientId, "client-a");
    c.send(withPty("CLOSE_PTY", 1));
    EXPECT_TRUE(waitUntil([&] { return agents[0]->ptyCount() == 0; }));

    // Taking over a controller that has left meanwhile takes its freed seat.
    Peer d = connect();
    d.send(pairing("111111", "dave"));
    ASSERT_EQ(d->received("controller_list").size(), 1u);
    b.leave();
    ASSERT_TRUE(waitUntil([&] { return agents[0]->controllerCount() == 1; }));
    d.send(takeover(idB));
    EXPECT_EQ(d->received("paired").size(), 1u);
}

// Two clients each with a shell 1 on one agent: kept apart and listed with their owners; one client's
// bad requests are answered and the other never notices; and when both have gone, a stranger gets
// neither shell.
TEST_F(RelayTest, TwoClientsShellsWithTheSameIdStayApartThroughBadRequestsAndAStrangerGetsNeither) {
    std::string idA, idB;
    Peer a = paired("alice", &idA);
    Peer b = paired("bob", &idB);
    a.send(create(1, "client-a"));
    b.send(create(1, "client-b"));
    a.send(input(1, "echo A$((100+1))\r"));
    b.send(input(1, "echo B$((200+2))\r"));
    ASSERT_TRUE(a->waitOutput(1, "A101"));
    ASSERT_TRUE(b->waitOutput(1, "B202"));
    spin(100);
    EXPECT_EQ(a->output(1).find("B202"), std::string::npos);
    EXPECT_EQ(b->output(1).find("A101"), std::string::npos);
    const std::string h = home.toStdString();
    EXPECT_EQ(listPtys(b), (std::vector<PtyListItem>{{1, h, "running", idA, "client-a"}, {1, h, "running", idB, "client-b"}}));

    // Shells that cannot start are refused one by one: in a folder that is missing or a file, under ids
    // below 1 (the client takes 0 for "no shell"), or under an id the client already runs, whose shell
    // is left alone.
    ASSERT_TRUE(QFile(QDir(home).filePath("plain.txt")).open(QIODevice::WriteOnly));
    const std::pair<int64_t, const char*> badShells[] = {
        {3, "/definitely/not/here"}, {4, "~/plain.txt"}, {0, "~"}, {-4, "~"}, {1, "~"}};
    for (const auto& [id, cwd] : badShells) a.send(create(id, "client-a", cwd));
    auto err = a->received("PTY_ERROR");
    ASSERT_EQ(err.size(), 5u);
    for (size_t i = 0; i < 5; ++i) EXPECT_EQ(err[i].ptyId, badShells[i].first);
    EXPECT_NE(err[0].reason.value_or("").find("/definitely/not/here"), std::string::npos);
    a.send(input(1, "echo still=$((2+3))\r"));
    EXPECT_TRUE(a->waitOutput(1, "still=5"));
    EXPECT_EQ(agents[0]->ptyCount(), 2u);

    // Lines that make no sense are answered with an error each.
    const std::pair<std::string, const char*> badLines[] = {
        {"this is not json", "not JSON"},
        {"[1,2,3]", "not an object"},
        {R"({"no_type":1})", "no type"},
        {R"({"type":42})", "type not a string"},
        {R"({"type":"latency_ping"})", "ping without its stamp"},
        {R"({"type":"INPUT","pty_id":"1","data":"x"})", "pty_id as a string"},
        {R"({"type":"INPUT","pty_id":1.5,"data":"x"})", "pty_id not whole"},
        {R"({"type":"INPUT","data":"x"})", "missing pty_id"},
        {R"({"type":"RESIZE","pty_id":1,"cols":80})", "missing rows"},
        {R"({"type":"EXEC","pty_id":1})", "missing command"},
        {R"({"type":"CREATE_PTY","cwd":"~"})", "CREATE_PTY without pty_id"},
        {R"({"type":"pair","code":"111111","nickname":"again"})", "pairing twice"},
        {"{\"type\":\"INPUT\",\"pty_id\":1,\"data\":\"" + std::string(Relay::kMaxLineBytes, 'x') + "\"}", "huge line"},
        {"{\"type\":\"fs_op\",\"path\":\"\xff\xfe\"}", "invalid UTF-8"},
    };
    size_t errors = 0;
    for (const auto& [line, what] : badLines) {
        a.sendRaw(line);
        EXPECT_EQ(a->received("error").size(), ++errors) << what;
    }
    a.sendRaw(R"({"type":"SOMETHING_NEW","pty_id":1})");
    EXPECT_EQ(a->received("error").size(), errors) << "unknown types are ignored";
    a.sendRaw(R"({"type":"INPUT","pty_id":99,"data":"x"})");
    a.sendRaw(R"({"type":"RESIZE","pty_id":-5,"cols":-1,"rows":99999999})");
    a.sendRaw(R"({"type":"CLOSE_PTY","pty_id":42})");
    // Both links still work, and bob's shell never noticed.
    EXPECT_FALSE(a->closedByServer);
    a.send(ping(5));
    EXPECT_EQ(a->received("latency_pong").size(), 1u);
    b.send(input(1, "echo fine$((4+4))\r"));
    EXPECT_TRUE(b->waitOutput(1, "fine8"));
    EXPECT_TRUE(b->received("error").empty());
    EXPECT_EQ(agents[0]->controllerCount(), 2);

    // Each client's own shell comes first: bob closing 1 ends his own, not alice's.
    b.send(withPty("CLOSE_PTY", 1));
    EXPECT_EQ(listPtys(a), (std::vector<PtyListItem>{{1, h, "running", idA, "client-a"}}));
    EXPECT_TRUE(a->received("PTY_EXIT").empty());

    // Typing is only for one's own shells: bob's input for an id he does not have goes nowhere...
    a.send(create(3, "client-a"));
    const size_t mark = a->lines.size();
    b.send(input(3, "echo leaked$((1+1))\r"));
    spin(300);
    EXPECT_EQ(a->output(3, mark).find("leaked2"), std::string::npos);
    // ...but closing another client's session ends it for its owner.
    b.send(withPty("CLOSE_PTY", 3));
    ASSERT_TRUE(waitUntil([&] { return !a->received("PTY_EXIT").empty(); }, 1000));
    EXPECT_EQ(a->received("PTY_EXIT")[0].ptyId, 3);
    EXPECT_EQ(listPtys(b).size(), 1u);

    // Both go, leaving a shell 1 each: somebody else cannot tell which one is meant, so nothing is
    // bound and nothing typed.
    b.send(create(1, "client-b"));
    a.leave();
    b.leave();
    ASSERT_TRUE(waitUntil([&] { return agents[0]->controllerCount() == 0; }));
    std::string idCarol;
    Peer carol = paired("carol", &idCarol);
    carol.send(input(1, "echo wrong$((2+2))\r"));
    spin(300);
    EXPECT_EQ(carol->output(1).find("wrong4"), std::string::npos);
    const auto ptys = listPtys(carol);
    EXPECT_EQ(ptys.size(), 2u);
    for (const PtyListItem& p : ptys) EXPECT_NE(p.controllerId, idCarol);
}

// A mount that never answers stands in for a hung file system: no FUSE daemon behind it.
class HungMount {
public:
    explicit HungMount(const QString& dir) : dir_(QFile::encodeName(dir)) {
        fd_ = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
        if (fd_ < 0) return;
        const std::string opts = "fd=" + std::to_string(fd_) + ",rootmode=40000,user_id=0,group_id=0";
        if (::mount("ostv-hung", dir_.constData(), "fuse.ostv-hung", MS_NOSUID | MS_NODEV, opts.c_str()) != 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }
    ~HungMount() {
        if (fd_ < 0) return;
        ::umount2(dir_.constData(), MNT_DETACH);
        ::close(fd_);  // whatever still waits on it fails now
    }
    bool ok() const { return fd_ >= 0; }

private:
    QByteArray dir_;
    int fd_ = -1;
};

TEST_F(RelayTest, DirectoryListingsInOrderOffTheLoopCappedInEntriesAndTime) {
    QDir h(home);
    for (const char* folder : {"beta/inner", "Alpha", ".cache"}) ASSERT_TRUE(h.mkpath(folder));
    for (const char* name : {"zeta.txt", ".bashrc"}) ASSERT_TRUE(QFile(h.filePath(name)).open(QIODevice::WriteOnly));
    ASSERT_TRUE(QFile::link(h.filePath("beta"), h.filePath("link-to-beta")));

    Peer a = paired("alice");
    auto list = [&](const std::string& path, const std::string& op = "list") {
        Message m("fs_op");
        m.op = op;
        m.path = path;
        a.send(m);
    };
    auto ask = [&](const std::string& path, const std::string& op = "list") {
        const size_t from = a->lines.size();
        list(path, op);
        EXPECT_TRUE(waitUntil([&] { return a->lines.size() > from; }));
        auto r = FSResultEnvelope::decode(a->lines.size() > from ? a->lines.back() : "");
        EXPECT_TRUE(r.ok()) << path;
        return r ? r.value() : FSResultEnvelope{};
    };

    auto entry = [&](const QString& path, const char* type, bool link = false) {
        return FSFileInfo{QFileInfo(path).fileName().toStdString(), h.filePath(path).toStdString(), type, link};
    };
    // Visible folders, then hidden ones, then files the same way; a link to a folder is a marked folder.
    const std::vector<FSFileInfo> top = {entry("Alpha", "directory"), entry("beta", "directory"),
                                         entry("link-to-beta", "directory", true), entry(".cache", "directory"),
                                         entry("zeta.txt", "file"), entry(".bashrc", "file")};
    // The path asked (it comes back as asked), the operation, the entries (none: the listing fails).
    const std::tuple<std::string, std::string, std::optional<std::vector<FSFileInfo>>> asks[] = {
        {".", "list", top},
        {"~/beta", "list", std::vector{entry("beta/inner", "directory")}},
        {h.filePath("beta/inner").toStdString(), "list", std::vector<FSFileInfo>{}},
        {"~/nowhere", "list", std::nullopt},
        {h.filePath("zeta.txt").toStdString(), "list", std::nullopt},  // a file is no folder
        {".", "delete", std::nullopt},                                  // only listings are done
    };
    for (const auto& [path, op, entries] : asks) {
        const FSResultEnvelope r = ask(path, op);
        EXPECT_EQ(r.success, entries.has_value()) << path;
        EXPECT_EQ(r.path, path);
        EXPECT_EQ(r.op, op);
        EXPECT_EQ(r.success ? r.data : std::nullopt, entries) << path;
    }
    EXPECT_TRUE(QDir(home).exists("beta"));

    // A folder beyond the entry cap and one on a file system that does not answer: the link is served
    // meanwhile, and each listing ends.
    const QString big = makeTempDir(QStringLiteral("big")), hung = makeTempDir(QStringLiteral("hung"));
    for (size_t i = 0; i < Agent::kMaxListing + 300; ++i) {
        const int fd = ::open(QFile::encodeName(big + "/f" + QString::number(i)).constData(), O_CREAT | O_WRONLY, 0600);
        ASSERT_GE(fd, 0);
        ::close(fd);
    }
    HungMount mount(hung);
    const size_t from = a->lines.size();
    if (mount.ok()) list(hung.toStdString());
    list(big.toStdString());
    a.send(ping(9));
    EXPECT_EQ(a->received("latency_pong").size(), 1u) << "answered while the listings run";
    std::vector<FSResultEnvelope> answers;
    ASSERT_TRUE(waitUntil([&] {
        answers.clear();
        for (size_t i = from; i < a->lines.size(); ++i)
            if (auto r = FSResultEnvelope::decode(a->lines[i])) answers.push_back(r.value());
        return answers.size() == (mount.ok() ? 2u : 1u);
    }, Agent::kListingTimeMs + 3000));
    for (const FSResultEnvelope& r : answers) {
        if (r.path == big.toStdString()) {
            // Cut at the entry cap, or earlier at the time cap on a slow machine.
            EXPECT_TRUE(r.success);
            EXPECT_GT(r.data ? r.data->size() : 0u, 0u);
            EXPECT_LE(r.data ? r.data->size() : 0u, Agent::kMaxListing);
        } else {
            EXPECT_EQ(r.path, hung.toStdString());
            EXPECT_FALSE(r.success) << "a file system that does not answer is a failed listing";
        }
    }
    if (!mount.ok()) GTEST_SKIP() << "no FUSE mount here (needs /dev/fuse and the right to mount): hung case not run";
}

// A controller whose typing piles up in front of a shell that does not read is paused until the shell
// takes it. One that does not read its replies: what it sends meanwhile waits, in order, and only so
// much of it.
TEST_F(RelayTest, ControllersArePausedWhileTheirTypingPilesUpOrTheyDoNotReadTheirReplies) {
    Peer a = paired("alice");
    a.send(create(1, "client-a"));
    a.send(input(1, "stty raw -echo; sleep 2\r"));  // the shell stops reading its terminal for a while
    spin(300);
    std::string chunk(256 * 1024, 'x');
    for (int i = 0; i < 6 && !a->readPaused; ++i) a.send(input(1, chunk));
    EXPECT_TRUE(a->readPaused);
    a.send(withPty("CLOSE_PTY", 1));
    EXPECT_FALSE(a->readPaused) << "the shell is closed: the controller is let go";

    a->pending = 9 * 1024 * 1024;  // replies it has not taken
    a.send(ping(7));
    ASSERT_EQ(a->received("latency_pong").size(), 1u);
    EXPECT_TRUE(a->readPaused);
    for (int i = 0; i < 3; ++i) a.send(Message("LIST_PTY"));
    a.send(ping(7));
    EXPECT_TRUE(a->received("PTY_LIST").empty()) << "held, not answered";
    a.ackAll();
    EXPECT_FALSE(a->readPaused);
    ASSERT_EQ(a->received("PTY_LIST").size(), 3u);
    ASSERT_EQ(a->received("latency_pong").size(), 2u);
    EXPECT_EQ(a->received().back().type, "latency_pong") << "in the order sent";

    a->pending = 9 * 1024 * 1024;
    for (size_t i = 0; i <= Relay::kHeldLines + 1 && !a->closed; ++i) a.send(ping(7));
    EXPECT_TRUE(a->closedByServer) << "beyond its bound the link is closed";
    EXPECT_TRUE(waitUntil([&] { return agents[0]->controllerCount() == 0; }));
}

// A shell floods while a slow controller types into another of its shells. Without typing first, the
// flood goes to the full mark, stops there while the link is full and resumes as it drains. With it,
// the other shells stop at the bulk mark while the client types, even one typed into a moment before;
// the shell typed into last keeps the full mark. Once the typing is over, the flood goes on to the full
// mark, with nobody draining the link.
TEST_F(RelayTest, FloodsStopAtTheHighWaterMarkAndTypingMakesTheClientsOtherShellsBulkForAWhile) {
    const size_t line = PtyProcess::kReadChunk * 4 / 3 + 256;  // one read of a shell, as sent
    for (bool on : {false, true}) {
        SCOPED_TRACE(on ? "typing first" : "no typing first");
        typingFirst = on;
        build(8);
        Peer a = paired("alice");
        a->holdAcks = true;
        a.send(create(1, "client-a"));
        a.send(create(2, "client-a"));
        // The flood starts when the other shell is typed into.
        a.send(input(2, "stty -echo; while [ ! -e go ]; do sleep 0.02; done; yes flood\r"));
        spin(100);
        a.send(input(1, "echo typed$((6*7)); touch go\r"));
        ASSERT_TRUE(a->waitOutput(1, "typed42"));
        if (!on) {
            ASSERT_TRUE(waitUntil([&] { return a->pending > Agent::kOutputHighWater; }, Agent::kTypingWindowMs - 500));
            spin(300);
            const size_t sentAtStall = a->sentBytes;
            spin(300);
            EXPECT_EQ(a->sentBytes, sentAtStall) << "nothing is sent while the link is full";
            EXPECT_LT(a->pending, Agent::kOutputHighWater + 64 * 1024);
            for (int round = 0; round < 3; ++round) {
                const size_t before = a->sentBytes;
                a.ackAll();
                ASSERT_TRUE(waitUntil([&] { return a->pending > Agent::kOutputHighWater; })) << round;
                EXPECT_GT(a->sentBytes, before);
                spin(100);
                EXPECT_LT(a->pending, Agent::kOutputHighWater + 64 * 1024);
            }
            continue;
        }
        ASSERT_TRUE(waitUntil([&] { return a->pending > Agent::kBulkHighWater; }, 5000));
        a.send(input(1, "\r"));  // typing on
        spin(300);
        EXPECT_LT(a->pending, Agent::kBulkHighWater + line) << "a bulk shell stops at the bulk mark";
        const size_t mark = a->lines.size();
        a.send(input(1, "head -c 100000 /dev/zero | tr '\\0' a; echo again$((6*7))\r"));
        const auto lastKey = std::chrono::steady_clock::now();
        EXPECT_TRUE(a->waitOutput(1, "again42", mark, 1000)) << "the shell typed into is held at the bulk mark";
        EXPECT_LT(a->pending, Agent::kOutputHighWater);
        // The flood goes on once the last key is older than the window.
        ASSERT_TRUE(waitUntil([&] { return a->pending > Agent::kOutputHighWater; }, Agent::kTypingWindowMs + 3000));
        EXPECT_GE(std::chrono::steady_clock::now() - lastKey, std::chrono::milliseconds(Agent::kTypingWindowMs - 50));
        spin(100);
        EXPECT_LT(a->pending, Agent::kOutputHighWater + line);

        // A client that reads everything at once still gets bulk output at the bulk rate only.
        a->holdAcks = false;
        a.ackAll();
        a.send(input(1, "\r"));
        spin(100);
        const size_t before = a->output(2).size();
        const auto t0 = std::chrono::steady_clock::now();
        spin(500);
        const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        const double rate = static_cast<double>(a->output(2).size() - before) / secs;
        const double bulkRate = Agent::kBulkBytesPerSlot * 1000.0 / Agent::kBulkSlotMs;
        EXPECT_LT(rate, 1.5 * bulkRate);
        EXPECT_GT(rate, 0.1 * bulkRate) << "bulk output still flows";
    }
}

}  // namespace
