#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Message.h"

using namespace ostv;
using nlohmann::json;

// Absent fields are left out, present ones written in snake case on one line; every field survives a
// round trip; a latency ping carries only an integer millisecond timestamp.
TEST(MessageEncode, AbsentFieldsOmittedEveryFieldRoundTripsAndPingsCarryATimestamp) {
    EXPECT_EQ(Message("LIST_PTY").encode(), R"({"type":"LIST_PTY"})");
    Message m("CREATE_PTY");
    m.ptyId = 3;
    m.cols = 80;
    m.rows = 24;
    m.cwd = "/home/u";
    m.clientId = "ABC";
    m.command = "echo a\necho b\r\n";
    const std::string wire = m.encode();
    EXPECT_EQ(wire.find('\n'), std::string::npos);
    EXPECT_EQ(json::parse(wire, nullptr, false), (json{{"type", "CREATE_PTY"}, {"pty_id", 3}, {"cols", 80}, {"rows", 24},
                                                       {"cwd", "/home/u"}, {"client_id", "ABC"}, {"command", m.command.value()}}));
    m.data = std::string("ok\xff\xfe", 4);  // invalid UTF-8 is replaced, not thrown
    ASSERT_NO_THROW(EXPECT_TRUE(Message::decode(m.encode()).ok()));

    Message all("kitchen_sink");
    all.code = "123456"; all.data = "ZGF0YQ=="; all.msg = "m"; all.cols = 120; all.rows = 40; all.ts = 1700000000123;
    all.protoVer = "2.0.0"; all.appVer = "2.1.0"; all.nickname = "张三"; all.id = "c1"; all.limit = 8; all.current = 7;
    all.controllers = std::vector<ControllerInfo>{{"a", "n", "/x", "pty-1"}, {"b", "m", "/y", std::nullopt}};
    all.targetControllerId = "a"; all.reason = "r"; all.by = "b"; all.controllerId = "c"; all.ptyId = -7; all.op = "list";
    all.path = "."; all.command = "ls"; all.homeDir = "/home/u"; all.os = "linux"; all.cpu = 12.5; all.mem = 0;
    all.cwd = "~"; all.machineId = "mid"; all.clientId = "cid";
    auto back = Message::decode(all.encode());
    ASSERT_TRUE(back.ok()) << back.error();
    EXPECT_EQ(back.value(), all);

    const auto before = std::chrono::duration_cast<std::chrono::milliseconds>(
                            std::chrono::system_clock::now().time_since_epoch()).count();
    const json ping = json::parse(Message::latencyPing().encode());
    EXPECT_EQ(ping.size(), 2u);
    EXPECT_EQ(ping["type"], "latency_ping");
    ASSERT_TRUE(ping["ts"].is_number_integer());
    EXPECT_GE(ping["ts"].get<int64_t>(), before);
    EXPECT_LE(ping["ts"].get<int64_t>(), before + 5000);
}

// Strict types fail the whole line, on the plain path and on the faster one for long string values.
TEST(MessageDecode, StrictTypesFailTheWholeLine) {
    const std::string b64(20000, 'Q');
    const std::string bad[] = {
        R"({"type":"PTY_DATA","pty_id":"1"})",          // integer as string
        R"({"type":"PTY_DATA","pty_id":1.5})",          // fractional integer
        R"({"type":"PTY_DATA","pty_id":1.0})",          // a float, even a whole one, is not an integer
        R"({"type":"PTY_DATA","pty_id":18446744073709551615})",  // beyond signed 64-bit
        R"({"type":"latency_pong","cpu":"12"})",        // number as string
        R"({"type":7})", R"({"data":"x"})", R"({"type":null})",  // no type, or not a string
        R"({"type":"controller_list","controllers":[{"id":"a","nickname":"n"}]})",  // controller lacks cwd
        R"({"type":"controller_list","controllers":{}})",
        R"({"type":"x","nickname":true})", "{\"type\":\"x\",\"data\":\"\xff\"}",
        R"(["type"])", R"("x")", "", "{", "not json", "{\"type\":\"x\"} trailing",
        R"({"type":"PTY_DATA","pty_id":"2","data":")" + b64 + R"("})",
        R"({"type":"PTY_DATA","data":")" + b64 + "\xff" + R"("})",             // invalid UTF-8
        R"({"type":"PTY_DATA","data":")" + b64 + "\t" + R"("})",               // raw control character
        R"({"type":"PTY_DATA","data":")" + b64,                                // unterminated
        R"({"type":"PTY_DATA","data":")" + b64 + R"(" "x":1})",                // missing comma
        R"({"type":"PTY_DATA",")" + b64 + R"(":1, "pty_id":1.5})",             // long key, bad integer
        R"({"type":")" + b64 + R"(" , "cols": [1]})",
    };
    for (const auto& line : bad) {
        auto d = Message::decode(line);
        EXPECT_FALSE(d.ok()) << line.substr(0, 80);
        EXPECT_FALSE(d.error().empty()) << line.substr(0, 80);
    }
}

