#include <gtest/gtest.h>

#include <QSignalSpy>
#include <QThread>
#include <thread>

#include "HostListModel.h"
#include "PanelFakes.h"
#include "TestSupport.h"

using namespace ostv;
using ostv::test::makeHost;
using ostv::test::ManualFetch;

namespace {

QStringList ids(const QList<Host>& hosts) {
    QStringList out;
    for (const Host& h : hosts) out << h.id;
    return out;
}

QStringList selectedIds(const QList<Host>& hosts) {
    QStringList out;
    for (const Host& h : hosts)
        if (h.isSelected) out << h.id;
    return out;
}

}  // namespace

TEST(HostRows, SortsByMachineIdElseAgentCodeWhateverTheServerOrder) {
    // "b" and "a" as machine ids; the third host has no machine id and sorts by its agent code "a5".
    const QList<Host> fresh = {makeHost("1", "b", "000001"), makeHost("2", "", "a5"), makeHost("3", "a", "zzz")};
    EXPECT_EQ(ids(HostRows::merge({}, fresh)), QStringList({"3", "2", "1"}));
    QList<Host> reversed(fresh.rbegin(), fresh.rend());
    EXPECT_EQ(ids(HostRows::merge({}, reversed)), QStringList({"3", "2", "1"}));
    // Plain string order: upper case before lower case, "10" before "9".
    EXPECT_EQ(ids(HostRows::merge({}, {makeHost("x", "9", ""), makeHost("y", "10", ""), makeHost("z", "B", "")})),
              QStringList({"y", "x", "z"}));
}

TEST(HostRows, SelectionFollowsTheIdAcrossPolls) {
    QList<Host> before = HostRows::merge({}, {makeHost("a", "m1", ""), makeHost("b", "m2", ""), makeHost("c", "m3", "")});
    before[1].isSelected = true;  // "b"

    // The server now answers in another order, with a new host "d" and without "c"; a fresh record
    // never arrives selected, even if the server said so.
    Host d = makeHost("d", "m0", "");
    d.isSelected = true;
    const QList<Host> after = HostRows::merge(before, {makeHost("b", "m2", ""), d, makeHost("a", "m1", "")});
    EXPECT_EQ(ids(after), QStringList({"d", "a", "b"}));
    EXPECT_EQ(selectedIds(after), QStringList({"b"}));

    // The selected host disappears: its selection goes with it.
    const QList<Host> gone = HostRows::merge(after, {makeHost("a", "m1", "")});
    EXPECT_TRUE(selectedIds(gone).isEmpty());
}

TEST(HostRows, LoadLabelsShowOnlyForOnlineHosts) {
    Host h = makeHost("1", "m", "c", HostStatus::offline);
    EXPECT_EQ(HostRows::loadLabels(h), (HostRows::LoadLabels{"", ""}));
    h.status = HostStatus::connecting;
    EXPECT_EQ(HostRows::loadLabels(h), (HostRows::LoadLabels{"", ""}));
    h.status = HostStatus::online;
    EXPECT_EQ(HostRows::loadLabels(h), (HostRows::LoadLabels{"CPU 12%", "MEM 40%"}));
    // Online without a memory figure, and with the dash the admin client gives for a missing CPU value.
    h.memLoad.clear();
    h.cpuLoad = "-";
    EXPECT_EQ(HostRows::loadLabels(h), (HostRows::LoadLabels{"CPU -", ""}));
}

TEST(HostRows, StatusColoursIconsAndCounts) {
    const auto online = HostRows::colorFromHex(HostRows::statusColorText(HostStatus::online));
    ASSERT_TRUE(online);
    EXPECT_EQ(online->rgb(), QColor(0x4e, 0xc9, 0xb0).rgb());
    EXPECT_EQ(HostRows::colorFromHex(HostRows::statusColorText(HostStatus::offline))->rgb(), QColor(0x88, 0x88, 0x88).rgb());
    EXPECT_EQ(HostRows::colorFromHex(HostRows::statusColorText(HostStatus::connecting))->rgb(),
              QColor(0xff, 0xbd, 0x2e).rgb());
    EXPECT_EQ(HostRows::colorFromHex("ffbd2e")->alphaF(), 1.0);
    EXPECT_FALSE(HostRows::colorFromHex("#zzzzzz"));
    EXPECT_FALSE(HostRows::colorFromHex("#"));
    EXPECT_FALSE(HostRows::colorFromHex(""));

    EXPECT_EQ(HostRows::osIconName("linux"), QString("os_linux"));
    EXPECT_EQ(HostRows::osIconName("darwin"), QString("os_apple"));
    EXPECT_EQ(HostRows::osIconName("windows"), QString("os_windows"));
    EXPECT_FALSE(HostRows::osIconName("Linux"));  // exact matches only
    EXPECT_FALSE(HostRows::osIconName("freebsd"));
    EXPECT_EQ(HostRows::userCountText(3), QString("3 人"));
}

