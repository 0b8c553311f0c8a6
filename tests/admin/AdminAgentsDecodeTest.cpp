// Decoding of the agent list and its conversion to host rows.
#include "AdminAPIClient.h"

#include <QSet>
#include <gtest/gtest.h>

using ostv::AdminAgents::decodeHosts;
using ostv::AdminAgents::displayName;

namespace {

// Each host row as "id/code/users/name/os/cpu/mem", in order.
QString rows(const char* body) {
    const auto hosts = decodeHosts(body);
    if (!hosts) return QStringLiteral("refused");
    QStringList out;
    for (const auto& h : *hosts)
        out << QStringList{h.id, h.agentCode, QString::number(h.userCount), h.name, h.os, h.cpuLoad, h.memLoad}.join('/');
    return out.join(", ");
}

}  // namespace

// The machine id is the key when present, else the code: two codes of one machine are one host, one
// code on two machines two hosts. The last element of a key wins and takes the place of the earlier one.
TEST(AdminAgentsDecode, TheLastElementOfAKeyWinsAndTheServerOrderStays) {
    EXPECT_EQ(rows(R"([{"code":"A","controller_count":1},{"code":"A","controller_count":2,"os":"linux"}])"), "A/A/2/Linux/linux/-/");
    EXPECT_EQ(rows(R"([{"machine_id":"m1","code":"111111","controller_count":1},{"machine_id":"m2","controller_count":0},
                       {"machine_id":"m1","code":"222222","controller_count":3}])"),
              "m2//0/Unknown//-/, m1/222222/3/Unknown//-/");
    EXPECT_EQ(rows(R"([{"machine_id":"m1","code":"C","controller_count":0},{"machine_id":"m2","code":"C","controller_count":0},
                       {"machine_id":"m2","code":"D","controller_count":0}])"),
              "m1/C/0/Unknown//-/, m2/D/0/Unknown//-/");
}

// Elements without a key are always kept, each with an id of its own; an empty code or machine id
// counts as none (fuzzing found an empty code giving a host with an empty id).
TEST(AdminAgentsDecode, ElementsWithoutCodeOrMachineIdAreAlwaysKeptWithTheirOwnIds) {
    const auto hosts = decodeHosts(R"([{"controller_count":0},{"code":"","controller_count":1},{"controller_count":0},
                                       {"machine_id":"","code":"777777","controller_count":0}])");
    ASSERT_TRUE(hosts);
    ASSERT_EQ(hosts->size(), 4);
    EXPECT_EQ(hosts->at(1).userCount, 1);  // order kept
    const QSet<QString> keyless{hosts->at(0).id, hosts->at(1).id, hosts->at(2).id};
    EXPECT_FALSE(keyless.contains(QString()));
    EXPECT_EQ(keyless.size(), 3);
    EXPECT_TRUE(hosts->at(0).agentCode.isEmpty());
    EXPECT_TRUE(hosts->at(0).machineId.isEmpty());
    EXPECT_EQ(hosts->at(3).id, "777777");
}

// Loads are rounded; zero or missing, CPU shows "-" and memory nothing. Negative counts, integral loads
// and Unicode text pass as they are; unknown keys are ignored.
TEST(AdminAgentsDecode, FieldsOfAHostRowAndOperatingSystemNames) {
    const char* body = R"([{"code":"123456","machine_id":"mid","controller_count":4,
                            "os":"darwin","cpu":12.6,"mem":0.4,"extra":{"ignored":true}},
                           {"code":"654321","controller_count":0,"cpu":0,"mem":0},
                           {"code":"000000","controller_count":0,"cpu":null,"os":null},
                           {"code":"甲","controller_count":-1,"cpu":100,"mem":99.6,"os":"linux"}])";
    EXPECT_EQ(rows(body), "mid/123456/4/macOS/darwin/13%/0%, 654321/654321/0/Unknown//-/, "
                          "000000/000000/0/Unknown//-/, 甲/甲/-1/Linux/linux/100%/100%");
    const ostv::Host full = decodeHosts(body)->at(0);
    EXPECT_EQ(full.status, ostv::HostStatus::online);
    EXPECT_FALSE(full.isSelected);
    EXPECT_EQ(full.machineId, "mid");
    EXPECT_EQ(rows("[]"), "");
    // Only the three exact operating system words are renamed.
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
    for (const char* body : bad) EXPECT_EQ(rows(body), "refused") << body;
}
