#include <gtest/gtest.h>

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

using namespace ostv;
using namespace ostv::test;

// Each step: what the field holds after an edit, the password it becomes and the masks shown.
TEST(PasswordMasking, TypePasteDeleteAndMaskCharacters) {
    const struct {
        const char *field, *password, *shown;
    } steps[] = {
        {"abc", "abc", "●●●"},
        {"●●", "ab", "●●"},  // Backspace; pasting, a lost "●" and deleting in the middle are seen on the screen below
        {"", "", ""},
        // A character of two UTF-16 units or of several code points is one mask, taken by one Backspace.
        {"a𝄞e\u0301", "a𝄞e\u0301", "●●●"},
        {"●●", "a𝄞", "●●"},
        {"●", "a", "●"},
    };
    QString pw;
    for (const auto& step : steps) {
        EXPECT_EQ(applyPasswordEdit(QString::fromUtf8(step.field), pw), QString::fromUtf8(step.shown)) << step.field;
        EXPECT_EQ(pw, QString::fromUtf8(step.password)) << step.field;
    }
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
        app->workspaceFactory = [this] { return workspace = new QWidget; };
        app->disconnectRelay = [this] { ++disconnects; };
        app->applicationDidFinishLaunching();
    }
    void TearDown() override {
        app.reset();
        AdminAPIClient::shared().resetSession();
        SecretStore::useFileStoreOnlyForTesting(false);
    }
    LoginViewController* login() { return qobject_cast<LoginViewController*>(app->currentScreen()); }
    // Triggers the window's menu item bound to `key`, as the shortcut does.
    void press(QKeyCombination key) {
        for (QAction* a : app->window()->findChildren<QAction*>())
            if (a->shortcut() == QKeySequence(key)) return a->trigger();
        ADD_FAILURE() << "no menu item for " << QKeySequence(key).toString().toStdString();
    }
    int posts() {
        int n = 0;
        for (const auto& r : server.requests) n += r.method == "POST";
        return n;
    }
};

TEST_F(LoginScreen, PrefillsDefaultsAndShowsOnlyMasksOfWhatIsTypedOrPasted) {
    ASSERT_NE(login(), nullptr);
    EXPECT_EQ((QStringList{login()->hostField->text(), login()->userField->text(), login()->passField->text(),
                           login()->realPassword}),
              (QStringList{"127.0.0.1", "admin", QString(10, QChar(0x25CF)), "quill_tarn"}));
    EXPECT_EQ(app->window()->windowTitle(), "Ostvarren  v1.0.0 · #04060750");
    EXPECT_FALSE(app->logoutMenuItem()->isEnabled());
    // The about panel's tag line fits on one line, and a second "about" brings the same panel forward.
    app->showAbout();
    QDialog* about = app->aboutPanel();
    ASSERT_NE(about, nullptr);
    auto* credits = about->findChild<QLabel*>("aboutCredits");
    ASSERT_NE(credits, nullptr);
    EXPECT_GE(credits->width(), credits->sizeHint().width());
    app->showAbout();
    EXPECT_EQ(app->window()->findChildren<QDialog*>("aboutPanel").size(), 1);
    about->close();
    // The warm-up went out while the screen was shown.
    EXPECT_TRUE(waitUntil([&] { return !server.requests.isEmpty() && server.requests[0].method == "HEAD"; }));

    // Typed characters show only as masks.
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
    press(Qt::CTRL | Qt::Key_V);
    EXPECT_EQ(login()->realPassword, "s3xz");  // a "●" in the pasted text is lost, as when typed
    EXPECT_EQ(login()->passField->text(), "●●●●");

    // The other Edit items act on the focused field too.
    login()->hostField->setText("10.1.2.3");
    login()->hostField->setFocus();
    ASSERT_TRUE(waitUntil([&] { return QApplication::focusWidget() == login()->hostField; }));
    press(Qt::CTRL | Qt::Key_A);
    EXPECT_EQ(login()->hostField->selectedText(), "10.1.2.3");
    press(Qt::CTRL | Qt::Key_X);
    EXPECT_EQ(login()->hostField->text(), "");
    press(Qt::CTRL | Qt::Key_Z);
    EXPECT_EQ(login()->hostField->text(), "10.1.2.3");

    // A password in the plain settings file moves to the keychain; stored empty, the prefill treats it as absent.
    ServerConfig::setString(SettingsKey::adminPassword, "legacy!");
    EXPECT_EQ(AdminPassword::read(), "legacy!");
    EXPECT_FALSE(ServerConfig::defaults().contains(SettingsKey::adminPassword));
    EXPECT_EQ(AdminPassword::read(), "legacy!");
    AdminPassword::write("");
    EXPECT_EQ(AdminPassword::read(), "");
    app->showLogin();
    EXPECT_EQ(login()->realPassword, "quill_tarn");
}

