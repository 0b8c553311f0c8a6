#include <gtest/gtest.h>

#include <QFile>
#include <QMessageBox>
#include <QTimer>
#include <memory>
#include <thread>

#include "ClientIdentity.h"
#include "ConnectionManager.h"
#include "EnvStore.h"
#include "FrozenOverlay.h"
#include "LocalServer.h"
#include "MainViewController.h"
#include "ServerConfig.h"
#include "TestSupport.h"
#include "UserInput.h"

using namespace ostv;
using namespace ostv::test;

namespace {

// An agent of the local server that takes one controller, the client's settings pointing at it, and
// two workspaces with their links.
class Takeover : public ::testing::Test {
protected:
    void SetUp() override {
        if (qEnvironmentVariableIsSet("OSTV_E2E_HOST")) {
            GTEST_SKIP() << "needs the local server (started with a limit of one controller); skipped against "
                            "OSTV_E2E_HOST=" << qEnvironmentVariable("OSTV_E2E_HOST").toStdString();
        }
        SecretStore::useFileStoreOnlyForTesting(true, makeTempDir("takeover") + "/secrets.json");
        ServerConfig::defaults().clear();
    }
    void TearDown() override {
        linkA.disconnect();
        linkB.disconnect();
        SecretStore::useFileStoreOnlyForTesting(false);
    }
    // Starts the server (with `extra` arguments) and makes the two windows; answers the agent's code,
    // empty when the server did not start.
    QString startOneSeatAgent(const QStringList& extra = {}) {
        server = std::make_unique<LocalServer>(QStringList{"--agents", "1", "--limit", "1"} + extra);
        if (!server->start()) {
            ADD_FAILURE() << server->errorString().toStdString();
            return {};
        }
        ServerConfig::setString(SettingsKey::serverHost, server->host());
        ServerConfig::setInteger(SettingsKey::serverQuicPort, server->quicPort());
        ServerConfig::setInteger(SettingsKey::adminServerPort, server->adminPort());
        firstWindow = std::make_unique<MainViewController>(&linkA);
        secondWindow = std::make_unique<MainViewController>(&linkB);
        return server->code(0);
    }

    std::unique_ptr<LocalServer> server;
    ConnectionManager linkA, linkB;
    std::unique_ptr<MainViewController> firstWindow, secondWindow;  // go before their links
};

}  // namespace

// Two workspaces on one agent that takes one controller: the second gets the chooser, and its takeover
// pushes the first out.
TEST_F(Takeover, ASecondClientFillingTheLimitTakesTheSeatAndTheFirstIsKicked) {
    const QString code = startOneSeatAgent();
    ASSERT_FALSE(code.isEmpty());
    MainViewController& first = *firstWindow;
    MainViewController& second = *secondWindow;
    first.resize(1200, 800);
    second.resize(1200, 800);

    first.sessions().pendingAutoCreate = true;
    first.connectPanelDidRequestPairWithCode(nullptr, code, "alice");
    first.sessions().pendingAutoCreate = true;  // the pairing request resets the link state
    ASSERT_TRUE(waitUntil([&] { return first.terminalView->tabIds().size() == 1; }, 20000));

    second.connectPanelDidRequestPairWithCode(nullptr, code, "bob");
    ASSERT_TRUE(waitUntil([&] { return second.controllerChooser != nullptr; }, 10000));
    EXPECT_EQ(linkB.state().kind, ConnectionState::Kind::selecting);
    EXPECT_EQ(second.controllerChooser->titleLabel->text(), "选择会话 (1/1 controllers)");
    ASSERT_EQ(second.controllerChooser->controllers().size(), 1u);
    EXPECT_EQ(second.controllerChooser->controllers()[0].nickname, "alice");
    EXPECT_FALSE(second.controllerChooser->takeoverButton->isEnabled());
    clickRow(second.controllerChooser->tableView, 0);
    ASSERT_TRUE(second.controllerChooser->takeoverButton->isEnabled());
    QTest::mouseClick(second.controllerChooser->takeoverButton, Qt::LeftButton);

    ASSERT_TRUE(waitUntil([&] { return linkB.state().isConnected(); }, 10000));
    ASSERT_TRUE(waitUntil([&] { return linkA.state().kind == ConnectionState::Kind::disconnected; }, 10000));
    EXPECT_TRUE(first.terminalView->tabIds().isEmpty());
    EXPECT_FALSE(first.terminalView->frozenOverlay()->isHidden());
    EXPECT_EQ(first.statusBar->textLabel()->text(), "连接已断开");
    auto* alert = first.findChild<QMessageBox*>("connectionErrorAlert");
    ASSERT_NE(alert, nullptr);
    EXPECT_TRUE(alert->informativeText().endsWith(" (by bob)")) << alert->informativeText().toStdString();
}

