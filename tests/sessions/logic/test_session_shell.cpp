// The session controller against the local server's relay and agent running in this process, with
// real shells on real PTYs. The link between them carries encoded lines both ways and hands every
// received message to the controller from the event loop, as the connection manager does.
#include <gtest/gtest.h>

#include <QByteArray>
#include <QDir>
#include <QPointer>
#include <QTimer>
#include <deque>
#include <memory>

#include "ClientIdentity.h"
#include "Fakes.h"
#include "ServerConfig.h"
#include "SessionController.h"
#include "TestSupport.h"
#include "agent/Agent.h"
#include "agent/PtyProcess.h"
#include "relay/ControllerLink.h"
#include "relay/Relay.h"

using namespace ostv;
using namespace ostv::test;

namespace {

// The relay's end of an in-process link.
class LoopbackLink : public server::ControllerLink {
public:
    std::function<void(std::string)> toClient;

    QString serverName() const override { return {}; }
    QString peerAddress() const override { return QStringLiteral("loopback"); }
    void sendLine(std::string_view line) override {
        if (!closed_ && toClient) toClient(std::string(line));
    }
    size_t pendingBytes() const override { return 0; }
    void close(uint64_t) override { finish(QStringLiteral("closed by server")); }
    void setReadPaused(bool) override {}
    void fromClient(const std::string& line) {
        if (!closed_ && onLine) onLine(line);
    }
    void finish(const QString& why) {
        if (closed_) return;
        closed_ = true;
        QTimer::singleShot(0, this, [this, why] {
            if (onClosed) onClosed(why);
        });
    }

private:
    bool closed_ = false;
};

// The client's end: what the session controller sends goes to the relay as lines; what comes back
// is decoded and given to the controller on a later turn of the event loop.
class ClientEnd : public QObject, public RelayLink {
public:
    QPointer<LoopbackLink> link;
    QPointer<SessionController> controller;
    bool paired = false;
    QString home;
    std::vector<std::string> errors;

    bool isLinkConnected() const override { return paired && link; }
    QString agentHomeDir() const override { return home; }
    void send(const Message& m) override {
        if (link) link->fromClient(m.encode());
    }
    void closePty(int64_t ptyId) override {
        if (!isLinkConnected()) return;
        Message m("CLOSE_PTY");
        m.ptyId = ptyId;
        send(m);
    }
    void setReceivePaused(bool) override {}

    void receive(std::string line) {
        QPointer<ClientEnd> self(this);
        QTimer::singleShot(0, this, [self, line = std::move(line)] {
            if (self) self->dispatch(line);
        });
    }

private:
    void dispatch(const std::string& line) {
        auto sniff = MessageTypeSniff::decode(line);
        ASSERT_TRUE(sniff) << line;
        if (sniff->type == "PTY_LIST") {
            auto env = PtyListEnvelope::decode(line);
            ASSERT_TRUE(env) << line;
            if (controller) controller->didReceivePtyList(toPtyInfos(env.value()));
            return;
        }
        auto m = Message::decode(line);
        if (!m) return;  // e.g. "fs_result": not the session controller's
        const std::string& t = m->type;
        if (t == "paired") {
            paired = true;
            home = QString::fromStdString(m->homeDir.value_or(""));
        } else if (t == "PTY_DATA" || t == "output") {
            if (controller) controller->didReceiveOutput(m->data.value_or(""), m->ptyId.value_or(1));
        } else if (t == "PTY_EXIT") {
            if (controller) controller->didReceivePtyExit(m->ptyId.value_or(0), -1);
        } else if (t == "PTY_ERROR") {
            if (controller)
                controller->didReceivePtyError(m->ptyId.value_or(0), QString::fromStdString(m->reason.value_or("")));
        } else if (t == "error") {
            errors.push_back(m->msg.value_or(""));
        }
    }
};

// Everything a real terminal tab has shown, decoded.
std::string shown(const FakeTerminal& t, int64_t ptyId) {
    std::string out;
    for (const auto& [b64, id] : t.written)
        if (id == ptyId) out += QByteArray::fromBase64(QByteArray::fromStdString(b64)).toStdString();
    return out;
}

class SessionShellTest : public ::testing::Test {
protected:
    std::unique_ptr<server::Agent> agent;
    std::unique_ptr<server::Relay> relay;
    ClientEnd client;
    FakeTerminal terminal;
    FakeSessionList list;
    FakeErrors errors;
    SessionController c;
    QString home;

