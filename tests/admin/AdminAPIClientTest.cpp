// The admin client against the real admin interface of the local server and against canned
// answers for the odd cases.
#include "AdminAPIClient.h"
#include "AdminHttpApi.h"
#include "HttpFixture.h"
#include "MainThread.h"
#include "ServerConfig.h"
#include "TestSupport.h"

#include <QThread>
#include <QTcpServer>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <memory>

using namespace ostv;
using ostv::test::CannedAnswer;
using ostv::test::CannedHttpServer;
using ostv::test::StdoutCapture;
using ostv::test::waitUntil;

namespace {

void pointSettingsAt(quint16 port) {
    ServerConfig::setString(SettingsKey::serverHost, QStringLiteral("127.0.0.1"));
    ServerConfig::setInteger(SettingsKey::adminServerPort, port);
}

struct LoginOutcome {
    int calls = 0;
    bool ok = false;
    std::optional<QString> message;
    bool onMainThread = false;
    bool tokenVisible = false;  // whether the client showed a token when the completion ran
};

std::shared_ptr<LoginOutcome> startLogin(AdminAPIClient& client, const QString& user, const QString& password) {
    auto out = std::make_shared<LoginOutcome>();
    client.login(user, password, [out, &client](bool ok, std::optional<QString> message) {
        ++out->calls;
        out->ok = ok;
        out->message = std::move(message);
        out->onMainThread = isMainThread();
        out->tokenVisible = client.hasToken();
    });
    return out;
}

// Logs in and waits for the completion (and a little longer, to catch a second call).
std::shared_ptr<LoginOutcome> loginAndWait(AdminAPIClient& client, const QString& user, const QString& password,
                                           int timeoutMs = 5000) {
    auto out = startLogin(client, user, password);
    EXPECT_TRUE(waitUntil([&] { return out->calls > 0; }, timeoutMs));
    ostv::test::spin(30);
    EXPECT_EQ(out->calls, 1);
    return out;
}

std::optional<AgentFetchResult> fetchAndWait(AdminAPIClient& client) {
    std::optional<AgentFetchResult> result;
    int calls = 0;
    client.fetchAgents([&](AgentFetchResult r) {
        ++calls;
        result = std::move(r);
    });
    EXPECT_TRUE(waitUntil([&] { return calls > 0; }));
    ostv::test::spin(30);
    EXPECT_EQ(calls, 1);
    return result;
}

AdminAPIErrorKind errorKind(const std::optional<AgentFetchResult>& r) {
    if (!r || !r->error()) return AdminAPIErrorKind::transport;
    return r->error()->kind;
}

CannedAnswer json(int status, const char* body) {
    return CannedAnswer{status, body, {{"Content-Type", "application/json"}}, false};
}

// ---- against the local server's admin interface ----

class AdminClientLocalServer : public ::testing::Test {
protected:
    void SetUp() override {
        api.setCredentials("admin", "quill_tarn");
        api.setAgentSource([this] { return agents; });
        ASSERT_TRUE(api.listen(QHostAddress::LocalHost, 0));
        pointSettingsAt(api.port());
    }
    server::AdminHttpApi api;
    std::vector<server::AgentSummary> agents;
};

TEST_F(AdminClientLocalServer, WarmUpThenLoginThenAgents) {
    agents = {{"482913", "machine-1", "linux", 2, 37.2, 61.0, ""}, {"100200", "machine-2", "windows", 0, 0.0, 0.0, "box-2"}};
    AdminAPIClient client;
    StdoutCapture log;

    bool warmedUp = false;
    QObject::connect(&client, &AdminAPIClient::warmUpFinished, [&] { warmedUp = true; });
    client.warmUp();
    ASSERT_TRUE(waitUntil([&] { return warmedUp; }));
    EXPECT_FALSE(client.hasToken());

    const auto login = loginAndWait(client, "admin", "quill_tarn");
    EXPECT_TRUE(login->ok);
    EXPECT_FALSE(login->message);
    EXPECT_TRUE(login->onMainThread);
    EXPECT_TRUE(login->tokenVisible);  // fields are written before the completion runs
    EXPECT_EQ(client.currentUsername(), "admin");

    const auto fetched = fetchAndWait(client);
    ASSERT_TRUE(fetched && fetched->ok());
    const QList<Host>& hosts = fetched->hosts();
    ASSERT_EQ(hosts.size(), 2);
    EXPECT_EQ(hosts[0].id, "machine-1");
    EXPECT_EQ(hosts[0].agentCode, "482913");
    EXPECT_EQ(hosts[0].name, "Linux");
    EXPECT_EQ(hosts[0].userCount, 2);
    EXPECT_EQ(hosts[0].cpuLoad, "37%");
    EXPECT_EQ(hosts[0].memLoad, "61%");
    EXPECT_EQ(hosts[1].name, "Windows");
    EXPECT_EQ(hosts[0].hostname, "");
    EXPECT_EQ(hosts[1].hostname, "box-2");
    EXPECT_EQ(hosts[1].cpuLoad, "-");
    EXPECT_EQ(hosts[1].memLoad, "");

    const std::string text = log.text();
    EXPECT_NE(text.find("[LOGIN] warmUp done "), std::string::npos) << text;
    EXPECT_NE(text.find("ms (TCP now cached)\n"), std::string::npos) << text;
    const std::string url = "http://127.0.0.1:" + std::to_string(api.port()) + "/admin/login";
    EXPECT_NE(text.find("[LOGIN] → POST " + url + "  user=admin  t0="), std::string::npos) << text;
    EXPECT_NE(text.find("ms  HTTP 200\n"), std::string::npos) << text;
    EXPECT_NE(text.find("[LOGIN] ← body: {"), std::string::npos) << text;
    EXPECT_NE(text.find("ms  logged in as admin\n"), std::string::npos) << text;
}

TEST_F(AdminClientLocalServer, WrongPasswordIsReportedAndKeepsAnEarlierToken) {
    AdminAPIClient client;
    const auto fresh = loginAndWait(client, "admin", "wrong");
    EXPECT_FALSE(fresh->ok);
    EXPECT_EQ(fresh->message, QString("用户名或密码错误"));
    EXPECT_TRUE(fresh->onMainThread);
    EXPECT_FALSE(client.hasToken());

    ASSERT_TRUE(loginAndWait(client, "admin", "quill_tarn")->ok);
    StdoutCapture log;
    const auto again = loginAndWait(client, "admin", "still wrong");
    EXPECT_EQ(again->message, QString("用户名或密码错误"));
    EXPECT_TRUE(client.hasToken());
    EXPECT_EQ(client.currentUsername(), "admin");
    EXPECT_TRUE(fetchAndWait(client)->ok());
    EXPECT_NE(log.text().find("[LOGIN] ❌ JSON decode failed\n"), std::string::npos);
}

TEST_F(AdminClientLocalServer, A401OnTheAgentListDropsTheToken) {
    AdminAPIClient client;
    ASSERT_TRUE(loginAndWait(client, "admin", "quill_tarn")->ok);
    api.revokeAllTokens();

    const auto first = fetchAndWait(client);
    EXPECT_EQ(errorKind(first), AdminAPIErrorKind::unauthorized);
    EXPECT_EQ(first->error()->description, "Unauthorized (wrong password?)");
    EXPECT_FALSE(client.hasToken());
    // A later fetch fails at once; the client does not sign in again by itself.
    bool calledInline = false;
    client.fetchAgents([&](AgentFetchResult r) { calledInline = r.error() && r.error()->kind == AdminAPIErrorKind::unauthorized; });
    EXPECT_TRUE(calledInline);
}

TEST_F(AdminClientLocalServer, SettingsAreReadAtEachRequest) {
    AdminAPIClient client;
    ASSERT_TRUE(loginAndWait(client, "admin", "quill_tarn")->ok);

    // The server moved: the client follows the stored port on the next request.
    server::AdminHttpApi moved;
    moved.setCredentials("root", "other");
    ASSERT_TRUE(moved.listen(QHostAddress::LocalHost, 0));
    pointSettingsAt(moved.port());
    const auto login = loginAndWait(client, "root", "other");
    EXPECT_TRUE(login->ok);
    EXPECT_EQ(client.currentUsername(), "root");
}

TEST_F(AdminClientLocalServer, ADestroyedClientCallsNothing) {
    int calls = 0;
    {
        AdminAPIClient client;
        client.login("admin", "quill_tarn", [&](bool, std::optional<QString>) { ++calls; });
        ostv::test::spin(1);  // the request is under way
    }
    ostv::test::spin(300);
    EXPECT_EQ(calls, 0);
}

// ---- canned answers ----

class AdminClientCanned : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.start());
        pointSettingsAt(server.serverPort());
    }
    CannedHttpServer server;
};

