// The server's and the agent program's command lines, the agent's state folder and its backoff, the
// reading of the machine's load, and the guards: limits on failed attempts, log text from the network,
// and the shells' clean environment.
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tuple>

#include "AttemptLimiter.h"
#include "LogText.h"
#include "TestSupport.h"
#include "agent/PtyProcess.h"
#include "agent/SystemLoad.h"
#include "link/AgentClient.h"
#include "link/AgentHub.h"
#include "program/AgentOptions.h"
#include "program/ServerOptions.h"

using namespace ostv::server;
using ostv::server::AttemptLimiter;

namespace {

// Defaults and options the program tests do not give (those show through the program's behaviour), and
// bad arguments, each named in the refusal.
TEST(ServerOptions, DefaultsOptionsAndBadArgumentsNamed) {
    QString error;
    auto d = ServerOptions::parse({}, &error);
    ASSERT_TRUE(d);
    EXPECT_EQ(std::tie(d->quicPort, d->adminPort, d->user, d->agents, d->limit, d->name),
              std::make_tuple(9090, 8080, QString("admin"), 1, 8, QString()));

    auto o = ServerOptions::parse({"--bind", "::1", "--admin-port=0", "--agents", "2", "--code", "123456", "--code=000001", "--limit",
                    "2", "--shell", "/bin/sh", "--agent-secret-file", "/tmp/s", "--name", " lab box "}, &error);
    ASSERT_TRUE(o) << error.toStdString();
    EXPECT_EQ(std::tie(o->bind, o->adminPort, o->limit, o->shell, o->agentSecretFile, o->name),
              std::make_tuple(QString("::1"), 0, 2, QString("/bin/sh"), QString("/tmp/s"), QString("lab box")));
    EXPECT_EQ(o->codes, (std::vector<std::string>{"123456", "000001"}));
    EXPECT_EQ(ServerOptions::parse({"--agents", "0"}, &error)->agents, 0);

    const std::pair<QStringList, const char*> bad[] = {
        {{"--frobnicate"}, "--frobnicate"},
        {{"--quic-port"}, "--quic-port"},
        {{"--quic-port", "70000"}, "70000"},
        {{"--admin-port", "http"}, "http"},
        {{"--bind", "localhost"}, "localhost"},
        {{"--agents", "-1"}, "--agents"},
        {{"--agents", "65"}, "--agents"},
        {{"--code", "12345"}, "12345"},
        {{"--code", "1234567"}, "1234567"},
        {{"--code", "12345a"}, "12345a"},
        {{"--code", "111111", "--code", "111111"}, "111111"},
        {{"--agents", "1", "--code", "111111", "--code", "222222"}, "codes"},
        {{"--limit", "0"}, "--limit"},
        {{"--shell", "/no/such/shell"}, "/no/such/shell"},
        {{"--user", ""}, "--user"},
        {{"--name", "  "}, "--name"},
        {{"--name", "two\nlines"}, "--name"},
        {{"--name", QString(65, 'n')}, "--name"},
    };
    for (const auto& [args, mentions] : bad) {
        QString why;
        EXPECT_FALSE(ServerOptions::parse(args, &why)) << args.join(' ').toStdString();
        EXPECT_TRUE(why.contains(QString::fromUtf8(mentions))) << why.toStdString();
    }
}

TEST(AgentOptions, RelayAddressesAndBadArguments) {
    // The address, the host and port it names (or "refused").
    const std::tuple<const char*, const char*, int> addresses[] = {
        {"relay.example.net", "relay.example.net", 9090}, {"10.0.0.5:7000", "10.0.0.5", 7000},
        {"[::1]:7001", "::1", 7001},                      {"[fe80::1]", "fe80::1", 9090},
        {"fe80::2", "fe80::2", 9090},                     {"host:0", "refused", 0},
        {"host:70000", "refused", 0},                     {"[::1", "refused", 0},
        {"[::1]x", "refused", 0},                         {":9090", "refused", 0},
        {"a b", "refused", 0},
    };
    for (const auto& [text, host, port] : addresses) {
        QString h;
        int p = 9090;
        const bool ok = splitHostPort(QString::fromUtf8(text), &h, &p);
        EXPECT_EQ(ok ? std::pair(h, p) : std::pair(QString("refused"), 0), std::pair(QString::fromUtf8(host), port)) << text;
    }

    QString error;
    auto o = AgentOptions::parse({"--relay", "r:1", "--secret-file", "/s", "--code", "012345", "--limit", "3",
                                  "--state-dir", "/st", "--machine-id", "m-1", "--shell", "/bin/sh"},
                                 &error);
    ASSERT_TRUE(o) << error.toStdString();
    EXPECT_EQ(std::tie(o->relayHost, o->relayPort, o->code, o->limit, o->stateDir, o->name, o->allowRoot),
              std::make_tuple(QString("r"), 1, QString("012345"), 3, QString("/st"), QString(), false));
    EXPECT_TRUE(AgentOptions::parse({"--help"}, &error)->help);
    auto named = AgentOptions::parse({"--relay", "r", "--secret-file", "/s", "--name", " far box ", "--allow-root"}, &error);
    ASSERT_TRUE(named) << error.toStdString();
    EXPECT_EQ(std::tie(named->name, named->allowRoot), std::make_tuple(QString("far box"), true));
    // Shells as root only when asked for.
    EXPECT_TRUE(o->mayRunAs(false, &error));
    EXPECT_FALSE(o->mayRunAs(true, &error));
    EXPECT_TRUE(error.contains("--allow-root")) << error.toStdString();
    EXPECT_TRUE(named->mayRunAs(true, &error));
    const std::pair<QStringList, const char*> bad[] = {
        {{"--secret-file", "/s"}, "--relay"},
        {{"--relay", "r"}, "--secret-file"},
        {{"--relay", "r", "--secret-file", "/s", "--code", "12345"}, "12345"},
        {{"--relay", "r", "--secret-file", "/s", "--limit", "65"}, "--limit"},
        {{"--relay", "r", "--secret-file", "/s", "--machine-id", "a/b"}, "a/b"},
        {{"--relay", "r", "--secret-file", "/s", "--bind", "x"}, "--bind"},
        {{"--relay", "r", "--secret-file", "/s", "--name", "two\nlines"}, "--name"},  // checked as the server's are
    };
    for (const auto& [args, mentions] : bad) {
        EXPECT_FALSE(AgentOptions::parse(args, &error)) << args.join(' ').toStdString();
        EXPECT_TRUE(error.contains(QString::fromUtf8(mentions))) << error.toStdString();
    }
}

TEST(AgentOptions, StateFolderAndSecretsAreKeptPrivate) {
    QTemporaryDir dir;
    QString error;
    const QString state = dir.filePath("state");
    auto mode = [](const QString& path) {
        struct stat st {};
        return ::stat(QFile::encodeName(path).constData(), &st) == 0 ? st.st_mode & 0777 : ~0u;
    };
    const auto code = keptPairingCode(state, &error);
    ASSERT_TRUE(code) << error.toStdString();
    EXPECT_EQ(keptPairingCode(state, &error), code) << "the code survives restarts";
    EXPECT_EQ(mode(state + "/code"), 0600u);
    EXPECT_EQ(mode(state), 0700u);

    bool made = false;
    const QString secretPath = dir.filePath("relay/agent-secret");
    const auto secret = readOrMakeSecretFile(secretPath, &made, &error);
    ASSERT_TRUE(secret && made) << error.toStdString();
    EXPECT_EQ(secret->size(), 64u);
    EXPECT_EQ(mode(secretPath), 0600u);
    EXPECT_EQ(readOrMakeSecretFile(secretPath, &made, &error), secret);
    EXPECT_FALSE(made);
    EXPECT_EQ(readSecretFile(secretPath, &error), secret);
    EXPECT_FALSE(readSecretFile(dir.filePath("none"), &error));
    EXPECT_TRUE(error.contains("none"));
    // A secret other users may read is refused, on both sides.
    ASSERT_EQ(::chmod(QFile::encodeName(secretPath).constData(), 0640), 0);
    EXPECT_FALSE(readSecretFile(secretPath, &error));
    EXPECT_TRUE(error.contains("chmod 600")) << error.toStdString();
    EXPECT_FALSE(readOrMakeSecretFile(secretPath, &made, &error));
    ASSERT_EQ(::chmod(QFile::encodeName(secretPath).constData(), 0600), 0);

    EXPECT_TRUE(sameSecret(*secret, *secret));
    for (const std::string& other : {std::string(), *secret + "0", secret->substr(1), "x" + secret->substr(1)})
        EXPECT_FALSE(sameSecret(*secret, other)) << other;
    EXPECT_FALSE(sameSecret("", "")) << "an empty secret matches nothing";
}

TEST(AgentClient, RetryDelayDoublesFromOneSecondToThirtyWithJitter) {
    const std::tuple<int, double, int> cases[] = {{0, 1.0, 1000},   {1, 1.0, 2000},   {4, 1.0, 16000},
                                                  {5, 1.0, 30000},  {40, 1.0, 30000}, {0, 0.8, 800},
                                                  {3, 1.2, 9600},   {4, 1.2, 19200},  {5, 1.2, 30000}};
    for (const auto& [failures, jitter, ms] : cases)
        EXPECT_EQ(AgentClient::retryDelayMs(failures, jitter), ms) << failures << " " << jitter;
}

// Who may start, with which password, on loopback and beyond it.
TEST(ServerOptions, PasswordAndRootRulesBeyondLoopback) {
    const QString dir = ostv::test::makeTempDir();
    auto writeFile = [&](const char* name, const QByteArray& text, QFile::Permissions mode) {
        QFile f(dir + "/" + name);
        EXPECT_TRUE(f.open(QIODevice::WriteOnly) && f.write(text) == text.size() && f.setPermissions(mode));
        return f.fileName();
    };
    const QFile::Permissions mine = QFile::ReadOwner | QFile::WriteOwner;
    const QString good = writeFile("good", "from-file-pw\nsecond line\n", mine);
    const QString open = writeFile("open", "from-file-pw\n", mine | QFile::ReadGroup | QFile::ReadOther);
    struct Case {
        QStringList args;
        bool root;
        const char* refusal;  // nullptr: starts
        const char* password; // the password it ends with; nullptr: a random one
    };
    const Case cases[] = {
        {{}, false, nullptr, "quill_tarn"},
        {{"--password", ""}, true, nullptr, ""},
        {{"--bind", "::1", "--password", "quill_tarn"}, true, nullptr, "quill_tarn"},
        {{"--bind", "10.1.2.3"}, false, nullptr, nullptr},
        {{"--bind", "10.1.2.3", "--password", "quill_tarn"}, false, "the default admin password", nullptr},
        {{"--bind", "0.0.0.0", "--password", ""}, false, "an empty admin password", nullptr},
        {{"--bind", "10.1.2.3", "--password", "s3cret-enough"}, false, nullptr, "s3cret-enough"},
        {{"--bind", "10.1.2.3", "--password-file", good}, false, nullptr, "from-file-pw"},
        {{"--password-file", open}, false, "chmod 600", nullptr},
        {{"--password-file", dir + "/missing"}, false, "cannot read", nullptr},
        {{"--bind", "10.1.2.3"}, true, "--allow-root", nullptr},
        {{"--bind", "10.1.2.3", "--allow-root"}, true, nullptr, nullptr},
    };
    for (const Case& c : cases) {
        const std::string label = c.args.join(' ').toStdString() + (c.root ? " as root" : "");
        QString error;
        auto o = ServerOptions::parse(c.args, &error);
        ASSERT_TRUE(o) << label;
        bool generated = false;
        const bool ok = o->settle(c.root, &generated, &error);
        if (c.refusal) {
            EXPECT_FALSE(ok) << label;
            EXPECT_TRUE(error.contains(QString::fromUtf8(c.refusal))) << label << ": " << error.toStdString();
            EXPECT_FALSE(error.contains('\n')) << "one line";
            continue;
        }
        EXPECT_TRUE(ok) << label << ": " << error.toStdString();
        EXPECT_EQ(generated, c.password == nullptr) << label;
        if (c.password) EXPECT_EQ(o->password, QString::fromUtf8(c.password)) << label;
        else EXPECT_GE(o->password.size(), 20) << label;
    }
    EXPECT_NE(randomPassword(), randomPassword());
    QString error;
    EXPECT_FALSE(ServerOptions::parse({"--password", "a", "--password-file", good}, &error));
    EXPECT_TRUE(error.contains("only one")) << error.toStdString();
}

TEST(AttemptLimiter, AddressesWaitDoublingAndAllTogetherShareOneRate) {
    using namespace std::chrono_literals;
    const AttemptLimiter::Policy policy{.freeFailures = 3, .firstWait = 1000ms, .maxWait = 4000ms, .globalPerMinute = 6};
    AttemptLimiter limiter(policy);
    const auto t0 = AttemptLimiter::Clock::now();
    const QHostAddress a("192.0.2.1"), b("192.0.2.2");

    // Two free failures, then waits of 1, 2, 4, 4 s.
    auto t = t0;
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(limiter.check(a, t));
        limiter.failed(a, t);
    }
    for (const auto wait : {1000ms, 2000ms, 4000ms}) {
        ASSERT_TRUE(limiter.check(a, t));
        limiter.failed(a, t);
        const auto refused = limiter.check(a, t + wait - 10ms);
        EXPECT_EQ(refused.verdict, AttemptLimiter::Verdict::addressWaiting) << wait.count();
        EXPECT_LE(refused.retryAfter, 11ms) << wait.count();
        EXPECT_TRUE(limiter.check(a, t + wait)) << wait.count();
        t += wait + 10s;  // the bucket refills meanwhile
    }
    EXPECT_TRUE(limiter.check(b, t)) << "another address is not held up";
    limiter.succeeded(a);
    EXPECT_TRUE(limiter.check(a, t));

