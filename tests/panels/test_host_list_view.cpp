#include <gtest/gtest.h>

#include <QTest>

#include "HostListView.h"
#include "PanelFakes.h"
#include "TestSupport.h"
#include "Theme.h"

using namespace ostv;
using ostv::test::makeHost;
using ostv::test::ManualFetch;

namespace {

class FakeWorkspace : public QObject, public HostListViewDelegate {
public:
    QStringList selected, doubleClicked;
    int addRequests = 0, loginRequests = 0;
    void hostListViewDidSelectHost(HostListView*, const Host& h) override { selected << h.id; }
    void hostListViewDidDoubleClickHost(HostListView*, const Host& h) override { doubleClicked << h.id; }
    void hostListViewDidRequestAddHost(HostListView*) override { ++addRequests; }
    void hostListViewNeedsLogin(HostListView*) override { ++loginRequests; }
};

struct HostListFixture : ::testing::Test {
    HostListView view;
    ManualFetch fetch;
    FakeWorkspace workspace;

    void SetUp() override {
        view.model()->setFetchFunction(fetch.function());
        view.setDelegate(&workspace);
        view.resize(260, 400);
        view.show();
    }
    void poll(const QList<Host>& hosts) {
        view.fetchAgents();
        fetch.answer(AgentFetchResult::success(hosts));
        ASSERT_TRUE(test::waitUntil([&] { return !view.model()->isFetching(); }));
    }
    QStringList shownIds() const {
        QStringList out;
        for (int i = 0; i < view.tableView->count(); ++i) out << view.cellAt(i)->host().id;
        return out;
    }
};

}  // namespace

TEST_F(HostListFixture, CellsShowTheSortedHosts) {
    Host off = makeHost("b", "m2", "");
    off.status = HostStatus::offline;
    off.userCount = 0;
    Host on = makeHost("a", "m1", "");
    on.userCount = 2;
    on.memLoad.clear();
    poll({off, on});

    ASSERT_EQ(shownIds(), QStringList({"a", "b"}));
    HostCell* first = view.cellAt(0);
    EXPECT_EQ(first->height(), HostCell::rowHeight);
    EXPECT_EQ(first->nameLabel->text(), "host-a");
    EXPECT_EQ(first->statusLabel->text(), "在线");
    EXPECT_EQ(first->userCountLabel->text(), "2 人");
    EXPECT_EQ(first->cpuLabel->text(), "CPU 12%");
    EXPECT_EQ(first->memLabel->text(), "");
    EXPECT_EQ(first->statusDot->color().rgb(), QColor("#4ec9b0").rgb());
    EXPECT_FALSE(first->osIconView->pixmap().isNull());
    // Inside the list the labels draw with their foreground role, which must carry the theme's colours.
    auto drawn = [](QLabel* l) { return l->palette().color(l->foregroundRole()); };
    EXPECT_EQ(drawn(first->nameLabel), Theme::label());
    EXPECT_EQ(drawn(first->statusLabel), Theme::secondaryLabel());
    EXPECT_EQ(drawn(first->cpuLabel), Theme::secondaryLabel());

    HostCell* second = view.cellAt(1);
    EXPECT_EQ(second->statusLabel->text(), "离线");
    EXPECT_EQ(second->cpuLabel->text(), "");
    EXPECT_EQ(second->memLabel->text(), "");
    EXPECT_EQ(second->statusDot->color().rgb(), QColor("#888888").rgb());
}

TEST_F(HostListFixture, AHostNameTitlesTheRowAndTheSystemNameStays) {
    Host named = makeHost("b", "m2", "653525");
    named.name = "Linux";
    named.hostname = "build<box>#2";
    Host plain = makeHost("a", "m1", "560573");
    poll({named, plain});
    ASSERT_EQ(shownIds(), QStringList({"a", "b"}));

    HostCell* without = view.cellAt(0);
    EXPECT_EQ(without->nameLabel->text(), "host-a");
    EXPECT_FALSE(without->osLabel->isVisibleTo(without));
    EXPECT_EQ(without->statusLabel->text(), "在线");
    EXPECT_FALSE(without->toolTip().contains("主机名"));
    EXPECT_TRUE(without->toolTip().contains("配对码：560573"));

    HostCell* with = view.cellAt(1);
    EXPECT_EQ(with->nameLabel->text(), "build<box>#2");
    EXPECT_TRUE(with->osLabel->isVisibleTo(with));
    EXPECT_EQ(with->osLabel->text(), "Linux");
    EXPECT_EQ(with->statusLabel->text(), "在线");
    // The tip is the server's text shown as it is, never read as markup.
    for (const char* line : {"主机名：build&lt;box&gt;#2", "系统：Linux", "机器 ID：m2", "配对码：653525"})
        EXPECT_TRUE(with->toolTip().contains(QString::fromUtf8(line))) << with->toolTip().toStdString();

    // The name can go away again (an older server): the row is as it was without one.
    named.hostname.clear();
    view.updateHost(named);
    EXPECT_EQ(with->nameLabel->text(), "Linux");
    EXPECT_FALSE(with->osLabel->isVisibleTo(with));
}

