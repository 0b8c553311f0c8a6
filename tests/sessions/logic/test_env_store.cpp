#include <gtest/gtest.h>

#include "EnvStore.h"
#include "ServerConfig.h"
#include "TestSupport.h"

using namespace ostv;

class EnvStoreTest : public ::testing::Test {
protected:
    void SetUp() override { ServerConfig::defaults().clear(); }
};

TEST_F(EnvStoreTest, Djb2MatchesTheDefinition) {
    EXPECT_EQ(EnvStore::djb2Hex(""), "1505");                 // 5381
    EXPECT_EQ(EnvStore::djb2Hex("a"), "2B606");               // 5381 * 33 + 97
    EXPECT_EQ(EnvStore::djb2Hex("/home/user/project/with/a/long/path/that/wraps/around"),
              EnvStore::djb2Hex("/home/user/project/with/a/long/path/that/wraps/around"));
    // Bytes, not characters: non-ASCII text is hashed over its UTF-8 form (é = C3 A9).
    EXPECT_EQ(EnvStore::djb2Hex(QString("é").toUtf8()),
              QString::number((uint64_t(5381) * 33 + 0xC3) * 33 + 0xA9, 16).toUpper());
    // Wrapping: a long text must not saturate or throw, and its digits are upper-case hex.
    const QString h = EnvStore::djb2Hex(QByteArray(10000, 'z'));
    EXPECT_LE(h.size(), 16);
    EXPECT_EQ(h, h.toUpper());
}

TEST_F(EnvStoreTest, KeysNeedBothPartsAndHashTheTextAsGiven) {
    EXPECT_EQ(EnvStore::storageKey("m1", "/srv"), "envVars_m1_" + EnvStore::djb2Hex("/srv"));
    EXPECT_FALSE(EnvStore::storageKey("", "/srv").has_value());
    EXPECT_FALSE(EnvStore::storageKey("m1", "").has_value());
    EXPECT_NE(EnvStore::storageKey("m1", "/srv"), EnvStore::storageKey("m1", "/srv/"));
    EXPECT_EQ(EnvStore::storageKey("m1", QString("/srv  ").trimmed()), EnvStore::storageKey("m1", "/srv"));
}

TEST_F(EnvStoreTest, SaveLoadKeepsOrderAndDropsBlankKeys) {
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
}

TEST_F(EnvStoreTest, StoredValuesOfTheWrongShapeLoadAsNoRows) {
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
