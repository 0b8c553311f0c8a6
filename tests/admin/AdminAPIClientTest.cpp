// The admin client against canned answers (the server's side is tested with the admin interface).
#include "AdminAPIClient.h"
#include "HttpFixture.h"
#include "MainThread.h"
#include "ServerConfig.h"
#include "TestSupport.h"

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
std::shared_ptr<LoginOutcome> loginAndWait(AdminAPIClient& client, const QString& user, const QString& password) {
    auto out = startLogin(client, user, password);
    EXPECT_TRUE(waitUntil([&] { return out->calls > 0; }));
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
    StdoutCapture log;
    bool warmedUp = false;
    QObject::connect(&client, &AdminAPIClient::warmUpFinished, [&] { warmedUp = true; });
    client.warmUp();
    ASSERT_TRUE(waitUntil([&] { return warmedUp; }));
    EXPECT_FALSE(client.hasToken());
    const auto login = loginAndWait(client, "ops", "pa\"ss 密码");
    ASSERT_TRUE(login->ok);
    EXPECT_FALSE(login->message);
    EXPECT_TRUE(login->onMainThread);
    EXPECT_TRUE(login->tokenVisible);  // fields are written before the completion runs
    EXPECT_EQ(client.currentUsername(), "Ops");  // the server's spelling wins

    server.answer("/admin/agents", json(200, R"([{"code":"482913","machine_id":"m-1","controller_count":2}])"));
    const auto fetched = fetchAndWait(client);
    ASSERT_TRUE(fetched && fetched->ok());
    ASSERT_EQ(fetched->hosts().size(), 1);  // the rows' own texts are checked with the decoding
    EXPECT_EQ(fetched->hosts()[0].agentCode, "482913");

    // The warm-up and the login share one connection; cookies are neither kept nor sent.
    QList<QByteArrayList> seen;
    for (const auto& r : server.requests)
        seen << QByteArrayList{r.method, r.path, r.headers.value("authorization", "-"), r.headers.value("cookie", "-")};
    EXPECT_EQ(seen, (QList<QByteArrayList>{{"HEAD", "/admin/agents", "-", "-"},
                                           {"POST", "/admin/login", "-", "-"},
                                           {"GET", "/admin/agents", "Bearer tok-1", "-"}}));
    EXPECT_EQ(server.connections, 1);
    EXPECT_EQ(server.requests.value(1).headers.value("content-type"), "application/json");
    EXPECT_EQ(nlohmann::json::parse(server.requests.value(1).body.toStdString(), nullptr, false),
              (nlohmann::json{{"username", "ops"}, {"password", "pa\"ss 密码"}}));

    const std::string text = log.text();
    EXPECT_NE(text.find("[LOGIN] warmUp done "), std::string::npos) << text;
    EXPECT_NE(text.find("ms (TCP now cached)\n"), std::string::npos) << text;
    const std::string url = "http://127.0.0.1:" + std::to_string(server.serverPort()) + "/admin/login";
    EXPECT_NE(text.find("[LOGIN] → POST " + url + "  user=ops  t0="), std::string::npos) << text;
    EXPECT_NE(text.find("ms  HTTP 200\n"), std::string::npos) << text;
    EXPECT_NE(text.find("[LOGIN] ← body: {"), std::string::npos) << text;
    EXPECT_NE(text.find("ms  logged in as Ops\n"), std::string::npos) << text;
}

