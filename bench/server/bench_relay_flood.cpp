// `yes` flooding a real shell of the server program, seen through the client's QUIC transport.
// Phase 1: the client stops reading (no new flow-control credit); the server must stop reading the
// shell instead of queueing its output. Phase 2: the client reads as fast as it can. Prints the
// throughput and the server's resident memory at the start, at its peak in each phase and at the end.
//
//   bench_relay_flood [seconds per phase, default 10]
//
// With flow control working end to end, the memory stays flat however long the phases run (try 60).
#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>
#include <QTimer>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>

#include "LineSplitter.h"
#include "LocalServer.h"
#include "Message.h"
#include "QUICTransport.h"
#include "TestSupport.h"

using namespace ostv;
using ostv::test::LocalServer;
using ostv::test::spin;
using ostv::test::waitUntil;

namespace {

long rssKb(pid_t pid) {
    QFile f(QStringLiteral("/proc/%1/status").arg(pid));
    if (!f.open(QIODevice::ReadOnly)) return 0;
    for (const QByteArray& line : f.readAll().split('\n'))
        if (line.startsWith("VmRSS:")) return line.mid(6).trimmed().split(' ').first().toLong();
    return 0;
}

class Sink : public QObject, public QUICTransportDelegate {
public:
    std::atomic<QUICTransportState::Kind> kind{QUICTransportState::Kind::setup};
    std::atomic<size_t> bytes{0};
    std::atomic<size_t> dataLines{0};
    std::atomic<bool> paired{false};
    std::mutex m;
    LineSplitter splitter;

    void quicTransportDidChangeState(QUICTransport*, const QUICTransportState& s) override { kind = s.kind; }
    void quicTransportDidReceiveData(QUICTransport*, std::string_view chunk) override {
        bytes += chunk.size();
        std::lock_guard l(m);
        splitter.feed(chunk, [&](std::string_view line) {
            auto t = MessageTypeSniff::decode(line);
            if (!t) return;
            if (t->type == "PTY_DATA") ++dataLines;
            if (t->type == "paired") paired = true;
        });
    }
    void quicTransportDidEncounterError(QUICTransport*, const QUICTransportError&) override {}
};

struct Phase {
    long rssPeak = 0;
    double mbPerSec = 0;
};

Phase run(LocalServer& server, Sink& sink, int seconds) {
    Phase p;
    const size_t before = sink.bytes;
    const auto t0 = std::chrono::steady_clock::now();
    for (int waited = 0; waited < seconds * 1000; waited += 250) {
        spin(250);
        p.rssPeak = std::max(p.rssPeak, rssKb(server.pid()));
    }
    const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    p.mbPerSec = static_cast<double>(sink.bytes - before) / secs / 1e6;
    return p;
}

}  // namespace

int main(int argc, char** argv) {
    ostv::test::prepareEnvironment();
    QCoreApplication app(argc, argv);
    const int seconds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 10;

    QTemporaryDir home;
    LocalServer server({"--code", "424242"});
    server.setEnv("HOME", home.path());
    if (!server.start()) {
        std::fprintf(stderr, "server did not start: %s\n", server.errorString().toLocal8Bit().constData());
        return 1;
    }
    Sink sink;
    QUICTransport t(server.host(), server.quicPort(), QStringLiteral("ctrl-424242"));
    t.setDelegate(&sink);
    t.connect();
    if (!waitUntil([&] { return sink.kind == QUICTransportState::Kind::ready; }, 15000)) {
        std::fprintf(stderr, "no QUIC connection\n");
        return 1;
    }
    Message pair("pair");
    pair.code = "424242";
    pair.nickname = "bench";
    t.send(pair.encode());
    if (!waitUntil([&] { return sink.paired.load(); }, 5000)) {
        std::fprintf(stderr, "not paired\n");
        return 1;
    }
    Message create("CREATE_PTY");
    create.ptyId = 1;
    create.cols = 120;
    create.rows = 40;
    create.cwd = "~";
    create.clientId = "bench";
    t.send(create.encode());
    spin(500);
    const long rssStart = rssKb(server.pid());

    Message in("INPUT");
    in.ptyId = 1;
    in.data = "stty -echo; exec yes ostvarren-flood-line\r";
    t.send(in.encode());
    spin(300);

    // As the desktop client does, a ping every few seconds (it keeps a paused connection alive).
    QTimer pinger;
    QObject::connect(&pinger, &QTimer::timeout, [&] { t.send(Message::latencyPing().encode()); });
    pinger.start(3000);

    t.setReadPaused(true);
    const size_t bytesAtPause = sink.bytes;
    Phase paused = run(server, sink, seconds);
    const size_t bytesWhilePaused = sink.bytes - bytesAtPause;

    t.setReadPaused(false);
    Phase flowing = run(server, sink, seconds);
    const long rssEnd = rssKb(server.pid());

    std::printf("relay flood over QUIC, %d s per phase\n", seconds);
    std::printf("  server RSS at start             %8ld KiB\n", rssStart);
    std::printf("  client not reading: RSS peak    %8ld KiB (+%ld), received %zu KiB in the phase\n", paused.rssPeak,
                paused.rssPeak - rssStart, bytesWhilePaused / 1024);
    std::printf("  client reading:     RSS peak    %8ld KiB (+%ld), %.1f MB/s on the wire, %zu PTY_DATA lines\n",
                flowing.rssPeak, flowing.rssPeak - rssStart, flowing.mbPerSec, sink.dataLines.load());
    std::printf("  server RSS at end               %8ld KiB\n", rssEnd);
    std::printf("  connection at end               %s\n", t.state().description().toLocal8Bit().constData());

    t.disconnect();
    server.stop();
    return 0;
}
