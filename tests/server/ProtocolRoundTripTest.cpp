// The server program driven over loopback through the client's own QUIC transport: pairing, real
// shells and directory listings, the controller seats, re-attaching after a reconnect, bad input and the stop,
// each checked on the lines that actually come back over the wire.
#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <csignal>
#include <gtest/gtest.h>
#include <map>
#include <sys/wait.h>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "LineSplitter.h"
#include "LocalServer.h"
#include "RelayController.h"
#include "Message.h"
#include "QUICTransport.h"
#include "TestSupport.h"
#include "QuicServer.h"

using namespace ostv;
using ostv::test::LocalServer;
using ostv::test::Controller;
using ostv::test::create;
using ostv::test::input;
using ostv::test::spin;
using ostv::test::processRunning;
using ostv::test::waitUntil;

namespace {

// The number after `key` in a shell's output.
pid_t numberAfter(const std::string& out, const std::string& key) {
    const size_t at = out.find(key);
    return at == std::string::npos ? 0 : static_cast<pid_t>(std::atol(out.c_str() + at + key.size()));
}

// A server on free ports whose agents have a private, empty home folder.
class RoundTrip : public ::testing::Test {
protected:
    void startServer(QStringList args = {}) {
        ASSERT_TRUE(home.isValid());
        server = std::make_unique<LocalServer>(args);
        server->setEnv("HOME", home.path());
        ASSERT_TRUE(server->start()) << server->errorString().toStdString();
        ASSERT_FALSE(server->agents().empty());
    }
    std::unique_ptr<Controller> controller() {
        auto c = std::make_unique<Controller>(*server, server->code());
        EXPECT_TRUE(c->connect()) << "no QUIC connection to the relay";
        return c;
    }
    std::string code() const { return server->code().toStdString(); }

    QTemporaryDir home;
    std::unique_ptr<LocalServer> server;
};

TEST_F(RoundTrip, PairedControllerWorksARealShell) {
    startServer();
    auto a = controller();
    const std::string id = a->pair(code(), "alice");
    ASSERT_FALSE(id.empty());
    Message paired = a->received("paired").front();
    EXPECT_EQ(paired.homeDir, QDir(home.path()).absolutePath().toStdString());
    EXPECT_EQ(paired.os, "linux");
    EXPECT_EQ(paired.machineId, server->agents()[0].machineId.toStdString());

    // Typed input is echoed by a real shell that runs in the asked-for directory.
    ASSERT_TRUE(QDir(home.path()).mkpath("proj/a b"));
    a->send(create(1, "client-a", "~/proj/a b"));
    a->send(input(1, "echo \"at=$(pwd)\" sum=$((6*7)) term=$TERM\r"));
    EXPECT_TRUE(a->waitOutput(1, "sum=42")) << a->output(1);
    const std::string out = a->output(1);
    EXPECT_NE(out.find("at=" + QDir(home.path()).filePath("proj/a b").toStdString()), std::string::npos) << out;
    EXPECT_NE(out.find("term=xterm-256color"), std::string::npos) << out;

    // The window size set by RESIZE is what the terminal reports; EXEC adds the carriage return.
    size_t from = a->mark();
    Message rs("RESIZE");
    rs.ptyId = 1;
    rs.cols = 132;
    rs.rows = 43;
    a->send(rs);
    Message exec("EXEC");
    exec.ptyId = 1;
    exec.command = "stty size";
    a->send(exec);
    EXPECT_TRUE(a->waitOutput(1, "43 132", from)) << a->output(1, from);

    // Raw bytes that are not UTF-8 arrive unchanged, and a large burst arrives whole, line by line.
    from = a->mark();
    a->send(input(1, "printf 'raw:\\377\\376:end\\n'; head -c 300000 /dev/zero | tr '\\0' x; echo; echo burst-$((2+2))-done\r"));
    ASSERT_TRUE(a->waitOutput(1, "burst-4-done", from, 20000)) << a->output(1, from).size();
    const std::string burst = a->output(1, from);
    EXPECT_NE(burst.find("raw:\xff\xfe:end"), std::string::npos);
    EXPECT_NE(burst.find(std::string(300000, 'x')), std::string::npos);
    EXPECT_EQ(a->undecodable(), 0) << "every line over the wire is one whole JSON object";

    // Directory listings: "." is the home folder, links are marked, a missing folder fails.
    ASSERT_TRUE(QFile::link(QDir(home.path()).filePath("proj"), QDir(home.path()).filePath("proj-link")));
    auto top = a->list(".");
    ASSERT_TRUE(top);
    EXPECT_TRUE(top->success);
    ASSERT_TRUE(top->data.has_value());
    std::map<std::string, FSFileInfo> seen;
    for (const FSFileInfo& e : *top->data) seen[e.name] = e;
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen["proj"].path, QDir(home.path()).filePath("proj").toStdString());
    EXPECT_EQ(seen["proj"].fileType, "directory");
    EXPECT_FALSE(seen["proj"].isSymlink);
    EXPECT_EQ(seen["proj-link"].fileType, "directory");
    EXPECT_TRUE(seen["proj-link"].isSymlink);
    auto inner = a->list("~/proj");
    ASSERT_TRUE(inner && inner->data && inner->data->size() == 1);
    EXPECT_EQ((*inner->data)[0].name, "a b");
    auto missing = a->list("~/nowhere");
    ASSERT_TRUE(missing);
    EXPECT_FALSE(missing->success);
    EXPECT_EQ(missing->path, "~/nowhere");

