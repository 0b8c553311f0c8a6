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

namespace {

struct Created {
    QString title;
    std::optional<QString> command;
    std::optional<QString> env;
    QString path;
    bool operator==(const Created&) const = default;
};

class FakeWorkspace : public QObject, public ConnectPanelDelegate {
public:
    bool connected = true;
    QStringList pairCodes, pairNicknames;
    ConnectPanelViewController* currentPanel = nullptr;
    int currentCleared = 0;
    bool pendingPathValidation = false;
    bool pendingAutoCreate = true;
    std::optional<std::optional<QString>> pendingEnvCommands;
    std::vector<Created> created;

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
    bool isConnected() const override { return connected; }
    void allocateAndCreatePty(const QString& title, const std::optional<QString>& command,
                              const std::optional<QString>& env, const QString& path) override {
        created.push_back({title, command, env, path});
    }
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

TEST_F(ConnectPanelFixture, NewHostPairsOnlyWithAValidCode) {
    open(ConnectPanelMode::newHost());
    EXPECT_EQ(panel->titleLabel->text(), "添加受控端");
    EXPECT_FALSE(panel->isPaired());
    EXPECT_TRUE(panel->pathField->isReadOnly());
    EXPECT_FALSE(panel->confirmButton->isEnabled());
    EXPECT_FALSE(panel->pairButton->isEnabled());

    panel->codeField->setText("12345");
    EXPECT_FALSE(panel->pairButton->isEnabled());
    panel->codeField->setText("12345a");
    EXPECT_FALSE(panel->pairButton->isEnabled());
    panel->onPair();  // ignored
    EXPECT_TRUE(workspace.pairCodes.isEmpty());

    panel->codeField->setText(QString::fromUtf8(" １２３４５６ "));
    EXPECT_TRUE(panel->pairButton->isEnabled());
    panel->codeField->setText("  654321 ");
    panel->onPair();
    EXPECT_EQ(workspace.pairCodes, QStringList({"654321"}));
    // No display name typed: the login name is sent, but not remembered as the chosen name.
    EXPECT_EQ(workspace.pairNicknames, QStringList({localLoginName()}));
    EXPECT_EQ(ServerConfig::string(SettingsKey::lastPairCode), QString("654321"));
    EXPECT_FALSE(ServerConfig::string(SettingsKey::lastNickname));
    EXPECT_EQ(panel->pairButton->text(), "连接中…");
    EXPECT_FALSE(panel->pairButton->isEnabled());
    EXPECT_TRUE(panel->pairSpinner->isAnimating());
    // Typing while the pairing runs does not re-enable the button.
    panel->codeField->setText("654321");
    EXPECT_FALSE(panel->pairButton->isEnabled());
}

TEST_F(ConnectPanelFixture, ATypedDisplayNameIsRemembered) {
    open(ConnectPanelMode::newHost());
    panel->codeField->setText("123456");
    panel->nicknameField->setText("  夜班  ");
    panel->onPair();
    EXPECT_EQ(workspace.pairNicknames, QStringList({"夜班"}));
    EXPECT_EQ(ServerConfig::string(SettingsKey::lastNickname), QString("夜班"));

    // The next panel offers it again.
    delete panel.data();
    open(ConnectPanelMode::newHost());
    EXPECT_EQ(panel->nicknameField->text(), "夜班");
}

TEST_F(ConnectPanelFixture, NoAnswerWithinTheTimeLimitFailsThePairing) {
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
}

TEST_F(ConnectPanelFixture, SuccessStopsTheTimerAndOpensThePath) {
    open(ConnectPanelMode::newHost());
    panel->setPairTimeoutMs(40);
    panel->codeField->setText("123456");
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
    EXPECT_EQ(panel->pathField->placeholderText(), "C:\\Users\\user");
    EXPECT_TRUE(panel->confirmButton->isEnabled());
    EXPECT_EQ(panel->agentOS(), QString("windows"));
}

TEST_F(ConnectPanelFixture, NewHostConfirmChecksThePathOnTheAgentThenOpensTheSession) {
    open(ConnectPanelMode::newHost());
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
    ASSERT_EQ(workspace.created.size(), 1u);
    EXPECT_EQ(workspace.created[0], (Created{"api", std::nullopt, std::nullopt, "/home/me/api"}));
    EXPECT_EQ(workspace.currentPanel, nullptr);
    EXPECT_FALSE(workspace.pendingAutoCreate);
    ASSERT_TRUE(workspace.pendingEnvCommands.has_value());
    EXPECT_FALSE(workspace.pendingEnvCommands->has_value());
    // After the session, the agent's starting directory is asked for to fill the tree.
    EXPECT_EQ(link.listedPaths().back(), ".");
    EXPECT_TRUE(test::waitUntil([&] { return panel.isNull(); }));  // closed and released
}

TEST_F(ConnectPanelFixture, NewSessionWaitsWhileTheLinkIsDown) {
    link.connected = false;
    open(ConnectPanelMode::newSession("123456", QString("/home/me"), QString("linux"), QString("m1")));
    EXPECT_EQ(panel->titleLabel->text(), "添加新的本机会话");
    EXPECT_TRUE(panel->isPaired());
    EXPECT_TRUE(panel->pairButton->isHidden());
    EXPECT_EQ(panel->codeField->text(), "123456");
    EXPECT_TRUE(panel->codeField->isReadOnly());
    EXPECT_EQ(panel->pathField->text(), "/home/me");
    panel->onConfirm();
    EXPECT_EQ(panel->statusLabel->text(), "正在验证路径…");
    EXPECT_FALSE(panel->confirmButton->isEnabled());
    EXPECT_TRUE(link.sent.empty());
    EXPECT_FALSE(panel.isNull());

    panel->onCancel();
    EXPECT_EQ(workspace.currentCleared, 1);
    EXPECT_TRUE(test::waitUntil([&] { return panel.isNull(); }));
}

TEST_F(ConnectPanelFixture, WindowsAgentsGetTheWindowsPathCheck) {
    open(ConnectPanelMode::newSession("123456", std::nullopt, QString("windows"), QString("m1")));
    EXPECT_EQ(panel->pathField->placeholderText(), "C:\\Users\\user");
    for (const QString& bad : {QStringLiteral("/home/me"), QStringLiteral("C:")}) {
        panel->pathField->setText(bad);
        panel->onConfirm();
        EXPECT_EQ(panel->statusLabel->text(), "请输入 Windows 绝对路径，如 C:\\Users\\user");
    }
    panel->pathField->setText("");
    panel->onConfirm();
    EXPECT_EQ(panel->statusLabel->text(), "请输入工作目录的绝对路径");
    EXPECT_TRUE(link.sent.empty());
    panel->pathField->setText("c:/work");
    panel->onConfirm();
    EXPECT_EQ(link.listedPaths(), std::vector<std::string>({"c:/work"}));
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
    ASSERT_EQ(workspace.created.size(), 1u);
    const QString commands = "export API_URL=\"http://x y\"";
    EXPECT_EQ(workspace.created[0].env, commands);
    EXPECT_EQ(workspace.pendingEnvCommands, std::optional<std::optional<QString>>(commands));
    const auto key = EnvStore::storageKey("m1", "/srv/app");
    ASSERT_TRUE(key);
    EXPECT_EQ(EnvStore::load(*key), (QList<EnvRow>{{" API_URL ", "http://x y"}}));

    // The next panel for the same directory starts with the saved row.
    open(ConnectPanelMode::newSession("123456", QString("/srv/app"), QString("linux"), QString("m1")));
    ASSERT_EQ(panel->envRows.size(), 1);
    EXPECT_EQ(panel->envRows[0].valueField->text(), "http://x y");
    // "编辑环境变量" on the session (the workspace names it by the directory the agent lists) shows them,
    // "删除会话（含环境变量）" removes them under the key the workspace computes; the same for a path typed
    // with "~" and a trailing "/".
    for (const auto& [home, typed, listed] : {std::tuple{"/srv/app", "/srv/app/ ", "/srv/app"},
                                              std::tuple{"/home/u", " ~/web/", "/home/u/web"}}) {
        delete panel.data();
        open(ConnectPanelMode::newSession("123456", QString(home), QString("linux"), QString("m1")));
        if (panel->envRows.isEmpty()) panel->onAddEnvRow();
        panel->envRows[0].keyField->setText("WHERE");
        panel->envRows[0].valueField->setText(listed);
        panel->pathField->setText(typed);
        panel->onConfirm();
        panel->pathValidated(true);
        delete panel.data();
        open(ConnectPanelMode::editSession("123456", listed, QString("linux"), QString("m1")));
        ASSERT_EQ(panel->envRows.size(), 1) << typed;
        EXPECT_EQ(panel->envRows[0].valueField->text(), listed);
        delete panel.data();
        const auto sessionKey = EnvStore::sessionStorageKey("m1", listed, home);
        ASSERT_TRUE(sessionKey);
        EnvStore::remove(*sessionKey);
        open(ConnectPanelMode::editSession("123456", listed, QString("linux"), QString("m1")));
        EXPECT_TRUE(panel->envRows.isEmpty()) << typed;
    }
    // Adding a host has no directory yet, so nothing is loaded or saved.
    delete panel.data();
    open(ConnectPanelMode::newHost());
    EXPECT_FALSE(panel->envStorageKey());
    EXPECT_TRUE(panel->envRows.isEmpty());
}

TEST_F(ConnectPanelFixture, EditSessionSavesWithoutCreatingATerminal) {
    const auto key = EnvStore::storageKey("m1", "/srv/app");
    EnvStore::save(*key, {{"A", "1"}, {"B", "2"}});
    open(ConnectPanelMode::editSession("123456", "/srv/app", QString("linux"), QString("m1")));
    EXPECT_EQ(panel->titleLabel->text(), "编辑会话");
    EXPECT_EQ(panel->confirmButton->text(), "保存");
    EXPECT_TRUE(panel->nicknameField->isHidden());
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
    EXPECT_TRUE(workspace.created.empty());
    EXPECT_TRUE(link.sent.empty());
    EXPECT_EQ(workspace.currentPanel, nullptr);
    EXPECT_EQ(ServerConfig::string(SettingsKey::lastPairCode), QString("123456"));
    EXPECT_NE(log.text().find("[SESSION] Saved env vars for cwd=/srv/app, code=123456\n"), std::string::npos);
    EXPECT_TRUE(test::waitUntil([&] { return panel.isNull(); }));
}

TEST_F(ConnectPanelFixture, ConfirmIsIgnoredUntilPairedAndAfterClosing) {
    open(ConnectPanelMode::newHost());
    panel->pathField->setText("/home/me");
    panel->onConfirm();
    EXPECT_TRUE(link.sent.empty());
    EXPECT_EQ(panel->statusLabel->text(), "");

    // A late path answer after the user closed the panel creates nothing.
    panel->codeField->setText("123456");
    panel->onPair();
    panel->pairDidSucceed(std::nullopt, std::nullopt);
    EXPECT_EQ(panel->pathField->placeholderText(), "/home/user");
    panel->onConfirm();
    panel->onCancel();
    panel->pathValidated(true);
    EXPECT_TRUE(workspace.created.empty());
}
