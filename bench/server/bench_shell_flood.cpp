// A shell that floods its terminal (`yes`) through the agent to a controller whose link drains at a
// fixed pace: prints the throughput, the most the link ever had queued, and how much the process's
// resident memory grew while the flood ran. With flow control working, the queue stays near the
// agent's high-water mark and the memory growth stays small whatever the run time.
#include <QCoreApplication>
#include <QFile>
#include <QTimer>
#include <benchmark/benchmark.h>
#include <chrono>

#include "FakeLink.h"
#include "TestSupport.h"
#include "agent/Agent.h"
#include "agent/PtyProcess.h"
#include "relay/Relay.h"

using namespace ostv;
using namespace ostv::server;
using namespace ostv::server::test;

namespace {

long rssKb() {
    QFile f(QStringLiteral("/proc/self/status"));
    if (!f.open(QIODevice::ReadOnly)) return 0;
    for (const QByteArray& line : f.readAll().split('\n'))
        if (line.startsWith("VmRSS:")) return line.mid(6).trimmed().split(' ').first().toLong();
    return 0;
}

// state.range(0): milliseconds between the peer's acknowledgements; state.range(1): run time in ms.
void BM_ShellFlood(benchmark::State& state) {
    const int ackEveryMs = static_cast<int>(state.range(0));
    const int runMs = static_cast<int>(state.range(1));
    for (auto _ : state) {
        AgentConfig c;
        c.code = "424242";
        c.shell = QStringLiteral("/bin/sh");
        Agent agent(c);
        Relay relay({&agent}, [] { return std::pair<double, double>{0, 0}; });

        Peer p;
        p.link = new FakeLink(p.wire);
        relay.accept(p.link);
        Message pair("pair");
        pair.code = "424242";
        pair.nickname = "bench";
        p.send(pair);
        p->holdAcks = true;
        Message create("CREATE_PTY");
        create.ptyId = 1;
        create.clientId = "bench";
        p.send(create);
        Message in("INPUT");
        in.ptyId = 1;
        in.data = "stty -echo; exec yes ostvarren-flood\r";
        p.send(in);

        size_t maxPending = 0;
        size_t dropLines = 0;
        QTimer ack;
        QObject::connect(&ack, &QTimer::timeout, [&] {
            maxPending = std::max(maxPending, p->pending);
            // Received lines are consumed here; only the count matters.
            dropLines += p->lines.size();
            p->lines.clear();
            p.ackAll();
        });
        ack.start(ackEveryMs);

        ostv::test::spin(300);  // let the shell start
        const long rssBefore = rssKb();
        const size_t bytesBefore = p->sentBytes;
        auto t0 = std::chrono::steady_clock::now();
        long rssPeak = rssBefore;
        for (int waited = 0; waited < runMs; waited += 250) {
            ostv::test::spin(250);
            rssPeak = std::max(rssPeak, rssKb());
            p->lines.clear();
        }
        const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        const size_t bytes = p->sentBytes - bytesBefore;
        state.SetIterationTime(secs);
        state.counters["MB_per_s"] = static_cast<double>(bytes) / secs / 1e6;
        state.counters["max_queued_KiB"] = static_cast<double>(maxPending) / 1024.0;
        state.counters["rss_growth_KiB"] = static_cast<double>(rssPeak - rssBefore);
        ack.stop();
        p.leave();
        ostv::test::spin(50);
    }
    ChildReaper::drainAll(2000);
}

BENCHMARK(BM_ShellFlood)
    ->Args({1, 3000})
    ->Args({20, 3000})
    ->Args({20, 10000})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