    // A missing directory is an error for that shell only.
    from = a->mark();
    a->send(create(2, "client-a", "~/does/not/exist"));
    auto err = a->waitFor("PTY_ERROR", from);
    ASSERT_TRUE(err);
    EXPECT_EQ(err->ptyId, 2);
    EXPECT_NE(err->reason.value_or("").find("does/not/exist"), std::string::npos) << err->reason.value_or("");

    auto ptys = a->listPtys();
    ASSERT_EQ(ptys.size(), 1u);
    EXPECT_EQ(ptys[0].ptyId, 1);
    EXPECT_EQ(ptys[0].state, "running");
    EXPECT_EQ(ptys[0].controllerId, id);
    EXPECT_EQ(ptys[0].clientId, "client-a");

    // A shell that ends is reported; CLOSE_PTY hangs one up.
    a->send(create(3, "client-a"));
    from = a->mark();
    a->send(input(1, "exit\r"));
    auto exit = a->waitFor("PTY_EXIT", from);
    ASSERT_TRUE(exit);
    EXPECT_EQ(exit->ptyId, 1);
    Message close("CLOSE_PTY");
    close.ptyId = 3;
    a->send(close);
    EXPECT_TRUE(waitUntil([&] { return a->listPtys().empty(); }, 5000));

    // The ping is answered with the same stamp and the machine's load.
    from = a->mark();
    Message ping("latency_ping");
    ping.ts = 1712345678901;
    a->send(ping);
    auto pong = a->waitFor("latency_pong", from);
    ASSERT_TRUE(pong);
    EXPECT_EQ(pong->ts, 1712345678901);
    EXPECT_GE(pong->cpu.value_or(-1), 0.0);
    EXPECT_LE(pong->cpu.value_or(101), 100.0);
    EXPECT_GT(pong->mem.value_or(-1), 0.0);
    EXPECT_LE(pong->mem.value_or(101), 100.0);
}

