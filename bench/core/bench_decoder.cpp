// Splitting plus strict decoding of received relay lines: the work the transport thread does per byte.
#include <benchmark/benchmark.h>

#include <random>
#include <string>

#include "LineSplitter.h"
#include "Message.h"

namespace {

std::string base64Of(size_t rawBytes) {
    static const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::mt19937 rng(42);
    std::string out((rawBytes + 2) / 3 * 4, 'A');
    for (char& c : out) c = alphabet[rng() % 64];
    return out;
}

// A stream of n lines, fed in 64 KiB chunks as the transport hands them over.
std::string makeStream(const std::string& line, size_t n) {
    std::string s;
    s.reserve((line.size() + 1) * n);
    for (size_t i = 0; i < n; ++i) s.append(line).push_back('\n');
    return s;
}

void runSplitDecode(benchmark::State& state, const std::string& stream, size_t linesPerStream) {
    size_t decoded = 0;
    for (auto _ : state) {
        ostv::LineSplitter splitter;
        for (size_t off = 0; off < stream.size(); off += 65536) {
            splitter.feed(std::string_view(stream).substr(off, 65536), [&](std::string_view line) {
                // As the connection manager does it: one parse, the type probe, then the full decoder.
                auto parsed = ostv::ReceivedLine::parse(line);
                if (!parsed) return;
                auto sniff = parsed.value().sniff();
                if (sniff.ok() && sniff->type != "PTY_LIST" && sniff->type != "fs_result") {
                    auto m = parsed.value().takeMessage();
                    if (m.ok()) ++decoded;
                }
            });
        }
    }
    if (decoded != linesPerStream * state.iterations()) state.SkipWithError("a line failed to decode");
    state.SetBytesProcessed(static_cast<int64_t>(stream.size() * state.iterations()));
    state.SetItemsProcessed(static_cast<int64_t>(linesPerStream * state.iterations()));
}

void BM_PtyData16KiB(benchmark::State& state) {
    ostv::Message m("PTY_DATA");
    m.ptyId = 1;
    m.data = base64Of(16 * 1024);
    static const std::string stream = makeStream(m.encode(), 256);
    runSplitDecode(state, stream, 256);
}
BENCHMARK(BM_PtyData16KiB)->Unit(benchmark::kMillisecond);

void BM_LatencyPong(benchmark::State& state) {
    ostv::Message m("latency_pong");
    m.ts = 1700000000123;
    m.cpu = 12.5;
    m.mem = 43.25;
    static const std::string stream = makeStream(m.encode(), 10000);
    runSplitDecode(state, stream, 10000);
}
BENCHMARK(BM_LatencyPong)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
