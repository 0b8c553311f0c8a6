#include <gtest/gtest.h>

#include <QSignalSpy>
#include <QTest>
#include <QTimer>
#include <QApplication>
#include <QClipboard>
#include <QDialog>
#include <QLabel>

#include "AdminAPIClient.h"
#include "AdminPassword.h"
#include "AppDelegate.h"
#include "ClientIdentity.h"
#include "HttpFixture.h"
#include "LoginViewController.h"
#include "ServerConfig.h"
#include "PreferencesViewController.h"
#include "TestSupport.h"
#include "Theme.h"

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
    // A character beyond the basic plane (two UTF-16 units) or made of several code points is one
    // mask, and one Backspace takes all of it.
    EXPECT_EQ(applyPasswordEdit("a𝄞e\u0301", pw), "●●●");
    EXPECT_EQ(pw, "a𝄞e\u0301");
    EXPECT_EQ(applyPasswordEdit("●●", pw), "●●");
    EXPECT_EQ(pw, "a𝄞");
    EXPECT_EQ(applyPasswordEdit("●", pw), "●");
    EXPECT_EQ(pw, "a");
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
    EXPECT_EQ(login()->passField->cursorPosition(), 2);  // the caret goes back to the end

    // A paste through the Edit menu arrives unmasked and is appended.
    QApplication::clipboard()->setText("x●z");
    QApplication::setActiveWindow(app->window());
    login()->passField->setFocus();
    ASSERT_TRUE(waitUntil([&] { return QApplication::focusWidget() == login()->passField; }));
    QAction* paste = nullptr;
    for (QAction* a : app->window()->findChildren<QAction*>())
        if (a->shortcut() == QKeySequence(Qt::CTRL | Qt::Key_V)) paste = a;
    ASSERT_NE(paste, nullptr);
    paste->trigger();
    EXPECT_EQ(login()->realPassword, "s3xz");  // a "●" in the pasted text is lost, as when typed
    EXPECT_EQ(login()->passField->text(), "●●●●");
    EXPECT_FALSE(login()->passField->text().contains('x'));
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

TEST(AppStart, AboutPanelShowsNameVersionsAndTagLineOnlyOnce) {
    AppDelegate a;
    a.applicationDidFinishLaunching();
    a.showAbout();
    QDialog* panel = a.aboutPanel();
    ASSERT_NE(panel, nullptr);
    QStringList texts;
    for (QLabel* l : panel->findChildren<QLabel*>()) texts << l->text();
    EXPECT_TRUE(texts.contains("Ostvarren"));
    EXPECT_TRUE(texts.contains("Version 1.0.0 (#04060750)"));
    auto* credits = panel->findChild<QLabel*>("aboutCredits");
    ASSERT_NE(credits, nullptr);
    EXPECT_EQ(credits->text(), "远程终端中继 · 多端协同 · 实时接管");
    EXPECT_EQ(credits->palette().color(QPalette::WindowText), Theme::secondaryLabel());
    EXPECT_GE(credits->width(), credits->sizeHint().width());  // the tag line fits on one line
    a.showAbout();  // a second time brings the same panel forward
    EXPECT_EQ(a.aboutPanel(), panel);
    EXPECT_EQ(a.window()->findChildren<QDialog*>("aboutPanel").size(), 1);
}

TEST(AppStart, MenuShortcutsReachTheirScreensAndEditItemsActOnTheFocusedField) {
    SecretStore::useFileStoreOnlyForTesting(true, makeTempDir("menu") + "/secrets.json");
    AppDelegate a;
    a.workspaceFactory = [] { return new QWidget; };
    a.applicationDidFinishLaunching();
    const auto action = [&](const QKeySequence& key) -> QAction* {
        for (QAction* act : a.window()->findChildren<QAction*>())
            if (act->shortcut() == key) return act;
        return nullptr;
    };
    for (auto key : {QKeySequence(Qt::CTRL | Qt::Key_Q), QKeySequence(Qt::CTRL | Qt::Key_M),
                     QKeySequence(Qt::CTRL | Qt::Key_Z), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_Z),
                     QKeySequence(Qt::CTRL | Qt::Key_X), QKeySequence(Qt::CTRL | Qt::Key_C),
                     QKeySequence(Qt::CTRL | Qt::Key_V), QKeySequence(Qt::CTRL | Qt::Key_A)})
        EXPECT_NE(action(key), nullptr) << key.toString().toStdString();

    // Preferences open as a sheet over whichever screen is shown: the workspace too.
    a.showMain();
    QAction* prefs = action(QKeySequence(Qt::CTRL | Qt::Key_Comma));
    ASSERT_NE(prefs, nullptr);
    prefs->trigger();
    auto* sheet = a.window()->findChild<PreferencesViewController*>();
    ASSERT_NE(sheet, nullptr);
    EXPECT_TRUE(sheet->isVisible());
    EXPECT_EQ(sheet->windowModality(), Qt::WindowModal);
    EXPECT_EQ(sheet->windowTitle(), "偏好设置");
    sheet->onCancel();
    EXPECT_FALSE(sheet->isVisible());

    // Edit items act on the focused field.
    a.showLogin();
    auto* login = qobject_cast<LoginViewController*>(a.currentScreen());
    ASSERT_NE(login, nullptr);
    login->hostField->setText("10.1.2.3");
    QApplication::setActiveWindow(a.window());
    login->hostField->setFocus();
    ASSERT_TRUE(waitUntil([&] { return QApplication::focusWidget() == login->hostField; }));
    action(QKeySequence(Qt::CTRL | Qt::Key_A))->trigger();
    EXPECT_EQ(login->hostField->selectedText(), "10.1.2.3");
    action(QKeySequence(Qt::CTRL | Qt::Key_X))->trigger();
    EXPECT_EQ(login->hostField->text(), "");
    action(QKeySequence(Qt::CTRL | Qt::Key_Z))->trigger();
    EXPECT_EQ(login->hostField->text(), "10.1.2.3");

    SecretStore::useFileStoreOnlyForTesting(false);
}

TEST(AppStartDeathTest, ClosingTheMainWindowEndsTheApplication) {
    // In a fresh copy of this test program, so that its event loop can really end.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            AppDelegate a;
            a.applicationDidFinishLaunching();
            QTimer::singleShot(100, a.window(), &QWidget::close);
            QTimer::singleShot(10000, [] { std::_Exit(3); });  // still running: the close did not quit
            const int rc = QApplication::exec();
            std::_Exit(rc == 0 ? 0 : 4);
        },
        ::testing::ExitedWithCode(0), "");
}
