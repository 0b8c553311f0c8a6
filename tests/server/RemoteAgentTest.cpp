// Agents on other machines: the relay, two agent programs and the client each on a network stack of
// their own (namespaces this test makes and removes), the client speaking to the relay only.
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QHostInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Http.h"
#include "LocalServer.h"
#include "RelayController.h"
#include "TestSupport.h"

using namespace ostv;
using namespace ostv::test;

namespace {

// Network namespaces named after this process: 0 is the relay's, every other one is linked to it by a
// veth pair (the relay side 10.250.N.1, the other side 10.250.N.2). Removed when this goes.
class NetworkStacks {
public:
    ~NetworkStacks() {
        for (const QString& n : made_) ip({"netns", "del", n});
    }

    bool create(int leaves, QString* error) {
        ip_ = QStandardPaths::findExecutable(QStringLiteral("ip"), {"/usr/sbin", "/sbin", "/usr/bin", "/bin"});
        if (ip_.isEmpty()) {
            *error = QStringLiteral("no ip command");
            return false;
        }
        removeLeftovers();
        for (int i = 0; i <= leaves; ++i) {
            const QString n = name(i);
            if (!ip({"netns", "add", n}, error)) return false;
            made_ << n;
            if (!ip({"-n", n, "link", "set", "lo", "up"}, error)) return false;
        }
        for (int i = 1; i <= leaves; ++i) {
            const QString link = QStringLiteral("l%1").arg(i);
            const QString net = QStringLiteral("10.250.%1.").arg(i);
            if (!ip({"-n", name(0), "link", "add", link, "type", "veth", "peer", "name", "up0", "netns", name(i)}, error) ||
                !ip({"-n", name(0), "addr", "add", net + "1/24", "dev", link}, error) ||
                !ip({"-n", name(0), "link", "set", link, "up"}, error) ||
                !ip({"-n", name(i), "addr", "add", net + "2/24", "dev", "up0"}, error) ||
                !ip({"-n", name(i), "link", "set", "up0", "up"}, error))
                return false;
        }
        return true;
    }

    QString name(int i) const { return QStringLiteral("ostv-ra-%1-%2").arg(::getpid()).arg(i); }

    // Namespaces of earlier runs whose process is gone (killed before it could remove them).
    void removeLeftovers() {
        QProcess p;
        p.start(ip_, {"netns", "list"});
        if (!p.waitForFinished(10000)) return;
        static const QRegularExpression ours(QStringLiteral("^(ostv-ra-(\\d+)-\\d+)\\b"));
        for (const QString& line : QString::fromLocal8Bit(p.readAllStandardOutput()).split('\n')) {
            const auto m = ours.match(line);
            if (!m.hasMatch()) continue;
            const pid_t owner = static_cast<pid_t>(m.captured(2).toLong());
            if (owner != ::getpid() && ::kill(owner, 0) != 0 && errno == ESRCH) ip({"netns", "del", m.captured(1)});
        }
    }
    // Where leaf `i` reaches the relay.
    static QString relayAddress(int i) { return QStringLiteral("10.250.%1.1").arg(i); }
    QStringList launcher(int i) const { return {ip_, "netns", "exec", name(i)}; }

    // Moves the calling thread (and the threads it starts from now on) into namespace i.
    bool enter(int i) {
        const int fd = ::open(QFile::encodeName("/run/netns/" + name(i)).constData(), O_RDONLY | O_CLOEXEC);
        const bool ok = fd >= 0 && ::setns(fd, CLONE_NEWNET) == 0;
        if (fd >= 0) ::close(fd);
        return ok;
    }

private:
    bool ip(const QStringList& args, QString* error = nullptr) {
        QProcess p;
        p.setProcessChannelMode(QProcess::MergedChannels);
        p.start(ip_, args);
        const bool ok = p.waitForFinished(10000) && p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0;
        if (!ok && error) *error = "ip " + args.join(' ') + ": " + QString::fromLocal8Bit(p.readAll()).trimmed();
        return ok;
    }