TEST_F(AdminClientCanned, LoginAnswersThatAreNotASignInBodyDetailsAndAWrongPasswordKeepsTheToken) {
    AdminAPIClient client;
    const struct {
        CannedAnswer answer;
        const char* message;
        const char* logged;
    } cases[] = {
        {json(401, R"({"error":"unauthorized"})"), "登录失败 (HTTP 401)", "[LOGIN] ❌ body: {\"error\":\"unauthorized\"}\n"},
        // A success code other than 200 is a failure too, even with a token in the body.
        {json(201, R"({"token":"t"})"), "登录失败 (HTTP 201)", "ms  HTTP 201\n"},
        {CannedAnswer{500, QByteArray(), {}, false}, "登录失败 (HTTP 500)", "[LOGIN] ❌ body: (nil)\n"},
        {CannedAnswer{200, QByteArray(), {}, false}, "无响应数据", "ms  data is nil\n"},
        {CannedAnswer{200, "\xff\xfe{}", {}, false}, "用户名或密码错误", "[LOGIN] ← body: (not utf8)\n"},
    };
    for (const auto& c : cases) {
        StdoutCapture log;
        server.answerAll(c.answer);
        EXPECT_EQ(loginAndWait(client, "admin", "x")->message, QString(c.message));
        EXPECT_NE(log.text().find(c.logged), std::string::npos) << log.text();
    }
    for (const char* body : {R"({"error":"bad"})", R"({"token":null})", R"({"token":5})", R"(["token"])",
                             R"({"token":"t","username":7})", "not json"}) {
        server.answerAll(json(200, body));
        EXPECT_EQ(loginAndWait(client, "admin", "x")->message, QString("用户名或密码错误")) << body;
    }
    EXPECT_FALSE(client.hasToken());
    EXPECT_EQ(client.currentUsername(), "");

    // Without "username" the typed name is kept, and only the first 200 characters of a long body reach
    // the log. Then a refused sign-in keeps the earlier token and user name; it goes to wherever the
    // settings point by then.
    server.answerAll(json(200, R"({"token":"t1","role":null})"));
    ASSERT_TRUE(loginAndWait(client, "typed", "x")->ok);
    EXPECT_EQ(client.currentUsername(), "typed");

    const std::string prefix = "{\"token\":\"t2\",\"pad\":\"";
    server.answerAll(json(200, (prefix + std::string(300, 'x') + "\"}").c_str()));
    StdoutCapture log;
    ASSERT_TRUE(loginAndWait(client, "typed", "x")->ok);
    const std::string logged = "[LOGIN] ← body: " + prefix + std::string(200 - prefix.size(), 'x') + "\n";
    EXPECT_NE(log.text().find(logged), std::string::npos) << log.text();

    CannedHttpServer moved;
    ASSERT_TRUE(moved.start());
    moved.answerAll(json(200, R"({"error":"invalid credentials"})"));
    pointSettingsAt(moved.serverPort());
    EXPECT_EQ(loginAndWait(client, "admin", "wrong")->message, QString("用户名或密码错误"));
    EXPECT_NE(log.text().find("[LOGIN] ❌ JSON decode failed\n"), std::string::npos);
    EXPECT_EQ(moved.requests.size(), 1);
    EXPECT_TRUE(client.hasToken());
    EXPECT_EQ(client.currentUsername(), "typed");
}