TEST_F(RoundTrip, ControllersJoinLeaveAndTakeOverAFullAgent) {
    startServer({"--limit", "2"});
    auto a = controller();
    auto b = controller();
    const std::string idA = a->pair(code(), "alice");
    const std::string idB = b->pair(code(), "bob");
    ASSERT_FALSE(idA.empty());
    ASSERT_FALSE(idB.empty());
    auto joined = a->waitFor("controller_joined");
    ASSERT_TRUE(joined);
    EXPECT_EQ(joined->id, idB);
    EXPECT_EQ(joined->nickname, "bob");
    a->send(create(1, "client-a"));

    // The third controller is offered the seats instead of one.
    auto c = controller();
    Message pair("pair");
    pair.code = code();
    pair.nickname = "carol";
    c->send(pair);
    auto list = c->waitFor("controller_list");
    ASSERT_TRUE(list);
    EXPECT_TRUE(c->received("paired").empty());
    EXPECT_EQ(list->limit, 2);
    EXPECT_EQ(list->current, 2);
    ASSERT_TRUE(list->controllers.has_value());
    ASSERT_EQ(list->controllers->size(), 2u);
    EXPECT_EQ((*list->controllers)[0].id, idA);
    EXPECT_EQ((*list->controllers)[0].nickname, "alice");
    EXPECT_EQ((*list->controllers)[0].cwd, "~");
    EXPECT_EQ((*list->controllers)[0].workspacePty, "1");
    EXPECT_EQ((*list->controllers)[1].id, idB);

    // Taking alice's seat: she is told who took it and her connection is closed.
    const size_t bMark = b->mark();
    Message takeover("takeover");
    takeover.targetControllerId = idA;
    c->send(takeover);
    auto kicked = a->waitFor("kicked");
    ASSERT_TRUE(kicked) << "the kicked line arrives before the close";
    EXPECT_EQ(kicked->by, "carol");
    EXPECT_FALSE(kicked->reason.value_or("").empty());
    EXPECT_TRUE(a->waitClosedByServer());
    auto paired = c->waitFor("paired");
    ASSERT_TRUE(paired);
    const std::string idC = paired->id.value_or("");
    auto left = b->waitFor("controller_left", bMark);
    ASSERT_TRUE(left);
    EXPECT_EQ(left->id, idA);
    auto joinedC = b->waitFor("controller_joined", bMark);
    ASSERT_TRUE(joinedC);
    EXPECT_EQ(joinedC->id, idC);

    // Alice's shell lives on and carol, who took her seat, can end that session.
    auto ptys = c->listPtys();
    ASSERT_EQ(ptys.size(), 1u);
    EXPECT_EQ(ptys[0].clientId, "client-a");
    Message close("CLOSE_PTY");
    close.ptyId = 1;
    c->send(close);
    EXPECT_TRUE(waitUntil([&] { return c->listPtys().empty(); }, 5000));

    // A controller that disconnects is announced as gone; a seat is free again.
    const size_t cMark = c->mark();
    b->disconnect();
    auto leftB = c->waitFor("controller_left", cMark, 15000);
    ASSERT_TRUE(leftB);
    EXPECT_EQ(leftB->id, idB);
    auto d = controller();
    EXPECT_FALSE(d->pair(code(), "dave").empty());

    // An unknown code is refused with an error, then the connection is closed.
    auto e = std::make_unique<Controller>(*server, "999999");
    ASSERT_TRUE(e->connect());
    pair.code = "999999";
    pair.nickname = "eve";
    e->send(pair);
    auto refused = e->waitFor("error");
    ASSERT_TRUE(refused);
    EXPECT_FALSE(refused->msg.value_or("").empty());
    EXPECT_TRUE(e->waitClosedByServer());
    EXPECT_TRUE(e->received("paired").empty());
}

