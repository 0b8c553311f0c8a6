#include <gtest/gtest.h>

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

}  // namespace

// From the wire to the rows: sorted by machine id, else by agent code; a host name titles the row and the
// system name becomes its caption, without one the system name titles it. The host name changes neither the
// order nor the identity of a row.
TEST(HostRows, SortedTitlesCaptionsToolTipsIconsAndColours) {
    const auto hosts = AdminAgents::decodeHosts(R"([
        {"code":"111111","machine_id":"m3","controller_count":0,"os":"darwin"},
        {"code":"560573","machine_id":"m1","controller_count":1,"os":"linux","hostname":" buildbox#1 ","x":[1]},
        {"code":"222222","controller_count":0,"hostname":null}])");
    ASSERT_TRUE(hosts);
    const QList<Host> rows = HostRows::merge({}, *hosts);
    const struct {
        const char *id, *title, *caption, *tip;
    } expected[] = {
        {"222222", "Unknown", "", "系统：Unknown\n配对码：222222"},
        {"m1", "buildbox#1", "Linux", "主机名：buildbox#1\n系统：Linux\n机器 ID：m1\n配对码：560573"},
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

    // Plain string order, whatever the server's: a machine id before the code, upper case before lower, "10" before "9".
    EXPECT_EQ(ids(HostRows::merge({}, {makeHost("x", "9", ""), makeHost("v", "b", "000001"), makeHost("y", "10", ""),
                                       makeHost("z", "B", "")})),
              QStringList({"y", "x", "z", "v"}));

    // A host name that is not a string fails the list like any other ill-typed member.
    EXPECT_FALSE(AdminAgents::decodeHosts(R"([{"code":"1","controller_count":0,"hostname":7}])"));
    // Shown on one line; blank is none.
    const auto odd = AdminAgents::decodeHosts(R"([{"code":"1","controller_count":0,"hostname":"a\nb\tc"},
                                                  {"code":"2","controller_count":0,"hostname":"  "}])");
    ASSERT_TRUE(odd);
    EXPECT_EQ(odd->at(0).title(), "a b c");
    EXPECT_EQ(odd->at(1).title(), "Unknown");

    // Icons by the exact system word; colours from hex text.
    const std::pair<const char*, std::optional<QString>> icons[] = {
        {"linux", "os_linux"}, {"darwin", "os_apple"}, {"windows", "os_windows"},
        {"Linux", std::nullopt}, {"freebsd", std::nullopt}};
    for (const auto& [os, icon] : icons) EXPECT_EQ(HostRows::osIconName(os), icon) << os;
    EXPECT_EQ(HostRows::colorFromHex("ffbd2e")->rgba(), QColor(0xff, 0xbd, 0x2e).rgba());
    for (const char* bad : {"#zzzzzz", "#", ""}) EXPECT_FALSE(HostRows::colorFromHex(bad)) << bad;
}

TEST(HostListModel, APollWhileOneIsOpenIsSkippedAnswersAreHandledOnTheMainThreadAndRefreshingRepeats) {
    HostListModel model;
    ManualFetch fetch;
    model.setFetchFunction(fetch.function());
    QThread* handledOn = nullptr;
    QObject::connect(&model, &HostListModel::hostsReloaded, [&] { handledOn = QThread::currentThread(); });
    for (int i = 0; i < 3; ++i) model.fetchAgents();
    EXPECT_EQ(fetch.calls, 1);

    fetch.answer(AgentFetchResult::success({makeHost("1", "m1", "")}));
    // The answer is handled on a later turn of the main loop, never inside the fetch call.
    EXPECT_TRUE(model.isFetching());
    EXPECT_TRUE(model.hosts().isEmpty());
    ASSERT_TRUE(test::waitUntil([&] { return !model.isFetching(); }));
    EXPECT_EQ(model.hosts().size(), 1);

    model.fetchAgents();
    EXPECT_EQ(fetch.calls, 2);  // the gate opens again after the answer, not before
    handledOn = nullptr;
    std::thread worker(
        [&] { fetch.answer(AgentFetchResult::success({makeHost("1", "m1", ""), makeHost("2", "m2", "")})); });
    worker.join();
    ASSERT_TRUE(test::waitUntil([&] { return handledOn != nullptr; }));
    EXPECT_EQ(handledOn, QCoreApplication::instance()->thread());
    EXPECT_EQ(model.hosts().size(), 2);

    // Refreshing polls at once, before the first tick, then on the timer.
    model.startRefreshing(30);
    EXPECT_EQ(fetch.calls, 3);
    fetch.answer(AgentFetchResult::success({}));
    ASSERT_TRUE(test::waitUntil([&] { return fetch.calls >= 4; }, 2000));

    // Restarting replaces the timer rather than adding a second one: after a stop no poll follows.
    model.startRefreshing(30);
    model.stopRefreshing();
    while (!fetch.pending.empty()) fetch.answer(AgentFetchResult::success({}));
    test::waitUntil([&] { return !model.isFetching(); });
    const int calls = fetch.calls;
    test::spin(120);
    EXPECT_EQ(calls, fetch.calls);
}
