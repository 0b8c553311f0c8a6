#include <gtest/gtest.h>

#include "AdminPassword.h"
#include "ClientIdentity.h"
#include "PreferencesViewController.h"
#include "ServerConfig.h"
#include "TestSupport.h"
#include "Theme.h"

using namespace ostv;
using namespace ostv::test;

TEST(Preferences, PortFieldsTakeASignAndDigitsABlankHostWritesNothingAndPortsAreReadBackThroughTheDefaults) {
    for (auto [text, port] : {std::pair{"9191", 9191}, {"+42", 42}, {"-5", -5}, {"70000", 70000}})  // no range check
        EXPECT_EQ(parsePortField(text, 9090), port) << text;
    for (const char* bad : {"", "abc", " 80", "80 ", "8o", "+", "-", "+-1", "١٢", "８０", "99999999999999999999"})
        EXPECT_EQ(parsePortField(QString::fromUtf8(bad), 8080), 8080) << bad;

    SecretStore::useFileStoreOnlyForTesting(true, makeTempDir("prefs") + "/secrets.json");
    ServerConfig::defaults().clear();
    PreferencesViewController p;
    const auto fields = [](const PreferencesViewController& v) {
        return QStringList{v.serverField->text(), v.quicPortField->text(), v.adminPortField->text(), v.passwordField->text()};
    };
    EXPECT_EQ(fields(p), QStringList({"127.0.0.1", "9090", "8080", "quill_tarn"}));
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
    // Read back: the admin port in use, not the stored "-5"; the empty password as stored.
    EXPECT_EQ(fields(PreferencesViewController()), QStringList({"10.0.0.7", "9090", "8080", ""}));
    SecretStore::useFileStoreOnlyForTesting(false);
}