TEST_F(AdminClientCanned, RequestsAsSentAndTheWarmUpConnectionCarriesTheLogin) {
    server.answer("/admin/agents", json(401, R"({"error":"unauthorized"})"));
    server.answer("/admin/login", CannedAnswer{200, R"({"token":"tok-1","username":"Ops","role":"admin"})",
                                               {{"Set-Cookie", "sid=abc; Path=/"}}, false});
    AdminAPIClient client;
    bool warmedUp = false;
    QObject::connect(&client, &AdminAPIClient::warmUpFinished, [&] { warmedUp = true; });
    client.warmUp();
    ASSERT_TRUE(waitUntil([&] { return warmedUp; }));
    const auto login = loginAndWait(client, "ops", "pa\"ss 密码");
    ASSERT_TRUE(login->ok);
    EXPECT_EQ(client.currentUsername(), "Ops");  // the server's spelling wins

    server.answer("/admin/agents", json(200, "[]"));
    const auto fetched = fetchAndWait(client);
    ASSERT_TRUE(fetched && fetched->ok());
    EXPECT_TRUE(fetched->hosts().isEmpty());

    ASSERT_EQ(server.requests.size(), 3);
    EXPECT_EQ(server.connections, 1);
    const auto& warm = server.requests[0];
    EXPECT_EQ(warm.method, "HEAD");
    EXPECT_EQ(warm.path, "/admin/agents");
    EXPECT_FALSE(warm.headers.contains("authorization"));

    const auto& post = server.requests[1];
    EXPECT_EQ(post.method, "POST");
    EXPECT_EQ(post.path, "/admin/login");
    EXPECT_EQ(post.headers.value("content-type"), "application/json");
    const auto body = nlohmann::json::parse(post.body.toStdString());
    EXPECT_EQ(body, (nlohmann::json{{"username", "ops"}, {"password", "pa\"ss 密码"}}));

    const auto& get = server.requests[2];
    EXPECT_EQ(get.method, "GET");
    EXPECT_EQ(get.headers.value("authorization"), "Bearer tok-1");
    EXPECT_FALSE(get.headers.contains("cookie"));  // cookies are neither kept nor sent
}