TEST_F(RoundTrip, ClientThatConnectsAgainGetsItsShellBack) {
    startServer();
    std::string firstId;
    {
        auto a = controller();
        firstId = a->pair(code(), "alice");
        ASSERT_FALSE(firstId.empty());
        a->send(create(1, "client-a"));
        a->send(input(1, "echo first-$((1+1))\r"));
        ASSERT_TRUE(a->waitOutput(1, "first-2"));
        // Another client's shell 1 is a different shell.
        auto b = controller();
        ASSERT_FALSE(b->pair(code(), "bob").empty());
        b->send(create(1, "client-b"));
        b->send(input(1, "echo bob-$((3+3))\r"));
        ASSERT_TRUE(b->waitOutput(1, "bob-6"));
        EXPECT_EQ(a->output(1).find("bob-6"), std::string::npos);
        a->send(input(1, "cd /tmp; sleep 1; echo while-away-$((5*5))\r"));
        a->disconnect();
        b->disconnect();
    }

    // The shells outlive the connections; the client finds its own in PTY_LIST and types into it.
    auto again = controller();
    const std::string secondId = again->pair(code(), "alice");
    ASSERT_FALSE(secondId.empty());
    EXPECT_NE(secondId, firstId);
    std::vector<PtyListItem> ptys = again->listPtys();
    ASSERT_EQ(ptys.size(), 2u);
    std::set<std::string> clients;
    for (const auto& p : ptys) {
        EXPECT_EQ(p.ptyId, 1);
        EXPECT_EQ(p.state, "running");
        EXPECT_FALSE(p.controllerId.empty());
        if (p.clientId == "client-a") {
            EXPECT_EQ(p.controllerId, firstId) << "the last controller of that client";
        }
        clients.insert(p.clientId.value_or(""));
    }
    EXPECT_EQ(clients, (std::set<std::string>{"client-a", "client-b"}));

    // As the desktop client does: it finds its shell in the list and sizes its terminal, which ties
    // the new connection to that client (two clients left a shell 1 behind; the nickname tells).
    Message rs("RESIZE");
    rs.ptyId = 1;
    rs.cols = 100;
    rs.rows = 30;
    again->send(rs);
    const size_t from = again->mark();
    again->send(input(1, "echo back-$((4*4)) in $(pwd) $(stty size)\r"));
    EXPECT_TRUE(again->waitOutput(1, "back-16 in /tmp 30 100", from)) << again->output(1, from);
    // What the shell wrote while nobody was connected is not lost.
    EXPECT_TRUE(again->waitOutput(1, "while-away-25")) << again->output(1);
    EXPECT_EQ(again->output(1).find("bob-6"), std::string::npos) << "never bob's shell";
    for (const auto& p : again->listPtys()) {
        if (p.clientId == "client-a" && p.ptyId == 1) {
            EXPECT_EQ(p.controllerId, secondId);
        }
    }
}

TEST_F(RoundTrip, RelayStoppedAndStartedAgainKeepsTheShells) {
    startServer();
    auto a = controller();
    ASSERT_FALSE(a->pair(code(), "alice").empty());
    a->send(create(1, "client-a"));
    a->send(input(1, "X=left-$((2*3)); echo set\r"));
    ASSERT_TRUE(a->waitOutput(1, "set"));
    // SIGUSR1: the relay ends the connection the way a relay going away does.
    ASSERT_TRUE(server->stopRelay());
    EXPECT_TRUE(a->waitClosedByServer(5000));
    EXPECT_TRUE(server->isRunning());
    ASSERT_TRUE(server->startRelay());
    auto again = controller();
    ASSERT_FALSE(again->pair(code(), "alice").empty());
    const std::vector<PtyListItem> ptys = again->listPtys();
    ASSERT_EQ(ptys.size(), 1u);
    EXPECT_EQ(ptys[0].clientId.value_or(""), "client-a");
    Message rs("RESIZE");  // as the desktop client does on finding its shell in the list
    rs.ptyId = 1;
    rs.cols = 90;
    rs.rows = 20;
    again->send(rs);
    again->send(input(1, "echo back-$X\r"));
    EXPECT_TRUE(again->waitOutput(1, "back-left-6")) << again->output(1);
    // Starting a relay that runs changes nothing.
    EXPECT_FALSE(server->startRelay(500));
    EXPECT_TRUE(again->isReady());
}

