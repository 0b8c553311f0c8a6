// Decoding of the agent list and its conversion to host rows.
#include "AdminAPIClient.h"

#include <QSet>
#include <gtest/gtest.h>

using ostv::AdminAgents::decodeHosts;
using ostv::AdminAgents::displayName;

namespace {

QStringList ids(const QList<ostv::Host>& hosts) {
    QStringList out;
    for (const auto& h : hosts) out << h.id;
    return out;
}

}  // namespace

TEST(AdminAgentsDecode, TheLastElementOfAKeyWinsAndTheServerOrderStays) {
    const auto sameCode = decodeHosts(R"([{"code":"A","controller_count":1},
                                          {"code":"A","controller_count":2,"os":"linux"}])");
    ASSERT_TRUE(sameCode);
    ASSERT_EQ(sameCode->size(), 1);
    EXPECT_EQ(sameCode->at(0).userCount, 2);
    EXPECT_EQ(sameCode->at(0).name, "Linux");

    const auto machines = decodeHosts(R"([{"machine_id":"m1","code":"111111","controller_count":1},
                                          {"machine_id":"m2","controller_count":0},
                                          {"machine_id":"m1","code":"222222","controller_count":3}])");
    ASSERT_TRUE(machines);
    EXPECT_EQ(ids(*machines), (QStringList{"m2", "m1"}));
    EXPECT_EQ(machines->at(1).agentCode, "222222");
    EXPECT_EQ(machines->at(1).userCount, 3);

    // The machine id is the key when present, so two codes of one machine are one host, while one
    // code on two machines is two hosts.
    const auto mixed = decodeHosts(R"([{"machine_id":"m1","code":"C","controller_count":0},
                                       {"machine_id":"m2","code":"C","controller_count":0},
                                       {"machine_id":"m2","code":"D","controller_count":0}])");
    ASSERT_TRUE(mixed);
    EXPECT_EQ(ids(*mixed), (QStringList{"m1", "m2"}));
    EXPECT_EQ(mixed->at(1).agentCode, "D");
}

// Elements without a key are always kept, each with an id of its own; an empty code or machine id
// counts as none (fuzzing found an empty code giving a host with an empty id).
TEST(AdminAgentsDecode, ElementsWithoutCodeOrMachineIdAreAlwaysKeptWithTheirOwnIds) {
    const auto hosts = decodeHosts(R"([{"controller_count":0},{"code":"","controller_count":1},{"controller_count":0},
                                       {"machine_id":"","code":"777777","controller_count":0}])");
    ASSERT_TRUE(hosts);
    ASSERT_EQ(hosts->size(), 4);
    EXPECT_EQ(hosts->at(1).userCount, 1);  // order kept
    const QStringList keyless = ids(*hosts).mid(0, 3);
    EXPECT_FALSE(keyless.contains(QString()));
    EXPECT_EQ(QSet<QString>(keyless.begin(), keyless.end()).size(), 3);
    EXPECT_TRUE(hosts->at(0).agentCode.isEmpty());
    EXPECT_TRUE(hosts->at(0).machineId.isEmpty());
    EXPECT_EQ(hosts->at(3).id, "777777");
}

TEST(AdminAgentsDecode, FieldsOfAHostRow) {
    const auto hosts = decodeHosts(R"([{"code":"123456","machine_id":"mid","controller_count":4,
                                        "os":"darwin","cpu":12.6,"mem":0.4,"extra":{"ignored":true}},
                                       {"code":"654321","controller_count":0,"cpu":0,"mem":0},
                                       {"code":"000000","controller_count":0,"cpu":null,"os":null},
                                       {"code":"甲","controller_count":-1,"cpu":100,"mem":99.6,"os":"linux"}])");
    ASSERT_TRUE(hosts);
    ASSERT_EQ(hosts->size(), 4);
    const ostv::Host& full = hosts->at(0);
    EXPECT_EQ(full.id, "mid");
    EXPECT_EQ(full.name, "macOS");
    EXPECT_EQ(full.status, ostv::HostStatus::online);
    EXPECT_EQ(full.userCount, 4);
    EXPECT_EQ(full.cpuLoad, "13%");
    EXPECT_EQ(full.memLoad, "0%");
    EXPECT_FALSE(full.isSelected);
    EXPECT_EQ(full.agentCode, "123456");
    EXPECT_EQ(full.os, "darwin");
    EXPECT_EQ(full.machineId, "mid");
    // Zero or missing loads: CPU shows "-", memory shows nothing.
    for (int i : {1, 2}) {
        EXPECT_EQ(hosts->at(i).cpuLoad, "-");
        EXPECT_EQ(hosts->at(i).memLoad, "");
        EXPECT_EQ(hosts->at(i).name, "Unknown");
        EXPECT_EQ(hosts->at(i).os, "");
    }
    EXPECT_EQ(hosts->at(1).id, "654321");
    // Negative counts, integral loads, Unicode text.
    EXPECT_EQ(hosts->at(3).agentCode, QString::fromUtf8("甲"));
    EXPECT_EQ(hosts->at(3).cpuLoad, "100%");
    EXPECT_EQ(hosts->at(3).memLoad, "100%");
    EXPECT_EQ(hosts->at(3).userCount, -1);
    const auto empty = decodeHosts("[]");
    ASSERT_TRUE(empty);
    EXPECT_TRUE(empty->isEmpty());
}

TEST(AdminAgentsDecode, OnlyTheThreeExactOperatingSystemWordsAreRenamed) {
    EXPECT_EQ(displayName(QString("windows")), "Windows");
    for (const char* asReceived : {"Linux", "Darwin", "WINDOWS", "freebsd", ""})
        EXPECT_EQ(displayName(QString(asReceived)), asReceived);
}

TEST(AdminAgentsDecode, OneBadElementFailsTheWholeList) {
    const char* bad[] = {
        R"([{"code":"A","controller_count":1},{"code":"B"}])",        // controller_count missing
        R"([{"code":"A","controller_count":null}])",                  // required, null is not a count
        R"([{"code":"A","controller_count":1.5}])",                   // not an integer
        R"([{"code":"A","controller_count":"2"}])",                   // a string
        R"([{"code":"A","controller_count":99999999999}])",           // does not fit
        R"([{"code":7,"controller_count":1}])",                       // strings must be strings
        R"([{"machine_id":["m"],"controller_count":1}])",
        R"([{"code":"A","controller_count":1,"os":1}])",
        R"([{"code":"A","controller_count":1,"cpu":"12"}])",          // numbers must be numbers
        R"([{"code":"A","controller_count":1,"mem":true}])",
        R"([{"code":"A","controller_count":1}, 5])",                  // elements must be objects
        R"({"code":"A","controller_count":1})",                       // not an array
        R"({"agents":[]})",
        R"([{"code":"A","controller_count":1})",                      // truncated
        "",
        "null",
        "[{\"code\":\"\xff\",\"controller_count\":1}]",               // not UTF-8
    };
    for (const char* body : bad) EXPECT_FALSE(decodeHosts(body)) << body;
}
