#include <gtest/gtest.h>

#include <QByteArray>

#include "ClientIdentity.h"
#include "Fakes.h"
#include "ServerConfig.h"
#include "TestSupport.h"

using namespace ostv;
using namespace ostv::test;

namespace {

std::string b64(const QByteArray& text) { return text.toBase64().toStdString(); }

class SessionControllerTest : public ::testing::Test {
protected:
    FakeLink link;
    FakeTerminal terminal;
    FakeSessionList list;
    FakeErrors errors;
    SessionController c;

    void SetUp() override {
        SecretStore::useFileStoreOnlyForTesting(true, makeTempDir("id") + "/s.json");
        ServerConfig::defaults().clear();
        c.setLink(&link);
        c.setTerminal(&terminal);
        c.setSessionList(&list);
        c.setErrorPresenter(&errors);
        c.isConnected = true;
        c.delays = {5, 5, 5, 5, 5};
        c.setupTimeout = 0.1;
    }
    void TearDown() override { SecretStore::useFileStoreOnlyForTesting(false); }

    // Opens a session and waits until its set-up line went out.
    int64_t openAndWaitForSetup(const QString& path, std::optional<QString> env = std::nullopt,
                                std::optional<QString> command = std::nullopt,
                                std::optional<QString> afterReveal = std::nullopt) {
        const int64_t id = c.nextPtyId;
        c.allocateAndCreatePty("t", command, env, path, afterReveal);
        EXPECT_TRUE(waitUntil([&] { return c.setupStartTimes.count(id) > 0; }, 2000));
        return id;
    }
    // A session whose set-up has completed: its tab is shown.
    int64_t openRevealed(const QString& path) {
        const int64_t id = openAndWaitForSetup(path);
        c.didReceiveOutput(b64("__OSTVARREN_READY__"), id);
        return id;
    }
};

// A session is created, set up in one line (environment, command, marker), and shown only once the
// shell has printed the marker: not on a marker cut in two, an undecodable chunk or the echo of the line.
TEST_F(SessionControllerTest, CreateThenOneSetupLineAndTheTabComesWithThePrintedMarker) {
    StdoutCapture log;
    c.setupTimeout = 30;  // no retry in the middle of this
    const int64_t first =
        openAndWaitForSetup("~/proj", QString("export A=\"1\"\n   \n\nexport B=\"x y\"\n"), QString("claude"));
    auto creates = link.ofType("CREATE_PTY");
    ASSERT_EQ(creates.size(), 1u);
    EXPECT_EQ(creates[0].ptyId, first);
    EXPECT_EQ(creates[0].cols, 80);
    EXPECT_EQ(creates[0].rows, 24);
    EXPECT_EQ(creates[0].cwd, "/home/u/proj");
    EXPECT_EQ(QString::fromStdString(*creates[0].clientId), ClientIdentity::read().value());
    ASSERT_EQ(link.ofType("EXEC").size(), 1u);
    EXPECT_EQ(*link.ofType("EXEC")[0].command,
              "export A=\"1\" && export B=\"x y\" && claude && clear && echo __OSTVARREN_READY__");
    // The count is every part but "clear" and the echo, so the command counts along with the exports.
    EXPECT_NE(log.text().find("[PTY_SETUP] pty=1 sending 3 env commands + sentinel"), std::string::npos);

    const int64_t id = openAndWaitForSetup("/srv", std::nullopt, std::nullopt, QString("kimi"));
    EXPECT_EQ(*link.ofType("EXEC").at(1).command, "clear && echo __OSTVARREN_READY__");
    c.didReceiveOutput(b64("__OSTVARREN_"), id);
    c.didReceiveOutput(b64("READY__"), id);
    c.didReceiveOutput("!!!not base64!!!", id);
    c.didReceiveOutput(b64(QByteArray("\xff\xfe __OSTVARREN_READY__")), id);  // not UTF-8
    // The terminal's echo of the typed set-up line is not the shell having run it.
    c.didReceiveOutput(b64("$ export A=\"1\" && clear && echo __OSTVARREN_READY__\r\n"), id);
    EXPECT_TRUE(terminal.tabs.isEmpty());
    EXPECT_EQ(c.pendingSetup.count(id), 1u);
    // Echo and printed marker in one chunk: the printed one counts.
    c.didReceiveOutput(b64("echo __OSTVARREN_READY__\r\n\x1b[H\x1b[2J__OSTVARREN_READY__\r\n$ "), id);
    EXPECT_EQ(terminal.tabs, QList<int64_t>{id});
    EXPECT_FALSE(terminal.overlayShown);
    EXPECT_EQ(list.highlighted, id);
    EXPECT_EQ(c.pendingSetup.count(id), 0u);
    EXPECT_TRUE(terminal.written.empty());  // the set-up output, marker chunk included, is discarded
    EXPECT_EQ(*link.ofType("EXEC").back().command, "clear");
    ASSERT_TRUE(waitUntil([&] { return terminal.calls.contains("focus"); }, 2000));
    EXPECT_TRUE(terminal.calls.contains(QStringLiteral("resize %1 0").arg(id)));
    ASSERT_TRUE(waitUntil([&] { return *link.ofType("EXEC").back().command == "kimi"; }, 2000));  // then its command
    c.didReceiveOutput(b64("hello"), id);
    ASSERT_EQ(terminal.written.size(), 1u);
    EXPECT_EQ(terminal.written[0].first, b64("hello"));  // passed on unchanged
}

// A set-up without an answer echoes the marker once more; answered then, it completes, else it fails.
TEST_F(SessionControllerTest, TimeoutRetriesTheEchoOnceThenFailsAndCloses) {
    StdoutCapture log;
    const int64_t id = openAndWaitForSetup("/srv", QString("export A=\"1\""));
    const int64_t late = openAndWaitForSetup("/late");
    ASSERT_TRUE(waitUntil([&] { return link.ofType("EXEC").size() == 4; }, 2000));
    EXPECT_EQ(*link.ofType("EXEC")[2].command, "echo __OSTVARREN_READY__");  // the environment is not sent again
    c.didReceiveOutput(b64("__OSTVARREN_READY__"), late);
    EXPECT_EQ(terminal.tabs, QList<int64_t>{late});
    ASSERT_TRUE(waitUntil([&] { return !errors.shown.isEmpty(); }, 2000));
    EXPECT_EQ(errors.shown, QStringList{"终端初始化失败：链路不通"});
    EXPECT_EQ(link.closed, std::vector<int64_t>{id});
    EXPECT_EQ(c.activeSessions.count(id), 0u);
    EXPECT_TRUE(c.pendingSetup.empty());
    EXPECT_TRUE(c.setupTimers.empty());
    EXPECT_EQ(link.ofType("EXEC").size(), 5u);  // and "clear" for the one that came
    const std::string text = log.text();
    EXPECT_NE(text.find("[PTY_SETUP] pty=1 sentinel timeout, retrying echo..."), std::string::npos);
    EXPECT_NE(text.find("[PTY_SETUP] pty=1 FAILED — link unresponsive after 2 attempts"), std::string::npos);
    // A late sentinel after the failure creates nothing.
    c.didReceiveOutput(b64("__OSTVARREN_READY__"), id);
    EXPECT_EQ(terminal.tabs, QList<int64_t>{late});
}

// The first pairing without own sessions opens one in the home folder, with the variables meant for it.
// Then one session of ours per folder, however the path is written; another controller's shell there
// does not count, and a list asked for before our session was created does not drop it. Made while the
// link is down, a session is booked but nothing is sent.
TEST_F(SessionControllerTest, FirstSessionInHomeThenOnePerFolderAndNoneSentWhileDisconnected) {
    c.pendingAutoCreate = true;
    c.pendingEnvCommands = QString("export Z=\"9\"");
    c.didReceivePtyList({{1, "/home/u/shared", "running", "c-x", "someone-else"}});
    auto creates = link.ofType("CREATE_PTY");
    ASSERT_EQ(creates.size(), 1u);
    EXPECT_EQ(creates[0].cwd, "/home/u");
    EXPECT_EQ(creates[0].ptyId, 2);  // clear of the number another client runs
    ASSERT_TRUE(waitUntil([&] { return !link.ofType("EXEC").empty(); }, 2000));
    EXPECT_EQ(*link.ofType("EXEC")[0].command, "export Z=\"9\" && clear && echo __OSTVARREN_READY__");
    EXPECT_EQ(c.pendingSetup.at(2).title, "终端");
    EXPECT_FALSE(c.pendingEnvCommands);  // the first session's only

    const int64_t id = openAndWaitForSetup("~/shared");
    c.didReceivePtyList({{1, "/home/u/shared", "running", "c-x", "someone-else"}});  // without the new ones
    EXPECT_EQ(link.ofType("CREATE_PTY").size(), 2u);  // without the flag a list only refreshes rows
    EXPECT_EQ(c.activeSessions, (std::map<int64_t, QString>{{2, "/home/u"}, {id, "/home/u/shared"}}));
    EXPECT_EQ(c.otherSessions.at("pty-1@someone-else").cwd, "/home/u/shared");
    const size_t before = link.sent.size();
    c.allocateAndCreatePty("again", std::nullopt, std::nullopt, "/home/u/shared/");
    EXPECT_EQ(link.sent.size(), before);
    EXPECT_TRUE(terminal.calls.contains(QStringLiteral("switch %1").arg(id)));
    EXPECT_EQ(c.nextPtyId, id + 1);
    EXPECT_EQ(c.normalizePath("/"), "/");
    EXPECT_EQ(c.normalizePath("~"), "/home/u");
    EXPECT_EQ(c.normalizePath("~user/x"), "~user/x");
    link.home.clear();
    EXPECT_EQ(c.normalizePath("~/x/"), "~/x");  // no home known: left as it is, minus the slash

    link.connected = c.isConnected = false;
    link.sent.clear();
    c.allocateAndCreatePty("t", std::nullopt, std::nullopt, "/a");
    spin(50);
    EXPECT_TRUE(link.sent.empty());
    EXPECT_EQ(c.activeSessions.at(id + 1), "/a");
    EXPECT_EQ(c.nextPtyId, id + 2);
}

// How a session ends: its shell exits (masked with the reason), the relay reports an error (the tab
// closes, the reason shows), the user closes it (one close, none for a shell that has ended, even when
// a list from before the end still names it). Each refreshes the list; the last tab leaves the placeholder.
TEST_F(SessionControllerTest, ExitErrorAndCloseEndASessionOnceAndTheLastLeavesThePlaceholder) {
    const QString me = ClientIdentity::getOrCreate();
    std::vector<int64_t> exited;
    for (int64_t code : {-1, 3}) {
        const int64_t id = exited.emplace_back(openRevealed(QStringLiteral("/d%1").arg(code)));
        const size_t lists = link.ofType("LIST_PTY").size();
        c.didReceivePtyExit(id, code);
        EXPECT_EQ(terminal.masks.at(id), code == -1 ? QString("会话已被接管") : QString("会话已终止 (exit 3)"));
        EXPECT_EQ(c.activeSessions.count(id), 0u);
        EXPECT_EQ(link.ofType("LIST_PTY").size(), lists + 1);
    }
    // The view drops an ended tab and its mark before it tells the workspace, which closes nothing.
    terminal.tabs.clear();
    terminal.masks.clear();
    EXPECT_FALSE(c.releasePty(exited[1]));
    // An exit during set-up is silent; an error then aborts the set-up, with the reason.
    const int64_t silent = openAndWaitForSetup("/silent");
    c.didReceivePtyExit(silent, -1);
    EXPECT_EQ(terminal.masks.count(silent), 0u);
    EXPECT_TRUE(errors.shown.isEmpty());
    const int64_t pending = openAndWaitForSetup("/pending");
    c.didReceivePtyError(pending, "no such directory");
    EXPECT_TRUE(c.pendingSetup.empty());

    const int64_t failed = openRevealed("/failed");
    const size_t lists = link.ofType("LIST_PTY").size();
    const int64_t a = openRevealed("/a"), b = openRevealed("/b");
    EXPECT_EQ(link.ofType("LIST_PTY").size(), lists + 2);  // each revealed session refreshes the list at once
    c.didReceivePtyError(failed, "boom");
    EXPECT_EQ(errors.shown, (QStringList{"no such directory", "boom"}));
    std::vector<PtyInfo> stale;
    for (int64_t id : {exited[1], failed, a, b}) stale.push_back({id, "/x", "running", "c-me", me.toStdString()});
    c.didReceivePtyList(stale);
    EXPECT_EQ(c.activeSessions, (std::map<int64_t, QString>{{a, "/x"}, {b, "/x"}}));
    EXPECT_EQ(list.users.size(), 2);  // only the live ones are listed
    c.closeAndCleanupPty(exited[1]);
    c.closeAndCleanupPty(failed);
    // Closed from the panel: the controller's own close, then the view's tab-closed hand-off.
    c.closeAndCleanupPty(a);
    c.releasePty(a);
    EXPECT_EQ(terminal.tabs, QList<int64_t>{b});
    EXPECT_TRUE(terminal.emptyState.isEmpty());
    c.closeAndCleanupPty(b);
    EXPECT_TRUE(terminal.tabs.isEmpty());
    EXPECT_EQ(terminal.emptyState, "选择目录以启动终端");
    EXPECT_TRUE(c.activeSessions.empty());
    EXPECT_EQ(link.closed, (std::vector<int64_t>{a, b}));
    ASSERT_TRUE(waitUntil([&] { return link.ofType("LIST_PTY").size() == lists + 6; }, 2000));
}

TEST_F(SessionControllerTest, PtyListRebuildsRowsAndReattachesOwnSessions) {
    const QString me = ClientIdentity::getOrCreate();
    ServerConfig::setString(SettingsKey::lastNickname, "alice");
    c.controllerNicknameHistory["ctrl-bob"] = "bob";
    c.pendingAutoCreate = true;
    c.didReceivePtyList({{4, "/home/u/proj", "running", "c-me", me.toStdString()},
                         {4, "/", "running", "ctrl-bob", "OTHER"},  // another client's 4, not ours
                         {7, "/tmp", "exited", "c-me", me.toStdString()},
                         {3, "/var/log", "running", "0123456789abcdef", "X"}});
    ASSERT_EQ(list.users.size(), 3);
    EXPECT_EQ(list.limit, 8);
    EXPECT_EQ(list.users[0], (User{"pty-4", "proj (alice)", "AL", true}));
    EXPECT_EQ(list.users[1], (User{"pty-4@OTHER", "~ (bob)", "BO", false}));
    EXPECT_EQ(list.users[2].name, "log (01234567)");
    EXPECT_EQ(list.users[2].avatar, "01");
    EXPECT_EQ(c.activeSessions, (std::map<int64_t, QString>{{4, "/home/u/proj"}}));
    EXPECT_EQ(c.otherSessions.size(), 2u);
    EXPECT_EQ(terminal.tabs, QList<int64_t>{4});  // only our own running PTY gets a tab back
    EXPECT_TRUE(terminal.calls.contains("create 4 proj"));
    EXPECT_FALSE(c.pendingAutoCreate);
    EXPECT_TRUE(link.ofType("CREATE_PTY").empty());
    EXPECT_EQ(c.nextPtyId, 5);  // new sessions never reuse a live id of ours
    ASSERT_TRUE(waitUntil([&] { return terminal.calls.contains("resize 0 1"); }, 2000));
}

TEST_F(SessionControllerTest, GoneTargetsAndDestroyedControllerAreSafe) {
    auto* owned = new SessionController;
    auto* term = new FakeTerminal;
    owned->setLink(&link);
    owned->setTerminal(term);
    owned->isConnected = true;
    owned->delays = {5, 5, 5, 5, 5};
    owned->setupTimeout = 0.02;
    owned->allocateAndCreatePty("t", std::nullopt, std::nullopt, "/z");
    delete term;  // the view went away first
    ASSERT_TRUE(waitUntil([&] { return owned->setupStartTimes.count(1) > 0; }, 2000));
    owned->didReceiveOutput(b64("__OSTVARREN_READY__"), 1);  // no terminal: nothing to call, no crash
    owned->allocateAndCreatePty("t2", std::nullopt, std::nullopt, "/y");
    delete owned;  // pending timers must not fire into a dead controller
    spin(200);  // a timer firing into the freed controller would crash here (and under the sanitizers)
    EXPECT_EQ(link.ofType("CREATE_PTY").size(), 2u);
}

TEST(SessionControllerStatic, RowIdsAndPathComponents) {
    for (auto [row, id] : std::vector<std::pair<QString, std::optional<int64_t>>>{
             {"pty-12", 12}, {"pty-0", 0}, {"pty-", {}}, {"tty-3", {}}, {"pty-3x", {}}})
        EXPECT_EQ(SessionController::parsePtyId(row), id) << row.toStdString();
    for (auto [path, last] : std::vector<std::pair<QString, QString>>{
             {"/home/u/proj", "proj"}, {"/home/u/proj/", "proj"}, {"/", "~"}, {"", "~"}, {"C:\\Users", "C:\\Users"}})
        EXPECT_EQ(SessionController::lastPathComponent(path), last) << path.toStdString();
}
}  // namespace
