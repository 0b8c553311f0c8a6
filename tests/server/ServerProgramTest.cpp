// The server program as a whole: its start-up lines, its command line, its admin HTTP API over real
// HTTP, and a clean stop.
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QProcess>
#include <QRegularExpression>
#include <QSysInfo>
#include <gtest/gtest.h>
#include <set>
#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

#include "LocalServer.h"
#include "TestSupport.h"

using ostv::test::LocalServer;
using ostv::test::waitUntil;

namespace {

struct HttpAnswer {
    int status = 0;
    QByteArray body;
    QJsonDocument json() const { return QJsonDocument::fromJson(body); }
};

HttpAnswer http(const QByteArray& verb, const QString& url, const QByteArray& body = {},
                const QByteArray& bearer = {}) {
    static QNetworkAccessManager* nam = new QNetworkAccessManager();
    QNetworkRequest req{QUrl(url)};
    if (!body.isNull()) req.setHeader(QNetworkRequest::ContentTypeHeader, "application/json");
    if (!bearer.isNull()) req.setRawHeader("Authorization", "Bearer " + bearer);
    QNetworkReply* reply = nam->sendCustomRequest(req, verb, body);
    EXPECT_TRUE(waitUntil([&] { return reply->isFinished(); }, 10000)) << verb.toStdString() << " " << url.toStdString();
    HttpAnswer a;
    a.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    a.body = reply->readAll();
    reply->deleteLater();
    return a;
}

QByteArray loginBody(const QString& user, const QString& password) {
    return QJsonDocument(QJsonObject{{"username", user}, {"password", password}}).toJson(QJsonDocument::Compact);
}

TEST(ServerProgram, PrintsWhereItListensAndEveryAgentAndKeepsThemOnRestart) {
    const QString state = ostv::test::makeTempDir(QStringLiteral("state")) + "/relay";
    LocalServer server({"--agents", "3", "--code", "123456", "--state-dir", state});
    ASSERT_TRUE(server.start()) << server.errorString().toStdString();
    auto readCert = [&] {
        QFile f(state + "/relay-cert.pem");
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    };
    const QByteArray cert = readCert();
    EXPECT_TRUE(cert.startsWith("-----BEGIN CERTIFICATE-----")) << "the relay keeps its certificate";
    EXPECT_EQ(QFile(state + "/relay-key.pem").permissions() & ~(QFile::ReadOwner | QFile::WriteOwner | QFile::ReadUser | QFile::WriteUser),
              QFile::Permissions()) << "its key is the owner's alone";
    EXPECT_EQ(server.host(), "127.0.0.1");
    EXPECT_NE(server.quicPort(), 0);
    EXPECT_NE(server.adminPort(), 0);
    ASSERT_EQ(server.agents().size(), 3u);
    EXPECT_EQ(server.code(0), "123456");
    std::set<QString> codes, ids;
    for (const auto& a : server.agents()) {
        EXPECT_TRUE(QRegularExpression("^[0-9]{6}$").match(a.code).hasMatch()) << a.code.toStdString();
        EXPECT_FALSE(a.machineId.isEmpty());
        EXPECT_EQ(a.os, "linux");
        codes.insert(a.code);
        ids.insert(a.machineId);
    }
    EXPECT_EQ(codes.size(), 3u);
    EXPECT_EQ(ids.size(), 3u);
    // Printed in the order the client lists them (by machine id), numbered in that order, named after
    // this machine.
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(server.agents()[i].hostname, QSysInfo::machineHostName() + "#" + QString::number(i + 1));
        if (i > 0) {
            EXPECT_LT(server.agents()[i - 1].machineId, server.agents()[i].machineId);
        }
    }
    const auto before = server.agents();
    const quint16 quic = server.quicPort(), admin = server.adminPort();

    ASSERT_TRUE(server.restart()) << server.errorString().toStdString();
    EXPECT_EQ(readCert(), cert) << "the same certificate after a restart";
    EXPECT_EQ(server.quicPort(), quic);
    EXPECT_EQ(server.adminPort(), admin);
    ASSERT_EQ(server.agents().size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(server.agents()[i].code, before[i].code);
        EXPECT_EQ(server.agents()[i].machineId, before[i].machineId) << "machine ids are stable";
    }
}