    // Many addresses together: six failures empty the bucket, then everybody waits for a refill.
    AttemptLimiter shared(policy);
    for (int i = 0; i < 6; ++i) {
        const QHostAddress from(QStringLiteral("198.51.100.%1").arg(i + 1));
        ASSERT_TRUE(shared.check(from, t0)) << i;
        shared.failed(from, t0);
    }
    const auto busy = shared.check(QHostAddress("203.0.113.9"), t0);
    EXPECT_EQ(busy.verdict, AttemptLimiter::Verdict::busy);
    EXPECT_TRUE(busy.log) << "the first refusal of an interval is logged";
    EXPECT_FALSE(shared.check(QHostAddress("203.0.113.9"), t0 + 1s).log) << "later ones only counted";
    EXPECT_TRUE(shared.check(QHostAddress("203.0.113.9"), t0 + 10s)) << "one more per 10 s at 6 a minute";

    // IPv6 addresses of one /64 count together.
    EXPECT_EQ(AttemptLimiter::sourceKey(QHostAddress("2001:db8:1:2::5")),
              AttemptLimiter::sourceKey(QHostAddress("2001:db8:1:2:ffff::1")));
    EXPECT_EQ(AttemptLimiter::sourceKey(QHostAddress("::ffff:192.0.2.1")), "192.0.2.1");
}