    void SetUp() override {
        SecretStore::useFileStoreOnlyForTesting(true, makeTempDir("id") + "/s.json");
        ServerConfig::defaults().clear();
        home = QDir(makeTempDir("home")).canonicalPath();
        ASSERT_TRUE(QDir(home).mkpath("proj"));

        server::AgentConfig config;
        config.code = "424242";
        config.machineId = "m-shell";
        config.homeDir = home;
        config.shell = QStringLiteral("/bin/sh");
        agent = std::make_unique<server::Agent>(config);
        relay = std::make_unique<server::Relay>(std::vector<server::Agent*>{agent.get()},
                                                [] { return std::pair<double, double>{1.0, 2.0}; });

        auto* link = new LoopbackLink;
        client.link = link;
        client.controller = &c;
        link->toClient = [this](std::string line) { client.receive(std::move(line)); };
        relay->accept(link);

        Message pair("pair");
        pair.code = config.code;
        pair.nickname = "tester";
        pair.protoVer = "2.0.0";
        pair.appVer = "2.1.0";
        client.send(pair);
        ASSERT_TRUE(waitUntil([&] { return client.paired; }, 5000));
        ASSERT_EQ(client.home, home);

        c.setLink(&client);
        c.setTerminal(&terminal);
        c.setSessionList(&list);
        c.setErrorPresenter(&errors);
        c.isConnected = true;  // the real default delays and the 3.0 s set-up time-out stay in force
    }

    void TearDown() override {
        if (client.link) client.link->finish(QStringLiteral("test over"));
        spin(20);
        relay.reset();
        agent.reset();
        server::ChildReaper::drainAll(3000);
        SecretStore::useFileStoreOnlyForTesting(false);
    }

