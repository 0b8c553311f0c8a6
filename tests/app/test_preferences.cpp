#include <gtest/gtest.h>

#include "AdminAPIClient.h"
#include "AdminPassword.h"
#include "AppDelegate.h"
#include "ClientIdentity.h"
#include "LoginViewController.h"
#include "PreferencesViewController.h"
#include "ServerConfig.h"
#include "TestSupport.h"
#include "Theme.h"

using namespace ostv;
using namespace ostv::test;

class Preferences : public ::testing::Test {
protected:
    std::unique_ptr<AppDelegate> app;
    void SetUp() override {
        SecretStore::useFileStoreOnlyForTesting(true, makeTempDir("prefs") + "/secrets.json");
        ServerConfig::defaults().clear();
        app = std::make_unique<AppDelegate>();
        app->applicationDidFinishLaunching();
    }
    void TearDown() override {
        app.reset();
        SecretStore::useFileStoreOnlyForTesting(false);
    }
};

TEST(PortParsing, SignsDigitsAndDefaults) {
    EXPECT_EQ(parsePortField("9191", 9090), 9191);
    EXPECT_EQ(parsePortField("+42", 9090), 42);
    EXPECT_EQ(parsePortField("-5", 9090), -5);
    EXPECT_EQ(parsePortField("70000", 9090), 70000);  // no range check here
    for (const char* bad : {"", "abc", " 80", "80 ", "8o", "+", "-", "+-1", "١٢", "99999999999999999999"})
        EXPECT_EQ(parsePortField(QString::fromUtf8(bad), 8080), 8080) << bad;
}

TEST_F(Preferences, FreshStoreShowsTheDefaults) {
    PreferencesViewController p;
    EXPECT_EQ(p.serverField->text(), "127.0.0.1");
    EXPECT_EQ(p.quicPortField->text(), "9090");
    EXPECT_EQ(p.adminPortField->text(), "8080");
    EXPECT_EQ(p.passwordField->text(), "quill_tarn");
    EXPECT_EQ(p.passwordField->echoMode(), QLineEdit::Password);
}

TEST_F(Preferences, BlankHostWritesNothing) {
    PreferencesViewController p;
    p.serverField->setText("  ");
    p.quicPortField->setText("1234");
    p.onSave();
    EXPECT_EQ(p.statusLabel->text(), "服务器地址不能为空");
    EXPECT_EQ(p.statusLabel->palette().color(QPalette::WindowText), Theme::systemRed());
    EXPECT_FALSE(ServerConfig::defaults().contains(SettingsKey::serverHost));
    EXPECT_FALSE(ServerConfig::defaults().contains(SettingsKey::serverQuicPort));
    EXPECT_FALSE(AdminPassword::read().has_value());
}

TEST_F(Preferences, PortsAreParsedStoredAndReadBackThroughTheDefaults) {
    PreferencesViewController p;
    p.serverField->setText("  10.0.0.7 ");
    p.quicPortField->setText("abc");
    p.adminPortField->setText("-5");
    p.passwordField->setText("");
    p.onSave();
    EXPECT_EQ(p.statusLabel->text(), "✓ 已保存，请重新登录");
    EXPECT_EQ(p.statusLabel->palette().color(QPalette::WindowText), Theme::systemGreen());
    EXPECT_EQ(ServerConfig::string(SettingsKey::serverHost), "10.0.0.7");
    EXPECT_EQ(ServerConfig::integer(SettingsKey::serverQuicPort), 9090);
    EXPECT_EQ(ServerConfig::integer(SettingsKey::adminServerPort), -5);
    EXPECT_EQ(ServerConfig::adminPort(), 8080);
    EXPECT_EQ(AdminPassword::read(), "");
    PreferencesViewController again;
    EXPECT_EQ(again.adminPortField->text(), "8080");
    EXPECT_EQ(again.passwordField->text(), "");  // the empty password shows as stored
    again.quicPortField->setText("-5");
    again.adminPortField->setText("70000");  // no range check
    again.onSave();
    EXPECT_EQ(ServerConfig::integer(SettingsKey::serverQuicPort), -5);
    EXPECT_EQ(ServerConfig::quicPort(), 9090);
    EXPECT_EQ(ServerConfig::adminPort(), 70000);
    PreferencesViewController third;
    EXPECT_EQ(third.quicPortField->text(), "9090");
}

TEST_F(Preferences, SaveReturnsToAFreshLoginScreenAfterHalfASecond) {
    QWidget* before = app->currentScreen();
    app->showPreferences();
    auto* sheet = app->window()->findChild<PreferencesViewController*>();
    ASSERT_NE(sheet, nullptr);
    EXPECT_EQ(sheet->windowModality(), Qt::WindowModal);
    QElapsedTimer t;
    t.start();
    sheet->onSave();
    spin(300);
    EXPECT_EQ(app->currentScreen(), before);  // not yet
    ASSERT_TRUE(waitUntil([&] { return app->currentScreen() != before; }, 3000));
    EXPECT_GE(t.elapsed(), 450);
    EXPECT_NE(qobject_cast<LoginViewController*>(app->currentScreen()), nullptr);
}
