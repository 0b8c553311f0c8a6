#include <gtest/gtest.h>

#include <QPointer>

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
    bool pendingPathValidation = false;
    bool pendingAutoCreate = true;
    std::optional<std::optional<QString>> pendingEnvCommands;

    void connectPanelDidRequestPairWithCode(ConnectPanelViewController*, const QString& code,
                                            const QString& nickname) override {
        pairCodes << code;
        pairNicknames << nickname;
    }
    void setCurrentConnectPanel(ConnectPanelViewController* p) override { currentPanel = p; }
    void setPendingPathValidation(bool v) override { pendingPathValidation = v; }
    void setPendingAutoCreate(bool v) override { pendingAutoCreate = v; }
    void setPendingEnvCommands(const std::optional<QString>& c) override { pendingEnvCommands = c; }
};

struct ConnectPanelFixture : ::testing::Test {
    FakeLink link;
    FakeWorkspace workspace;
    QPointer<ConnectPanelViewController> panel;

    void SetUp() override { ServerConfig::defaults().clear(); }
    void TearDown() override { delete panel.data(); }

    void open(const ConnectPanelMode& mode) {
        delete panel.data();
        panel = new ConnectPanelViewController(mode);
        panel->setDelegate(&workspace);
        panel->setLink(&link);
        workspace.currentPanel = panel;
        panel->show();
    }
    // The pairing row as the user sees it: the button's text and whether it is enabled, the spinner, the status.
    std::tuple<QString, bool, bool, QString> pairRow() const {
        return {panel->pairButton->text(), panel->pairButton->isEnabled(), panel->pairSpinner->isAnimating(),
                panel->pairStatusLabel->text()};
    }
};

}  // namespace

// Adding an agent from start to end: the code is checked, a pairing that gets no answer in time or a relay
// error can be tried again, and the agent's own path rules (Windows here) decide before the agent is asked.
TEST_F(ConnectPanelFixture, NewHostPairsWithAValidCodeRetriesFailuresThenChecksThePathAndOpensTheSession) {
    open(ConnectPanelMode::newHost());
    panel->setPairTimeoutMs(40);
    EXPECT_EQ(panel->titleLabel->text(), "添加受控端");
    EXPECT_TRUE(panel->pathField->isReadOnly());
    EXPECT_FALSE(panel->confirmButton->isEnabled());
    panel->onConfirm();  // not paired yet: ignored (an empty path would read as an error)
    EXPECT_EQ(panel->statusLabel->text(), "");

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
    panel->codeField->setText("654321");  // typing while the pairing runs does not re-enable the button
    EXPECT_EQ(pairRow(), std::tuple(QString("连接中…"), false, true, QString()));

    SCOPED_TRACE("no answer in time");
    ASSERT_TRUE(test::waitUntil([&] { return !panel->pairStatusLabel->text().isEmpty(); }, 3000));
    EXPECT_EQ(pairRow(), std::tuple(QString("连接"), true, false, QString("✗ 连接超时，请检查配对码和网络")));
    EXPECT_EQ(panel->pairStatusLabel->palette().color(QPalette::WindowText), Theme::systemRed());
    EXPECT_FALSE(panel->isPaired());
    // A relay error reads the same way, with its own message; retried, a typed name is sent trimmed.
    panel->nicknameField->setText("  夜班  ");
    panel->onPair();
    EXPECT_EQ(workspace.pairNicknames.last(), "夜班");
    panel->pairDidFail("配对码无效");
    EXPECT_EQ(panel->pairStatusLabel->text(), "✗ 配对码无效");
    EXPECT_EQ(workspace.pairCodes.size(), 2);

    SCOPED_TRACE("paired with a Windows agent; the time limit no longer applies");
    panel->onPair();
    panel->pairDidSucceed(QString("C:\\Users\\me"), QString("windows"));
    test::spin(120);
    EXPECT_TRUE(panel->isPaired());
    EXPECT_EQ(pairRow(), std::tuple(QString("已连接"), false, false, QString()));
    EXPECT_TRUE(panel->codeField->isReadOnly());
    EXPECT_FALSE(panel->pathField->isReadOnly());
    EXPECT_EQ(panel->pathField->text(), "C:\\Users\\me");
    EXPECT_EQ(panel->pathField->placeholderText(), "C:\\Users\\user");
    panel->pathField->setText("/home/me");
    panel->onConfirm();
    EXPECT_EQ(panel->statusLabel->text(), "请输入 Windows 绝对路径，如 C:\\Users\\user");
    EXPECT_TRUE(link.sent.empty());

    SCOPED_TRACE("the path is checked on the agent");
    panel->pathField->setText(" c:/work/api ");
    panel->onConfirm();
    EXPECT_EQ(panel->statusLabel->text(), "正在验证路径…");
    EXPECT_FALSE(panel->confirmButton->isEnabled());
    EXPECT_TRUE(workspace.pendingPathValidation);
    EXPECT_EQ(link.listedPaths(), std::vector<std::string>({"c:/work/api"}));
    panel->pathValidated(false);
    EXPECT_EQ(panel->statusLabel->text(), "路径不存在");
    EXPECT_TRUE(panel->confirmButton->isEnabled());
    panel->onConfirm();
    panel->pathValidated(true);
    EXPECT_EQ(workspace.launches, (std::vector<Launch>{{"api", std::nullopt, std::nullopt, "c:/work/api"}}));
    EXPECT_EQ(workspace.currentPanel, nullptr);
    EXPECT_FALSE(workspace.pendingAutoCreate);
    EXPECT_EQ(workspace.pendingEnvCommands, std::make_optional(std::optional<QString>()));  // told: no variables
    // After the session, the agent's starting directory is asked for to fill the tree.
    EXPECT_EQ(link.listedPaths().back(), ".");
    EXPECT_TRUE(test::waitUntil([&] { return panel.isNull(); }));  // closed and released
    // The typed name is remembered and offered by the next panel.
    open(ConnectPanelMode::newHost());
    EXPECT_EQ(panel->nicknameField->text(), "夜班");
}

