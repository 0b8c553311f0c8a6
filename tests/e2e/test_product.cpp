#include <gtest/gtest.h>

#include <QApplication>
#include <QDir>
#include <QPalette>
#include <QPointer>
#include <QTest>
#include <QWebEnginePage>
#include <QWebEngineView>

#include "AdminAPIClient.h"
#include "AppDelegate.h"
#include "AppWiring.h"
#include "ClientIdentity.h"
#include "ConnectionManager.h"
#include "LocalServer.h"
#include "LoginViewController.h"
#include "MainViewController.h"
#include "ServerConfig.h"
#include "TestSupport.h"

using namespace ostv;
using namespace ostv::test;

namespace {

class Product : public ::testing::Test {
protected:
    std::unique_ptr<LocalServer> server;
    std::unique_ptr<AppDelegate> app;

    void SetUp() override {
        SecretStore::useFileStoreOnlyForTesting(true, makeTempDir("e2e") + "/secrets.json");
        ServerConfig::defaults().clear();
        server = std::make_unique<LocalServer>(QStringList{"--agents", "2"});
        ASSERT_TRUE(server->start()) << server->errorString().toStdString();
        ServerConfig::setString(SettingsKey::serverHost, server->host());
        ServerConfig::setInteger(SettingsKey::serverQuicPort, server->quicPort());
        ServerConfig::setInteger(SettingsKey::adminServerPort, server->adminPort());
        app = std::make_unique<AppDelegate>();
        wireApplication(*app);
        app->applicationDidFinishLaunching();
    }
    void TearDown() override {
        ConnectionManager::shared().disconnect();
        app.reset();
        AdminAPIClient::shared().resetSession();
        server.reset();
        SecretStore::useFileStoreOnlyForTesting(false);
    }

    MainViewController* workspace() { return qobject_cast<MainViewController*>(app->currentScreen()); }

    QString pageText(int64_t id) {
        QVariant result;
        bool done = false;
        workspace()->terminalView->webView()->page()->runJavaScript(QStringLiteral("__terminalText(%1)").arg(id),
                                                                   [&](const QVariant& v) { result = v; done = true; });
        waitUntil([&] { return done; }, 5000);
        return result.toString();
    }
    void typeInto(int64_t id, const QString& text) {
        ASSERT_TRUE(waitUntil([&] { return workspace()->terminalView->isWebViewReady; }, 30000));
        workspace()->terminalView->webView()->page()->runJavaScript(
            QStringLiteral("bridge.termInput({data: '%1', ptyId: %2})").arg(TerminalView::escapeForScript(text)).arg(id));
    }

    // With OSTV_E2E_SHOTS set to a folder, the window is saved there as PNG at the named moment.
    void shot(const QString& name) {
        const QString dir = qEnvironmentVariable("OSTV_E2E_SHOTS");
        if (dir.isEmpty()) return;
        QDir().mkpath(dir);
        spin(800);
        app->window()->grab().save(dir + "/" + name + "-light.png");
        // The same moment in the dark appearance, switched live as the desktop would.
        const QPalette light = QApplication::palette();
        QPalette dark;
        for (auto [role, c] : {std::pair{QPalette::Window, QColor(38, 38, 38)}, {QPalette::WindowText, QColor(230, 230, 230)},
                               {QPalette::Base, QColor(28, 28, 28)}, {QPalette::Text, QColor(230, 230, 230)},
                               {QPalette::Button, QColor(55, 55, 55)}, {QPalette::ButtonText, QColor(230, 230, 230)},
                               {QPalette::Highlight, QColor(0, 120, 212)}, {QPalette::HighlightedText, QColor(255, 255, 255)}})
            dark.setColor(role, c);
        QApplication::setPalette(dark);
        spin(800);
        app->window()->grab().save(dir + "/" + name + "-dark.png");
        QApplication::setPalette(light);
    }