TEST(MessageDecode, NullAndMissingKeysAreAbsentUnknownKeysIgnored) {
    auto d = Message::decode(R"({"type":"PTY_DATA","pty_id":null,"extra":{"deep":[1,2]},"cpu":3})");
    ASSERT_TRUE(d.ok()) << d.error();
    EXPECT_FALSE(d->ptyId.has_value());
    EXPECT_FALSE(d->data.has_value());
    EXPECT_DOUBLE_EQ(*d->cpu, 3.0);  // cpu and mem take any JSON number, integers too
    d = Message::decode(
        R"({"type":"controller_list","controllers":[{"id":"a","nickname":"n","cwd":"/"},{"id":"b","nickname":"m","cwd":"/t","workspace_pty":"3"}],"limit":1,"current":1})");
    ASSERT_TRUE(d.ok()) << d.error();
    EXPECT_EQ(d->controllers, (std::vector<ControllerInfo>{{"a", "n", "/", std::nullopt}, {"b", "m", "/t", "3"}}));
    EXPECT_TRUE(Message::decode(R"({"type":"t",")" + std::string(20000, 'k') + R"(":"v"})").ok());  // long unknown key
}

// Long string values take a faster path through the decoder; it must accept exactly what the plain
// JSON path does.
TEST(MessageDecode, LongValuesDecodeExactlyLikeShortOnes) {
    const std::string b64(20000, 'Q');
    const std::string cases[] = {
        R"({"type":"PTY_DATA","pty_id":2,"data":")" + b64 + R"("})",
        R"({"type":"PTY_DATA","data":")" + b64 + R"(","pty_id":2, "msg" : ")" + b64 + "x" + R"(" })",
        R"({"type":"PTY_DATA","data":")" + b64 + R"(\n\"quoted\" \\ \u00e9"})",  // escapes: plain path
        R"({"type":"PTY_DATA","data":")" + b64 + "\xc3\xa9" + R"("})",             // UTF-8 text
        R"({"type":"x","controllers":[{"id":")" + b64 + R"(","nickname":"n","cwd":")" + b64 + R"("}]})",
        R"({"type":"x","data":"\u0001\u0002#0","msg":")" + b64 + R"("})",  // marker-like text stays text
        R"({"type":"x","data":"\u0001\u0002\u00230","msg":")" + b64 + R"("})",  // the same, spelt otherwise
    };
    for (const auto& line : cases) {
        auto d = Message::decode(line);
        ASSERT_TRUE(d.ok()) << d.error();
        const auto plain = json::parse(line);
        EXPECT_EQ(d->data, plain.contains("data") ? std::optional(plain["data"].get<std::string>()) : std::nullopt);
        EXPECT_EQ(d->msg, plain.contains("msg") ? std::optional(plain["msg"].get<std::string>()) : std::nullopt);
        if (plain.contains("controllers")) {
            EXPECT_EQ((*d->controllers)[0].cwd, b64);
        }
        EXPECT_EQ(Message::decode(d->encode()).value(), d.value());
    }
    EXPECT_EQ(Message::decode(cases[5])->data, std::string("\x01\x02#0"));
}

// The envelopes with shapes of their own (a received line is parsed once, sniffed for its type and
// taken as one of them: the connection manager's tests go through that with every kind of line).
TEST(Envelopes, PtyListsAndFolderListingsNeedEveryRequiredField) {
    auto d = PtyListEnvelope::decode(
        R"({"type":"PTY_LIST","ptys":[{"pty_id":2,"cwd":"/a","state":"running","controller_id":"c","client_id":"X"},)"
        R"({"pty_id":1,"cwd":"/b","state":"exited","controller_id":"d"}]})");
    ASSERT_TRUE(d.ok()) << d.error();
    auto infos = toPtyInfos(d.value());
    ASSERT_EQ(infos.size(), 2u);
    EXPECT_EQ(infos[0], (PtyInfo{2, "/a", "running", "c", "X"}));
    EXPECT_EQ(infos[1], (PtyInfo{1, "/b", "exited", "d", ""}));  // no client id: empty
    EXPECT_TRUE(PtyListEnvelope::decode(R"({"type":"PTY_LIST","ptys":[]})").ok());
    for (const char* bad : {R"({"type":"PTY_LIST"})", R"({"type":"PTY_LIST","ptys":[1]})",
                            R"({"type":"PTY_LIST","ptys":[{"pty_id":1,"cwd":"/","controller_id":"c"}]})",
                            R"({"type":"PTY_LIST","ptys":[{"pty_id":"1","cwd":"/","state":"running","controller_id":"c"}]})"})
        EXPECT_FALSE(PtyListEnvelope::decode(bad).ok()) << bad;

    FSResultEnvelope e{"fs_result", "list", std::string("/home"), true,
                       std::vector<FSFileInfo>{{"a", "/home/a", "directory", false}, {"l", "/home/l", "file", true}}};
    auto back = FSResultEnvelope::decode(e.encode());
    ASSERT_TRUE(back.ok()) << back.error();
    EXPECT_EQ(back->path, e.path);
    EXPECT_EQ(*back->data, *e.data);
    auto noData = FSResultEnvelope::decode(R"({"type":"fs_result","op":"list","success":false})");
    ASSERT_TRUE(noData.ok());
    EXPECT_FALSE(noData->data.has_value());
    EXPECT_FALSE(noData->path.has_value());
    for (const char* bad : {R"({"type":"fs_result","op":"list","success":true,"data":[{"name":"a","path":"/a","type":"file"}]})",
                            R"({"type":"fs_result","op":"list"})", R"({"type":"fs_result","op":"list","success":"true"})"})
        EXPECT_FALSE(FSResultEnvelope::decode(bad).ok()) << bad;
}
