#include <gtest/gtest.h>

#include <QPointer>
#include <tuple>

#include "ConnectPanelViewController.h"
#include "EnvStore.h"
#include "LocalUser.h"
#include "PanelFakes.h"
#include "ServerConfig.h"
#include "TestSupport.h"
#include "Theme.h"

using namespace ostv;
using ostv::test::FakeLink;
using ostv::test::Launch;

namespace {

class FakeWorkspace : public test::LaunchingWorkspace<ConnectPanelDelegate> {
public:
    QStringList pairCodes, pairNicknames;
    ConnectPanelViewController* currentPanel = nullptr;
    int currentCleared = 0;
    bool pendingPathValidation = false;
    bool pendingAutoCreate = true;
    std::optional<std::optional<QString>> pendingEnvCommands;

    void connectPanelDidRequestPairWithCode(ConnectPanelViewController*, const QString& code,
                                            const QString& nickname) override {
        pairCodes << code;
        pairNicknames << nickname;
    }
    void setCurrentConnectPanel(ConnectPanelViewController* p) override {
        currentPanel = p;
        if (!p) ++currentCleared;
    }
    void setPendingPathValidation(bool v) override { pendingPathValidation = v; }
    void setPendingAutoCreate(bool v) override { pendingAutoCreate = v; }
    void setPendingEnvCommands(const std::optional<QString>& c) override { pendingEnvCommands = c; }
};

struct ConnectPanelFixture : ::testing::Test {
    FakeLink link;
    FakeWorkspace workspace;
    QPointer<ConnectPanelViewController> panel;

    void SetUp() override {
        QSettings& s = ServerConfig::defaults();
        s.clear();
        s.sync();
    }
    void TearDown() override { delete panel.data(); }

    ConnectPanelViewController* open(const ConnectPanelMode& mode) {
        delete panel.data();
        panel = new ConnectPanelViewController(mode);
        panel->setDelegate(&workspace);
        panel->setLink(&link);
        workspace.currentPanel = panel;
        panel->show();
        return panel;
    }
    static QColor textColour(QLabel* l) { return l->palette().color(QPalette::WindowText); }
};

}  // namespace

TEST_F(ConnectPanelFixture, NewHostPairsOnlyWithAValidCodeAndRemembersATypedName) {
    open(ConnectPanelMode::newHost());
    EXPECT_EQ(panel->titleLabel->text(), "添加受控端");
    EXPECT_FALSE(panel->isPaired());
    EXPECT_TRUE(panel->pathField->isReadOnly());
    EXPECT_FALSE(panel->confirmButton->isEnabled());

    panel->codeField->setText("12345a");
    EXPECT_FALSE(panel->pairButton->isEnabled());
    panel->onPair();  // ignored
    EXPECT_TRUE(workspace.pairCodes.isEmpty());

    panel->codeField->setText("  654321 ");
    EXPECT_TRUE(panel->pairButton->isEnabled());
    panel->onPair();
    EXPECT_EQ(workspace.pairCodes, QStringList({"654321"}));
    // No display name typed: the login name is sent, but not remembered as the chosen name.
    EXPECT_EQ(workspace.pairNicknames, QStringList({localLoginName()}));
    EXPECT_EQ(ServerConfig::string(SettingsKey::lastPairCode), QString("654321"));
    EXPECT_FALSE(ServerConfig::string(SettingsKey::lastNickname));
    EXPECT_EQ(panel->pairButton->text(), "连接中…");
    EXPECT_TRUE(panel->pairSpinner->isAnimating());
    // Typing while the pairing runs does not re-enable the button.
    panel->codeField->setText("654321");
    EXPECT_FALSE(panel->pairButton->isEnabled());

    // A typed name is sent trimmed, remembered, and offered by the next panel.
    open(ConnectPanelMode::newHost());
    panel->codeField->setText("123456");
    panel->nicknameField->setText("  夜班  ");
    panel->onPair();
    EXPECT_EQ(workspace.pairNicknames.last(), "夜班");
    open(ConnectPanelMode::newHost());
    EXPECT_EQ(panel->nicknameField->text(), "夜班");
}