TEST_F(RoundTrip, BadInputDoesNotDisturbTheServerOrOtherControllers) {
    startServer();
    auto good = controller();
    ASSERT_FALSE(good->pair(code(), "alice").empty());
    good->send(create(1, "client-a"));

    auto bad = controller();
    const size_t before = bad->mark();
    bad->sendRaw("this is not json");
    bad->sendRaw(R"({"type":42})");
    bad->sendRaw(R"({"no_type":true})");
    bad->sendRaw(R"({"type":"CREATE_PTY","pty_id":1})");  // before pairing
    bad->sendRaw(R"({"type":"latency_ping"})");            // without its stamp
    ASSERT_TRUE(waitUntil([&] { return bad->received("error", before).size() >= 5; }, 8000))
        << bad->received("error", before).size();
    bad->sendRaw(R"({"type":"what_is_this","x":1})");  // unknown types are ignored

    ASSERT_FALSE(bad->pair(code(), "mallory").empty());
    size_t from = bad->mark();
    bad->sendRaw(R"({"type":"INPUT","data":"x"})");              // no pty_id
    bad->sendRaw(R"({"type":"RESIZE","pty_id":1})");             // no size
    bad->sendRaw(R"({"type":"INPUT","pty_id":"one","data":"x"})");  // wrong field type
    bad->sendRaw(R"({"type":"INPUT","pty_id":1.5,"data":"x"})");
    bad->sendRaw(R"({"type":"CREATE_PTY","pty_id":-4,"client_id":"m"})");
    bad->sendRaw(R"({"type":"fs_op","op":"delete","path":"/"})");
    bad->sendRaw(std::string("{\"type\":\"INPUT\",\"pty_id\":1,\"data\":\"\xff\xfe\"}"));  // not UTF-8
    ASSERT_TRUE(waitUntil([&] { return bad->received("error", from).size() >= 5; }, 8000))
        << bad->received("error", from).size();
    auto refusedOp = bad->waitLine("fs_result", from);
    ASSERT_TRUE(refusedOp);
    auto refused = FSResultEnvelope::decode(*refusedOp);
    ASSERT_TRUE(refused.ok()) << *refusedOp;
    EXPECT_EQ(refused->op, "delete");
    EXPECT_FALSE(refused->success);
    auto negative = bad->waitFor("PTY_ERROR", from);
    ASSERT_TRUE(negative);
    EXPECT_EQ(negative->ptyId, -4);

    // A line far beyond the size limit is dropped; the stream goes on after it.
    from = bad->mark();
    const size_t logMark = server->outputMark();
    bad->sendRaw(std::string(17 * 1024 * 1024, 'a'));
    Message ping("latency_ping");
    ping.ts = 42;
    bad->send(ping);
    auto pong = bad->waitFor("latency_pong", from, 30000);
    ASSERT_TRUE(pong) << "the relay still reads this controller";
    EXPECT_EQ(pong->ts, 42);
    EXPECT_TRUE(server->waitForOutput("Dropped a line", 5000, logMark)) << "the long line reached the server";
    EXPECT_TRUE(bad->isReady());

    // The other controller never noticed, and its shell still works.
    const size_t goodFrom = good->mark();
    good->send(input(1, "echo fine-$((9*9))\r"));
    EXPECT_TRUE(good->waitOutput(1, "fine-81", goodFrom));
    EXPECT_TRUE(good->received("error").empty());
    EXPECT_TRUE(server->isRunning());
    EXPECT_NE(server->output().find("bad line"), std::string::npos) << "bad input is logged";
}

