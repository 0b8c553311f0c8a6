#pragma once
// Time stamps of one watched PTY's traffic on its way through the client, for the latency benchmark:
// typed input leaving for the relay, its output read from the QUIC stream, dispatched on the main thread,
// and handed to the page. Off (one relaxed atomic load per output message) unless a PTY is watched.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <vector>

namespace ostv::trace {

enum class Stage { inputSent, received, dispatched, handedToPage };

struct Mark {
    Stage stage;
    int64_t nanos;  // steady clock
};

class OutputTrace {
public:
    static OutputTrace& instance() {
        static OutputTrace t;
        return t;
    }
    // 0 stops watching; the marks taken so far stay until take().
    void watch(int64_t ptyId) { watched_.store(ptyId, std::memory_order_relaxed); }
    bool watching(int64_t ptyId) const {
        const int64_t w = watched_.load(std::memory_order_relaxed);
        return w != 0 && w == ptyId;
    }
    void mark(Stage stage, int64_t ptyId) {
        if (!watching(ptyId)) return;
        const int64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                std::chrono::steady_clock::now().time_since_epoch())
                                .count();
        std::lock_guard lock(mutex_);
        if (marks_.size() < kMaxMarks) marks_.push_back({stage, now});
    }
    std::vector<Mark> take() {
        std::lock_guard lock(mutex_);
        std::vector<Mark> out;
        out.swap(marks_);
        return out;
    }

private:
    static constexpr size_t kMaxMarks = 1 << 20;
    std::atomic<int64_t> watched_{0};
    std::mutex mutex_;
    std::vector<Mark> marks_;
};

inline void mark(Stage stage, int64_t ptyId) { OutputTrace::instance().mark(stage, ptyId); }

}  // namespace ostv::trace
