#include <gtest/gtest.h>

#include "EnvStore.h"
#include "ServerConfig.h"
#include "TestSupport.h"

using namespace ostv;

class EnvStoreTest : public ::testing::Test {
protected:
    void SetUp() override { ServerConfig::defaults().clear(); }
};

TEST_F(EnvStoreTest, KeysHashTheDirectoryBytesAsGivenAndNeedBothParts) {
    // djb2 from 5381 over the UTF-8 bytes (é = C3 A9), upper-case hex, wrapping instead of saturating.
    const struct { QByteArray text; uint64_t hash; } table[] = {
        {"", 5381}, {"a", 5381 * 33 + 97}, {QString("é").toUtf8(), (uint64_t(5381) * 33 + 0xC3) * 33 + 0xA9},
        {"/srv", (((uint64_t(5381) * 33 + '/') * 33 + 's') * 33 + 'r') * 33 + 'v'}};
    for (const auto& [text, hash] : table)
        EXPECT_EQ(EnvStore::djb2Hex(text), QString::number(hash, 16).toUpper()) << text.toStdString();
    const QString wrapped = EnvStore::djb2Hex(QByteArray(10000, 'z'));
    EXPECT_TRUE(wrapped.size() <= 16 && wrapped == wrapped.toUpper()) << wrapped.toStdString();
    EXPECT_EQ(EnvStore::storageKey("m1", "/srv"), "envVars_m1_" + QString::number(table[3].hash, 16).toUpper());
    EXPECT_FALSE(EnvStore::storageKey("", "/srv").has_value());
    EXPECT_FALSE(EnvStore::storageKey("m1", "").has_value());
    EXPECT_NE(EnvStore::storageKey("m1", "/srv"), EnvStore::storageKey("m1", "/srv/"));
}

TEST_F(EnvStoreTest, SaveLoadKeepsOrderAndDropsBlankKeysAndWrongShapes) {
    test::StdoutCapture log;
    const QString key = *EnvStore::storageKey("m1", "/srv");
    EnvStore::save(key, {{"B", "2"}, {"   ", "ignored"}, {"A", "has space"}, {"", "x"}});
    auto rows = EnvStore::load(key);
    EXPECT_EQ(rows, (QList<EnvRow>{{"B", "2"}, {"A", "has space"}}));
    EnvStore::save(key, {});
    EXPECT_TRUE(EnvStore::load(key).isEmpty());
    const std::string text = log.text();
    EXPECT_NE(text.find("[ENV] Saved 2 vars to " + key.toStdString()), std::string::npos);
    EXPECT_NE(text.find("[ENV] Loaded 2 vars from " + key.toStdString()), std::string::npos);
    EXPECT_NE(text.find("[ENV] Saved 0 vars to "), std::string::npos);
    EnvStore::remove(key);
    EXPECT_FALSE(ServerConfig::defaults().contains(key));
    EXPECT_NE(log.text().find("[ENV] Deleted saved vars: " + key.toStdString()), std::string::npos);
    // Stored values of the wrong shape load as no rows.
    ServerConfig::defaults().setValue("envVars_m_1", "a string");
    ServerConfig::defaults().setValue("envVars_m_2",
                                      QVariantList{QVariantMap{{"key", "K"}}, 5, QVariantMap{{"key", "A"}, {"value", "1"}},
                                                   QVariantMap{{"key", 3}, {"value", "x"}}});
    EXPECT_TRUE(EnvStore::load("envVars_m_1").isEmpty());
    EXPECT_EQ(EnvStore::load("envVars_m_2"), (QList<EnvRow>{{"A", "1"}}));
    EXPECT_TRUE(EnvStore::load("envVars_missing").isEmpty());
}

TEST_F(EnvStoreTest, ExportLinesTrimAndQuoteWithoutEscaping) {
    EXPECT_EQ(EnvStore::gatherEnvCommands({{" A ", " one two "}, {"  ", "skip"}, {"B", "$HOME\\\"x"}}),
              QString("export A=\"one two\"\nexport B=\"$HOME\\\"x\""));
    EXPECT_FALSE(EnvStore::gatherEnvCommands({}).has_value());
    EXPECT_FALSE(EnvStore::gatherEnvCommands({{" ", "v"}}).has_value());
}
