// Through the relay to an agent on another machine (the ostvarren-agent program) against a built-in
// agent of the same relay, in one run, over loopback: shell output throughput (`yes` in a real shell,
// the client reading as fast as it can) and the keystroke round trip (a key typed into `cat`, its echo
// back). The relay answers latency_ping itself, so a ping never reaches an agent: the keystroke echo
// is the round trip through the agent. Then a flood on the remote agent, first with the client
// reading and then with it not reading: the relay's, the agent's and the client's memory stay flat.
//
//   bench_remote_agent [seconds of throughput per agent, default 5] [keystrokes per agent, default 300]
//                      [seconds of each flood, default 60]
#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>
#include <unistd.h>
#include <vector>

#include "LineSplitter.h"
#include "LocalServer.h"
#include "Message.h"
#include "QUICTransport.h"
#include "TestSupport.h"

using namespace ostv;
using ostv::test::LocalServer;
using ostv::test::spin;
using ostv::test::waitUntil;
using Clock = std::chrono::steady_clock;

namespace {

// A controller that counts what arrives and notes the echo of pty 2.
class Probe : public QObject, public QUICTransportDelegate {
public:
    Probe(const LocalServer& relay, const std::string& code)
        : code_(code), t_(relay.host(), relay.quicPort(), QString::fromStdString("ctrl-" + code)) {
        t_.setDelegate(this);
    }

    bool pair() {
        t_.connect();
        if (!waitUntil([&] { return kind_ == QUICTransportState::Kind::ready; }, 15000)) return false;
        Message m("pair");
        m.code = code_;
        m.nickname = "bench";
        t_.send(m.encode());
        return waitUntil([&] { return paired_.load(); }, 10000);
    }
    void send(const Message& m) { t_.send(m.encode()); }
    void shell(int64_t id, const std::string& command) {
        Message c("CREATE_PTY");
        c.ptyId = id;
        c.cols = 120;
        c.rows = 40;
        c.cwd = "~";
        c.clientId = "bench-" + code_;
        send(c);
        spin(300);
        Message in("INPUT");
        in.ptyId = id;
        in.data = command + "\r";
        send(in);
    }
    // One key into pty 2 and the time until its echo is back, in microseconds (-1: none in 2 s).
    long keystroke() {
        const size_t before = echoes_;
        Message in("INPUT");
        in.ptyId = 2;
        in.data = "k";
        const auto t0 = Clock::now();
        send(in);
        if (!waitUntil([&] { return echoes_ > before; }, 2000)) return -1;
        // The time the echo reached the transport's thread, not the time this loop saw it.
        const Clock::time_point at{Clock::duration(lastEcho_.load())};
        return static_cast<long>(std::chrono::duration_cast<std::chrono::microseconds>(at - t0).count());
    }
    size_t bytes() const { return bytes_; }
    void setReadPaused(bool paused) { t_.setReadPaused(paused); }
    void close() { t_.disconnect(); }

    void quicTransportDidChangeState(QUICTransport*, const QUICTransportState& s) override { kind_ = s.kind; }
    void quicTransportDidReceiveData(QUICTransport*, std::string_view chunk) override {
        bytes_ += chunk.size();
        std::lock_guard l(m_);
        splitter_.feed(chunk, [&](std::string_view line) {
            auto t = MessageTypeSniff::decode(line);
            if (!t) return;
            if (t->type == "paired") paired_ = true;
            if (t->type == "PTY_DATA" && line.find("\"pty_id\":2") != std::string_view::npos) {
                lastEcho_ = Clock::now().time_since_epoch().count();
                ++echoes_;
            }
        });
    }
    void quicTransportDidEncounterError(QUICTransport*, const QUICTransportError&) override {}

private:
    std::string code_;
    std::atomic<QUICTransportState::Kind> kind_{QUICTransportState::Kind::setup};
    std::atomic<bool> paired_{false};
    std::atomic<size_t> bytes_{0};
    std::atomic<size_t> echoes_{0};
    std::atomic<Clock::rep> lastEcho_{0};
    std::mutex m_;
    LineSplitter splitter_;
    QUICTransport t_;  // last: its thread delivers into the members above until it has stopped
};

long rssKb(pid_t pid) {
    QFile f(QStringLiteral("/proc/%1/status").arg(pid));
    if (!f.open(QIODevice::ReadOnly)) return 0;
    for (const QByteArray& line : f.readAll().split('\n'))
        if (line.startsWith("VmRSS:")) return line.mid(6).trimmed().split(' ').first().toLong();
    return 0;
}

long percentile(std::vector<long> v, double p) {
    if (v.empty()) return -1;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size())))];
}

struct Figures {
    double mbPerSec = 0;
    long p50 = -1, p99 = -1;
    int lost = 0;
};

