#include <gtest/gtest.h>

#include <QSignalSpy>
#include <QTest>

#include "AdminAPIClient.h"
#include "AdminPassword.h"
#include "AppDelegate.h"
#include "ClientIdentity.h"
#include "HttpFixture.h"
#include "LoginViewController.h"
#include "ServerConfig.h"
#include "TestSupport.h"

using namespace ostv;
using namespace ostv::test;

TEST(PasswordMasking, TypePasteDeleteAndMaskCharacters) {
    QString pw;
    EXPECT_EQ(applyPasswordEdit("abc", pw), "●●●");
    EXPECT_EQ(pw, "abc");
    pw = "ab";
    EXPECT_EQ(applyPasswordEdit("●●xyz", pw), "●●●●●");  // a paste after two characters appends
    EXPECT_EQ(pw, "abxyz");
    EXPECT_EQ(applyPasswordEdit("●●●●", pw), "●●●●");      // deleting in the middle cuts from the end
    EXPECT_EQ(pw, "abxy");
    EXPECT_EQ(applyPasswordEdit("●●●●●", pw), "●●●●");     // a typed "●" is lost
    EXPECT_EQ(pw, "abxy");
    EXPECT_EQ(applyPasswordEdit("", pw), "");
    EXPECT_EQ(pw, "");
}

class LoginScreen : public ::testing::Test {
protected:
    CannedHttpServer server;
    std::unique_ptr<AppDelegate> app;
    QWidget* workspace = nullptr;
    int disconnects = 0;

    void SetUp() override {
        SecretStore::useFileStoreOnlyForTesting(true, makeTempDir("login") + "/secrets.json");
        ServerConfig::defaults().clear();
        ASSERT_TRUE(server.start());
        ServerConfig::setInteger(SettingsKey::adminServerPort, server.serverPort());
        server.answer("/admin/login", {200, R"({"token":"t-1","username":"admin","role":"admin"})", {}});
        server.answer("/admin/agents", {401, "", {}});
        app = std::make_unique<AppDelegate>();
        app->workspaceFactory = [this] {
            workspace = new QWidget;
            workspace->setObjectName("workspace");
            return workspace;
        };
        app->disconnectRelay = [this] { ++disconnects; };
        app->applicationDidFinishLaunching();
    }
    void TearDown() override {
        app.reset();
        AdminAPIClient::shared().resetSession();
        SecretStore::useFileStoreOnlyForTesting(false);
    }
    LoginViewController* login() { return qobject_cast<LoginViewController*>(app->currentScreen()); }
    int posts() {
        int n = 0;
        for (const auto& r : server.requests) n += r.method == "POST";
        return n;
    }
};

TEST_F(LoginScreen, PrefillsDefaultsAndMasksTheDefaultPassword) {
    ASSERT_NE(login(), nullptr);
    EXPECT_EQ(login()->hostField->text(), "127.0.0.1");
    EXPECT_EQ(login()->userField->text(), "admin");
    EXPECT_EQ(login()->passField->text(), QString(10, QChar(0x25CF)));
    EXPECT_EQ(login()->realPassword, "quill_tarn");
    EXPECT_EQ(app->window()->windowTitle(), "Ostvarren  v1.0.0 · #04060750");
    EXPECT_EQ(app->window()->minimumSize(), QSize(900, 600));
    EXPECT_FALSE(app->logoutMenuItem()->isEnabled());
    // The warm-up went out while the screen was shown.
    EXPECT_TRUE(waitUntil([&] { return !server.requests.isEmpty() && server.requests[0].method == "HEAD"; }));
}

TEST_F(LoginScreen, TypingIntoThePasswordFieldKeepsOnlyMasksVisible) {
    login()->passField->clear();
    login()->realPassword.clear();
    QTest::keyClicks(login()->passField, "s3c");
    EXPECT_EQ(login()->realPassword, "s3c");
    EXPECT_EQ(login()->passField->text(), "●●●");
    login()->passField->setCursorPosition(1);
    QTest::keyClick(login()->passField, Qt::Key_Delete);  // deleting the middle mask removes the last character
    EXPECT_EQ(login()->realPassword, "s3");
}

