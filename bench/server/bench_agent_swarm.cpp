// One relay (the server program with no built-in agent) under a swarm of agents speaking the real agent
// protocol (the agent program's own client and agent code, many in this process) and controllers
// typing once a second into real shells on them. Prints the relay's resident memory per agent at half
// and at full swarm (linear growth: the two agree), its CPU while the controllers type, and the typing
// echo round trip.
//
// Each agent dials from a loopback address of its own (127.0.x.y: its control connection and its
// seat connections alike) and each controller from another one, as agents on separate machines
// would: the relay's cap on connections from one address does not come into it.
//
// The echo's round trip includes this process's one event loop, which carries all 500 agents, their
// 100 shells and the controllers: an upper bound on what the relay adds (its CPU is printed apart).
//
//   bench_agent_swarm [agents, default 500] [controllers, default 100] [seconds of typing, default 20]
#include <QCoreApplication>
#include <QEventLoop>
#include <QFile>
#include <QHostAddress>
#include <QTemporaryDir>
#include <QTimer>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

#include "LocalServer.h"
#include "Message.h"
#include "TestSupport.h"
#include "link/AgentClient.h"
#include "program/AgentOptions.h"
#include "quic/QuicClient.h"

using namespace ostv;
using namespace ostv::server;
using ostv::test::LocalServer;
using ostv::test::spin;
using ostv::test::waitUntil;
using Clock = std::chrono::steady_clock;

namespace {

long rssKb(pid_t pid) {
    QFile f(QStringLiteral("/proc/%1/status").arg(pid));
    if (!f.open(QIODevice::ReadOnly)) return 0;
    for (const QByteArray& line : f.readAll().split('\n'))
        if (line.startsWith("VmRSS:")) return line.mid(6).trimmed().split(' ').first().toLong();
    return 0;
}

// User plus system CPU time of a process, in clock ticks.
long cpuTicks(pid_t pid) {
    QFile f(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!f.open(QIODevice::ReadOnly)) return 0;
    const QByteArray s = f.readAll();
    const QList<QByteArray> rest = s.mid(s.lastIndexOf(')') + 2).split(' ');
    return rest.size() > 12 ? rest[11].toLong() + rest[12].toLong() : 0;
}

// One controller: pairs, opens a shell running cat and types one key a second into it.
struct Typist {
    std::unique_ptr<QuicClient> c;
    std::string code;
    bool paired = false;
    bool ready = false;
    Clock::time_point sent;
    bool waiting = false;
    std::vector<long> rtt;
    int lost = 0;
};

std::string tail(const std::string& s) { return s.substr(s.size() > 3000 ? s.size() - 3000 : 0); }

// The i-th address of a block of loopback addresses: 127.<block>.<1 + i / 250>.<1 + i % 250>.
QHostAddress loopbackSource(int block, int i) {
    return QHostAddress(QStringLiteral("127.%1.%2.%3").arg(block).arg(1 + i / 250).arg(1 + i % 250));
}

long percentile(std::vector<long> v, double p) {
    if (v.empty()) return -1;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size())))];
}

}  // namespace