TEST_F(AdminClientCanned, LoginAnswersThatAreNotASignIn) {
    AdminAPIClient client;
    {
        StdoutCapture log;
        server.answerAll(json(401, R"({"error":"unauthorized"})"));
        EXPECT_EQ(loginAndWait(client, "admin", "x")->message, QString("登录失败 (HTTP 401)"));
        const std::string text = log.text();
        EXPECT_NE(text.find("ms  HTTP 401\n"), std::string::npos) << text;
        EXPECT_NE(text.find("[LOGIN] ❌ body: {\"error\":\"unauthorized\"}\n"), std::string::npos) << text;
    }
    // A success code other than 200 is a failure too, even with a token in the body.
    server.answerAll(json(201, R"({"token":"t"})"));
    EXPECT_EQ(loginAndWait(client, "admin", "x")->message, QString("登录失败 (HTTP 201)"));
    {
        StdoutCapture log;
        server.answerAll(CannedAnswer{500, QByteArray(), {}, false});
        EXPECT_EQ(loginAndWait(client, "admin", "x")->message, QString("登录失败 (HTTP 500)"));
        EXPECT_NE(log.text().find("[LOGIN] ❌ body: (nil)\n"), std::string::npos);
    }
    {
        StdoutCapture log;
        server.answerAll(CannedAnswer{200, QByteArray(), {}, false});
        EXPECT_EQ(loginAndWait(client, "admin", "x")->message, QString("无响应数据"));
        EXPECT_NE(log.text().find("ms  data is nil\n"), std::string::npos);
    }
    {
        StdoutCapture log;
        server.answerAll(CannedAnswer{200, "\xff\xfe{}", {}, false});
        EXPECT_EQ(loginAndWait(client, "admin", "x")->message, QString("用户名或密码错误"));
        EXPECT_NE(log.text().find("[LOGIN] ← body: (not utf8)\n"), std::string::npos);
    }
    for (const char* body : {R"({"error":"bad"})", R"({"token":null})", R"({"token":5})", R"(["token"])",
                             R"({"token":"t","username":7})", "not json"}) {
        server.answerAll(json(200, body));
        EXPECT_EQ(loginAndWait(client, "admin", "x")->message, QString("用户名或密码错误")) << body;
    }
    EXPECT_FALSE(client.hasToken());
    EXPECT_EQ(client.currentUsername(), "");
}