// From the wire to the rows: an agent with a host name is titled by it and keeps its system name as a
// caption; one without is titled by its system name alone. The host name changes neither the order nor
// the identity of a row.
TEST(HostRows, TitlesCaptionsAndToolTipsWithAndWithoutAHostName) {
    const auto hosts = AdminAgents::decodeHosts(R"([
        {"code":"653525","machine_id":"m2","controller_count":0,"os":"linux","hostname":"buildbox#2"},
        {"code":"111111","machine_id":"m3","controller_count":0,"os":"darwin"},
        {"code":"560573","machine_id":"m1","controller_count":1,"os":"linux","hostname":" buildbox#1 ","x":[1]},
        {"code":"222222","controller_count":0,"hostname":null}])");
    ASSERT_TRUE(hosts);
    const QList<Host> rows = HostRows::merge({}, *hosts);
    struct Row {
        const char* id;
        const char* title;
        const char* caption;
        const char* tip;
    };
    const Row expected[] = {
        {"222222", "Unknown", "", "系统：Unknown\n配对码：222222"},
        {"m1", "buildbox#1", "Linux", "主机名：buildbox#1\n系统：Linux\n机器 ID：m1\n配对码：560573"},
        {"m2", "buildbox#2", "Linux", "主机名：buildbox#2\n系统：Linux\n机器 ID：m2\n配对码：653525"},
        {"m3", "macOS", "", "系统：macOS\n机器 ID：m3\n配对码：111111"},
    };
    ASSERT_EQ(rows.size(), std::size(expected));
    for (size_t i = 0; i < std::size(expected); ++i) {
        const Host& h = rows[static_cast<qsizetype>(i)];
        EXPECT_EQ(h.id, expected[i].id) << i;
        EXPECT_EQ(h.title(), QString::fromUtf8(expected[i].title)) << i;
        EXPECT_EQ(HostRows::osCaption(h), QString::fromUtf8(expected[i].caption)) << i;
        EXPECT_EQ(HostRows::toolTip(h), QString::fromUtf8(expected[i].tip)) << i;
    }
    // Without a host name the row is titled exactly as before: by the system name.
    EXPECT_EQ(rows[3].name, "macOS");
    EXPECT_TRUE(rows[3].hostname.isEmpty());

    // A host name that is not a string fails the list like any other ill-typed member.
    EXPECT_FALSE(AdminAgents::decodeHosts(R"([{"code":"1","controller_count":0,"hostname":7}])"));
    EXPECT_FALSE(AdminAgents::decodeHosts(R"([{"code":"1","controller_count":0,"hostname":{"n":"a"}}])"));
    // Shown on one line; blank is none.
    const auto odd = AdminAgents::decodeHosts(R"([{"code":"1","controller_count":0,"hostname":"a\nb\tc"},
                                                  {"code":"2","controller_count":0,"hostname":"  "}])");
    ASSERT_TRUE(odd);
    EXPECT_EQ(odd->at(0).title(), "a b c");
    EXPECT_EQ(odd->at(1).title(), "Unknown");
    EXPECT_EQ(HostRows::osCaption(odd->at(1)), "");
}

TEST(HostListModel, APollWhileOneIsOpenIsSkippedNotQueued) {
    HostListModel model;
    ManualFetch fetch;
    model.setFetchFunction(fetch.function());

    model.fetchAgents();
    model.fetchAgents();
    model.fetchAgents();
    EXPECT_EQ(fetch.calls, 1);
    EXPECT_TRUE(model.isFetching());

    fetch.answer(AgentFetchResult::success({makeHost("1", "m1", "")}));
    // The answer is handled on a later turn of the main loop, never inside the fetch call.
    EXPECT_TRUE(model.isFetching());
    EXPECT_TRUE(model.hosts().isEmpty());
    ASSERT_TRUE(test::waitUntil([&] { return !model.isFetching(); }));
    EXPECT_EQ(model.hosts().size(), 1);

    model.fetchAgents();
    EXPECT_EQ(fetch.calls, 2);  // the gate opens again after the answer, not before
}

TEST(HostListModel, AnswersFromAnotherThreadAreHandledOnTheMainThread) {
    HostListModel model;
    ManualFetch fetch;
    model.setFetchFunction(fetch.function());
    QThread* handledOn = nullptr;
    QObject::connect(&model, &HostListModel::hostsReloaded, [&] { handledOn = QThread::currentThread(); });

    model.fetchAgents();
    std::thread worker([&] { fetch.answer(AgentFetchResult::success({makeHost("1", "m1", "")})); });
    worker.join();
    ASSERT_TRUE(test::waitUntil([&] { return handledOn != nullptr; }));
    EXPECT_EQ(handledOn, QCoreApplication::instance()->thread());
    EXPECT_FALSE(model.isFetching());
}