    QString ip_;
    QStringList made_;
};

// The relay in namespace 0, the client in 1, agents in 2 and up, each with its own folder.
class RemoteAgents : public ::testing::Test {
protected:
    void SetUp() override {
        QString error;
        if (!stacks.create(4, &error)) GTEST_SKIP() << "network namespaces refused: " << error.toStdString();
        ASSERT_TRUE(stacks.enter(1));
        secretFile = dir.filePath("relay/agent-secret");
        relay = std::make_unique<LocalServer>(QStringList{"--agents", "0", "--bind", "0.0.0.0", "--agent-secret-file", secretFile});
        relay->setLauncher(stacks.launcher(0));
        ASSERT_TRUE(relay->start()) << relay->errorString().toStdString();
        EXPECT_TRUE(relay->waitForOutput("agent secret made in " + secretFile.toStdString(), 100));
        adminUrl = QStringLiteral("http://%1:%2").arg(NetworkStacks::relayAddress(1)).arg(relay->adminPort());
        login();
    }

    // Beyond loopback and given no password, the relay makes one for each run and says it.
    void login() {
        const QString out = QString::fromStdString(relay->output());
        const QString password = out.mid(out.lastIndexOf("admin password ") + 15).section(' ', 0, 0);
        ASSERT_TRUE(QRegularExpression("^[A-Za-z0-9]{20}$").match(password).hasMatch()) << out.toStdString();
        const HttpAnswer a = http("POST", adminUrl + "/admin/login", R"({"username":"admin","password":")" + password.toUtf8() + "\"}");
        token = a.json()["token"].toString().toUtf8();
        ASSERT_FALSE(token.isEmpty()) << a.body.toStdString();
    }

    // An agent program in namespace `ns` under machine id `id`, its state in its own folder.
    std::unique_ptr<LocalServer> agent(int ns, const QString& id, const QString& secret, QStringList extra = {}) {
        QDir(dir.path()).mkpath(id + "/home");
        const QString state = dir.filePath(id + "/state");
        QStringList args{"--relay", NetworkStacks::relayAddress(ns) + ":" + QString::number(relay->quicPort()),
                         "--secret-file", secret, "--state-dir", state, "--machine-id", id, "--shell", "/bin/sh"};
        if (::geteuid() == 0) args << "--allow-root";
        auto a = std::make_unique<LocalServer>(args + extra, LocalServer::Program::agent);
        a->setLauncher(stacks.launcher(ns));
        a->setEnv("HOME", dir.filePath(id + "/home"));
        return a;
    }

    // An agent started and listed, idle (nullptr if not).
    std::unique_ptr<LocalServer> listedAgent(int ns, const QString& id, const QStringList& extra = {}) {
        auto a = agent(ns, id, secretFile, extra);
        const bool ok = a->start() && a->waitForOutput("registered with the relay", 10000) && waitListed(id, 0, 10000);
        EXPECT_TRUE(ok) << id.toStdString() << ": " << a->errorString().toStdString() << a->output();
        return ok ? std::move(a) : nullptr;
    }

    QJsonArray listed() { return http("GET", adminUrl + "/admin/agents", {}, token).json().array(); }
    // The row of the agent with this machine id, as many times as it is listed.
    std::vector<QJsonObject> rows(const QString& machineId) {
        std::vector<QJsonObject> out;
        for (const QJsonValue& v : listed())
            if (v["machine_id"].toString() == machineId) out.push_back(v.toObject());
        return out;
    }
    bool waitListed(const QString& machineId, int controllers, int ms) {
        return waitUntil(
            [&] {
                auto r = rows(machineId);
                return r.size() == 1 && r[0]["controller_count"].toInt() == controllers;
            },
            ms);
    }
    std::unique_ptr<Controller> pairWith(const QString& code, const std::string& nickname) {
        auto c = std::make_unique<Controller>(NetworkStacks::relayAddress(1), relay->quicPort(), code);
        if (!c->connect() || c->pair(code.toStdString(), nickname).empty()) return nullptr;
        return c;
    }

    NetworkStacks stacks;
    QTemporaryDir dir;
    QString secretFile;
    std::unique_ptr<LocalServer> relay;
    QString adminUrl;
    QByteArray token;
};