TEST_F(AdminClientCanned, LoginBodyDetails) {
    AdminAPIClient client;
    // Without "username" the typed name is kept.
    server.answerAll(json(200, R"({"token":"t1","role":null})"));
    ASSERT_TRUE(loginAndWait(client, "typed", "x")->ok);
    EXPECT_EQ(client.currentUsername(), "typed");

    // Only the first 200 characters of a long body reach the log.
    const std::string padding(300, 'x');
    server.answerAll(json(200, ("{\"token\":\"t2\",\"pad\":\"" + padding + "\"}").c_str()));
    StdoutCapture log;
    ASSERT_TRUE(loginAndWait(client, "typed", "x")->ok);
    const std::string text = log.text();
    const std::string prefix = "{\"token\":\"t2\",\"pad\":\"";
    const std::string expected = "[LOGIN] ← body: " + prefix + std::string(200 - prefix.size(), 'x') + "\n";
    EXPECT_NE(text.find(expected), std::string::npos) << text;
}

TEST_F(AdminClientCanned, TheTokenExpiresAfter23HoursWithoutAnyRequest) {
    QDateTime now = QDateTime(QDate(2024, 5, 1), QTime(12, 0), Qt::UTC);
    AdminAPIClient client;
    client.setClock([&] { return now; });
    server.answer("/admin/login", json(200, R"({"token":"t"})"));
    server.answer("/admin/agents", json(200, "[]"));
    ASSERT_TRUE(loginAndWait(client, "admin", "x")->ok);

    now = now.addSecs(82800 - 1);
    EXPECT_TRUE(fetchAndWait(client)->ok());
    const auto sent = server.requests.size();

    now = now.addSecs(1);
    bool unauthorized = false;
    client.fetchAgents([&](AgentFetchResult r) { unauthorized = r.error() && r.error()->kind == AdminAPIErrorKind::unauthorized; });
    EXPECT_TRUE(unauthorized);  // answered at once
    ostv::test::spin(100);
    EXPECT_EQ(server.requests.size(), sent);

    // The logout reset behaves the same way, and clears the user name.
    now = now.addSecs(-3600);
    ASSERT_TRUE(fetchAndWait(client)->ok());
    client.resetSession();
    EXPECT_FALSE(client.hasToken());
    EXPECT_EQ(client.currentUsername(), "");
    EXPECT_EQ(errorKind(fetchAndWait(client)), AdminAPIErrorKind::unauthorized);
}

TEST_F(AdminClientCanned, AgentListFailures) {
    AdminAPIClient client;
    server.answer("/admin/login", json(200, R"({"token":"t"})"));
    ASSERT_TRUE(loginAndWait(client, "admin", "x")->ok);

    server.answer("/admin/agents", json(200, R"([{"code":"A","controller_count":1},{"code":"B"}])"));
    EXPECT_EQ(errorKind(fetchAndWait(client)), AdminAPIErrorKind::decodeFailed);
    server.answer("/admin/agents", CannedAnswer{200, QByteArray(), {}, false});
    EXPECT_EQ(errorKind(fetchAndWait(client)), AdminAPIErrorKind::decodeFailed);
    // Only 401 is looked at; any other status goes to decoding.
    server.answer("/admin/agents", json(500, R"({"error":"boom"})"));
    EXPECT_EQ(errorKind(fetchAndWait(client)), AdminAPIErrorKind::decodeFailed);
    server.answer("/admin/agents", json(503, R"([{"code":"A","controller_count":1}])"));
    EXPECT_TRUE(fetchAndWait(client)->ok());
    EXPECT_TRUE(client.hasToken());  // none of this drops the token

    // A 401 with an HTTP authentication challenge is not answered with credentials.
    StdoutCapture log;
    server.answer("/admin/agents", CannedAnswer{401, "no", {{"WWW-Authenticate", "Basic realm=\"admin\""}}, false});
    EXPECT_EQ(errorKind(fetchAndWait(client)), AdminAPIErrorKind::unauthorized);
    EXPECT_FALSE(client.hasToken());
    EXPECT_NE(log.text().find("[TLS] task challenge: HTTP host=127.0.0.1\n"), std::string::npos) << log.text();
}