TEST(ServerProgram, BadCommandLineAndTakenPortsEndWithAClearMessage) {
    LocalServer bad({"--agents", "zero"});
    EXPECT_FALSE(bad.start(10000));
    EXPECT_TRUE(bad.errorString().contains("--agents")) << bad.errorString().toStdString();

    LocalServer first;
    ASSERT_TRUE(first.start()) << first.errorString().toStdString();
    LocalServer second({"--admin-port", QString::number(first.adminPort())});
    EXPECT_FALSE(second.start(10000));
    EXPECT_TRUE(second.errorString().contains(QString::number(first.adminPort()))) << second.errorString().toStdString();
    EXPECT_TRUE(first.isRunning()) << "the first server is not disturbed";

    LocalServer help({"--help"});
    EXPECT_FALSE(help.start(10000));
    EXPECT_TRUE(help.errorString().contains("--quic-port")) << "the usage text names the options";
}

TEST(ServerProgram, StopsCleanlyOnSigterm) {
    LocalServer server;
    ASSERT_TRUE(server.start()) << server.errorString().toStdString();
    const int status = server.stop(5000);
    EXPECT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_FALSE(server.isRunning());
}

// Gone or a zombie: the process has ended.
bool hasEnded(pid_t pid) {
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly)) return true;
    const QByteArray text = stat.readAll();
    return text.mid(text.lastIndexOf(')') + 2, 1) == "Z";
}

// Started by a shell that ends a moment later: with --exit-with-parent the server ends with it, without
// it the server stays (and is stopped here).
TEST(ServerProgram, ExitWithParentEndsTheServerWithTheProcessThatStartedIt) {
    for (const bool withFlag : {true, false}) {
        QProcess sh;
        sh.start(QStringLiteral("/bin/sh"),
                 {QStringLiteral("-c"),
                  QStringLiteral("\"$0\" $1 --quic-port 0 --admin-port 0 >/dev/null 2>&1 & echo $!; sleep 1"),
                  qEnvironmentVariable("OSTV_SERVER_BIN"),
                  withFlag ? QStringLiteral("--exit-with-parent") : QStringLiteral("--agents=1")});
        ASSERT_TRUE(sh.waitForFinished(10000));
        bool ok = false;
        const pid_t pid = sh.readAllStandardOutput().trimmed().toInt(&ok);
        ASSERT_TRUE(ok && pid > 0);
        if (withFlag) {
            EXPECT_TRUE(waitUntil([&] { return hasEnded(pid); }, 5000)) << "the server outlived its parent";
        } else {
            ostv::test::spin(1000);
            EXPECT_FALSE(hasEnded(pid)) << "without the option the server goes on";
            ::kill(pid, SIGTERM);
            EXPECT_TRUE(waitUntil([&] { return hasEnded(pid); }, 5000));
        }
    }
}