TEST_F(RemoteAgents, ListedWithLoadPairedLikeBuiltInOnesAndRefusedWithAReason) {
    auto a1 = listedAgent(2, "m-one");
    auto a2 = listedAgent(3, "m-two", {"--code", "424242", "--limit", "1", "--name", "lab two"});
    ASSERT_TRUE(a1 && a2);
    EXPECT_EQ(a2->code(), "424242");
    // The load is the agent machine's own, reported over its link.
    EXPECT_TRUE(waitUntil([&] { return rows("m-one").size() == 1 && rows("m-one")[0]["mem"].toDouble() > 0; }, 5000));
    EXPECT_EQ(rows("m-two")[0]["code"].toString(), "424242");
    EXPECT_EQ(rows("m-two")[0]["os"].toString(), "linux");
    EXPECT_EQ(rows("m-one")[0]["hostname"].toString(), QHostInfo::localHostName()) << "the machine's own name";
    EXPECT_EQ(rows("m-two")[0]["hostname"].toString(), "lab two") << "or the one it was given";

    // Paired by code like a built-in agent (its shells are worked in the next case); it takes one
    // controller, so another one takes that seat over, and its shell with it.
    auto first = pairWith(a2->code(), "first");
    ASSERT_TRUE(first);
    EXPECT_EQ(first->received("paired").front().machineId.value_or(""), "m-two");
    first->send(create(1, "client-first"));
    EXPECT_TRUE(waitListed("m-two", 1, 5000));
    auto taker = std::make_unique<Controller>(NetworkStacks::relayAddress(1), relay->quicPort(), a2->code());
    ASSERT_TRUE(taker->connect());
    taker->send(pairing(a2->code().toStdString(), "taker"));
    auto list = taker->waitFor("controller_list");
    ASSERT_TRUE(list && list->controllers && list->controllers->size() == 1u);
    taker->send(takeover(list->controllers->front().id));
    ASSERT_TRUE(taker->waitFor("paired"));
    EXPECT_TRUE(first->waitFor("kicked"));
    EXPECT_TRUE(first->waitClosedByServer(5000));
    taker->send(input(1, "echo taken-$((2*21))\n"));
    EXPECT_TRUE(taker->waitOutput(1, "taken-42")) << taker->output(1);

    // A wrong secret, and a code another machine holds, are refused with the reason said on both sides.
    QFile wrong(dir.filePath("wrong-secret"));
    ASSERT_TRUE(wrong.open(QIODevice::WriteOnly, QFile::ReadOwner | QFile::WriteOwner) &&
                wrong.write("not-the-secret\n") > 0 && wrong.flush());
    struct Refusal {
        QString secret;
        QStringList extra;
        const char* reason;
    } refusals[] = {{wrong.fileName(), {}, "wrong agent secret"},
                    {secretFile, {"--code", "424242"}, "already taken by another agent"}};
    for (const Refusal& r : refusals) {
        auto bad = agent(4, "m-bad", r.secret, r.extra);
        ASSERT_TRUE(bad->start()) << bad->errorString().toStdString();
        EXPECT_TRUE(bad->waitForOutput(r.reason, 10000)) << bad->output();
        EXPECT_TRUE(relay->waitForOutput(r.reason, 5000));
        EXPECT_TRUE(waitUntil([&] { return !bad->isRunning(); }, 5000));
        const int status = bad->stop();
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3) << status;
    }
    EXPECT_EQ(listed().size(), 2);
    EXPECT_EQ(rows("m-two")[0]["controller_count"].toInt(), 1) << "the refused one did not disturb the holder";

    // A server that would give shells as root on an address beyond loopback (here the relay's side of a
    // link) refuses in one line without --allow-root.
    if (::geteuid() != 0) GTEST_SKIP() << "not root: the refusal for root cannot be shown";
    QProcess root;
    root.setProcessChannelMode(QProcess::MergedChannels);
    root.start(stacks.launcher(0)[0], stacks.launcher(0).mid(1) + QStringList{qEnvironmentVariable("OSTV_SERVER_BIN"),
                                      "--bind", NetworkStacks::relayAddress(4), "--quic-port", "0", "--admin-port", "0"});
    ASSERT_TRUE(root.waitForFinished(15000)) << "it started";
    const QByteArray out = root.readAll().trimmed();
    EXPECT_EQ(root.exitCode(), 1);
    EXPECT_FALSE(out.contains('\n')) << out.toStdString();
    EXPECT_TRUE(out.contains("root") && out.contains("--allow-root")) << out.toStdString();
}