int main(int argc, char** argv) {
    ostv::test::prepareEnvironment();
    QCoreApplication app(argc, argv);
    const int agents = argc > 1 ? std::max(1, std::atoi(argv[1])) : 500;
    const int typists = argc > 2 ? std::clamp(std::atoi(argv[2]), 1, agents) : std::min(100, agents);
    const int seconds = argc > 3 ? std::max(2, std::atoi(argv[3])) : 20;

    rlimit lim{};
    getrlimit(RLIMIT_NOFILE, &lim);
    lim.rlim_cur = lim.rlim_max;
    setrlimit(RLIMIT_NOFILE, &lim);

    QTemporaryDir dir;
    const QString secretPath = dir.filePath("agent-secret");
    LocalServer relay({"--agents", "0", "--agent-secret-file", secretPath});
    relay.setEnv("HOME", dir.path());
    if (!relay.start()) {
        std::fprintf(stderr, "relay did not start: %s\n", relay.errorString().toLocal8Bit().constData());
        return 1;
    }
    QString error;
    const auto secret = readSecretFile(secretPath, &error);
    if (!secret) return 1;
    spin(300);
    const long rssBase = rssKb(relay.pid());

    // The swarm, in steps so that the handshakes do not all land at once.
    std::vector<std::unique_ptr<AgentClient>> swarm;
    int registered = 0;
    long rssHalf = 0;
    auto grow = [&](int upTo) {
        while (static_cast<int>(swarm.size()) < upTo) {
            const int i = static_cast<int>(swarm.size());
            AgentClientOptions o;
            o.host = relay.host().toStdString();
            o.port = relay.quicPort();
            o.secret = *secret;
            o.agent.code = QStringLiteral("%1").arg(100000 + i, 6, 10, QChar('0')).toStdString();
            o.agent.machineId = "swarm-" + std::to_string(i);
            o.agent.homeDir = dir.path();
            o.agent.shell = "/bin/sh";
            swarm.push_back(std::make_unique<AgentClient>(o, [] { return std::pair<double, double>{1.0, 2.0}; }));
            swarm.back()->setProperty(QuicClient::kSourceAddressProperty, loopbackSource(1, i).toString());
            swarm.back()->onRegistered = [&registered] { ++registered; };
            swarm.back()->start();
            if (swarm.size() % 25 == 0) spin(50);
        }
    };
    grow(agents / 2);
    if (!waitUntil([&] { return registered >= agents / 2; }, 60000)) {
        std::fprintf(stderr, "only %d of %d agents registered; the relay said:\n%s\n", registered, agents / 2,
                     tail(relay.output()).c_str());
        return 1;
    }
    spin(2500);  // a status round from each
    rssHalf = rssKb(relay.pid());
    grow(agents);
    if (!waitUntil([&] { return registered >= agents; }, 60000)) {
        std::fprintf(stderr, "only %d of %d agents registered; the relay said:\n%s\n", registered, agents,
                     tail(relay.output()).c_str());
        return 1;
    }
    spin(2500);
    const long rssFull = rssKb(relay.pid());

    // The controllers, one per agent on the first agents.
    std::vector<std::unique_ptr<Typist>> ts;
    const auto addresses = resolveHost(relay.host().toStdString(), relay.quicPort(), nullptr);
    for (int i = 0; i < typists; ++i) {
        auto t = std::make_unique<Typist>();
        Typist* tp = t.get();
        tp->code = swarm[static_cast<size_t>(i)]->agent().config().code;
        tp->c = std::make_unique<QuicClient>();
        tp->c->alpn = kRelayAlpn;
        tp->c->onEstablished = [tp] {
            Message m("pair");
            m.code = tp->code;
            m.nickname = "typist";
            tp->c->sendLine(m.encode());
        };
        tp->c->onLine = [tp](std::string_view line) {
            auto m = Message::decode(line);
            if (!m) return;
            if (m->type == "paired") {
                tp->paired = true;
                Message c("CREATE_PTY");
                c.ptyId = 1;
                c.cols = 80;
                c.rows = 24;
                c.clientId = "typist-" + tp->code;
                tp->c->sendLine(c.encode());
                Message in("INPUT");
                in.ptyId = 1;
                in.data = "exec cat\r";
                tp->c->sendLine(in.encode());
            } else if (m->type == "PTY_DATA" && m->data) {
                const QByteArray out = QByteArray::fromBase64(QByteArray::fromStdString(*m->data));
                if (out.contains("exec cat")) tp->ready = true;
                if (tp->waiting && out.contains('k')) {
                    tp->waiting = false;
                    tp->rtt.push_back(static_cast<long>(
                        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - tp->sent).count()));
                }
            }
        };
        std::string error;
        if (!tp->c->dial(addresses.front(), "ctrl-" + tp->code, &error, loopbackSource(2, i))) {
            std::fprintf(stderr, "controller %d cannot dial: %s\n", i, error.c_str());
            return 1;
        }
        ts.push_back(std::move(t));
        if (ts.size() % 20 == 0) spin(50);
    }
    const bool allPaired =
        waitUntil([&] { return std::all_of(ts.begin(), ts.end(), [](const auto& t) { return t->paired; }); }, 90000);
    spin(1500);
    const long rssPaired = rssKb(relay.pid());

    // Typing: each controller once a second, spread over the second.
    std::vector<std::unique_ptr<QTimer>> timers;
    for (size_t i = 0; i < ts.size(); ++i) {
        Typist* tp = ts[i].get();
        auto timer = std::make_unique<QTimer>();
        timer->setInterval(1000);
        QObject::connect(timer.get(), &QTimer::timeout, [tp] {
            if (!tp->paired) return;
            if (tp->waiting) ++tp->lost;
            Message in("INPUT");
            in.ptyId = 1;
            in.data = "k";
            tp->waiting = true;
            tp->sent = Clock::now();
            tp->c->sendLine(in.encode());
        });
        QTimer::singleShot(static_cast<int>(i * 1000 / ts.size()), timer.get(), [t = timer.get()] { t->start(); });
        timers.push_back(std::move(timer));
    }
    const long ticks0 = cpuTicks(relay.pid());
    const auto t0 = Clock::now();
    {
        // A real event loop, not spin(): it waits in poll() and wakes the moment a packet or a PTY's output is
        // there, as the agent program's loop does (spin() sleeps between rounds, which the echo would measure).
        QEventLoop loop;
        QTimer::singleShot(seconds * 1000, &loop, &QEventLoop::quit);
        loop.exec();
    }
    const double secs = std::chrono::duration<double>(Clock::now() - t0).count();
    const long ticks1 = cpuTicks(relay.pid());
    timers.clear();
    spin(1200);

    std::vector<long> all;
    int lost = 0;
    for (const auto& t : ts) {
        all.insert(all.end(), t->rtt.begin(), t->rtt.end());
        lost += t->lost + (t->waiting ? 1 : 0);
    }
    const double cpu = 100.0 * static_cast<double>(ticks1 - ticks0) / static_cast<double>(sysconf(_SC_CLK_TCK)) / secs;
    const int half = agents / 2;
    std::printf("agent swarm: %d agents, %d controllers typing once a second for %d s (%s)\n", agents, typists, seconds,
                allPaired ? "all paired" : "NOT all paired");
    std::printf("  relay RSS: start %ld KiB, %d agents %ld KiB, %d agents %ld KiB, %d controllers %ld KiB\n", rssBase,
                half, rssHalf, agents, rssFull, typists, rssPaired);
    std::printf("relay memory per agent %.1f KiB (first half %.1f, second half %.1f)\n",
                static_cast<double>(rssFull - rssBase) / agents, static_cast<double>(rssHalf - rssBase) / half,
                static_cast<double>(rssFull - rssHalf) / (agents - half));
    std::printf("relay memory per paired controller %.1f KiB\n", static_cast<double>(rssPaired - rssFull) / typists);
    std::printf("relay cpu while typing %.1f %%\n", cpu);
    std::printf("typing echo p50 %.2f ms p99 %.2f ms (%zu keys, %d without echo)\n", percentile(all, 0.5) / 1000.0,
                percentile(all, 0.99) / 1000.0, all.size(), lost);

    for (auto& t : ts) t->c->close();
    for (auto& a : swarm) a->stop();
    spin(300);
    ts.clear();
    swarm.clear();
    relay.stop();
    return 0;
}