TEST(LogText, ControlCharactersAreEscapedAndLongTextCut) {
    const std::pair<std::string, std::string> cases[] = {
        {"plain nick", "plain nick"},
        {"\x1b]0;owned\x07", "\\x1b]0;owned\\x07"},
        {"two\nlines\r", "two\\x0alines\\x0d"},
        {"quote\" back\\", "quote\\\" back\\\\"},
        {"\u202eevil", "\\u{202e}evil"},
        {"\xc2\x9b" "31m", "\\x9b31m"},
        {"中文昵称", "中文昵称"},
        {std::string(100, 'a'), std::string(64, 'a') + "..."},
    };
    for (const auto& [in, want] : cases) EXPECT_EQ(ostv::server::logSafe(in), want) << in;
}

// A login shell that sees the user's own variables, none of the server's, and a UTF-8 locale when the
// server has none.
TEST(PtyProcess, ShellsGetACleanEnvironment) {
    const char* secrets[] = {"SSH_AUTH_SOCK", "DISPLAY", "DBUS_SESSION_BUS_ADDRESS", "SUDO_USER", "OSTV_TEST_SECRET"};
    for (const char* name : secrets) qputenv(name, "leaked-value");
    const QByteArray lang = qgetenv("LANG"), lcAll = qgetenv("LC_ALL");
    qunsetenv("LANG");
    qunsetenv("LC_ALL");
    QString error;
    auto p = PtyProcess::start({.shell = QStringLiteral("/bin/sh"), .cwd = QDir::tempPath(),
                                .extraEnv = {QStringLiteral("OSTV_EXTRA=given")}}, &error);
    for (const char* name : secrets) qunsetenv(name);
    if (!lang.isNull()) qputenv("LANG", lang);
    if (!lcAll.isNull()) qputenv("LC_ALL", lcAll);
    ASSERT_TRUE(p) << error.toStdString();
    std::string out;
    bool ended = false;
    p->onOutput = [&](std::string_view b) { out.append(b); };
    p->onExit = [&] { ended = true; };
    p->write("env; echo zero=$0; exit\n");
    ASSERT_TRUE(ostv::test::waitUntil([&] { return ended; }, 10000)) << out;
    EXPECT_EQ(out.find("leaked-value"), std::string::npos) << out;
    for (const char* want : {"HOME=", "USER=", "LOGNAME=", "SHELL=/bin/sh", "PATH=", "TERM=xterm-256color",
                             "LANG=C.UTF-8", "OSTV_EXTRA=given", "zero=-sh"})
        EXPECT_NE(out.find(want), std::string::npos) << want << " in\n" << out;
}