TEST_F(ConnectPanelFixture, NoAnswerInTimeFailsThePairingAndSuccessStopsTheTimerAndOpensThePath) {
    open(ConnectPanelMode::newHost());
    panel->setPairTimeoutMs(40);
    panel->codeField->setText("123456");
    panel->onPair();
    ASSERT_TRUE(test::waitUntil([&] { return !panel->pairStatusLabel->text().isEmpty(); }, 3000));
    EXPECT_EQ(panel->pairStatusLabel->text(), "✗ 连接超时，请检查配对码和网络");
    EXPECT_EQ(textColour(panel->pairStatusLabel), Theme::systemRed());
    EXPECT_EQ(panel->pairButton->text(), "连接");
    EXPECT_TRUE(panel->pairButton->isEnabled());
    EXPECT_FALSE(panel->isPaired());
    EXPECT_FALSE(panel->pairSpinner->isAnimating());

    // A relay error reads the same way, with its own message; the user may try again.
    panel->onPair();
    panel->pairDidFail("配对码无效");
    EXPECT_EQ(panel->pairStatusLabel->text(), "✗ 配对码无效");
    EXPECT_EQ(workspace.pairCodes.size(), 2);

    panel->onPair();
    panel->pairDidSucceed(QString("C:\\Users\\me"), QString("windows"));
    test::spin(120);  // well past the time limit
    EXPECT_TRUE(panel->isPaired());
    EXPECT_EQ(panel->pairStatusLabel->text(), "");
    EXPECT_EQ(panel->pairButton->text(), "已连接");
    EXPECT_FALSE(panel->pairButton->isEnabled());
    EXPECT_TRUE(panel->codeField->isReadOnly());
    EXPECT_FALSE(panel->pathField->isReadOnly());
    EXPECT_EQ(panel->pathField->text(), "C:\\Users\\me");
    EXPECT_EQ(panel->agentOS(), QString("windows"));
    // A Windows agent gets the Windows path check.
    EXPECT_EQ(panel->pathField->placeholderText(), "C:\\Users\\user");
    panel->pathField->setText("/home/me");
    panel->onConfirm();
    EXPECT_EQ(panel->statusLabel->text(), "请输入 Windows 绝对路径，如 C:\\Users\\user");
    EXPECT_TRUE(link.sent.empty());
    panel->pathField->setText("c:/work");
    panel->onConfirm();
    EXPECT_EQ(link.listedPaths(), std::vector<std::string>({"c:/work"}));
}

TEST_F(ConnectPanelFixture, NewHostConfirmChecksThePathOnTheAgentThenOpensTheSession) {
    open(ConnectPanelMode::newHost());
    panel->pathField->setText("/home/me");
    panel->onConfirm();  // not paired yet: ignored
    EXPECT_EQ(panel->statusLabel->text(), "");
    panel->codeField->setText("123456");
    panel->onPair();
    panel->pairDidSucceed(QString("/home/me"), QString("linux"));

    panel->pathField->setText("projects/api");
    panel->onConfirm();
    EXPECT_EQ(panel->statusLabel->text(), "请输入绝对路径，如 /home/user");
    EXPECT_TRUE(link.sent.empty());

    panel->pathField->setText(" /home/me/api ");
    panel->onConfirm();
    EXPECT_EQ(panel->statusLabel->text(), "正在验证路径…");
    EXPECT_FALSE(panel->confirmButton->isEnabled());
    EXPECT_TRUE(workspace.pendingPathValidation);
    EXPECT_EQ(link.listedPaths(), std::vector<std::string>({"/home/me/api"}));

    panel->pathValidated(false);
    EXPECT_EQ(panel->statusLabel->text(), "路径不存在");
    EXPECT_TRUE(panel->confirmButton->isEnabled());

    panel->onConfirm();
    panel->pathValidated(true);
    ASSERT_EQ(workspace.launches.size(), 1u);
    EXPECT_EQ(workspace.launches[0], (Launch{"api", std::nullopt, std::nullopt, "/home/me/api"}));
    EXPECT_EQ(workspace.currentPanel, nullptr);
    EXPECT_FALSE(workspace.pendingAutoCreate);
    ASSERT_TRUE(workspace.pendingEnvCommands.has_value());
    EXPECT_FALSE(workspace.pendingEnvCommands->has_value());
    // After the session, the agent's starting directory is asked for to fill the tree.
    EXPECT_EQ(link.listedPaths().back(), ".");
    EXPECT_TRUE(test::waitUntil([&] { return panel.isNull(); }));  // closed and released
}

TEST_F(ConnectPanelFixture, NewSessionWaitsWhileTheLinkIsDownAndALateAnswerAfterCancelCreatesNothing) {
    link.connected = false;
    open(ConnectPanelMode::newSession("123456", QString("/home/me"), QString("linux"), QString("m1")));
    EXPECT_EQ(panel->titleLabel->text(), "添加新的本机会话");
    EXPECT_TRUE(panel->isPaired());
    EXPECT_TRUE(panel->pairButton->isHidden());
    EXPECT_TRUE(panel->codeField->isReadOnly());
    EXPECT_EQ(panel->pathField->text(), "/home/me");
    panel->onConfirm();
    EXPECT_EQ(panel->statusLabel->text(), "正在验证路径…");
    EXPECT_FALSE(panel->confirmButton->isEnabled());
    EXPECT_TRUE(link.sent.empty());

    panel->onCancel();
    panel->pathValidated(true);
    EXPECT_TRUE(workspace.launches.empty());
    EXPECT_EQ(workspace.currentCleared, 1);
    EXPECT_TRUE(test::waitUntil([&] { return panel.isNull(); }));
}

