#include <gtest/gtest.h>

#include "AdminPassword.h"
#include "ClientIdentity.h"
#include "PreferencesViewController.h"
#include "ServerConfig.h"
#include "TestSupport.h"
#include "Theme.h"

using namespace ostv;
using namespace ostv::test;

TEST(PortParsing, SignsDigitsAndDefaults) {
    EXPECT_EQ(parsePortField("9191", 9090), 9191);
    EXPECT_EQ(parsePortField("+42", 9090), 42);
    EXPECT_EQ(parsePortField("-5", 9090), -5);
    EXPECT_EQ(parsePortField("70000", 9090), 70000);  // no range check here
    for (const char* bad : {"", "abc", " 80", "80 ", "8o", "+", "-", "+-1", "١٢", "８０", "99999999999999999999"})
        EXPECT_EQ(parsePortField(QString::fromUtf8(bad), 8080), 8080) << bad;
}

TEST(Preferences, ABlankHostWritesNothingAndPortsAreStoredAndReadBackThroughTheDefaults) {
    SecretStore::useFileStoreOnlyForTesting(true, makeTempDir("prefs") + "/secrets.json");
    ServerConfig::defaults().clear();
    PreferencesViewController p;
    EXPECT_EQ(p.serverField->text(), "127.0.0.1");
    EXPECT_EQ(p.quicPortField->text(), "9090");
    EXPECT_EQ(p.adminPortField->text(), "8080");
    EXPECT_EQ(p.passwordField->text(), "quill_tarn");
    EXPECT_EQ(p.passwordField->echoMode(), QLineEdit::Password);

    p.serverField->setText("  ");
    p.quicPortField->setText("1234");
    p.onSave();
    EXPECT_EQ(p.statusLabel->text(), "服务器地址不能为空");
    EXPECT_EQ(p.statusLabel->palette().color(QPalette::WindowText), Theme::systemRed());
    EXPECT_FALSE(ServerConfig::defaults().contains(SettingsKey::serverHost));
    EXPECT_FALSE(ServerConfig::defaults().contains(SettingsKey::serverQuicPort));
    EXPECT_FALSE(AdminPassword::read().has_value());

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
    EXPECT_EQ(again.adminPortField->text(), "8080");  // the port in use, not the stored "-5"
    EXPECT_EQ(again.passwordField->text(), "");  // the empty password shows as stored
    SecretStore::useFileStoreOnlyForTesting(false);
}
