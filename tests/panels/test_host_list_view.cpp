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
    void pollResult(const AgentFetchResult& result) {
        view.fetchAgents();
        fetch.answer(result);
        ASSERT_TRUE(test::waitUntil([&] { return !view.model()->isFetching(); }));
    }
    void poll(const QList<Host>& hosts) { pollResult(AgentFetchResult::success(hosts)); }
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

// The rows as drawn: offline hosts show no load, a host name titles its row while the system name moves
// to a caption, and updates reach only their own row.
TEST_F(HostListFixture, CellsShowTheSortedHostsAHostNameTitlesTheRowAndUpdatesTouchOnlyTheirCell) {
    Host off = makeHost("b", "m2", "c2");
    off.status = HostStatus::offline;
    off.userCount = 0;
    off.name = "Linux";
    off.hostname = "build<box>#2";
    Host on = makeHost("a", "m1", "");
    on.userCount = 2;
    on.memLoad.clear();
    poll({off, on});

    ASSERT_EQ(shownIds(), QStringList({"a", "b"}));
    HostCell* first = view.cellAt(0);
    HostCell* named = view.cellAt(1);
    EXPECT_EQ(cellTexts(0), QStringList({"host-a", "在线", "2 人", "CPU 12%", ""}));
    EXPECT_EQ(cellTexts(1), QStringList({"build<box>#2", "离线", "0 人", "", ""}));
    EXPECT_EQ(first->statusDot->color().rgb(), QColor("#4ec9b0").rgb());
    EXPECT_EQ(named->statusDot->color().rgb(), QColor("#888888").rgb());
    EXPECT_FALSE(first->osIconView->pixmap().isNull());
    // Inside the list the labels draw with their foreground role, which must carry the theme's colours.
    const auto drawn = [](QLabel* l) { return l->palette().color(l->foregroundRole()); };
    EXPECT_EQ((QList<QColor>{drawn(first->nameLabel), drawn(first->statusLabel), drawn(first->cpuLabel)}),
              (QList<QColor>{Theme::label(), Theme::secondaryLabel(), Theme::secondaryLabel()}));

    EXPECT_FALSE(first->osLabel->isVisibleTo(first));
    EXPECT_TRUE(named->osLabel->isVisibleTo(named));
    EXPECT_EQ(named->osLabel->text(), "Linux");
    // The tip is the server's text shown as it is, never read as markup.
    EXPECT_TRUE(named->toolTip().contains("主机名：build&lt;box&gt;#2")) << named->toolTip().toStdString();
    // The name can go away again (an older server): the row is as it was without one.
    off.hostname.clear();
    view.updateHost(off);
    EXPECT_EQ(named->nameLabel->text(), "Linux");
    EXPECT_FALSE(named->osLabel->isVisibleTo(named));

    // Load figures and a changed record touch only their own cell, which is configured in place.
    view.updateHostResources("a", "77%", "5%");
    EXPECT_EQ(cellTexts(0), QStringList({"host-a", "在线", "2 人", "CPU 77%", "MEM 5%"}));
    EXPECT_EQ(cellTexts(1), QStringList({"Linux", "离线", "0 人", "", ""}));
    on = view.hosts()[0];
    on.name = "renamed";
    on.status = HostStatus::connecting;
    view.updateHost(on);
    EXPECT_EQ(view.cellAt(0), first);
    EXPECT_EQ(cellTexts(0), QStringList({"renamed", "连接中", "2 人", "", ""}));
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

// Polls as they come: the clicked host stays selected while rows move, a double click selects then reports,
// a failed poll keeps the rows, and only a rejected session sends the user back to the login screen.
TEST_F(HostListFixture, SelectionSurvivesPollsFailuresKeepTheRowsAndUnauthorizedGoesBackToLogin) {
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
    test::StdoutCapture log;
    poll({makeHost("c", "m0", "")});
    EXPECT_TRUE(selectedIds().isEmpty());
    EXPECT_EQ(workspace.selected, QStringList({"b", "a"}));

    pollResult(AgentFetchResult::failure(AdminAPIError::transport(1, "Connection refused")));
    EXPECT_EQ(shownIds(), QStringList({"c"}));
    EXPECT_EQ(workspace.loginRequests, 0);
    pollResult(AgentFetchResult::failure(AdminAPIError::unauthorized()));
    EXPECT_EQ(workspace.loginRequests, 1);
    EXPECT_EQ(shownIds(), QStringList({"c"}));
    const std::string text = log.text();
    EXPECT_NE(text.find("[Info] fetchAgents: id=c cpu=12% mem=40% users=1\n"), std::string::npos) << text;
    EXPECT_NE(text.find("[Error] Admin API: Connection refused\n"), std::string::npos) << text;
    EXPECT_NE(text.find("[Error] Admin API: Unauthorized (wrong password?)\n"), std::string::npos) << text;
    QTest::mouseClick(view.addButton, Qt::LeftButton);
    EXPECT_EQ(workspace.addRequests, 1);

    // A workspace that is gone is not called: held strongly, both would touch freed memory.
    auto* gone = new FakeWorkspace;
    view.setDelegate(gone);
    delete gone;
    pollResult(AgentFetchResult::failure(AdminAPIError::unauthorized()));
    view.onAddClick();
}