// The token: it expires after 23 hours without any request, goes with a reset or a 401 (but with no
// other failure of the agent list); and a client that is gone calls nothing.
TEST_F(AdminClientCanned, TheTokenExpiresIsResetOrDroppedByA401AndAGoneClientCallsNothing) {
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
    ASSERT_TRUE(loginAndWait(client, "admin", "x")->ok);

    // Only 401 is looked at; any other status goes to decoding. None of this drops the token.
    for (const auto& [answer, decodes] : {std::pair{json(200, R"([{"code":"A","controller_count":1},{"code":"B"}])"), false},
                                          {CannedAnswer{200, QByteArray(), {}, false}, false},
                                          {json(500, R"({"error":"boom"})"), false},
                                          {json(503, R"([{"code":"A","controller_count":1}])"), true}}) {
        server.answer("/admin/agents", answer);
        const auto r = fetchAndWait(client);
        if (decodes) {
            EXPECT_TRUE(r && r->ok());
        } else {
            EXPECT_EQ(errorKind(r), AdminAPIErrorKind::decodeFailed) << answer.body.data();
        }
    }
    EXPECT_TRUE(client.hasToken());

    ServerConfig::setString(SettingsKey::serverHost, "");  // an address that makes no URL
    const auto invalid = fetchAndWait(client);
    EXPECT_EQ(errorKind(invalid), AdminAPIErrorKind::invalidURL);
    EXPECT_EQ(invalid->error()->description, "Invalid server URL");
    pointSettingsAt(server.serverPort());

    // A 401 drops the token; one with an HTTP authentication challenge is not answered with credentials.
    StdoutCapture log;
    server.answer("/admin/agents", CannedAnswer{401, "no", {{"WWW-Authenticate", "Basic realm=\"admin\""}}, false});
    const auto refused = fetchAndWait(client);
    EXPECT_EQ(errorKind(refused), AdminAPIErrorKind::unauthorized);
    EXPECT_EQ(refused->error()->description, "Unauthorized (wrong password?)");
    EXPECT_FALSE(client.hasToken());
    EXPECT_NE(log.text().find("[TLS] task challenge: HTTP host=127.0.0.1\n"), std::string::npos) << log.text();
    // A later fetch fails at once; the client does not sign in again by itself.
    bool calledInline = false;
    client.fetchAgents([&](AgentFetchResult r) { calledInline = r.error() && r.error()->kind == AdminAPIErrorKind::unauthorized; });
    EXPECT_TRUE(calledInline);

    // A client destroyed while its sign-in is under way calls nothing.
    int calls = 0;
    {
        AdminAPIClient gone;
        gone.login("admin", "x", [&](bool, std::optional<QString>) { ++calls; });
        ostv::test::spin(1);
    }
    ostv::test::spin(300);
    EXPECT_EQ(calls, 0);
}

// Sign-ins that reach no server: an address that makes no URL, a refused connection, a server that
// never answers (no progress for 8 s ends the request: the session's idle limit).
TEST(AdminClientAddress, ASignInThatReachesNoServerFailsWithItsReason) {
    quint16 closedPort = 0;
    {
        QTcpServer probe;
        ASSERT_TRUE(probe.listen(QHostAddress::LocalHost, 0));
        closedPort = probe.serverPort();
    }
    CannedHttpServer silent;
    ASSERT_TRUE(silent.start());
    silent.answerAll(CannedAnswer{200, {}, {}, true});
    const struct {
        const char* host;
        quint16 port;  // 0: the default
        const char* message;
        const char* logged;
    } cases[] = {
        {"", 0, "服务器地址无效", "[LOGIN] ❌ invalid URL: http://:8080/admin/login\n"},
        {"bad host", 0, "服务器地址无效", "[LOGIN] ❌ invalid URL: http://bad host:8080/admin/login\n"},
        {"[::1", 0, "服务器地址无效", "[LOGIN] ❌ invalid URL: http://[::1:8080/admin/login\n"},
        {"127.0.0.1", closedPort, "Connection refused", "ms  network error: domain=QNetworkReply code=1 Connection refused\n"},
        {"127.0.0.1", silent.serverPort(), "Request timed out", "ms  network error: domain=QNetworkReply code=4 Request timed out\n"},
    };
    for (const auto& c : cases) {
        ServerConfig::setString(SettingsKey::serverHost, c.host);
        if (c.port) ServerConfig::setInteger(SettingsKey::adminServerPort, c.port);
        else ServerConfig::defaults().remove(SettingsKey::adminServerPort);
        AdminAPIClient client;
        StdoutCapture log;
        auto login = startLogin(client, "admin", "x");
        EXPECT_EQ(login->calls, 0) << c.host;  // never inline: the completion is posted to the main thread
        ASSERT_TRUE(waitUntil([&] { return login->calls > 0; }, 12000)) << c.port;
        EXPECT_FALSE(login->ok);
        EXPECT_EQ(login->message, QString(c.message));
        EXPECT_NE(log.text().find(c.logged), std::string::npos) << log.text();
    }
}

}  // namespace