TEST_F(LoginScreen, EmptyOrBlankFieldsAreRefusedWithoutARequest) {
    login()->hostField->setText("   ");
    login()->onLoginClicked();
    EXPECT_FALSE(login()->errorLabel->isHidden());
    EXPECT_EQ(login()->errorLabel->text(), "请填写服务器地址、用户名和密码");
    login()->hostField->setText("127.0.0.1");
    login()->realPassword.clear();
    login()->onLoginClicked();
    EXPECT_EQ(login()->errorLabel->text(), "请填写服务器地址、用户名和密码");
    spin(100);
    EXPECT_EQ(posts(), 0);
}

TEST_F(LoginScreen, DoubleReturnSendsOneRequestAndSuccessShowsTheWorkspace) {
    QTest::keyClick(login()->passField, Qt::Key_Return);
    QTest::keyClick(login()->userField, Qt::Key_Return);
    EXPECT_TRUE(login()->isLoading);
    EXPECT_EQ(login()->loginButton->text(), "登录中…");
    EXPECT_FALSE(login()->hostField->isEnabled());
    ASSERT_TRUE(waitUntil([&] { return workspace != nullptr; }));
    EXPECT_EQ(posts(), 1);
    EXPECT_EQ(app->currentScreen(), workspace);
    EXPECT_TRUE(app->logoutMenuItem()->isEnabled());
    EXPECT_TRUE(AdminAPIClient::shared().hasToken());
    // What was typed is kept: host and user in the settings, the password in the keychain.
    EXPECT_EQ(ServerConfig::string(SettingsKey::adminUsername), "admin");
    EXPECT_EQ(AdminPassword::read(), "quill_tarn");
    EXPECT_FALSE(ServerConfig::defaults().contains(SettingsKey::adminPassword));

    // Logout: the relay is dropped, the token cleared, and a fresh login screen shown.
    app->logoutMenuItem()->trigger();
    EXPECT_EQ(disconnects, 1);
    EXPECT_FALSE(AdminAPIClient::shared().hasToken());
    EXPECT_NE(login(), nullptr);
    EXPECT_FALSE(app->logoutMenuItem()->isEnabled());
}

TEST_F(LoginScreen, FailuresShowTheServersTextAndKeepTheFields) {
    server.answer("/admin/login", {200, R"({"error":"invalid credentials"})", {}});
    login()->onLoginClicked();
    ASSERT_TRUE(waitUntil([&] { return !login()->isLoading; }));
    EXPECT_EQ(login()->errorLabel->text(), "用户名或密码错误");
    EXPECT_TRUE(login()->loginButton->isEnabled());
    server.answer("/admin/login", {401, R"({"error":"no"})", {}});
    login()->onLoginClicked();
    ASSERT_TRUE(waitUntil([&] { return !login()->isLoading; }));
    EXPECT_EQ(login()->errorLabel->text(), "登录失败 (HTTP 401)");
    EXPECT_EQ(login()->userField->text(), "admin");
    EXPECT_EQ(workspace, nullptr);
}

TEST_F(LoginScreen, AStoredPasswordInThePlainFileMovesToTheKeychain) {
    ServerConfig::setString(SettingsKey::adminPassword, "legacy!");
    EXPECT_EQ(AdminPassword::read(), "legacy!");
    EXPECT_FALSE(ServerConfig::defaults().contains(SettingsKey::adminPassword));
    EXPECT_EQ(AdminPassword::read(), "legacy!");
    AdminPassword::write("");
    EXPECT_EQ(AdminPassword::read(), "");  // stored empty...
    app->showLogin();
    EXPECT_EQ(login()->realPassword, "quill_tarn");  // ...which the login prefill treats as absent
}

TEST(AppStart, KeepsAnExistingActivityModeAndSetsItOtherwise) {
    qunsetenv("OS_ACTIVITY_MODE");
    {
        AppDelegate a;
        a.applicationDidFinishLaunching();
        EXPECT_EQ(qgetenv("OS_ACTIVITY_MODE"), "disable");
    }
    qputenv("OS_ACTIVITY_MODE", "mine");
    {
        AppDelegate a;
        a.applicationDidFinishLaunching();
        EXPECT_EQ(qgetenv("OS_ACTIVITY_MODE"), "mine");
    }
}