TEST_F(HostListFixture, AClickedHostStaysSelectedAcrossPolls) {
    poll({makeHost("a", "m1", ""), makeHost("b", "m2", "")});
    view.tableView->setCurrentRow(1);  // as a click does
    EXPECT_EQ(workspace.selected, QStringList({"b"}));
    EXPECT_TRUE(view.cellAt(1)->host().isSelected);

    // The next poll brings a host that sorts first: "b" moves down a row and stays selected, and the
    // programmatic move is not reported as a new choice.
    poll({makeHost("b", "m2", ""), makeHost("a", "m1", ""), makeHost("c", "m0", "")});
    ASSERT_EQ(shownIds(), QStringList({"c", "a", "b"}));
    EXPECT_TRUE(view.cellAt(2)->host().isSelected);
    EXPECT_FALSE(view.cellAt(0)->host().isSelected);
    EXPECT_EQ(view.tableView->currentRow(), 2);
    EXPECT_EQ(workspace.selected, QStringList({"b"}));

    // The selected host goes away: nothing is selected and nothing is reported.
    poll({makeHost("a", "m1", "")});
    EXPECT_FALSE(view.cellAt(0)->host().isSelected);
    EXPECT_EQ(workspace.selected, QStringList({"b"}));
}

TEST_F(HostListFixture, DoubleClickSelectsThenReports) {
    poll({makeHost("a", "m1", ""), makeHost("b", "m2", "")});
    QListWidgetItem* item = view.tableView->item(1);
    const QPoint centre = view.tableView->visualItemRect(item).center();
    // What a real double click delivers: a click, then the double-click press, then its release.
    QTest::mouseClick(view.tableView->viewport(), Qt::LeftButton, {}, centre);
    QTest::mouseDClick(view.tableView->viewport(), Qt::LeftButton, {}, centre);
    QTest::mouseRelease(view.tableView->viewport(), Qt::LeftButton, {}, centre);
    EXPECT_EQ(workspace.doubleClicked, QStringList({"b"}));
    EXPECT_TRUE(view.hosts()[1].isSelected);
    EXPECT_FALSE(view.hosts()[0].isSelected);
}

TEST_F(HostListFixture, ResourceUpdatesTouchOnlyTheirCell) {
    poll({makeHost("a", "m1", ""), makeHost("b", "m2", "")});
    HostCell* cellA = view.cellAt(0);
    view.updateHostResources("b", "77%", "5%");
    EXPECT_EQ(view.cellAt(1)->cpuLabel->text(), "CPU 77%");
    EXPECT_EQ(view.cellAt(1)->memLabel->text(), "MEM 5%");
    EXPECT_EQ(view.cellAt(0)->cpuLabel->text(), "CPU 12%");

    Host a = view.hosts()[0];
    a.name = "renamed";
    a.status = HostStatus::connecting;
    view.updateHost(a);
    EXPECT_EQ(view.cellAt(0), cellA);  // same cell, configured in place
    EXPECT_EQ(cellA->nameLabel->text(), "renamed");
    EXPECT_EQ(cellA->statusLabel->text(), "连接中");
    EXPECT_EQ(cellA->cpuLabel->text(), "");
}

TEST_F(HostListFixture, UnauthorizedGoesBackToLoginAndAddAsksTheWorkspace) {
    view.fetchAgents();
    fetch.answer(AgentFetchResult::failure(AdminAPIError::unauthorized()));
    ASSERT_TRUE(test::waitUntil([&] { return workspace.loginRequests == 1; }));

    QTest::mouseClick(view.addButton, Qt::LeftButton);
    EXPECT_EQ(view.addButton->text(), "+ 添加受控端");
    EXPECT_EQ(workspace.addRequests, 1);
}

TEST(HostListView, AWorkspaceThatIsGoneIsNotCalled) {
    HostListView view;
    ManualFetch fetch;
    view.model()->setFetchFunction(fetch.function());
    auto* workspace = new FakeWorkspace;
    view.setDelegate(workspace);
    delete workspace;
    view.fetchAgents();
    fetch.answer(AgentFetchResult::failure(AdminAPIError::unauthorized()));
    EXPECT_TRUE(test::waitUntil([&] { return !view.model()->isFetching(); }));
    view.onAddClick();  // would touch freed memory if the delegate were held strongly
}