// Blank fields are refused without a request and a refusal keeps the screen; then a double Return signs in
// once, and logging out or saving the preferences comes back to a fresh login screen.
TEST_F(LoginScreen, RefusalsKeepTheScreenADoubleReturnSignsInOnceAndSigningOutComesBack) {
    login()->hostField->setText("   ");
    login()->onLoginClicked();
    EXPECT_FALSE(login()->errorLabel->isHidden());
    EXPECT_EQ(login()->errorLabel->text(), "请填写服务器地址、用户名和密码");
    login()->hostField->setText("127.0.0.1");
    login()->errorLabel->clear();
    login()->realPassword.clear();
    login()->onLoginClicked();
    EXPECT_EQ(login()->errorLabel->text(), "请填写服务器地址、用户名和密码");
    spin(100);
    EXPECT_EQ(posts(), 0);
    login()->realPassword = "quill_tarn";
    server.answer("/admin/login", {200, R"({"error":"invalid credentials"})", {}});
    login()->onLoginClicked();
    ASSERT_TRUE(waitUntil([&] { return !login()->isLoading; }));
    EXPECT_EQ(login()->errorLabel->text(), "用户名或密码错误");
    EXPECT_TRUE(login()->loginButton->isEnabled());
    EXPECT_EQ(login()->userField->text(), "admin");
    EXPECT_EQ(workspace, nullptr);

    server.answer("/admin/login", {200, R"({"token":"t-1","username":"admin","role":"admin"})", {}});
    QTest::keyClick(login()->passField, Qt::Key_Return);
    QTest::keyClick(login()->userField, Qt::Key_Return);
    EXPECT_TRUE(login()->isLoading);
    EXPECT_EQ(login()->loginButton->text(), "登录中…");
    EXPECT_FALSE(login()->hostField->isEnabled());
    ASSERT_TRUE(waitUntil([&] { return workspace != nullptr; }));
    EXPECT_EQ(posts(), 2);
    EXPECT_EQ(app->currentScreen(), workspace);
    EXPECT_TRUE(app->logoutMenuItem()->isEnabled());
    EXPECT_TRUE(AdminAPIClient::shared().hasToken());
    // What was typed is kept: host and user in the settings, the password in the keychain.
    EXPECT_EQ(ServerConfig::string(SettingsKey::adminUsername), "admin");
    EXPECT_EQ(AdminPassword::read(), "quill_tarn");
    EXPECT_FALSE(ServerConfig::defaults().contains(SettingsKey::adminPassword));

    // Preferences open as a sheet over the workspace; saving signs out after half a second, as the menu's
    // logout does: the relay is dropped, the token cleared, and a fresh login screen shown.
    QWidget* shown = app->currentScreen();
    press(Qt::CTRL | Qt::Key_Comma);
    auto* sheet = app->window()->findChild<PreferencesViewController*>();
    ASSERT_NE(sheet, nullptr);
    EXPECT_TRUE(sheet->isVisible());
    EXPECT_EQ(sheet->windowModality(), Qt::WindowModal);
    QElapsedTimer t;
    t.start();
    sheet->onSave();
    spin(300);
    EXPECT_EQ(app->currentScreen(), shown);  // not yet
    ASSERT_TRUE(waitUntil([&] { return app->currentScreen() != shown; }, 3000));
    EXPECT_GE(t.elapsed(), 450);
    EXPECT_NE(login(), nullptr);
    EXPECT_EQ(disconnects, 1);
    EXPECT_FALSE(AdminAPIClient::shared().hasToken());
    EXPECT_FALSE(app->logoutMenuItem()->isEnabled());
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
