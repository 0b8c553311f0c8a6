#include <gtest/gtest.h>

#include "ServerConfig.h"
#include "TestSupport.h"

using namespace ostv;

class Settings : public ::testing::Test {
protected:
    void SetUp() override {
        ServerConfig::defaults().clear();
        ServerConfig::defaults().sync();
    }
};

TEST_F(Settings, FreshStoreGivesTheDefaults) {
    EXPECT_EQ(ServerConfig::serverHost(), QStringLiteral("127.0.0.1"));
    EXPECT_EQ(ServerConfig::quicPort(), 9090);
    EXPECT_EQ(ServerConfig::adminPort(), 8080);
    EXPECT_EQ(ServerConfig::adminBaseURL(), QStringLiteral("http://127.0.0.1:8080"));
    EXPECT_FALSE(ServerConfig::string(SettingsKey::lastPairCode).has_value());
    EXPECT_EQ(ServerConfig::integer(SettingsKey::serverQuicPort), 0);
}

TEST_F(Settings, ZeroAndNegativePortsFallBackLargeOnesAreKept) {
    ServerConfig::setInteger(SettingsKey::serverQuicPort, -5);
    ServerConfig::setInteger(SettingsKey::adminServerPort, 0);
    EXPECT_EQ(ServerConfig::quicPort(), 9090);
    EXPECT_EQ(ServerConfig::adminPort(), 8080);
    ServerConfig::setInteger(SettingsKey::serverQuicPort, 70000);  // not rejected here; the connect step decides
    ServerConfig::setInteger(SettingsKey::adminServerPort, 18080);
    EXPECT_EQ(ServerConfig::quicPort(), 70000);
    EXPECT_EQ(ServerConfig::adminBaseURL(), QStringLiteral("http://127.0.0.1:18080"));
}

TEST_F(Settings, EmptyStoredHostIsUsedAsItIs) {
    ServerConfig::setString(SettingsKey::serverHost, "");
    EXPECT_EQ(ServerConfig::serverHost(), QString());
    EXPECT_EQ(ServerConfig::adminBaseURL(), QStringLiteral("http://:8080"));
}

TEST_F(Settings, ReadsSeeWritesMadeThroughAnotherHandleAtOnce) {
    QSettings other;  // the same store, as another part of the application would open it
    other.setValue(SettingsKey::serverHost, "10.1.2.3");
    other.setValue(SettingsKey::serverQuicPort, 9191);
    other.sync();
    EXPECT_EQ(ServerConfig::serverHost(), QStringLiteral("10.1.2.3"));
    EXPECT_EQ(ServerConfig::quicPort(), 9191);
}

TEST_F(Settings, ValuesOfTheWrongShapeReadAsAbsent) {
    ServerConfig::defaults().setValue(SettingsKey::serverQuicPort, "not a number");
    ServerConfig::defaults().setValue(SettingsKey::serverHost, QStringList{"a", "b"});
    ServerConfig::defaults().setValue(SettingsKey::confirmedMachines, 42);
    EXPECT_EQ(ServerConfig::quicPort(), 9090);
    EXPECT_EQ(ServerConfig::serverHost(), QStringLiteral("127.0.0.1"));
    EXPECT_FALSE(ServerConfig::stringList(SettingsKey::confirmedMachines).has_value());
}

TEST_F(Settings, StringListsSurviveTheStoreIncludingOneElement) {
    ServerConfig::setStringList(SettingsKey::confirmedMachines, {"m1"});
    ServerConfig::setStringList(SettingsKey::confirmedAgentCodes, {"111111", "222222"});
    ServerConfig::defaults().sync();
    EXPECT_EQ(ServerConfig::stringList(SettingsKey::confirmedMachines), QStringList{"m1"});
    EXPECT_EQ(ServerConfig::stringList(SettingsKey::confirmedAgentCodes), (QStringList{"111111", "222222"}));
}
