// The relay link over loopback QUIC: sustained PTY_DATA throughput from the QUIC listener into the
// connection manager's delegate, the CPU it costs, and the ping round trip on an idle link.
// The listener runs on a thread of its own, as the relay would in its own process.
#include <QCoreApplication>
#include <QHostAddress>
#include <QSettings>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>
#include <memory>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <sys/resource.h>

#include "ConnectionManager.h"
#include "QuicServer.h"
#include "ServerConfig.h"

using namespace ostv;
using Clock = std::chrono::steady_clock;

namespace {

double cpuSeconds() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return u.ru_utime.tv_sec + u.ru_stime.tv_sec + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

struct Sink : QObject, ConnectionManagerDelegate {
    size_t bytes = 0;
    size_t messages = 0;
    Clock::time_point first, last;
    bool ponged = false;
    void connectionManagerDidChangeState(ConnectionManager*, const ConnectionState&) override {}
    void connectionManagerDidReceivePtyList(ConnectionManager*, const std::vector<PtyInfo>&) override {}
    void connectionManagerDidReceiveControllerList(ConnectionManager*, const std::vector<ControllerInfo>&, int64_t, int64_t) override {}
    void connectionManagerWasKicked(ConnectionManager*, const std::string&, const std::string&) override {}
    void connectionManagerDidReceiveOutput(ConnectionManager*, const std::string& b64, int64_t) override {
        if (messages++ == 0) first = Clock::now();
        bytes += b64.size();
        last = Clock::now();
    }
    void connectionManagerDidReceivePtyExit(ConnectionManager*, int64_t, int64_t) override {}
    void connectionManagerDidReceivePtyError(ConnectionManager*, int64_t, const std::string&) override {}
    void connectionManagerDidReceiveError(ConnectionManager*, const std::string& m) override { std::fprintf(stderr, "error: %s\n", m.c_str()); }
    void connectionManagerControllerJoined(ConnectionManager*, const std::string&, const std::string&) override {}
    void connectionManagerControllerLeft(ConnectionManager*, const std::string&) override {}
    void connectionManagerDidMeasureLatency(ConnectionManager*, int64_t, double, double) override { ponged = true; }
};

bool spinUntil(const std::function<bool()>& done, int ms) {
    const auto end = Clock::now() + std::chrono::milliseconds(ms);
    // Sleeps until an event arrives instead of spinning: a busy main thread would take a core from the
    // transport and relay threads, and the scheduler's time slices would show up as latency.
    QTimer guard;
    guard.start(50);
    while (!done()) {
        if (Clock::now() > end) return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    // A private settings store: the benchmark never touches the user's own.
    QTemporaryDir settingsDir;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, settingsDir.path());
    const size_t totalMB = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 200;

    // The relay side on its own thread: answers "pair", echoes pings, and on "LIST_PTY" streams the output.
    std::string line;
    {
        std::mt19937 rng(7);
        const char* a = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        std::string b64(16384, 'A');
        for (char& c : b64) c = a[rng() % 64];
        line = R"({"type":"PTY_DATA","pty_id":1,"data":")" + b64 + "\"}";
    }
    const size_t lines = totalMB * 1024 * 1024 / 16384;
    QThread relayThread;
    relayThread.start();
    server::QuicServer* relay = nullptr;
    quint16 port = 0;
    QObject anchor;
    anchor.moveToThread(&relayThread);
    QMetaObject::invokeMethod(&anchor, [&] {
        relay = new server::QuicServer;
        relay->onConnection = [&, lines](server::QuicConnection* c) {
            auto sent = std::make_shared<size_t>(0);
            auto pump = [c, sent, lines, &line] {
                while (*sent < lines && c->pendingBytes() < 4 * 1024 * 1024) {
                    c->sendLine(line);
                    ++*sent;
                }
            };
            c->onDrained = pump;
            c->onLine = [c, pump](std::string_view l) {
                auto m = Message::decode(l);
                if (!m) return;
                if (m->type == "pair") c->sendLine(R"({"type":"paired","id":"bench"})");
                else if (m->type == "latency_ping") c->sendLine(R"({"type":"latency_pong","ts":)" + std::to_string(*m->ts) + "}");
                else if (m->type == "LIST_PTY") pump();
            };
        };
        relay->listen(QHostAddress::LocalHost, 0);
        port = relay->port();
    }, Qt::BlockingQueuedConnection);

    ServerConfig::setString(SettingsKey::serverHost, "127.0.0.1");
    ServerConfig::setInteger(SettingsKey::serverQuicPort, port);
    Sink sink;
    ConnectionManager mgr;
    mgr.setDelegate(&sink);
    mgr.setPingIntervalForTesting(3600 * 1000);  // no timer traffic during the measurements
    mgr.connect(Host{}, "000000", std::string("bench"));
    if (!spinUntil([&] { return mgr.state().isConnected(); }, 10000)) {
        std::fprintf(stderr, "pairing failed\n");
        return 1;
    }

    // Throughput: the first LIST_PTY (sent on pairing) starts the stream.
    const double cpu0 = cpuSeconds();
    if (!spinUntil([&] { return sink.messages >= lines; }, 600000)) {
        std::fprintf(stderr, "stream stalled after %zu messages\n", sink.messages);
        return 1;
    }
    const double cpu = cpuSeconds() - cpu0;
    const double secs = std::chrono::duration<double>(sink.last - sink.first).count();
    const double mb = sink.bytes / 1048576.0;
    std::printf("relay throughput: %.0f MB in %.2f s = %.1f MB/s (target >= 100)\n", mb, secs, mb / secs);
    std::printf("relay cpu: %.2f s per 100 MB (both ends, one process)\n", cpu / mb * 100.0);

    // Round trip of a ping on the idle link.
    std::vector<double> rtt;
    for (int i = 0; i < 2000; ++i) {
        sink.ponged = false;
        const auto t0 = Clock::now();
        mgr.send(Message::latencyPing());
        if (!spinUntil([&] { return sink.ponged; }, 5000)) break;
        rtt.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    }
    std::sort(rtt.begin(), rtt.end());
    if (!rtt.empty())
        std::printf("ping round trip: p50 %.0f us, p99 %.0f us over %zu pings (target p99 <= 1000 us)\n",
                    rtt[rtt.size() / 2], rtt[rtt.size() * 99 / 100], rtt.size());
    mgr.disconnect();
    QMetaObject::invokeMethod(&anchor, [&] { delete relay; }, Qt::BlockingQueuedConnection);
    relayThread.quit();
    relayThread.wait();
    return 0;
}