// ---- addresses and transport ----

class AdminClientAddress : public ::testing::Test {
protected:
    void TearDown() override {
        ServerConfig::defaults().remove(SettingsKey::serverHost);
        ServerConfig::defaults().remove(SettingsKey::adminServerPort);
    }
};

TEST_F(AdminClientAddress, PortZeroOrNegativeAndAbsentHostGiveTheDefaults) {
    ServerConfig::defaults().remove(SettingsKey::serverHost);
    for (int port : {0, -1, -8080}) {
        ServerConfig::setInteger(SettingsKey::adminServerPort, port);
        AdminAPIClient client;
        StdoutCapture log;
        startLogin(client, "admin", "x");
        EXPECT_NE(log.text().find("[LOGIN] → POST http://127.0.0.1:8080/admin/login  user=admin"), std::string::npos)
            << port << log.text();
    }
}

TEST_F(AdminClientAddress, AnAddressThatMakesNoURL) {
    for (const char* host : {"", "bad host", "[::1"}) {
        ServerConfig::setString(SettingsKey::serverHost, host);
        AdminAPIClient client;
        StdoutCapture log;
        auto login = startLogin(client, "admin", "x");
        EXPECT_EQ(login->calls, 0);  // never inline: the completion is posted to the main thread
        ASSERT_TRUE(waitUntil([&] { return login->calls > 0; }));
        EXPECT_FALSE(login->ok);
        EXPECT_EQ(login->message, QString("服务器地址无效"));
        EXPECT_NE(log.text().find(std::string("[LOGIN] ❌ invalid URL: http://") + host + ":8080/admin/login\n"),
                  std::string::npos)
            << log.text();
    }
}

TEST_F(AdminClientAddress, AnInvalidAddressAfterLoginFailsTheFetch) {
    CannedHttpServer server;
    ASSERT_TRUE(server.start());
    server.answerAll(json(200, R"({"token":"t"})"));
    pointSettingsAt(server.serverPort());
    AdminAPIClient client;
    ASSERT_TRUE(loginAndWait(client, "admin", "x")->ok);
    ServerConfig::setString(SettingsKey::serverHost, "");
    const auto r = fetchAndWait(client);
    EXPECT_EQ(errorKind(r), AdminAPIErrorKind::invalidURL);
    EXPECT_EQ(r->error()->description, "Invalid server URL");
}

TEST_F(AdminClientAddress, ARefusedConnectionIsATransportError) {
    quint16 closedPort = 0;
    {
        QTcpServer probe;
        ASSERT_TRUE(probe.listen(QHostAddress::LocalHost, 0));
        closedPort = probe.serverPort();
    }
    pointSettingsAt(closedPort);
    AdminAPIClient client;
    StdoutCapture log;
    const auto login = loginAndWait(client, "admin", "x");
    EXPECT_FALSE(login->ok);
    EXPECT_EQ(login->message, QString("Connection refused"));
    EXPECT_NE(log.text().find("ms  network error: domain=QNetworkReply code=1 Connection refused\n"), std::string::npos)
        << log.text();
    EXPECT_FALSE(client.hasToken());
}

TEST_F(AdminClientAddress, AServerThatNeverAnswersTimesOut) {
    CannedHttpServer server;
    ASSERT_TRUE(server.start());
    server.answerAll(CannedAnswer{200, {}, {}, true});
    pointSettingsAt(server.serverPort());
    AdminAPIClient client;
    StdoutCapture log;
    // No progress for 8 s ends the request (the session's idle limit).
    const auto login = loginAndWait(client, "admin", "x", 12000);
    EXPECT_FALSE(login->ok);
    EXPECT_EQ(login->message, QString("Request timed out"));
    EXPECT_NE(log.text().find("network error: domain=QNetworkReply code=4 Request timed out\n"), std::string::npos)
        << log.text();
}

}  // namespace
