#include <gtest/gtest.h>

#include <QApplication>
#include <QMenu>
#include <QMessageBox>
#include <QTimer>
#include <QTest>

#include "PanelFakes.h"
#include "ResourcePanelView.h"
#include "TestSupport.h"

using namespace ostv;
using ostv::test::FakeLink;
using ostv::test::Launch;
using ostv::test::makeItem;

namespace {

User session(int ptyId, const QString& name, bool isSelf = true) {
    return User{QStringLiteral("pty-%1").arg(ptyId), name, name.left(1).toUpper(), isSelf};
}

class FakeWorkspace : public test::LaunchingWorkspace<ResourcePanelViewDelegate> {
public:
    int addClicks = 0;
    QStringList clicked, edited, deleted, closed, kicked;

    void resourcePanelViewDidClickAddSession(ResourcePanelView*) override { ++addClicks; }
    void resourcePanelViewDidClickSession(ResourcePanelView*, const User& u) override { clicked << u.id; }
    void resourcePanelViewDidRequestEditSession(ResourcePanelView*, const User& u) override { edited << u.id; }
    void resourcePanelViewDidRequestDeleteSession(ResourcePanelView*, const User& u) override { deleted << u.id; }
    void resourcePanelViewDidRequestCloseSession(ResourcePanelView*, const User& u) override { closed << u.id; }
    void resourcePanelViewDidClickKickSession(ResourcePanelView*, const User& u) override { kicked << u.id; }
};

struct ResourcePanelFixture : ::testing::Test {
    ResourcePanelView panel;
    FakeLink link;
    FakeWorkspace workspace;

    void SetUp() override {
        panel.setDelegate(&workspace);
        panel.setLink(&link);
        panel.resize(280, 600);
        panel.show();
        panel.setDirectories({makeItem("/home/u/notes.txt", false), makeItem("/home/u/src"),
                              makeItem("/home/u/.bashrc", false), makeItem("/home/u/docs")});
    }
    QModelIndex row(const QString& path) const { return panel.treeModel()->indexForPath(path); }
    // Presses `button` on the next warning once it is up, and keeps its texts.
    void answerWarning(const QString& button, QString* texts) {
        auto* poll = new QTimer(&panel);
        QObject::connect(poll, &QTimer::timeout, [poll, button, texts] {
            auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
            if (!box) return;
            *texts = box->text() + "\n" + box->informativeText();
            poll->stop();
            poll->deleteLater();
            for (QAbstractButton* b : box->buttons())
                if (b->text() == button) b->click();
        });
        poll->start(20);
    }
};

QStringList menuTexts(const QMenu& menu) {  // a separator reads as ""
    QStringList out;
    for (QAction* a : menu.actions()) out << (a->isSeparator() ? QString() : a->text());
    return out;
}

}  // namespace

// The tree: a directory is listed once, only with a link and a workspace; its menu starts the tools there.
TEST_F(ResourcePanelFixture, TreeListsADirectoryOnceWithALinkAndAWorkspaceAndStartsToolsThereWhileConnected) {
    ASSERT_EQ(panel.treeModel()->rowCount(), 2);
    const QModelIndex src = row("/home/u/src");
    // Without a link nothing is sent, and a skipped request does not count as asked.
    link.connected = false;
    panel.outlineView->expand(src);
    EXPECT_TRUE(link.sent.empty());
    panel.outlineView->collapse(src);
    link.connected = true;

    // A double click toggles; expanding again before the answer arrives does not ask twice.
    panel.onOutlineDoubleClick(src);
    EXPECT_TRUE(panel.outlineView->isExpanded(src));
    EXPECT_EQ(link.listedPaths(), std::vector<std::string>({"/home/u/src"}));
    panel.onOutlineDoubleClick(src);
    EXPECT_FALSE(panel.outlineView->isExpanded(src));
    panel.outlineView->expand(src);
    EXPECT_EQ(link.listedPaths().size(), 1u);

    // The answer fills the node, which stays open; files do not appear.
    panel.setChildren({makeItem("/home/u/src/a"), makeItem("/home/u/src/main.cpp", false), makeItem("/home/u/src/b")},
                      "/home/u/src");
    EXPECT_TRUE(panel.outlineView->isExpanded(row("/home/u/src")));
    EXPECT_EQ(panel.treeModel()->rowCount(row("/home/u/src")), 2);
    EXPECT_TRUE(panel.outlineView->visualRect(row("/home/u/src/b")).isValid());

    // A directory that came back empty is never asked for again.
    panel.outlineView->expand(row("/home/u/docs"));
    panel.setChildren({}, "/home/u/docs");
    panel.outlineView->collapse(row("/home/u/docs"));
    panel.outlineView->expand(row("/home/u/docs"));
    EXPECT_EQ(link.listedPaths(), std::vector<std::string>({"/home/u/src", "/home/u/docs"}));

    // The menu of a row holds the two tools in order and starts the chosen one there.
    std::unique_ptr<QMenu> menu(panel.makeTreeMenu(row("/home/u/src"), &panel));
    ASSERT_TRUE(menu);
    ASSERT_EQ(menuTexts(*menu), QStringList({"🚀 在此目录启动 Kimi", "🤖 在此目录启动 Claude"}));
    menu->actions()[0]->trigger();
    menu->actions()[1]->trigger();
    EXPECT_EQ(workspace.launches, (std::vector<Launch>{{"Kimi", QString("kimi"), std::nullopt, "/home/u/src"},
                                                       {"Claude", QString("claude"), std::nullopt, "/home/u/src"}}));

    // Right-click below the last row: no menu. Nothing starts without a row or while disconnected.
    EXPECT_EQ(panel.makeTreeMenu(QModelIndex(), &panel), nullptr);
    panel.launchClaude(QModelIndex());
    workspace.connected = false;
    panel.launchKimi(row("/home/u/docs"));
    EXPECT_EQ(workspace.launches.size(), 2u);

    // Without a workspace nothing is asked either.
    panel.setDelegate(nullptr);
    panel.setDirectories({makeItem("/home/u/other")});
    panel.outlineView->expand(row("/home/u/other"));
    EXPECT_EQ(link.listedPaths().size(), 2u);
}