Figures measure(Probe& p, int seconds, int keys) {
    Figures f;
    // The keystrokes first, on a quiet machine; then the flood.
    p.shell(2, "exec cat");
    spin(500);
    std::vector<long> rtt;
    for (int i = 0; i < keys; ++i) {
        const long us = p.keystroke();
        if (us < 0) ++f.lost;
        else rtt.push_back(us);
    }
    f.p50 = percentile(rtt, 0.50);
    f.p99 = percentile(rtt, 0.99);
    p.shell(1, "stty -echo; exec yes ostvarren-flood-line");
    spin(500);
    const size_t before = p.bytes();
    const auto t0 = Clock::now();
    spin(seconds * 1000);
    const double secs = std::chrono::duration<double>(Clock::now() - t0).count();
    f.mbPerSec = static_cast<double>(p.bytes() - before) / secs / 1e6;
    Message close("CLOSE_PTY");
    close.ptyId = 1;
    p.send(close);
    spin(300);
    return f;
}

}  // namespace

int main(int argc, char** argv) {
    ostv::test::prepareEnvironment();
    QCoreApplication app(argc, argv);
    const int seconds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
    const int keys = argc > 2 ? std::max(10, std::atoi(argv[2])) : 300;
    const int floodSeconds = argc > 3 ? std::max(1, std::atoi(argv[3])) : 60;

    QTemporaryDir dir;
    const QString secret = dir.filePath("agent-secret");
    LocalServer relay({"--code", "111111", "--agent-secret-file", secret});
    relay.setEnv("HOME", dir.path());
    if (!relay.start()) {
        std::fprintf(stderr, "relay did not start: %s\n", relay.errorString().toLocal8Bit().constData());
        return 1;
    }
    QStringList agentArgs{"--relay", relay.host() + ":" + QString::number(relay.quicPort()), "--secret-file", secret,
                          "--code", "222222", "--state-dir", dir.filePath("agent"), "--machine-id", "bench-agent"};
    if (::geteuid() == 0) agentArgs << "--allow-root";  // the agent gives root shells only when told to
    LocalServer agent(agentArgs, LocalServer::Program::agent);
    agent.setEnv("HOME", dir.path());
    if (!agent.start() || !agent.waitForOutput("registered with the relay", 10000)) {
        std::fprintf(stderr, "agent did not register: %s\n", agent.output().c_str());
        return 1;
    }

    Probe builtIn(relay, "111111"), remote(relay, "222222");
    if (!builtIn.pair() || !remote.pair()) {
        const std::string out = relay.output();
        std::fprintf(stderr, "not paired; the relay said:\n%s\n", out.substr(out.size() > 3000 ? out.size() - 3000 : 0).c_str());
        return 1;
    }
    const Figures b = measure(builtIn, seconds, keys);
    const Figures r = measure(remote, seconds, keys);

    std::printf("remote agent vs built-in agent through one relay, loopback, %d s flood, %d keystrokes each\n"
                "(the relay answers latency_ping itself: the round trip through an agent is a keystroke's echo)\n",
                seconds, keys);
    std::printf("  built-in throughput %.1f MB/s, keystroke echo p50 %ld us p99 %ld us (%d lost)\n", b.mbPerSec, b.p50,
                b.p99, b.lost);
    std::printf("  remote   throughput %.1f MB/s, keystroke echo p50 %ld us p99 %ld us (%d lost)\n", r.mbPerSec, r.p50,
                r.p99, r.lost);
    std::printf("remote/built-in throughput ratio %.2f\n", b.mbPerSec > 0 ? r.mbPerSec / b.mbPerSec : 0.0);
    std::printf("remote keystroke round trip p50 %ld us p99 %ld us\n", r.p50, r.p99);

    // A flood on the remote agent, the client reading it all, then the same with the client not
    // reading: peak resident memory of each process over its level before the flood.
    const pid_t self = ::getpid();
    auto flood = [&](int64_t pty, bool reading) {
        remote.setReadPaused(!reading);
        const long relay0 = rssKb(relay.pid()), agent0 = rssKb(agent.pid()), client0 = rssKb(self);
        long relayPeak = relay0, agentPeak = agent0, clientPeak = client0;
        const size_t bytes0 = remote.bytes();
        const auto t0 = Clock::now();
        remote.shell(pty, "stty -echo; exec yes ostvarren-flood-line");
        while (Clock::now() - t0 < std::chrono::seconds(floodSeconds)) {
            spin(250);
            relayPeak = std::max(relayPeak, rssKb(relay.pid()));
            agentPeak = std::max(agentPeak, rssKb(agent.pid()));
            clientPeak = std::max(clientPeak, rssKb(self));
        }
        std::printf("remote flood, client %s for %d s: relay RSS +%ld KiB, agent RSS +%ld KiB, client RSS +%ld KiB"
                    " (%.1f MB read)\n",
                    reading ? "reading" : "not reading", floodSeconds, relayPeak - relay0, agentPeak - agent0,
                    clientPeak - client0, static_cast<double>(remote.bytes() - bytes0) / 1e6);
        Message close("CLOSE_PTY");
        close.ptyId = pty;
        remote.send(close);
        remote.setReadPaused(false);
        spin(500);
    };
    flood(3, true);
    flood(4, false);
    builtIn.close();
    remote.close();
    agent.stop();
    relay.stop();
    return 0;
}