// Taken over while the first session is still being set up (its shell is slow to start): the kicked
// window ends the set-up for good — no tab appears later, no set-up or ping timer is left, no set-up
// error is shown on top of the kick — its shell is no orphan on the agent, and everything it stored
// is kept.
TEST_F(Takeover, KickedWhileTheFirstSessionIsBeingSetUp) {
    const QString slowShell = writeSlowShell(2);
    ASSERT_FALSE(slowShell.isEmpty());
    const QString code = startOneSeatAgent({"--shell", slowShell});
    ASSERT_FALSE(code.isEmpty());
    MainViewController& first = *firstWindow;
    MainViewController& second = *secondWindow;
    first.sessions().pendingAutoCreate = true;
    first.connectPanelDidRequestPairWithCode(nullptr, code, "alice");
    first.sessions().pendingAutoCreate = true;
    ASSERT_TRUE(waitUntil([&] { return !first.sessions().pendingSetup.empty(); }, 10000));
    const QString envKey = EnvStore::storageKey("machine-1", "/home/u/project").value_or("");
    EnvStore::save(envKey, {{"API_URL", "https://example.test/v1"}});

    second.connectPanelDidRequestPairWithCode(nullptr, code, "bob");
    ASSERT_TRUE(waitUntil([&] { return second.controllerChooser != nullptr; }, 10000));
    const auto before = snapshot(ServerConfig::defaults());  // with what bob's pairing request stored
    clickRow(second.controllerChooser->tableView, 0);
    QTest::mouseClick(second.controllerChooser->takeoverButton, Qt::LeftButton);
    ASSERT_TRUE(waitUntil([&] { return linkA.state().kind == ConnectionState::Kind::disconnected; }, 10000));
    EXPECT_TRUE(first.sessions().pendingSetup.empty());
    EXPECT_TRUE(first.sessions().setupTimers.empty());

    // Past the shell's start and the set-up's own time-out and retry.
    spin(7000);
    EXPECT_TRUE(first.terminalView->tabIds().isEmpty());
    EXPECT_FALSE(first.terminalView->frozenOverlay()->isHidden());
    const auto alerts = first.findChildren<QMessageBox*>("connectionErrorAlert");
    ASSERT_EQ(alerts.size(), 1);
    EXPECT_TRUE(alerts.first()->informativeText().endsWith(" (by bob)")) << alerts.first()->informativeText().toStdString();
    for (QTimer* t : first.sessions().findChildren<QTimer*>()) EXPECT_FALSE(t->isActive()) << "a timer still runs";
    EXPECT_FALSE(linkA.isPingTimerActive());
    // The kicked side's shell is no orphan: the window that took the seat lists it among its sessions,
    // and closing it there leaves the agent without a shell.
    EXPECT_EQ(server->childCount(), 1);
    ASSERT_TRUE(waitUntil([&] { return second.resourcePanelView->users().size() == 1; }, 5000));
    const User kept = second.resourcePanelView->users().first();
    EXPECT_EQ(kept.id, "pty-1");
    second.resourcePanelViewDidRequestCloseSession(second.resourcePanelView, kept);
    EXPECT_TRUE(waitUntil([&] { return server->childCount() == 0; }, 5000)) << "a shell was left behind";
    EXPECT_EQ(snapshot(ServerConfig::defaults()), before);
    EXPECT_EQ(EnvStore::load(envKey).size(), 1);
    EXPECT_TRUE(ServerConfig::stringList(SettingsKey::confirmedAgentCodes).value_or(QStringList{}).contains(code));
}

// The race behind a kick: the transport thread reports the closed link while the kick is still on its
// way to the main thread, which then ends the link. The report must not turn into a second alert; and
// while an alert is open, a later error updates it instead of stacking another on top.
TEST_F(Takeover, AnErrorFromALinkThatHasEndedIsNotShownAndAlertsDoNotStack) {
    MainViewController window(&linkA);
    const auto alerts = [&] { return window.findChildren<QMessageBox*>("connectionErrorAlert"); };

    std::thread transportThread([&] { window.connectionManagerDidReceiveError(&linkA, "连接失败: closed by the server"); });
    transportThread.join();
    linkA.disconnect();  // the kick, handled before the report reaches the main thread
    spin(100);
    EXPECT_TRUE(alerts().isEmpty()) << alerts().first()->informativeText().toStdString();

    window.connectionManagerDidReceiveError(&linkA, "连接失败: first");
    window.connectionManagerDidReceiveError(&linkA, "Connection failed: 连接失败: second");
    spin(100);
    ASSERT_EQ(alerts().size(), 1);
    EXPECT_EQ(alerts().first()->informativeText(), "Connection failed: 连接失败: second");

    // Once the user has dismissed it, the next error gets an alert of its own.
    alerts().first()->accept();
    spin(50);
    window.connectionManagerDidReceiveError(&linkA, "连接失败: third");
    spin(100);
    ASSERT_EQ(alerts().size(), 1);
    EXPECT_EQ(alerts().first()->informativeText(), "连接失败: third");
}