TEST(SystemLoad, ProcStatAndMeminfo) {
    auto t = parseProcStat("cpu  100 20 30 800 50 0 0 0 7 0\ncpu0 1 2 3 4\nintr 5\n");
    ASSERT_TRUE(t);
    EXPECT_EQ(t->total, 1000u) << "guest time is already inside user";
    EXPECT_EQ(t->busy, 150u) << "idle and iowait are not busy";
    EXPECT_FALSE(parseProcStat("cpu0 1 2 3 4\n"));
    EXPECT_FALSE(parseProcStat("cpu  1 2\n"));
    EXPECT_FALSE(parseProcStat(""));

    EXPECT_DOUBLE_EQ(cpuPercent({150, 1000}, {300, 1200}), 75.0);
    EXPECT_DOUBLE_EQ(cpuPercent({150, 1000}, {150, 1000}), 0.0);
    EXPECT_DOUBLE_EQ(cpuPercent({150, 1000}, {100, 900}), 0.0) << "counters that went back";

    auto m = parseMemInfo("MemTotal:       8000 kB\nMemFree:   100 kB\nMemAvailable:   2000 kB\n");
    ASSERT_TRUE(m);
    EXPECT_DOUBLE_EQ(*m, 75.0);
    EXPECT_FALSE(parseMemInfo("MemTotal: 8000 kB\n"));
    EXPECT_FALSE(parseMemInfo("MemTotal: 0 kB\nMemAvailable: 0 kB\n"));
    EXPECT_FALSE(parseMemInfo("MemTotalX: 8000 kB\nMemAvailable: 2000 kB\n"));
}

}  // namespace