TEST_F(ConnectPanelFixture, EnvironmentRowsAreSavedForTheDirectoryAndComeBack) {
    open(ConnectPanelMode::newSession("123456", QString("/srv/app"), QString("linux"), QString("m1")));
    EXPECT_FALSE(panel->isEnvExpanded());
    panel->onAddEnvRow();
    EXPECT_TRUE(panel->isEnvExpanded());
    panel->envRows[0].keyField->setText(" API_URL ");
    panel->envRows[0].valueField->setText("http://x y");
    panel->onAddEnvRow();
    panel->envRows[1].keyField->setText("   ");  // blank key: neither stored nor exported
    panel->envRows[1].valueField->setText("lost");
    panel->onAddEnvRow();
    panel->envRows[2].keyField->setText("GONE");
    panel->onDeleteEnvRow(panel->envRows[2].view);
    ASSERT_EQ(panel->envRows.size(), 2);

    panel->pathField->setText("/srv/app/ ");  // the key is the session's: "/srv/app", as edit and delete use it
    panel->onConfirm();
    panel->pathValidated(true);
    ASSERT_EQ(workspace.launches.size(), 1u);
    const QString commands = "export API_URL=\"http://x y\"";
    EXPECT_EQ(workspace.launches[0].env, commands);
    EXPECT_EQ(workspace.pendingEnvCommands, std::optional<std::optional<QString>>(commands));
    const auto key = EnvStore::storageKey("m1", "/srv/app");
    ASSERT_TRUE(key);
    EXPECT_EQ(EnvStore::load(*key), (QList<EnvRow>{{" API_URL ", "http://x y"}}));

    // The next panel for the same directory starts with the saved row.
    open(ConnectPanelMode::newSession("123456", QString("/srv/app"), QString("linux"), QString("m1")));
    ASSERT_EQ(panel->envRows.size(), 1);
    EXPECT_EQ(panel->envRows[0].valueField->text(), "http://x y");
    // "编辑环境变量" on the session (the workspace names it by the directory the agent lists) shows them,
    // "删除会话（含环境变量）" removes them under the key the workspace computes: also for a path typed
    // with "~" and a trailing "/".
    open(ConnectPanelMode::newSession("123456", QString("/home/u"), QString("linux"), QString("m1")));
    panel->onAddEnvRow();
    panel->envRows[0].keyField->setText("WHERE");
    panel->pathField->setText(" ~/web/");
    panel->onConfirm();
    panel->pathValidated(true);
    open(ConnectPanelMode::editSession("123456", "/home/u/web", QString("linux"), QString("m1")));
    ASSERT_EQ(panel->envRows.size(), 1);
    EXPECT_EQ(panel->envRows[0].keyField->text(), "WHERE");
    const auto sessionKey = EnvStore::sessionStorageKey("m1", "/home/u/web", "/home/u");
    ASSERT_TRUE(sessionKey);
    EnvStore::remove(*sessionKey);
    open(ConnectPanelMode::editSession("123456", "/home/u/web", QString("linux"), QString("m1")));
    EXPECT_TRUE(panel->envRows.isEmpty());
    // Adding a host has no directory yet, so nothing is loaded or saved.
    open(ConnectPanelMode::newHost());
    EXPECT_FALSE(panel->envStorageKey());
    EXPECT_TRUE(panel->envRows.isEmpty());
}

TEST_F(ConnectPanelFixture, EditSessionSavesWithoutCreatingATerminal) {
    const auto key = EnvStore::storageKey("m1", "/srv/app");
    EnvStore::save(*key, {{"A", "1"}, {"B", "2"}});
    open(ConnectPanelMode::editSession("123456", "/srv/app", QString("linux"), QString("m1")));
    EXPECT_EQ(panel->confirmButton->text(), "保存");
    EXPECT_TRUE(panel->pathField->isReadOnly());
    EXPECT_EQ(panel->envRows.size(), 2);
    // The section opens on the next turn of the event loop, to its full height.
    ASSERT_TRUE(test::waitUntil([&] { return panel->isEnvExpanded(); }));
    EXPECT_TRUE(test::waitUntil([&] {
        return panel->height() == ConnectPanelViewController::expandedHeight &&
               panel->envScrollView->height() == ConnectPanelViewController::expandedRowsHeight;
    }));

    panel->onDeleteEnvRow(panel->envRows[0].view);
    test::StdoutCapture log;
    panel->onConfirm();
    EXPECT_EQ(EnvStore::load(*key), (QList<EnvRow>{{"B", "2"}}));
    EXPECT_TRUE(workspace.launches.empty());
    EXPECT_TRUE(link.sent.empty());
    EXPECT_EQ(workspace.currentPanel, nullptr);
    EXPECT_EQ(ServerConfig::string(SettingsKey::lastPairCode), QString("123456"));
    EXPECT_NE(log.text().find("[SESSION] Saved env vars for cwd=/srv/app, code=123456\n"), std::string::npos);
    EXPECT_TRUE(test::waitUntil([&] { return panel.isNull(); }));
}