TEST_F(RoundTrip, StoppingTheServerHangsUpEveryShell) {
    for (int sig : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(sig == SIGTERM ? "SIGTERM" : "SIGINT");
        startServer();
        auto a = controller();
        ASSERT_FALSE(a->pair(code(), "alice").empty());
        a->send(create(1, "client-a"));
        a->send(create(2, "client-a"));
        a->send(input(1, "echo she''ll=$$\r"));  // the quotes keep the typed line apart from the answer
        // A program running in the foreground of a shell goes as well.
        a->send(input(2, "sh -c 'echo slee\"\"per=$$; exec sleep 300'\r"));
        ASSERT_TRUE(a->waitOutput(1, "shell=") && a->waitOutput(2, "sleeper="));
        spin(100);
        const pid_t shell = numberAfter(a->output(1), "shell=");
        const pid_t sleeper = numberAfter(a->output(2), "sleeper=");
        ASSERT_GT(shell, 1);
        ASSERT_GT(sleeper, 1);
        ASSERT_TRUE(processRunning(shell) && processRunning(sleeper));

        ASSERT_EQ(::kill(server->pid(), sig), 0);
        ASSERT_TRUE(waitUntil([&] { return !server->isRunning(); }, 8000)) << "the server did not stop";
        const int status = server->stop();
        EXPECT_TRUE(WIFEXITED(status)) << status;
        EXPECT_EQ(WEXITSTATUS(status), 0);
        EXPECT_TRUE(waitUntil([&] { return !processRunning(shell) && !processRunning(sleeper); }, 5000))
            << "shell " << processRunning(shell) << ", sleeper " << processRunning(sleeper);
        EXPECT_TRUE(a->waitClosedByServer()) << "the controller's connection is closed";
    }
}

// The listener on its own: once handshakes pile up (here: from the first), a new client first proves
// its address with a Retry and then connects as usual; one address gets only so many connections,
// not counting those that have proved who they are (agents and their seats).
TEST(QuicListener, RetryOnceHandshakesPileUpAndACapPerAddress) {
    server::QuicServer listener;
    listener.retryAbove = 0;
    listener.maxPerAddress = 2;
    std::vector<std::string> heard;
    listener.onConnection = [&](server::QuicConnection* c) {
        c->onLine = [&heard, c](std::string_view line) {
            heard.emplace_back(line);
            if (line == "trusted") c->markAuthenticated();
            c->sendLine("echo " + std::string(line));
        };
    };
    ASSERT_TRUE(listener.listen(QHostAddress::LocalHost, 0)) << listener.errorString().toStdString();
    std::vector<std::unique_ptr<Controller>> clients;
    for (int i = 0; i < 3; ++i)
        clients.push_back(std::make_unique<Controller>(QStringLiteral("127.0.0.1"), listener.port(), "123456"));
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(clients[i]->connect()) << i;
        clients[i]->sendRaw("hello " + std::to_string(i));
        EXPECT_TRUE(waitUntil([&] { return !clients[i]->lines().empty(); }, 3000)) << i;
    }
    EXPECT_GE(listener.retriesSent(), 2u);
    EXPECT_EQ(heard, (std::vector<std::string>{"hello 0", "hello 1"}));
    EXPECT_EQ(clients[0]->lines(), std::vector<std::string>{"echo hello 0"});

    clients[2]->startConnecting();
    spin(800);
    EXPECT_FALSE(clients[2]->isReady()) << "a third connection from the same address is not taken";
    EXPECT_EQ(listener.connectionCount(), 2u);
    clients[2]->disconnect();

    // Both proved who they are: two more unknown peers from the address fit, a third again does not.
    for (int i = 0; i < 2; ++i) {
        clients[i]->sendRaw("trusted");
        EXPECT_TRUE(waitUntil([&] { return clients[i]->lines().size() == 2; }, 3000)) << i;
    }
    EXPECT_EQ(listener.authenticatedCount(), 2u);
    for (int i = 0; i < 3; ++i)
        clients.push_back(std::make_unique<Controller>(QStringLiteral("127.0.0.1"), listener.port(), "123456"));
    EXPECT_TRUE(clients[3]->connect() && clients[4]->connect()) << "authenticated peers left the address's count";
    clients[5]->startConnecting();
    spin(800);
    EXPECT_FALSE(clients[5]->isReady());
    EXPECT_EQ(listener.connectionCount(), 4u);
    clients[0]->disconnect();
    EXPECT_TRUE(waitUntil([&] { return listener.authenticatedCount() == 1u; }, 5000)) << "a closed one is forgotten";
    for (auto& c : clients) c->disconnect();
}

}  // namespace