    void signIn() {
        auto* login = qobject_cast<LoginViewController*>(app->currentScreen());
        ASSERT_NE(login, nullptr);
        login->onLoginClicked();
        ASSERT_TRUE(waitUntil([&] { return workspace() != nullptr; }, 10000));
        ASSERT_TRUE(waitUntil([&] { return workspace()->hostListView->hosts().size() == 2; }, 10000));
    }

    // Pairs with the first agent through the connect panel and waits for the first shell.
    int64_t pairFirstAgent() {
        MainViewController* w = workspace();
        const Host host = w->hostListView->hosts().at(0);
        w->hostListViewDidSelectHost(w->hostListView, host);
        w->hostListViewDidDoubleClickHost(w->hostListView, host);
        EXPECT_TRUE(w->currentConnectPanel);
        if (!w->currentConnectPanel) return -1;
        w->currentConnectPanel->codeField->setText("  " + host.agentCode + " ");
        w->currentConnectPanel->onPair();
        EXPECT_TRUE(waitUntil([&] { return w->currentConnectPanel && w->currentConnectPanel->isPaired(); }, 15000));
        w->currentConnectPanel->onConfirm();
        EXPECT_TRUE(waitUntil([&] { return w->terminalView->tabIds().size() == 1; }, 20000));
        return w->terminalView->tabIds().isEmpty() ? -1 : w->terminalView->tabIds().first();
    }
};

TEST_F(Product, SignInSeeAgentsPairGetAShellAndType) {
    signIn();
    MainViewController* w = workspace();
    for (const Host& h : w->hostListView->hosts()) {
        EXPECT_EQ(h.status, HostStatus::online);
        EXPECT_EQ(h.name, "Linux");
    }
    const int64_t id = pairFirstAgent();
    ASSERT_GE(id, 1);
    EXPECT_EQ(w->statusBar->textLabel()->text(), "已连接 — Linux");
    EXPECT_EQ(app->window()->windowTitle(), "Quorv Client - Linux");
    const QString code = w->hostListView->hosts().at(0).agentCode;  // the list is sorted by machine id
    EXPECT_EQ(ServerConfig::stringList(SettingsKey::confirmedAgentCodes).value_or(QStringList{}), QStringList{code});
    // The first session opens in the agent's home directory.
    EXPECT_EQ(w->sessions().activeSessions.at(id), QDir::homePath());
    typeInto(id, "echo ok-$((40+2))\r");
    ASSERT_TRUE(waitUntil([&] { return pageText(id).contains("ok-42"); }, 10000)) << pageText(id).toStdString();
    // The directory tree came from the agent.
    ASSERT_TRUE(waitUntil([&] { return !w->resourcePanelView->directories().isEmpty(); }, 10000));
    w->sessions().allocateAndCreatePty("tmp", std::nullopt, std::nullopt, "/tmp");
    ASSERT_TRUE(waitUntil([&] { return w->terminalView->tabIds().size() == 2; }, 20000));
    typeInto(w->terminalView->tabIds().last(), "ls -la / | head -20\r");
    shot("workspace");
}

TEST_F(Product, TreeLaunchesAToolInTheChosenDirectoryAndAgentsSwitchWithoutACode) {
    signIn();
    ASSERT_GE(pairFirstAgent(), 1);
    MainViewController* w = workspace();
    ASSERT_TRUE(waitUntil([&] { return !w->resourcePanelView->directories().isEmpty(); }, 10000));
    const DirectoryItem dir = w->resourcePanelView->directories().first();
    const QModelIndex index = w->resourcePanelView->treeModel()->indexForPath(dir.path);
    ASSERT_TRUE(index.isValid());
    w->resourcePanelView->launchClaude(index);
    ASSERT_TRUE(waitUntil([&] { return w->terminalView->tabIds().size() == 2; }, 20000));
    const int64_t tool = w->terminalView->tabIds().last();
    EXPECT_EQ(w->terminalView->tabTitles.at(tool), "Claude");
    EXPECT_EQ(w->sessions().activeSessions.at(tool), dir.path);

    // The second agent needs its code once; after that both are reached by a double-click alone.
    const Host other = w->hostListView->hosts().at(1);
    w->hostListViewDidSelectHost(w->hostListView, other);
    w->hostListViewDidDoubleClickHost(w->hostListView, other);
    ASSERT_TRUE(w->currentConnectPanel);
    w->currentConnectPanel->codeField->setText(other.agentCode);
    w->currentConnectPanel->onPair();
    ASSERT_TRUE(waitUntil([&] { return w->currentConnectPanel && w->currentConnectPanel->isPaired(); }, 15000));
    w->currentConnectPanel->onConfirm();
    ASSERT_TRUE(waitUntil([&] { return w->terminalView->tabIds().size() == 1; }, 20000));
    const Host first = w->hostListView->hosts().at(0);
    w->hostListViewDidSelectHost(w->hostListView, first);
    w->hostListViewDidDoubleClickHost(w->hostListView, first);
    EXPECT_FALSE(w->currentConnectPanel);  // no code asked
    ASSERT_TRUE(waitUntil([&] { return ConnectionManager::shared().state().isConnected() &&
                                       w->terminalView->tabIds().size() == 2; }, 20000));
    EXPECT_EQ(ConnectionManager::shared().state().machineId, first.machineId.toStdString());
}

TEST_F(Product, ReturnPressedTwiceSignsInWithOneRequest) {
    auto* login = qobject_cast<LoginViewController*>(app->currentScreen());
    ASSERT_NE(login, nullptr);
    StdoutCapture log;
    QTest::keyClick(login->passField, Qt::Key_Return);
    QTest::keyClick(login->passField, Qt::Key_Return);
    ASSERT_TRUE(waitUntil([&] { return workspace() != nullptr; }, 10000));
    spin(300);
    const std::string text = log.text();
    size_t posts = 0;
    for (size_t at = text.find("[LOGIN] → POST"); at != std::string::npos; at = text.find("[LOGIN] → POST", at + 1)) ++posts;
    EXPECT_EQ(posts, 1u);
    EXPECT_NE(text.find("[LOGIN] ✅"), std::string::npos);
}

TEST_F(Product, LogoutDisconnectsAndReturnsToALoginScreen) {
    signIn();
    ASSERT_GE(pairFirstAgent(), 1);
    app->logoutMenuItem()->trigger();
    EXPECT_EQ(ConnectionManager::shared().state().kind, ConnectionState::Kind::disconnected);
    EXPECT_FALSE(AdminAPIClient::shared().hasToken());
    EXPECT_NE(qobject_cast<LoginViewController*>(app->currentScreen()), nullptr);
}

TEST_F(Product, RelayStoppedUnderALiveSessionThenPairingAgainWithoutACode) {
    signIn();
    const int64_t id = pairFirstAgent();
    ASSERT_GE(id, 1);
    QPointer<MainViewController> w = workspace();
    ASSERT_EQ(server->stop(), 0);
    ASSERT_TRUE(waitUntil([&] { return !w || w->statusBar->textLabel()->text() == "连接已断开"; }, 30000));
    ASSERT_TRUE(w) << "the workspace went away while the relay was down";
    EXPECT_TRUE(w->terminalView->tabIds().isEmpty());
    EXPECT_TRUE(w->sessions().activeSessions.empty());
    ASSERT_TRUE(server->restart());
    // The restarted admin server no longer knows the old token: the next poll goes back to login.
    ASSERT_TRUE(waitUntil([&] { return qobject_cast<LoginViewController*>(app->currentScreen()) != nullptr; }, 15000));
    signIn();
    w = workspace();
    const Host host = w->hostListView->hosts().at(0);
    w->hostListViewDidSelectHost(w->hostListView, host);
    w->hostListViewDidDoubleClickHost(w->hostListView, host);  // paired before: no code asked
    EXPECT_FALSE(w->currentConnectPanel);
    ASSERT_TRUE(waitUntil([&] { return w && w->terminalView->tabIds().size() == 1; }, 20000));
    EXPECT_EQ(w->statusBar->textLabel()->text(), "已连接 — Linux");
}

}  // namespace