TEST_F(ResourcePanelFixture, SessionRowsHeaderHighlightClicksAndMenusAndDeleteAsksFirst) {
    panel.setUsers({session(1, "api"), session(2, "web"), session(13, "ops"), session(13, "ops (bob)", false)}, 8);
    EXPECT_EQ(panel.usersHeaderLabel->text(), "本机会话 (4/8)");
    ASSERT_EQ(panel.userCells().size(), 4);
    // The button closes our own session and takes another client's over, and says so.
    EXPECT_EQ(panel.userCells()[2]->kickButton->toolTip(), "关闭会话");
    EXPECT_EQ(panel.userCells()[3]->kickButton->toolTip(), "接管会话");

    const auto active = [&] {
        QList<bool> out;
        for (UserCell* c : panel.userCells()) out << c->isActiveSession();
        return out;
    };
    panel.highlightSession(13);
    // 13 is not mistaken for 1, and another client's 13 is not ours.
    EXPECT_EQ(active(), QList<bool>({false, false, true, false}));
    EXPECT_EQ(panel.activePtyId(), 13);

    // The highlight survives a rebuild of the rows.
    panel.addUser(session(4, "db"));
    EXPECT_EQ(panel.usersHeaderLabel->text(), "本机会话 (5/8)");
    EXPECT_EQ(active(), QList<bool>({false, false, true, false, false}));

    QTest::mouseClick(panel.addSessionButton, Qt::LeftButton);
    EXPECT_EQ(workspace.addClicks, 1);

    // A row's click, its button and its menu reach the workspace; deleting asks first.
    UserCell* web = panel.userCells()[1];
    QTest::mouseClick(web, Qt::LeftButton);
    EXPECT_EQ(workspace.clicked, QStringList({"pty-2"}));
    web->kickButton->click();
    EXPECT_EQ(workspace.kicked, QStringList({"pty-2"}));

    std::unique_ptr<QMenu> menu(web->makeContextMenu(&panel));
    ASSERT_EQ(menuTexts(*menu), QStringList({"⚙ 编辑环境变量…", "", "✕ 关闭会话", "🗑 删除会话（含环境变量）"}));
    menu->actions()[0]->trigger();
    menu->actions()[2]->trigger();
    // The rows are rebuilt before the queued choices run: they still arrive.
    panel.setUsers({session(1, "api"), session(2, "web"), session(2, "web (bob)", false)}, 8);
    ASSERT_TRUE(test::waitUntil([&] { return !workspace.closed.isEmpty(); }));
    EXPECT_EQ(workspace.edited, QStringList({"pty-2"}));
    EXPECT_EQ(workspace.closed, QStringList({"pty-2"}));

    // Another client's row offers no close or delete, only what applies: its variables and a takeover.
    std::unique_ptr<QMenu> other(panel.userCells()[2]->makeContextMenu(&panel));
    ASSERT_EQ(menuTexts(*other), QStringList({"⚙ 编辑环境变量…", "", "⇄ 接管会话"}));
    other->actions().last()->trigger();
    ASSERT_TRUE(test::waitUntil([&] { return workspace.kicked.size() == 2; }));

    // Deleting asks first, with the real warning: "取消" keeps the session, "删除" lets it go.
    QString warning;
    answerWarning("取消", &warning);
    panel.userCells()[0]->confirmAndDelete();
    EXPECT_EQ(warning, "确认删除会话？\n将关闭终端并清除保存的环境变量配置，此操作不可撤销。");
    EXPECT_TRUE(workspace.deleted.isEmpty());
    answerWarning("删除", &warning);
    std::unique_ptr<QMenu> first(panel.userCells()[0]->makeContextMenu(&panel));
    first->actions().last()->trigger();
    EXPECT_TRUE(test::waitUntil([&] { return !workspace.deleted.isEmpty(); }));
    EXPECT_EQ(workspace.deleted, QStringList({"pty-1"}));
}