// The session panels of a paired agent: a new session waits while the link is down; the variables typed
// for a directory are saved under the session's key, come back when it is edited and are saved again.
TEST_F(ConnectPanelFixture, SessionPanelsWaitForTheLinkAndKeepEachDirectorysVariables) {
    SCOPED_TRACE("a new session while the link is down, cancelled before the late answer");
    link.connected = false;
    open(ConnectPanelMode::newSession("123456", QString("/srv/app"), QString("linux"), QString("m1")));
    EXPECT_EQ(panel->titleLabel->text(), "添加新的本机会话");
    EXPECT_TRUE(panel->isPaired());
    EXPECT_TRUE(panel->pairButton->isHidden());
    EXPECT_TRUE(panel->codeField->isReadOnly());
    EXPECT_EQ(panel->pathField->text(), "/srv/app");
    panel->onConfirm();
    EXPECT_EQ(panel->statusLabel->text(), "正在验证路径…");
    EXPECT_FALSE(panel->confirmButton->isEnabled());
    EXPECT_TRUE(link.sent.empty());
    panel->onCancel();
    panel->pathValidated(true);
    EXPECT_TRUE(workspace.launches.empty());
    EXPECT_EQ(workspace.currentPanel, nullptr);
    EXPECT_TRUE(test::waitUntil([&] { return panel.isNull(); }));
    link.connected = true;

    SCOPED_TRACE("rows typed in a new session");
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
    panel->pathField->setText("/srv/app/ ");  // the key is the session's: "/srv/app"
    panel->onConfirm();
    panel->pathValidated(true);
    const QString commands = "export API_URL=\"http://x y\"";
    EXPECT_EQ(workspace.launches, (std::vector<Launch>{{"app", std::nullopt, commands, "/srv/app/"}}));
    EXPECT_EQ(workspace.pendingEnvCommands, std::optional<std::optional<QString>>(commands));
    const auto key = EnvStore::sessionStorageKey("m1", "/srv/app", "/srv/app");  // as the workspace's delete has it
    ASSERT_TRUE(key);
    EXPECT_EQ(EnvStore::load(*key), (QList<EnvRow>{{" API_URL ", "http://x y"}}));

    SCOPED_TRACE("editing them saves without creating a terminal");
    open(ConnectPanelMode::editSession("654321", "/srv/app", QString("linux"), QString("m1")));
    EXPECT_EQ(panel->confirmButton->text(), "保存");
    EXPECT_TRUE(panel->pathField->isReadOnly());
    ASSERT_EQ(panel->envRows.size(), 1);
    EXPECT_EQ(panel->envRows[0].valueField->text(), "http://x y");
    // The section opens on the next turn of the event loop, to its full height.
    EXPECT_TRUE(test::waitUntil([&] {
        return panel->isEnvExpanded() && panel->height() == ConnectPanelViewController::expandedHeight &&
               panel->envScrollView->height() == ConnectPanelViewController::expandedRowsHeight;
    }));
    panel->onDeleteEnvRow(panel->envRows[0].view);
    const size_t sent = link.sent.size();
    test::StdoutCapture log;
    panel->onConfirm();
    EXPECT_TRUE(EnvStore::load(*key).isEmpty());
    EXPECT_EQ(workspace.launches.size(), 1u);
    EXPECT_EQ(link.sent.size(), sent);
    EXPECT_EQ(workspace.currentPanel, nullptr);
    EXPECT_EQ(ServerConfig::string(SettingsKey::lastPairCode), QString("654321"));
    EXPECT_NE(log.text().find("[SESSION] Saved env vars for cwd=/srv/app, code=654321\n"), std::string::npos);
    EXPECT_TRUE(test::waitUntil([&] { return panel.isNull(); }));

    // Adding a host has no directory yet, so nothing is loaded or saved.
    open(ConnectPanelMode::newHost());
    EXPECT_FALSE(panel->envStorageKey());
    EXPECT_TRUE(panel->envRows.isEmpty());
}