// As root on an address other than loopback (one inside a network namespace of this test), the
// server refuses in one line without --allow-root; with it, it makes and prints a random password.
TEST(ServerProgram, AsRootBeyondLoopbackItRefusesWithoutAllowRoot) {
    if (::geteuid() != 0) GTEST_SKIP() << "not root: the refusal for root cannot be shown";
    const QString ns = QStringLiteral("ostv-hardening-%1").arg(::getpid());
    auto ip = [](const QStringList& args) {
        QProcess p;
        p.start(QStringLiteral("ip"), args);
        return p.waitForFinished(10000) && p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0;
    };
    if (!ip({"netns", "add", ns})) GTEST_SKIP() << "network namespaces are refused here";
    struct Remove {
        QString ns;
        ~Remove() { QProcess::execute(QStringLiteral("ip"), {"netns", "delete", ns}); }
    } remove{ns};
    // Inside a chroot (the clean-room check) a namespace can be made but not entered.
    if (!ip({"netns", "exec", ns, "true"})) GTEST_SKIP() << "network namespaces cannot be entered here";
    ASSERT_TRUE(ip({"netns", "exec", ns, "ip", "link", "set", "lo", "up"}));
    ASSERT_TRUE(ip({"netns", "exec", ns, "ip", "addr", "add", "10.99.0.1/32", "dev", "lo"}));
    const QStringList base = {"netns", "exec", ns, qEnvironmentVariable("OSTV_SERVER_BIN"), "--bind", "10.99.0.1",
                              "--quic-port", "0", "--admin-port", "0", "--exit-with-parent"};

    QProcess refused;
    refused.setProcessChannelMode(QProcess::MergedChannels);
    refused.start(QStringLiteral("ip"), base);
    ASSERT_TRUE(refused.waitForFinished(10000));
    EXPECT_EQ(refused.exitCode(), 1);
    const QString said = QString::fromLocal8Bit(refused.readAll()).trimmed();
    EXPECT_FALSE(said.contains('\n')) << said.toStdString();
    EXPECT_TRUE(said.contains("root") && said.contains("--allow-root")) << said.toStdString();

    QProcess allowed;
    allowed.setProcessChannelMode(QProcess::MergedChannels);
    allowed.start(QStringLiteral("ip"), base + QStringList{"--allow-root"});
    QByteArray out;
    EXPECT_TRUE(waitUntil([&] {
        out += allowed.readAll();
        return out.contains("ostvarren-server: ready") || allowed.state() == QProcess::NotRunning;
    }, 15000));
    EXPECT_TRUE(out.contains("ostvarren-server: ready")) << out.toStdString();
    EXPECT_TRUE(QRegularExpression("admin password [A-Za-z0-9]{20} ").match(QString::fromLatin1(out)).hasMatch())
        << out.toStdString();
    allowed.terminate();
    EXPECT_TRUE(allowed.waitForFinished(10000));
}

// The program's own admin credentials, and its agents as the list shows them (the request handling
// itself is tested on the admin API alone).
TEST(AdminApi, SignInWithTheGivenCredentialsThenTheAgentList) {
    LocalServer server({"--agents", "2", "--code", "654321", "--user", "ops", "--password", "s3cret", "--name", "lab box"});
    ASSERT_TRUE(server.start()) << server.errorString().toStdString();
    const QString agentsUrl = server.adminUrl() + "/admin/agents";
    const QString loginUrl = server.adminUrl() + "/admin/login";

    EXPECT_EQ(http("GET", agentsUrl).status, 401);
    EXPECT_EQ(http("HEAD", agentsUrl).status, 401);
    const HttpAnswer defaults = http("POST", loginUrl, loginBody("admin", "quill_tarn"));
    EXPECT_FALSE(defaults.json().object().contains("token")) << "the default credentials no longer sign in";
    const HttpAnswer ok = http("POST", loginUrl, loginBody("ops", "s3cret"));
    EXPECT_EQ(ok.json()["username"].toString(), "ops");
    const QByteArray token = ok.json()["token"].toString().toUtf8();
    ASSERT_FALSE(token.isEmpty()) << ok.body.toStdString();
    HttpAnswer list = http("GET", agentsUrl, {}, token);
    EXPECT_EQ(list.status, 200);
    ASSERT_TRUE(list.json().isArray()) << list.body.toStdString();
    QJsonArray arr = list.json().array();
    ASSERT_EQ(arr.size(), 2);
    for (int i = 0; i < 2; ++i) {
        QJsonObject a = arr[i].toObject();
        EXPECT_EQ(a["code"].toString(), server.agents()[static_cast<size_t>(i)].code);
        EXPECT_EQ(a["machine_id"].toString(), server.agents()[static_cast<size_t>(i)].machineId);
        EXPECT_EQ(a["os"].toString(), "linux");
        EXPECT_EQ(a["hostname"].toString(), QStringLiteral("lab box#%1").arg(i + 1));
        EXPECT_EQ(a["hostname"].toString(), server.agents()[static_cast<size_t>(i)].hostname);
        EXPECT_TRUE(a["controller_count"].isDouble());
        EXPECT_EQ(a["controller_count"].toInt(-1), 0);
        EXPECT_GE(a["cpu"].toDouble(-1), 0.0);
        EXPECT_GT(a["mem"].toDouble(-1), 0.0);
    }
    EXPECT_EQ(arr[0].toObject()["code"].toString(), "654321");

    // A server that was restarted has forgotten the tokens it handed out.
    ASSERT_TRUE(server.restart()) << server.errorString().toStdString();
    EXPECT_EQ(http("GET", agentsUrl, {}, token).status, 401);
}

}  // namespace
