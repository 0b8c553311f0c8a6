#include "SystemLoad.h"

#include <QFile>
#include <algorithm>
#include <charconv>
#include <cmath>
#include <vector>

namespace ostv::server {

namespace {

QByteArray readProcFile(const char* path) {
    QFile f(QString::fromLatin1(path));
    if (!f.open(QIODevice::ReadOnly)) return {};
    return f.read(64 * 1024);  // proc files report size 0; read what is there
}

std::string_view skipSpaces(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    return s;
}

std::optional<uint64_t> takeNumber(std::string_view& s) {
    s = skipSpaces(s);
    uint64_t v = 0;
    auto [p, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    if (ec != std::errc() || p == s.data()) return std::nullopt;
    s.remove_prefix(static_cast<size_t>(p - s.data()));
    return v;
}

std::optional<uint64_t> memInfoField(std::string_view text, std::string_view key) {
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        std::string_view line = text.substr(pos, end - pos);
        if (line.size() > key.size() && line.substr(0, key.size()) == key && line[key.size()] == ':') {
            std::string_view rest = line.substr(key.size() + 1);
            return takeNumber(rest);
        }
        pos = end + 1;
    }
    return std::nullopt;
}

}  // namespace

std::optional<CpuTimes> parseProcStat(std::string_view text) {
    if (text.substr(0, 4) != "cpu ") return std::nullopt;
    std::string_view rest = text.substr(4);
    size_t nl = rest.find('\n');
    if (nl != std::string_view::npos) rest = rest.substr(0, nl);
    // user nice system idle iowait irq softirq steal [guest guest_nice]; guest time is already
    // counted in user and nice, so only the first eight add up to the total.
    std::vector<uint64_t> f;
    while (f.size() < 8) {
        auto v = takeNumber(rest);
        if (!v) break;
        f.push_back(*v);
    }
    if (f.size() < 4) return std::nullopt;
    CpuTimes t;
    for (uint64_t v : f) t.total += v;
    uint64_t idle = f[3] + (f.size() > 4 ? f[4] : 0);
    t.busy = t.total - idle;
    return t;
}

std::optional<double> parseMemInfo(std::string_view text) {
    auto total = memInfoField(text, "MemTotal");
    auto avail = memInfoField(text, "MemAvailable");
    if (!total || !avail || *total == 0 || *avail > *total) return std::nullopt;
    return 100.0 * static_cast<double>(*total - *avail) / static_cast<double>(*total);
}

double cpuPercent(const CpuTimes& before, const CpuTimes& after) {
    if (after.total <= before.total || after.busy < before.busy) return 0;
    double p = 100.0 * static_cast<double>(after.busy - before.busy) /
               static_cast<double>(after.total - before.total);
    return std::clamp(p, 0.0, 100.0);
}

SystemLoad::SystemLoad(int intervalMs, QObject* parent) : QObject(parent) {
    sample();
    timer_.setInterval(intervalMs);
    connect(&timer_, &QTimer::timeout, this, &SystemLoad::sample);
    timer_.start();
}

void SystemLoad::sample() {
    QByteArray stat = readProcFile("/proc/stat");
    if (auto now = parseProcStat(std::string_view(stat.constData(), static_cast<size_t>(stat.size())))) {
        // The first figure is the average since boot; from then on it is the last interval.
        CpuTimes before = last_.value_or(CpuTimes{});
        if (now->total > before.total) {
            cpu_ = cpuPercent(before, *now);
            last_ = now;
        }
    }
    QByteArray mem = readProcFile("/proc/meminfo");
    if (auto m = parseMemInfo(std::string_view(mem.constData(), static_cast<size_t>(mem.size())))) mem_ = *m;
    cpu_ = std::round(cpu_ * 10) / 10;
    mem_ = std::round(mem_ * 10) / 10;
}

}  // namespace ostv::server
