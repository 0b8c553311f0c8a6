// The local server's admin interface, spoken to with a plain HTTP client and a raw socket.
#include "AdminHttpApi.h"
#include "Http.h"

#include <QRegularExpression>
#include <QTcpSocket>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace std::chrono_literals;
using ostv::server::AdminHttpApi;
using ostv::server::AgentSummary;
using ostv::test::HttpAnswer;
using ostv::test::waitUntil;

namespace {

class AdminHttpApiTest : public ::testing::Test {
protected:
    void SetUp() override {
        api.setCredentials("admin", "quill_tarn");
        ASSERT_TRUE(api.listen(QHostAddress::LocalHost, 0));
    }
    HttpAnswer call(const QByteArray& method, const QString& path, const QByteArray& body = {},
                    const QByteArray& token = {}) {
        return ostv::test::http(method, QStringLiteral("http://127.0.0.1:%1%2").arg(api.port()).arg(path), body, token);
    }
    QByteArray login(const char* user = "admin", const char* password = "quill_tarn") {
        const HttpAnswer a = call("POST", "/admin/login", nlohmann::json{{"username", user}, {"password", password}}.dump().c_str());
        return a.status == 200 ? a.json()["token"].toString().toUtf8() : QByteArray();
    }
    AdminHttpApi api;
};

// Wrong passwords from one address: the first few are answered as such, then that address waits
// (429), even with the right password, until its wait is over.
TEST_F(AdminHttpApiTest, SignInAndTheWaitAfterFailedOnes) {
    ostv::server::AttemptLimiter::Policy policy;
    policy.freeFailures = 3;
    policy.firstWait = 700ms;
    api.setLoginPolicy(policy);
    const HttpAnswer ok = call("POST", "/admin/login", R"({"username":"admin","password":"quill_tarn"})");
    ASSERT_EQ(ok.status, 200);
    const auto body = nlohmann::json::parse(ok.body.toStdString(), nullptr, false);
    const std::string token = body.value("token", "");
    EXPECT_TRUE(QRegularExpression("^[0-9a-f]{64}$").match(QString::fromStdString(token)).hasMatch()) << token;
    EXPECT_EQ(body, (nlohmann::json{{"token", token}, {"username", "admin"}, {"role", "admin"}}));
    EXPECT_NE(login(), QByteArray::fromStdString(token));  // every sign-in gets its own token

    for (const char* bad : {"", "not json", "[]", R"({"username":"admin"})", R"({"username":"admin","password":1})",
                            R"({"username":null,"password":"quill_tarn"})", "\"text\""}) {
        EXPECT_EQ(call("POST", "/admin/login", bad).status, 400) << bad;
    }
    for (const char* wrong : {R"({"username":"admin","password":"quill_tar"})",
                              R"({"username":"Admin","password":"quill_tarn"})",
                              R"({"username":"","password":""})"}) {
        const HttpAnswer refused = call("POST", "/admin/login", wrong);
        EXPECT_EQ(refused.status, 200) << wrong;
        EXPECT_EQ(nlohmann::json::parse(refused.body.toStdString()), (nlohmann::json{{"error", "invalid credentials"}}));
    }
    const HttpAnswer waiting = call("POST", "/admin/login", R"({"username":"admin","password":"quill_tarn"})");
    EXPECT_EQ(waiting.status, 429);
    EXPECT_EQ(nlohmann::json::parse(waiting.body.toStdString(), nullptr, false), (nlohmann::json{{"error", "too many attempts"}}));
    ostv::test::spin(800);
    EXPECT_FALSE(login().isEmpty()) << "the right password works once the wait is over";
    EXPECT_EQ(call("GET", "/admin/login").status, 404);

    AdminHttpApi second;  // its port is taken
    EXPECT_FALSE(second.listen(QHostAddress::LocalHost, api.port()));
    EXPECT_EQ(second.port(), 0);
}

TEST_F(AdminHttpApiTest, AgentListNeedsAValidTokenThatExpires) {
    api.setAgentSource([] {
        return std::vector<AgentSummary>{{"482913", "m-1", "linux", 3, 12.5, 40.25, ""},
                                         {"100200", "m-2", "darwin", 0, 0, 0, "lab-mac"}};
    });
    const QByteArray token = login();
    ASSERT_FALSE(token.isEmpty());

    const HttpAnswer list = call("GET", "/admin/agents", QByteArray(), token);
    ASSERT_EQ(list.status, 200);
    // Written back with sorted keys: counts stay integers, loads numbers; no host name where none is known.
    EXPECT_EQ(nlohmann::json::parse(list.body.toStdString(), nullptr, false).dump(),
              R"([{"code":"482913","controller_count":3,"cpu":12.5,"machine_id":"m-1","mem":40.25,"os":"linux"},)"
              R"({"code":"100200","controller_count":0,"cpu":0.0,"hostname":"lab-mac","machine_id":"m-2","mem":0.0,"os":"darwin"}])");

    EXPECT_EQ(call("GET", "/admin/agents", QByteArray(), "0123").status, 401);
    EXPECT_EQ(call("GET", "/admin/agents", QByteArray(), token + "0").status, 401);

    api.revokeAllTokens();
    EXPECT_EQ(call("GET", "/admin/agents", QByteArray(), token).status, 401);

    // Tokens expire; without a source the list is empty, not an error.
    api.setTokenLifetime(1s);
    api.setAgentSource({});
    const QByteArray shortLived = login();
    const HttpAnswer empty = call("GET", "/admin/agents", QByteArray(), shortLived);
    EXPECT_EQ(empty.status, 200);
    EXPECT_EQ(empty.body, "[]");
    ostv::test::spin(1100);
    EXPECT_EQ(call("GET", "/admin/agents", QByteArray(), shortLived).status, 401);
}

// The client's warm-up leaves its connection open for the login: the HEAD answer must end exactly
// at its headers, and the next request on the same connection must be served.
TEST_F(AdminHttpApiTest, AHeadAnswerLeavesTheConnectionUsable) {
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, api.port());
    ASSERT_TRUE(socket.waitForConnected(3000));
    socket.write("HEAD /admin/agents HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    QByteArray received;
    ASSERT_TRUE(waitUntil([&] {
        received += socket.readAll();
        return received.contains("\r\n\r\n");
    }));
    EXPECT_TRUE(received.startsWith("HTTP/1.1 401")) << received.constData();
    ostv::test::spin(100);
    received += socket.readAll();
    EXPECT_TRUE(received.endsWith("\r\n\r\n")) << received.constData();

    const QByteArray body = R"({"username":"admin","password":"quill_tarn"})";
    socket.write("POST /admin/login HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\nContent-Length: " +
                 QByteArray::number(body.size()) + "\r\n\r\n" + body);
    QByteArray second;
    ASSERT_TRUE(waitUntil([&] {
        second += socket.readAll();
        return second.contains("\"token\"");
    })) << second.constData();
    EXPECT_TRUE(second.startsWith("HTTP/1.1 200")) << second.constData();
}

// Idle sockets cannot hold the door: a cap per address and in total (where the idlest gives way), an
// idle time-out, and a byte cap on a request.
TEST_F(AdminHttpApiTest, ConnectionsAreCappedAndIdleOrOversizedOnesClosed) {
    ostv::server::AdminLimits limits;
    limits.maxConnections = 4;
    limits.maxPerAddress = 3;
    limits.idleTimeout = 1500ms;
    limits.maxRequestBytes = 4096;
    api.setLimits(limits);
    std::vector<std::unique_ptr<QTcpSocket>> idle;
    auto open = [&](const char* from) {
        auto s = std::make_unique<QTcpSocket>();
        s->bind(QHostAddress(QString::fromLatin1(from)), 0);
        s->connectToHost(QHostAddress::LocalHost, api.port());
        EXPECT_TRUE(s->waitForConnected(3000)) << from;
        idle.push_back(std::move(s));
        return idle.back().get();
    };
    auto closedByServer = [](QTcpSocket* s) {
        return waitUntil([&] { return s->state() == QAbstractSocket::UnconnectedState; }, 3000);
    };
    for (int i = 0; i < 3; ++i) open("127.0.0.2");
    EXPECT_TRUE(closedByServer(open("127.0.0.2"))) << "a fourth from one address";
    EXPECT_TRUE(waitUntil([&] { return api.connectionCount() == 3; }));
    open("127.0.0.3");
    EXPECT_TRUE(waitUntil([&] { return api.connectionCount() == 4; }));
    EXPECT_FALSE(login().isEmpty()) << "at the total cap the idlest connection makes room for a sign-in";
    EXPECT_TRUE(closedByServer(idle[0].get())) << "the idlest one went";

    QTcpSocket* big = open("127.0.0.4");
    big->write("POST /admin/login HTTP/1.1\r\nHost: x\r\nContent-Length: 100000\r\n\r\n" + QByteArray(8192, 'x'));
    EXPECT_TRUE(closedByServer(big)) << "past the byte cap";
    EXPECT_TRUE(waitUntil([&] { return api.connectionCount() == 0; })) << "idle ones time out";
}

}  // namespace
