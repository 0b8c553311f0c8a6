#pragma once
// The machine's load as the agents report it: CPU busy percent over the last sampling interval and
// memory in use percent, from /proc.
#include <QObject>
#include <QString>
#include <QTimer>
#include <cstdint>
#include <optional>
#include <string_view>

namespace ostv::server {

struct CpuTimes {
    uint64_t busy = 0;
    uint64_t total = 0;
};

// The aggregate "cpu " line of /proc/stat; none when it is missing or malformed.
std::optional<CpuTimes> parseProcStat(std::string_view text);
// Percent of memory in use from /proc/meminfo: (MemTotal - MemAvailable) / MemTotal; none when either
// is missing or MemTotal is 0.
std::optional<double> parseMemInfo(std::string_view text);
// Busy percent between two samples, 0..100; 0 when no time passed.
double cpuPercent(const CpuTimes& before, const CpuTimes& after);

class SystemLoad : public QObject {
    Q_OBJECT
public:
    explicit SystemLoad(int intervalMs = 2000, QObject* parent = nullptr);

    double cpu() const { return cpu_; }
    double mem() const { return mem_; }

    // Takes one sample now (the timer does this every interval).
    void sample();

private:
    QTimer timer_;
    std::optional<CpuTimes> last_;
    double cpu_ = 0;
    double mem_ = 0;
};

}  // namespace ostv::server
