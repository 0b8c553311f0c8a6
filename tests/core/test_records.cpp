#include <gtest/gtest.h>

#include "DomainRecords.h"

using namespace ostv;

TEST(HostStatus, RawTextsRoundTripAndNothingElseIsAccepted) {
    const std::pair<HostStatus, QString> texts[] = {
        {HostStatus::online, "在线"}, {HostStatus::offline, "离线"}, {HostStatus::connecting, "连接中"}};
    for (const auto& [status, text] : texts) {
        EXPECT_EQ(rawValue(status), text);
        EXPECT_EQ(hostStatusFromRaw(text), status);
    }
    for (const char* other : {"online", " 在线", ""}) EXPECT_FALSE(hostStatusFromRaw(other).has_value()) << other;
}

TEST(DirectoryItem, FromFileInfoIsCaseSensitiveAndFreshAndJsonKeepsNotLoadedApart) {
    FSFileInfo dir{"src", "/p/src", "directory", true};
    auto a = DirectoryItem::fromFileInfo(dir);
    EXPECT_TRUE(a.isDirectory);
    EXPECT_FALSE(DirectoryItem::fromFileInfo({"Src", "/p/Src", "Directory", false}).isDirectory);
    EXPECT_NE(a.id, DirectoryItem::fromFileInfo(dir).id);  // the same path listed twice gives two items
    EXPECT_FALSE(a.children.has_value());
    EXPECT_FALSE(a.isExpanded);
    EXPECT_EQ(a.path, QStringLiteral("/p/src"));

    // The JSON form keeps "not loaded" apart from "loaded and empty".
    DirectoryItem root = DirectoryItem::fromFileInfo({"r", "/r", "directory", false});
    DirectoryItem empty = DirectoryItem::fromFileInfo({"e", "/r/e", "directory", false});
    empty.children = QList<DirectoryItem>{};
    root.children = QList<DirectoryItem>{empty, DirectoryItem::fromFileInfo({"u", "/r/u", "directory", false})};
    root.isExpanded = true;
    auto back = DirectoryItem::fromJson(root.toJson());
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(*back, root);
    EXPECT_TRUE((*back->children)[0].children.has_value());
    EXPECT_FALSE((*back->children)[1].children.has_value());
    EXPECT_FALSE(DirectoryItem::fromJson("{").has_value());
    const std::string id = "6F9619FF-8B86-D011-B42D-00C04FC964FF";
    auto item = [](const std::string& uuid, const char* isDir) {
        return R"({"id":")" + uuid + R"(","name":"a","path":"/a","isDirectory":)" + isDir + R"(,"isExpanded":false})";
    };
    EXPECT_TRUE(DirectoryItem::fromJson(item(id, "true")).has_value());
    EXPECT_FALSE(DirectoryItem::fromJson(item("x", "true")).has_value());
    EXPECT_FALSE(DirectoryItem::fromJson(item(id, "\"yes\"")).has_value());
}
