// The server program as a whole over loopback: its start-up lines and command line, its admin HTTP
// API, real shells through the client's own QUIC transport, the relay going away and coming back, what
// only the real link sees of bad input, and the stop. The relay's and agents' rules in detail are
// tested in-process (RelayAgentTest.cpp); the refusal to run shells as root beyond loopback with the
// agents on other machines (RemoteAgentTest.cpp), which has the network namespaces it needs.
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QSysInfo>
#include <QTemporaryDir>
#include <csignal>
#include <gtest/gtest.h>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

#include "Http.h"
#include "LocalServer.h"
#include "QuicServer.h"
#include "RelayController.h"
#include "TestSupport.h"

using namespace ostv;
using namespace ostv::test;

namespace {

// What the program prints on starting, its own admin credentials and its agents as the list shows them
// (the request handling itself is tested on the admin API alone), and what a restart keeps and forgets.
TEST(ServerProgram, PrintsWhereItListensAndEveryAgentSignsInAndKeepsTheAgentsOnRestart) {
    const QString state = makeTempDir(QStringLiteral("state")) + "/relay";
    LocalServer server({"--agents", "3", "--code", "123456", "--state-dir", state, "--user", "ops", "--password",
                        "s3cret", "--name", "lab box"});
    ASSERT_TRUE(server.start()) << server.errorString().toStdString();
    auto readCert = [&] {
        QFile f(state + "/relay-cert.pem");
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    };
    const QByteArray cert = readCert();
    EXPECT_TRUE(cert.startsWith("-----BEGIN CERTIFICATE-----")) << "the relay keeps its certificate";
    EXPECT_EQ(QFile(state + "/relay-key.pem").permissions() & ~(QFile::ReadOwner | QFile::WriteOwner | QFile::ReadUser | QFile::WriteUser),
              QFile::Permissions()) << "its key is the owner's alone";
    EXPECT_EQ(server.host(), "127.0.0.1");
    EXPECT_NE(server.quicPort(), 0);
    ASSERT_EQ(server.agents().size(), 3u);
    EXPECT_EQ(server.code(0), "123456");
    const auto before = server.agents();

    // Signed in with the given credentials, the list shows each agent as printed, idle: distinct six-digit
    // codes and machine ids, in the order the client lists them (by machine id), numbered in that order
    // after the given name.
    const QString agentsUrl = server.adminUrl() + "/admin/agents";
    const HttpAnswer ok = http("POST", server.adminUrl() + "/admin/login", R"({"username":"ops","password":"s3cret"})");
    EXPECT_EQ(ok.json()["username"].toString(), "ops");
    const QByteArray token = ok.json()["token"].toString().toUtf8();
    ASSERT_FALSE(token.isEmpty()) << ok.body.toStdString();
    HttpAnswer list = http("GET", agentsUrl, {}, token);
    const QJsonArray arr = list.json().array();
    ASSERT_EQ(arr.size(), 3) << list.body.toStdString();
    std::set<QString> codes;
    for (int i = 0; i < 3; ++i) {
        QJsonObject row = arr[i].toObject();
        const LocalServer::Agent& a = before[static_cast<size_t>(i)];
        EXPECT_TRUE(QRegularExpression("^[0-9]{6}$").match(a.code).hasMatch()) << a.code.toStdString();
        EXPECT_TRUE(!a.machineId.isEmpty() && (i == 0 || before[static_cast<size_t>(i) - 1].machineId < a.machineId)) << i;
        codes.insert(a.code);
        EXPECT_GE(row.take("cpu").toDouble(-1), 0.0);
        EXPECT_GT(row.take("mem").toDouble(-1), 0.0);
        EXPECT_EQ(row, (QJsonObject{{"code", a.code}, {"machine_id", a.machineId}, {"os", "linux"},
                                    {"hostname", QStringLiteral("lab box#%1").arg(i + 1)}, {"controller_count", 0}}));
        EXPECT_EQ(a.os, "linux") << "printed as listed";
        EXPECT_EQ(a.hostname, row["hostname"].toString());
    }
    EXPECT_EQ(codes.size(), 3u);

    // Started again (on the same ports with the same codes): the same certificate and machine ids, and
    // the tokens handed out before are forgotten.
    ASSERT_TRUE(server.restart()) << server.errorString().toStdString();
    EXPECT_EQ(readCert(), cert);
    ASSERT_EQ(server.agents().size(), 3u);
    for (size_t i = 0; i < 3; ++i) EXPECT_EQ(server.agents()[i].machineId, before[i].machineId) << i;
    EXPECT_EQ(http("GET", agentsUrl, {}, token).status, 401);
}

TEST(ServerProgram, BadCommandLineAndTakenPortsEndWithAClearMessage) {
    LocalServer bad({"--agents", "zero"});
    EXPECT_FALSE(bad.start(10000));
    EXPECT_TRUE(bad.errorString().contains("--agents")) << bad.errorString().toStdString();

    LocalServer first;
    ASSERT_TRUE(first.start()) << first.errorString().toStdString();
    LocalServer second({"--admin-port", QString::number(first.adminPort())});
    EXPECT_FALSE(second.start(10000));
    EXPECT_TRUE(second.errorString().contains(QString::number(first.adminPort()))) << second.errorString().toStdString();
    EXPECT_TRUE(first.isRunning()) << "the first server is not disturbed";

    LocalServer help({"--help"});
    EXPECT_FALSE(help.start(10000));
    EXPECT_TRUE(help.errorString().contains("--quic-port")) << "the usage text names the options";

    // Interrupted, as from a terminal, the server stops as cleanly as on SIGTERM.
    ASSERT_EQ(::kill(first.pid(), SIGINT), 0);
    ASSERT_TRUE(waitUntil([&] { return !first.isRunning(); }, 8000));
    const int status = first.stop();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

// Started by a shell that ends a moment later: with --exit-with-parent the server ends with it, without
// it the server stays (and is stopped here).
TEST(ServerProgram, ExitWithParentEndsTheServerWithTheProcessThatStartedIt) {
    for (const bool withFlag : {true, false}) {
        QProcess sh;
        sh.start(QStringLiteral("/bin/sh"),
                 {QStringLiteral("-c"),
                  QStringLiteral("\"$0\" $1 --quic-port 0 --admin-port 0 >/dev/null 2>&1 & echo $!; sleep 1"),
                  qEnvironmentVariable("OSTV_SERVER_BIN"),
                  withFlag ? QStringLiteral("--exit-with-parent") : QStringLiteral("--agents=1")});
        ASSERT_TRUE(sh.waitForFinished(10000));
        bool ok = false;
        const pid_t pid = sh.readAllStandardOutput().trimmed().toInt(&ok);
        ASSERT_TRUE(ok && pid > 0);
        if (!withFlag) {
            spin(1000);
            EXPECT_TRUE(processRunning(pid)) << "without the option the server goes on";
            ::kill(pid, SIGTERM);
        }
        EXPECT_TRUE(waitUntil([&] { return !processRunning(pid); }, 5000)) << withFlag;
    }
}

// One server through its controllers' lives: a real shell worked through the client's own transport,
// what only the real link sees of bad input, a departure announced, the relay going away and coming
// back under live shells, a shell that ends, and the stop that hangs up the rest.
TEST(RoundTrip, RealShellsOutliveTheirConnectionsAndTheRelayButNotTheServer) {
    QTemporaryDir home;  // the agent's: private and empty
    LocalServer server;
    server.setEnv("HOME", home.path());
    ASSERT_TRUE(server.start()) << server.errorString().toStdString();
    ASSERT_EQ(server.agents().size(), 1u);
    EXPECT_EQ(server.agents()[0].hostname, QSysInfo::machineHostName() + "#1") << "named after this machine";
    const std::string code = server.code().toStdString();
    auto controller = [&] {
        auto c = std::make_unique<Controller>(server, server.code());
        EXPECT_TRUE(c->connect()) << "no QUIC connection to the relay";
        return c;
    };
    auto a = controller();
    auto b = controller();
    const std::string idB = b->pair(code, "bob");
    ASSERT_FALSE(a->pair(code, "alice").empty() || idB.empty());
    Message paired = a->received("paired").front();
    EXPECT_EQ(paired.homeDir, QDir(home.path()).absolutePath().toStdString());
    EXPECT_EQ(paired.os, "linux");
    EXPECT_EQ(paired.machineId, server.agents()[0].machineId.toStdString());

    // Typed input is echoed by a real shell that runs in the asked-for directory.
    ASSERT_TRUE(QDir(home.path()).mkpath("proj/a b"));
    a->send(create(1, "client-a", "~/proj/a b"));
    b->send(create(1, "client-b"));
    a->send(input(1, "echo \"at=$(pwd)\" sum=$((6*7))\r"));
    EXPECT_TRUE(a->waitOutput(1, "sum=42")) << a->output(1);
    const std::string out = a->output(1);
    EXPECT_NE(out.find("at=" + QDir(home.path()).filePath("proj/a b").toStdString()), std::string::npos) << out;

    // The window size set by RESIZE is what the terminal reports; EXEC adds the carriage return.
    size_t from = a->mark();
    a->sendRaw(R"({"type":"RESIZE","pty_id":1,"cols":132,"rows":43})");
    a->sendRaw(R"({"type":"EXEC","pty_id":1,"command":"stty size"})");
    EXPECT_TRUE(a->waitOutput(1, "43 132", from)) << a->output(1, from);

    // Raw bytes that are not UTF-8 arrive unchanged, and a large burst arrives whole, line by line.
    from = a->mark();
    a->send(input(1, "printf 'raw:\\377\\376:end\\n'; head -c 300000 /dev/zero | tr '\\0' x; echo; echo burst-$((2+2))-done\r"));
    ASSERT_TRUE(a->waitOutput(1, "burst-4-done", from, 20000)) << a->output(1, from).size();
    const std::string burst = a->output(1, from);
    EXPECT_NE(burst.find("raw:\xff\xfe:end"), std::string::npos);
    EXPECT_NE(burst.find(std::string(300000, 'x')), std::string::npos);
    EXPECT_EQ(a->undecodable.load(), 0) << "every line over the wire is one whole JSON object";

    // What only the real link sees of bad input (the rules in detail are tested in-process): a line far
    // beyond the size limit is dropped and the stream goes on after it; bad lines are logged.
    from = a->mark();
    const size_t logMark = server.outputMark();
    a->sendRaw("this is not json");
    a->sendRaw(std::string(17 * 1024 * 1024, 'a'));
    a->send(ping(1712345678901));
    auto pong = a->waitFor("latency_pong", from, 30000);
    ASSERT_TRUE(pong) << "the relay still reads this controller";
    EXPECT_EQ(pong->ts, 1712345678901);
    EXPECT_GE(pong->cpu.value_or(-1), 0.0) << "the machine's load";
    EXPECT_GT(pong->mem.value_or(-1), 0.0);
    EXPECT_EQ(a->received("error", from).size(), 1u);
    EXPECT_TRUE(server.waitForOutput("Dropped a line", 5000, logMark)) << "the long line reached the server";
    EXPECT_TRUE(server.waitForOutput("bad line", 5000, logMark));

    // A controller that disconnects is announced as gone.
    from = a->mark();
    a->send(input(1, "X=left-$((2*3)); echo set-$((1+1))\r"));
    ASSERT_TRUE(a->waitOutput(1, "set-2", from));
    const size_t aMark = a->mark();
    b->disconnect();
    auto left = a->waitFor("controller_left", aMark, 15000);
    ASSERT_TRUE(left);
    EXPECT_EQ(left->id, idB);

    // The relay stopped (SIGUSR1, the way a relay going away ends its connections) and started again
    // (SIGUSR2): the shells lived on, and a client coming back finds its own among two shells 1 and
    // what it wrote while nobody was connected.
    a->send(input(1, "cd /tmp; sleep 1; echo while-away-$((5*5))\r"));
    ASSERT_TRUE(a->waitOutput(1, "while-away-$((5*5))", aMark)) << "the line has reached the shell";
    QElapsedTimer typed;
    typed.start();
    ASSERT_TRUE(server.stopRelay());
    EXPECT_TRUE(a->waitClosedByServer(5000));
    EXPECT_TRUE(server.isRunning());
    ASSERT_TRUE(server.startRelay());
    EXPECT_FALSE(server.startRelay(500)) << "starting a relay that runs changes nothing";
    while (typed.elapsed() < 1500) spin(50);  // the shell has written while nobody was connected

    auto again = controller();
    const std::string idAgain = again->pair(code, "alice");
    ASSERT_FALSE(idAgain.empty());
    const std::vector<PtyListItem> ptys = again->listPtys();
    ASSERT_EQ(ptys.size(), 2u);
    for (const PtyListItem& p : ptys) EXPECT_EQ(p.state, "running");
    // As the desktop client does on finding its shell in the list, it sizes its terminal, which ties the
    // new connection to that shell.
    again->sendRaw(R"({"type":"RESIZE","pty_id":1,"cols":100,"rows":30})");
    from = again->mark();
    again->send(input(1, "echo back-$X in $(pwd) $(stty size)\r"));
    EXPECT_TRUE(again->waitOutput(1, "back-left-6 in /tmp 30 100", from)) << again->output(1, from);
    EXPECT_TRUE(again->waitOutput(1, "while-away-25")) << again->output(1);
    for (const PtyListItem& p : again->listPtys())
        EXPECT_EQ(p.controllerId == idAgain, p.clientId == "client-a") << p.clientId.value_or("");

    // A shell that ends is reported and no longer listed.
    from = again->mark();
    again->send(input(1, "exit\r"));
    auto exit = again->waitFor("PTY_EXIT", from);
    ASSERT_TRUE(exit);
    EXPECT_EQ(exit->ptyId, 1);
    EXPECT_TRUE(waitUntil([&] { return again->listPtys().size() == 1u; }, 5000));

    // Stopping the server hangs up every shell, and a program running in the foreground of one.
    again->send(create(2, "client-a"));
    const pid_t shell = again->printedPid(2);
    const pid_t sleeper = again->printedPid(2, "sh -c 'echo pi\"\"d=$$ en\"\"d; exec sleep 300'");
    ASSERT_TRUE(shell > 1 && sleeper > 1 && processRunning(shell) && processRunning(sleeper));
    ASSERT_EQ(::kill(server.pid(), SIGTERM), 0);
    ASSERT_TRUE(waitUntil([&] { return !server.isRunning(); }, 8000)) << "the server did not stop";
    const int status = server.stop();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_TRUE(waitUntil([&] { return !processRunning(shell) && !processRunning(sleeper); }, 5000))
        << "shell " << processRunning(shell) << ", sleeper " << processRunning(sleeper);
    EXPECT_TRUE(again->waitClosedByServer()) << "the controller's connection is closed";
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
    for (int i = 0; i < 6; ++i) clients.push_back(std::make_unique<Controller>("127.0.0.1", listener.port(), "123456"));
    // A connection the listener does not take never gets ready.
    auto refused = [](Controller& c) {
        c.startConnecting();
        spin(800);
        return !c.isReady();
    };
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(clients[i]->connect()) << i;
        clients[i]->sendRaw("hello " + std::to_string(i));
        EXPECT_TRUE(waitUntil([&] { return !clients[i]->lines().empty(); }, 3000)) << i;
    }
    EXPECT_GE(listener.retriesSent(), 2u);
    EXPECT_EQ(heard, (std::vector<std::string>{"hello 0", "hello 1"}));
    EXPECT_EQ(clients[0]->lines(), std::vector<std::string>{"echo hello 0"});
    EXPECT_TRUE(refused(*clients[2])) << "a third connection from the same address is not taken";
    EXPECT_EQ(listener.connectionCount(), 2u);
    clients[2]->disconnect();

    // Both proved who they are: two more unknown peers from the address fit, a third again does not.
    for (int i = 0; i < 2; ++i) {
        clients[i]->sendRaw("trusted");
        EXPECT_TRUE(waitUntil([&] { return clients[i]->lines().size() == 2; }, 3000)) << i;
    }
    EXPECT_EQ(listener.authenticatedCount(), 2u);
    EXPECT_TRUE(clients[3]->connect() && clients[4]->connect()) << "authenticated peers left the address's count";
    EXPECT_TRUE(refused(*clients[5]));
    EXPECT_EQ(listener.connectionCount(), 4u);
    clients[0]->disconnect();
    EXPECT_TRUE(waitUntil([&] { return listener.authenticatedCount() == 1u; }, 5000)) << "a closed one is forgotten";
    for (auto& c : clients) c->disconnect();
}

}  // namespace
