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
    // A row's labels as the user reads them: name, status, users, CPU, memory.
    QStringList cellTexts(int row) const {
        const HostCell* c = view.cellAt(row);
        return {c->nameLabel->text(), c->statusLabel->text(), c->userCountLabel->text(), c->cpuLabel->text(),
                c->memLabel->text()};
    }
    QStringList selectedIds() const {
        QStringList out;
        for (const Host& h : view.hosts())
            if (h.isSelected) out << h.id;
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
    EXPECT_EQ(cellTexts(0), QStringList({"host-a", "在线", "2 人", "CPU 12%", ""}));
    EXPECT_EQ(cellTexts(1), QStringList({"host-b", "离线", "0 人", "", ""}));
    EXPECT_EQ(first->statusDot->color().rgb(), QColor("#4ec9b0").rgb());
    EXPECT_FALSE(first->osIconView->pixmap().isNull());
    // Inside the list the labels draw with their foreground role, which must carry the theme's colours.
    auto drawn = [](QLabel* l) { return l->palette().color(l->foregroundRole()); };
    EXPECT_EQ(drawn(first->nameLabel), Theme::label());
    EXPECT_EQ(drawn(first->statusLabel), Theme::secondaryLabel());
    EXPECT_EQ(drawn(first->cpuLabel), Theme::secondaryLabel());

    EXPECT_EQ(view.cellAt(1)->statusDot->color().rgb(), QColor("#888888").rgb());
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

    HostCell* with = view.cellAt(1);
    EXPECT_EQ(with->nameLabel->text(), "build<box>#2");
    EXPECT_TRUE(with->osLabel->isVisibleTo(with));
    EXPECT_EQ(with->osLabel->text(), "Linux");
    // The tip is the server's text shown as it is, never read as markup.
    EXPECT_TRUE(with->toolTip().contains("主机名：build&lt;box&gt;#2")) << with->toolTip().toStdString();

    // The name can go away again (an older server): the row is as it was without one.
    named.hostname.clear();
    view.updateHost(named);
    EXPECT_EQ(with->nameLabel->text(), "Linux");
    EXPECT_FALSE(with->osLabel->isVisibleTo(with));
}

TEST_F(HostListFixture, AClickedHostStaysSelectedAcrossPollsAndADoubleClickSelectsThenReports) {
    poll({makeHost("a", "m1", ""), makeHost("b", "m2", "")});
    view.tableView->setCurrentRow(1);  // as a click does
    EXPECT_EQ(workspace.selected, QStringList({"b"}));

    // The next poll brings a host that sorts first (and claims to be selected: a fresh record never is):
    // "b" moves down a row and stays selected, and the programmatic move is not reported as a new choice.
    Host c = makeHost("c", "m0", "");
    c.isSelected = true;
    poll({makeHost("b", "m2", ""), makeHost("a", "m1", ""), c});
    ASSERT_EQ(shownIds(), QStringList({"c", "a", "b"}));
    EXPECT_EQ(selectedIds(), QStringList({"b"}));
    EXPECT_EQ(view.tableView->currentRow(), 2);
    EXPECT_EQ(workspace.selected, QStringList({"b"}));

    // A real double click (a click, the double-click press, its release) selects the row, then reports it.
    const QPoint centre = view.tableView->visualItemRect(view.tableView->item(1)).center();
    QTest::mouseClick(view.tableView->viewport(), Qt::LeftButton, {}, centre);
    QTest::mouseDClick(view.tableView->viewport(), Qt::LeftButton, {}, centre);
    QTest::mouseRelease(view.tableView->viewport(), Qt::LeftButton, {}, centre);
    EXPECT_EQ(workspace.doubleClicked, QStringList({"a"}));
    EXPECT_EQ(selectedIds(), QStringList({"a"}));

    // The selected host goes away: nothing is selected and nothing more is reported.
    poll({makeHost("c", "m0", "")});
    EXPECT_TRUE(selectedIds().isEmpty());
    EXPECT_EQ(workspace.selected, QStringList({"b", "a"}));
}

TEST_F(HostListFixture, ResourceUpdatesTouchOnlyTheirCell) {
    poll({makeHost("a", "m1", "c1"), makeHost("b", "m2", "c2")});
    HostCell* cellA = view.cellAt(0);
    view.updateHostResources("b", "77%", "5%");
    EXPECT_EQ(cellTexts(1), QStringList({"host-b", "在线", "1 人", "CPU 77%", "MEM 5%"}));
    EXPECT_EQ(cellTexts(0), QStringList({"host-a", "在线", "1 人", "CPU 12%", "MEM 40%"}));

    Host a = view.hosts()[0];
    a.name = "renamed";
    a.status = HostStatus::connecting;
    view.updateHost(a);
    EXPECT_EQ(view.cellAt(0), cellA);  // same cell, configured in place
    EXPECT_EQ(cellTexts(0), QStringList({"renamed", "连接中", "1 人", "", ""}));

    // Unknown hosts and rows change nothing.
    EXPECT_FALSE(view.model()->updateHost(makeHost("nobody", "m9", "")));
    EXPECT_FALSE(view.model()->updateHostResources("nobody", "1%", "1%"));
    EXPECT_EQ(shownIds(), QStringList({"a", "b"}));
    EXPECT_EQ(view.findHost("c2")->id, "b");
    EXPECT_FALSE(view.findHost("c9"));
    view.selectHost(1);
    view.selectHost(5);
    EXPECT_TRUE(selectedIds().isEmpty());
}

TEST_F(HostListFixture, UnauthorizedGoesBackToLoginAndAddAsksTheWorkspaceWhileThereIsOne) {
    view.fetchAgents();
    fetch.answer(AgentFetchResult::failure(AdminAPIError::unauthorized()));
    ASSERT_TRUE(test::waitUntil([&] { return workspace.loginRequests == 1; }));
    QTest::mouseClick(view.addButton, Qt::LeftButton);
    EXPECT_EQ(workspace.addRequests, 1);

    // A workspace that is gone is not called: held strongly, both would touch freed memory.
    auto* gone = new FakeWorkspace;
    view.setDelegate(gone);
    delete gone;
    view.fetchAgents();
    fetch.answer(AgentFetchResult::failure(AdminAPIError::unauthorized()));
    EXPECT_TRUE(test::waitUntil([&] { return !view.model()->isFetching(); }));
    view.onAddClick();
}