TEST_F(RemoteAgents, ShellsOutliveTheRelayButNotTheAgent) {
    auto a1 = listedAgent(2, "m-one");
    auto a2 = listedAgent(3, "m-two");
    ASSERT_TRUE(a1 && a2);

    // Three controllers: two on the first agent, one on the second, each with a shell.
    struct Seat {
        LocalServer* agent;
        std::string client;
        std::unique_ptr<Controller> c;
    } seats[] = {{a1.get(), "c1", nullptr}, {a1.get(), "c2", nullptr}, {a2.get(), "c3", nullptr}};
    for (Seat& s : seats) {
        s.c = pairWith(s.agent->code(), s.client);
        ASSERT_TRUE(s.c) << s.client;
        s.c->send(create(1, s.client));
        s.c->send(input(1, "export MARK=" + s.client + "-kept; echo ready-$MARK\n"));
        ASSERT_TRUE(s.c->waitOutput(1, "ready-" + s.client + "-kept")) << s.client;
    }

    // The relay restarts under its agents. What happens by itself: every agent dials back (backoff
    // from 1 s), and every controller's connection is closed. What does not: the client does not dial
    // again on its own (its connection manager goes to "disconnected"; the user double-clicks the row
    // and, having paired before, is not asked for the code). The test pairs again as that double-click
    // does, and every controller finds its shell, still running, within 35 s.
    QElapsedTimer clock;
    clock.start();
    ASSERT_TRUE(relay->restart()) << relay->errorString().toStdString();
    login();
    EXPECT_TRUE(waitListed("m-one", 0, 35000) && waitListed("m-two", 0, 35000));
    for (Seat& s : seats) {
        EXPECT_TRUE(s.c->waitClosedByServer(5000)) << s.client;
        s.c = pairWith(s.agent->code(), s.client);
        ASSERT_TRUE(s.c) << s.client;
        EXPECT_EQ(s.c->listPtys().size(), s.client == "c3" ? 1u : 2u) << s.client;
        const size_t from = s.c->mark();
        s.c->send(input(1, "echo back-$MARK\n"));
        EXPECT_TRUE(s.c->waitOutput(1, "back-" + s.client + "-kept", from)) << s.client;
    }
    EXPECT_LE(clock.elapsed(), 35000);
    EXPECT_TRUE(waitListed("m-one", 2, 5000));

    // Each seat has a stream of its own: while c1's shell floods, every line c2 types echoes within
    // 2 s, in order, and the flood goes on meanwhile.
    Controller& flooder = *seats[0].c;
    Controller& typist = *seats[1].c;
    std::vector<pid_t> shellPids;  // the first agent's shells
    for (Controller* c : {&flooder, &typist}) {
        shellPids.push_back(c->printedPid(1));
        ASSERT_TRUE(processRunning(shellPids.back())) << c->output(1);
    }
    flooder.keepPtyData = false;
    flooder.send(input(1, "yes flood-flood-flood\n"));
    ASSERT_TRUE(waitUntil([&] { return flooder.ptyDataBytes > (1u << 20); }, 10000)) << "no flood";
    size_t flooded = flooder.ptyDataBytes;
    for (int i = 1; i <= 10; ++i) {
        const size_t from = typist.mark();
        typist.send(input(1, "echo typed-$((" + std::to_string(i) + "*7))\n"));
        EXPECT_TRUE(typist.waitOutput(1, "typed-" + std::to_string(i * 7), from, 2000)) << "line " << i;
    }
    EXPECT_GT(flooder.ptyDataBytes.load(), flooded) << "the flood went on while c2 typed";
    flooded = flooder.ptyDataBytes;
    EXPECT_TRUE(waitUntil([&] { return flooder.ptyDataBytes > flooded + (1u << 20); }, 10000)) << "and after";
    flooder.send(input(1, "\x03"));

    // The second agent is killed and started again: its controller is told and let go, the agent comes
    // back under the same code in a single row, and its shells are gone.
    Controller& c3 = *seats[2].c;
    const QString code = a2->code();
    const size_t mark = c3.mark();
    ::kill(a2->pid(), SIGKILL);
    a2->stop();
    ASSERT_TRUE(a2->start()) << a2->errorString().toStdString();
    EXPECT_EQ(a2->code(), code);
    auto error = c3.waitFor("error", mark, 20000);
    ASSERT_TRUE(error);
    EXPECT_FALSE(error->msg.value_or("").empty());
    EXPECT_TRUE(c3.waitClosedByServer(5000));
    EXPECT_TRUE(waitListed("m-two", 0, 10000));
    auto again = pairWith(code, "c3");
    ASSERT_TRUE(again);
    EXPECT_TRUE(again->listPtys().empty());
    EXPECT_EQ(listed().size(), 2);

    // The first agent is stopped with SIGTERM: it hangs up its shells (none is left), and it is not
    // listed while down (its controllers go as the second agent's did).
    const int status = a1->stop();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    for (pid_t pid : shellPids)
        EXPECT_TRUE(waitUntil([&] { return !processRunning(pid); }, 3000)) << "shell " << pid << " left";
    EXPECT_TRUE(waitUntil([&] { return rows("m-one").empty(); }, 5000));
    EXPECT_EQ(listed().size(), 1);
}

}  // namespace
