// The server's command line and its reading of the machine's load.
#include <gtest/gtest.h>

#include "agent/SystemLoad.h"
#include "program/ServerOptions.h"

using namespace ostv::server;

namespace {

std::optional<ServerOptions> parse(const QStringList& args, QString* error = nullptr) {
    QString e;
    auto o = ServerOptions::parse(args, &e);
    if (error) *error = e;
    return o;
}

TEST(ServerOptions, DefaultsAndEveryOption) {
    auto d = parse({});
    ASSERT_TRUE(d);
    EXPECT_EQ(d->bind, "127.0.0.1");
    EXPECT_EQ(d->quicPort, 9090);
    EXPECT_EQ(d->adminPort, 8080);
    EXPECT_EQ(d->user, "admin");
    EXPECT_EQ(d->password, "quill_tarn");
    EXPECT_EQ(d->agents, 1);
    EXPECT_TRUE(d->codes.empty());
    EXPECT_EQ(d->limit, 8);
    EXPECT_FALSE(d->help);
    EXPECT_FALSE(d->exitWithParent);

    auto o = parse({"--bind", "::1", "--quic-port", "0", "--admin-port=0", "--user", "root", "--password", "",
                    "--agents", "3", "--code", "123456", "--code=000001", "--limit", "2", "--shell", "/bin/sh"});
    ASSERT_TRUE(o);
    EXPECT_EQ(o->bind, "::1");
    EXPECT_EQ(o->quicPort, 0);
    EXPECT_EQ(o->adminPort, 0);
    EXPECT_EQ(o->user, "root");
    EXPECT_EQ(o->password, "");
    EXPECT_EQ(o->agents, 3);
    EXPECT_EQ(o->codes, (std::vector<std::string>{"123456", "000001"}));
    EXPECT_EQ(o->limit, 2);
    EXPECT_EQ(o->shell, "/bin/sh");
    EXPECT_TRUE(parse({"--help"})->help);
    EXPECT_TRUE(parse({"--exit-with-parent"})->exitWithParent);
}

TEST(ServerOptions, BadArgumentsAreNamed) {
    struct Case {
        QStringList args;
        const char* mentions;
    };
    const Case cases[] = {
        {{"--frobnicate"}, "--frobnicate"},
        {{"--quic-port"}, "--quic-port"},
        {{"--quic-port", "70000"}, "70000"},
        {{"--admin-port", "http"}, "http"},
        {{"--bind", "localhost"}, "localhost"},
        {{"--agents", "0"}, "--agents"},
        {{"--agents", "65"}, "--agents"},
        {{"--code", "12345"}, "12345"},
        {{"--code", "12345a"}, "12345a"},
        {{"--code", "111111", "--code", "111111"}, "111111"},
        {{"--agents", "1", "--code", "111111", "--code", "222222"}, "codes"},
        {{"--limit", "0"}, "--limit"},
        {{"--shell", "/no/such/shell"}, "/no/such/shell"},
        {{"--user", ""}, "--user"},
    };
    for (const Case& c : cases) {
        QString error;
        EXPECT_FALSE(parse(c.args, &error)) << c.args.join(' ').toStdString();
        EXPECT_TRUE(error.contains(QString::fromUtf8(c.mentions))) << error.toStdString();
    }
}

TEST(ServerOptions, RandomCodesAreSixDigitsAndAvoidTakenOnes) {
    std::vector<std::string> taken;
    for (int i = 0; i < 200; ++i) {
        std::string c = randomPairingCode(taken);
        ASSERT_EQ(c.size(), 6u);
        ASSERT_TRUE(std::all_of(c.begin(), c.end(), ::isdigit)) << c;
        ASSERT_EQ(std::count(taken.begin(), taken.end(), c), 0);
        taken.push_back(c);
    }
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

    SystemLoad live(60000);
    EXPECT_GT(live.mem(), 0.0);
    EXPECT_LE(live.mem(), 100.0);
    EXPECT_GE(live.cpu(), 0.0);
    EXPECT_LE(live.cpu(), 100.0);
}

}  // namespace