TEST(HostListModel, ErrorsKeepTheRowsAndOnlyUnauthorizedAsksForLogin) {
    HostListModel model;
    ManualFetch fetch;
    model.setFetchFunction(fetch.function());
    QSignalSpy unauthorized(&model, &HostListModel::unauthorized);

    model.fetchAgents();
    fetch.answer(AgentFetchResult::success({makeHost("1", "m1", ""), makeHost("2", "m2", "")}));
    ASSERT_TRUE(test::waitUntil([&] { return !model.isFetching(); }));

    test::StdoutCapture log;
    model.fetchAgents();
    fetch.answer(AgentFetchResult::failure(AdminAPIError::transport(1, "Connection refused")));
    ASSERT_TRUE(test::waitUntil([&] { return !model.isFetching(); }));
    EXPECT_EQ(model.hosts().size(), 2);
    EXPECT_EQ(unauthorized.count(), 0);

    model.fetchAgents();
    fetch.answer(AgentFetchResult::failure(AdminAPIError::unauthorized()));
    ASSERT_TRUE(test::waitUntil([&] { return !model.isFetching(); }));
    EXPECT_EQ(unauthorized.count(), 1);
    EXPECT_EQ(model.hosts().size(), 2);

    const std::string text = log.text();
    EXPECT_NE(text.find("[Error] Admin API: Connection refused\n"), std::string::npos) << text;
    EXPECT_NE(text.find("[Error] Admin API: Unauthorized (wrong password?)\n"), std::string::npos) << text;
}

TEST(HostListModel, LogsOneLinePerFetchedHost) {
    HostListModel model;
    ManualFetch fetch;
    model.setFetchFunction(fetch.function());
    test::StdoutCapture log;
    model.fetchAgents();
    Host h = makeHost("agent-7", "m7", "");
    h.userCount = 3;
    fetch.answer(AgentFetchResult::success({h}));
    ASSERT_TRUE(test::waitUntil([&] { return !model.isFetching(); }));
    EXPECT_NE(log.text().find("[Info] fetchAgents: id=agent-7 cpu=12% mem=40% users=3\n"), std::string::npos);
}

TEST(HostListModel, UpdatesInPlaceWithoutReload) {
    HostListModel model;
    model.applyFetchedHosts({makeHost("a", "m1", "c1"), makeHost("b", "m2", "c2")});
    QSignalSpy reloads(&model, &HostListModel::hostsReloaded);
    QSignalSpy changed(&model, &HostListModel::hostChanged);
    QSignalSpy resources(&model, &HostListModel::resourcesChanged);

    Host b = model.hosts()[1];
    b.status = HostStatus::offline;
    EXPECT_EQ(model.updateHost(b), 1);
    EXPECT_EQ(model.hosts()[1].status, HostStatus::offline);
    EXPECT_FALSE(model.updateHost(makeHost("nobody", "m9", "")));
    EXPECT_EQ(model.hosts().size(), 2);

    EXPECT_EQ(model.updateHostResources("a", "13%", "41%"), 0);
    EXPECT_EQ(model.hosts()[0].cpuLoad, "13%");
    EXPECT_EQ(model.hosts()[0].memLoad, "41%");
    EXPECT_FALSE(model.updateHostResources("nobody", "1%", "1%"));

    EXPECT_EQ(reloads.count(), 0);
    ASSERT_EQ(changed.count(), 1);
    EXPECT_EQ(changed[0][0].toInt(), 1);
    ASSERT_EQ(resources.count(), 1);
    EXPECT_EQ(resources[0][0].toInt(), 0);

    EXPECT_EQ(model.findHost("c2")->id, "b");
    EXPECT_FALSE(model.findHost("c9"));

    model.selectHost(1);
    EXPECT_EQ(selectedIds(model.hosts()), QStringList({"b"}));
    model.selectHost(0);
    EXPECT_EQ(selectedIds(model.hosts()), QStringList({"a"}));
    model.selectHost(5);
    EXPECT_TRUE(selectedIds(model.hosts()).isEmpty());
}

TEST(HostListModel, RefreshingFetchesAtOnceThenOnTheTimer) {
    HostListModel model;
    ManualFetch fetch;
    model.setFetchFunction(fetch.function());
    model.startRefreshing(30);
    EXPECT_EQ(fetch.calls, 1);  // at once, before the first tick
    fetch.answer(AgentFetchResult::success({}));
    ASSERT_TRUE(test::waitUntil([&] { return fetch.calls >= 2; }, 2000));

    // Restarting replaces the timer rather than adding a second one; stopping ends the polls.
    model.startRefreshing(30);
    EXPECT_TRUE(model.isRefreshing());
    model.stopRefreshing();
    while (!fetch.pending.empty()) fetch.answer(AgentFetchResult::success({}));
    test::waitUntil([&] { return !model.isFetching(); });
    const int calls = fetch.calls;
    test::spin(120);
    EXPECT_EQ(fetch.calls, calls);
}