    // Opens a session and waits for its tab.
    int64_t open(const QString& path, std::optional<QString> env = std::nullopt) {
        const int64_t id = c.nextPtyId;
        c.allocateAndCreatePty("t", std::nullopt, env, path);
        EXPECT_TRUE(waitUntil([&] { return terminal.tabs.contains(id); }, 8000)) << "no tab for pty " << id;
        return id;
    }
    void type(int64_t ptyId, const QByteArray& text) {
        Message m("INPUT");
        m.ptyId = ptyId;
        m.data = text.toStdString();  // keystrokes go as plain text
        client.send(m);
    }
    bool waitShown(int64_t ptyId, const std::string& needle, int ms = 5000) {
        return waitUntil([&] { return shown(terminal, ptyId).find(needle) != std::string::npos; }, ms);
    }
};

TEST_F(SessionShellTest, EnvironmentLinesAreInEffectWhenTheTabAppears) {
    const int64_t id = open("~/proj/", QString("export A=\"two words\"\n\nexport B=\"${A}-x\""));
    EXPECT_TRUE(errors.shown.isEmpty());
    EXPECT_EQ(c.activeSessions.at(id), home + "/proj");
    // The tab shows nothing of the set-up: it appears only once the shell has run all of it.
    spin(400);
    EXPECT_EQ(shown(terminal, id).find("export A="), std::string::npos) << shown(terminal, id);
    EXPECT_EQ(shown(terminal, id).find("__OSTVARREN_READY__"), std::string::npos) << shown(terminal, id);
    type(id, "printf '<%s|%s|%s>\\n' \"$A\" \"$B\" \"$(pwd)\"\r");
    EXPECT_TRUE(waitShown(id, "<two words|two words-x|" + home.toStdString() + "/proj>"))
        << shown(terminal, id);
}

TEST_F(SessionShellTest, TypedInputEchoesAndResizeReachesTheShell) {
    const int64_t id = open("~");
    type(id, "echo ab'c'd\r");
    EXPECT_TRUE(waitShown(id, "echo ab'c'd")) << shown(terminal, id);  // the terminal's echo
    EXPECT_TRUE(waitShown(id, "abcd\r\n")) << shown(terminal, id);    // the command's output

    Message resize("RESIZE");
    resize.ptyId = id;
    resize.cols = 132;
    resize.rows = 43;
    client.send(resize);
    type(id, "stty size\r");
    EXPECT_TRUE(waitShown(id, "43 132")) << shown(terminal, id);
}

TEST_F(SessionShellTest, ExitOfTheShellMasksTheTabAndTheListForgetsIt) {
    const int64_t keep = open("/");
    const int64_t gone = open("~/proj");
    type(gone, "exit\r");
    ASSERT_TRUE(waitUntil([&] { return terminal.masks.count(gone) > 0; }, 8000));
    EXPECT_EQ(terminal.masks.at(gone), "会话已被接管");
    // The exit asks for the list again; the running shell stays, the ended one is gone.
    ASSERT_TRUE(waitUntil([&] { return list.users.size() == 1; }, 5000));
    EXPECT_EQ(list.users[0].id, QStringLiteral("pty-%1").arg(keep));
    EXPECT_TRUE(list.users[0].isSelf);
    EXPECT_EQ(c.activeSessions.size(), 1u);
    EXPECT_EQ(c.activeSessions.count(keep), 1u);
}

TEST_F(SessionShellTest, AnAgentRefusalDuringSetUpShowsItsReasonAndLeavesNoTab) {
    const int64_t live = open("/");
    const int64_t id = c.nextPtyId;
    c.allocateAndCreatePty("missing", std::nullopt, std::nullopt, "~/no/such/dir");
    ASSERT_TRUE(waitUntil([&] { return !errors.shown.isEmpty(); }, 5000));
    EXPECT_EQ(errors.shown, QStringList{"目录不存在: " + home + "/no/such/dir"});
    EXPECT_EQ(c.activeSessions.count(id), 0u);
    EXPECT_TRUE(c.pendingSetup.empty());
    spin(600);  // past the set-up step: nothing is sent for it and no tab appears
    EXPECT_EQ(terminal.tabs, QList<int64_t>{live});
    EXPECT_EQ(errors.shown.size(), 1);
}

TEST_F(SessionShellTest, PairingAgainGetsTheSameShellsBack) {
    const int64_t id = open("~/proj");
    type(id, "X=kept\r");
    spin(200);

    // A new link of the same client (same identity), as after a restart of the application.
    client.link->finish(QStringLiteral("gone"));
    auto* link = new LoopbackLink;
    client.link = link;
    client.paired = false;
    link->toClient = [this](std::string line) { client.receive(std::move(line)); };
    relay->accept(link);
    Message pair("pair");
    pair.code = "424242";
    pair.nickname = "tester";
    client.send(pair);
    ASSERT_TRUE(waitUntil([&] { return client.paired; }, 5000));

    FakeTerminal fresh;
    SessionController again;
    again.setLink(&client);
    again.setTerminal(&fresh);
    again.setSessionList(&list);
    again.isConnected = true;
    again.pendingAutoCreate = true;
    client.controller = &again;
    client.send(Message("LIST_PTY"));
    ASSERT_TRUE(waitUntil([&] { return fresh.tabs.contains(id); }, 5000));
    EXPECT_EQ(again.nextPtyId, id + 1);

    Message input("INPUT");
    input.ptyId = id;
    input.data = "echo \"[$X]\"\r";
    client.send(input);
    EXPECT_TRUE(waitUntil([&] { return shown(fresh, id).find("[kept]") != std::string::npos; }, 5000))
        << shown(fresh, id);
}

}  // namespace
