#include <gtest/gtest.h>

#include "DomainRecords.h"

using namespace ostv;

TEST(HostStatus, RawTextsRoundTripAndNothingElseIsAccepted) {
    for (HostStatus s : {HostStatus::online, HostStatus::offline, HostStatus::connecting})
        EXPECT_EQ(hostStatusFromRaw(rawValue(s)), s);
    EXPECT_EQ(rawValue(HostStatus::online), QStringLiteral("在线"));
    EXPECT_FALSE(hostStatusFromRaw("online").has_value());
    EXPECT_FALSE(hostStatusFromRaw(" 在线").has_value());
    EXPECT_FALSE(hostStatusFromRaw("").has_value());
}

TEST(DirectoryItem, FromFileInfoIsCaseSensitiveAndFresh) {
    FSFileInfo dir{"src", "/p/src", "directory", true};
    FSFileInfo capital{"Src", "/p/Src", "Directory", false};
    auto a = DirectoryItem::fromFileInfo(dir);
    auto b = DirectoryItem::fromFileInfo(dir);
    EXPECT_TRUE(a.isDirectory);
    EXPECT_FALSE(DirectoryItem::fromFileInfo(capital).isDirectory);
    EXPECT_NE(a.id, b.id);  // the same path listed twice gives two items
    EXPECT_FALSE(a.children.has_value());
    EXPECT_FALSE(a.isExpanded);
    EXPECT_EQ(a.path, QStringLiteral("/p/src"));
}

TEST(DirectoryItem, JsonRoundTripKeepsNotLoadedApartFromLoadedAndEmpty) {
    DirectoryItem root = DirectoryItem::fromFileInfo({"r", "/r", "directory", false});
    DirectoryItem empty = DirectoryItem::fromFileInfo({"e", "/r/e", "directory", false});
    empty.children = QList<DirectoryItem>{};
    DirectoryItem unloaded = DirectoryItem::fromFileInfo({"u", "/r/u", "directory", false});
    root.children = QList<DirectoryItem>{empty, unloaded};
    root.isExpanded = true;
    auto back = DirectoryItem::fromJson(root.toJson());
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(*back, root);
    EXPECT_TRUE((*back->children)[0].children.has_value());
    EXPECT_FALSE((*back->children)[1].children.has_value());
}

TEST(DirectoryItem, MalformedJsonGivesNone) {
    EXPECT_FALSE(DirectoryItem::fromJson("{").has_value());
    EXPECT_FALSE(DirectoryItem::fromJson(R"({"id":"x","name":"a","path":"/a","isDirectory":true,"isExpanded":false})").has_value());
    EXPECT_FALSE(DirectoryItem::fromJson(
        R"({"id":"6F9619FF-8B86-D011-B42D-00C04FC964FF","name":"a","path":"/a","isDirectory":"yes","isExpanded":false})").has_value());
    EXPECT_TRUE(DirectoryItem::fromJson(
        R"({"id":"6F9619FF-8B86-D011-B42D-00C04FC964FF","name":"a","path":"/a","isDirectory":true,"isExpanded":false})").has_value());
}
