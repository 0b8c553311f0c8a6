#include <gtest/gtest.h>

#include "ServerConfig.h"
#include "TestSupport.h"

using namespace ostv;

// Defaults stand in for absent, zero, negative or misshapen values; stored values are used as they
// are; reads see at once what another handle on the same store wrote.
TEST(Settings, DefaultsStoredValuesAndWritesThroughAnotherHandle) {
    ServerConfig::defaults().clear();
    ServerConfig::defaults().sync();
    EXPECT_EQ(ServerConfig::serverHost(), QStringLiteral("127.0.0.1"));
    EXPECT_EQ(ServerConfig::adminBaseURL(), QStringLiteral("http://127.0.0.1:8080"));
    EXPECT_FALSE(ServerConfig::string(SettingsKey::lastPairCode).has_value());
    EXPECT_EQ(ServerConfig::integer(SettingsKey::serverQuicPort), 0);
    for (const QVariant& stored : {QVariant(), QVariant(0), QVariant(-5), QVariant("not a number")}) {
        ServerConfig::defaults().setValue(SettingsKey::serverQuicPort, stored);
        ServerConfig::defaults().setValue(SettingsKey::adminServerPort, stored);
        EXPECT_EQ(ServerConfig::quicPort(), 9090) << stored.toString().toStdString();
        EXPECT_EQ(ServerConfig::adminPort(), 8080) << stored.toString().toStdString();
    }
    ServerConfig::defaults().setValue(SettingsKey::serverHost, QStringList{"a", "b"});
    ServerConfig::defaults().setValue(SettingsKey::confirmedMachines, 42);
    EXPECT_EQ(ServerConfig::serverHost(), QStringLiteral("127.0.0.1"));
    EXPECT_FALSE(ServerConfig::stringList(SettingsKey::confirmedMachines).has_value());

    ServerConfig::setInteger(SettingsKey::serverQuicPort, 70000);  // not rejected here; the connect step decides
    ServerConfig::setInteger(SettingsKey::adminServerPort, 18080);
    EXPECT_EQ(ServerConfig::quicPort(), 70000);
    EXPECT_EQ(ServerConfig::adminBaseURL(), QStringLiteral("http://127.0.0.1:18080"));
    ServerConfig::setString(SettingsKey::serverHost, "");
    EXPECT_EQ(ServerConfig::serverHost(), QString());
    EXPECT_EQ(ServerConfig::adminBaseURL(), QStringLiteral("http://:18080"));
    ServerConfig::setStringList(SettingsKey::confirmedMachines, {"m1"});  // one element stays a list
    ServerConfig::setStringList(SettingsKey::confirmedAgentCodes, {"111111", "222222"});
    ServerConfig::defaults().sync();
    EXPECT_EQ(ServerConfig::stringList(SettingsKey::confirmedMachines), QStringList{"m1"});
    EXPECT_EQ(ServerConfig::stringList(SettingsKey::confirmedAgentCodes), (QStringList{"111111", "222222"}));

    QSettings other;  // the same store, as another part of the application would open it
    other.setValue(SettingsKey::serverHost, "10.1.2.3");
    other.setValue(SettingsKey::serverQuicPort, 9191);
    other.sync();
    EXPECT_EQ(ServerConfig::serverHost(), QStringLiteral("10.1.2.3"));
    EXPECT_EQ(ServerConfig::quicPort(), 9191);
}
