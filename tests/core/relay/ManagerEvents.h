#pragma once
// Everything a connection manager tells its delegate and its directory consumer, as lines of text in
// arrival order ("exit 5 -1", "error ..."), plus the states, the last PTY list and the output. Errors
// arrive on the transport thread: the log is locked.
#include <QObject>
#include <algorithm>
#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "ConnectionManager.h"

namespace ostv::test {

class ManagerEvents : public QObject, public ConnectionManagerDelegate, public DirectoryResultConsumer {
public:
    std::vector<ConnectionState> states;
    std::vector<PtyInfo> lastPtys;
    std::vector<std::pair<std::string, int64_t>> output;  // the data, or only its size with keepOutputData off
    bool keepOutputData = true;
    std::function<void(const std::string& base64, int64_t ptyId)> onOutput;  // instead of keeping it
    bool awaitingPathCheck = false;
    std::vector<bool> pathAnswers;
    QList<DirectoryItem> top;
    std::vector<std::pair<QString, int>> children;

    ManagerEvents() { std::lock_guard l(deadMutex_); dead_.erase(this); }
    ~ManagerEvents() override { std::lock_guard l(deadMutex_); dead_.insert(this); }
    // Calls that reached an instance after its destructor ran (a test that keeps its memory sees them).
    static inline std::atomic<int> lateCalls{0};

    void add(std::string s) {
        if (late()) return;
        std::lock_guard l(m_);
        log_.push_back(std::move(s));
    }
    bool has(const std::string& s) { return index(s) >= 0; }
    // Position of the entry s in the log, -1 when absent.
    long index(const std::string& s) {
        std::lock_guard l(m_);
        const auto it = std::find(log_.begin(), log_.end(), s);
        return it == log_.end() ? -1 : it - log_.begin();
    }
    size_t count(const std::string& prefix) {
        std::lock_guard l(m_);
        return std::count_if(log_.begin(), log_.end(), [&](const std::string& e) { return e.rfind(prefix, 0) == 0; });
    }

    void connectionManagerDidChangeState(ConnectionManager*, const ConnectionState& s) override {
        states.push_back(s);
        add("state " + s.description());
    }
    void connectionManagerDidReceivePtyList(ConnectionManager*, const std::vector<PtyInfo>& p) override {
        lastPtys = p;
        add("ptys " + std::to_string(p.size()));
    }
    void connectionManagerDidReceiveControllerList(ConnectionManager*, const std::vector<ControllerInfo>& l, int64_t limit,
                                                   int64_t current) override {
        add("controllers " + std::to_string(l.size()) + " " + std::to_string(limit) + " " + std::to_string(current));
    }
    void connectionManagerWasKicked(ConnectionManager*, const std::string& r, const std::string& by) override {
        add("kicked " + r + " by " + by);
    }
    void connectionManagerDidReceiveOutput(ConnectionManager*, const std::string& b64, int64_t id) override {
        if (late()) return;
        if (onOutput) return onOutput(b64, id);
        output.emplace_back(keepOutputData ? b64 : std::to_string(b64.size()), id);
        add("output " + std::to_string(id));
    }
    void connectionManagerDidReceivePtyExit(ConnectionManager*, int64_t id, int64_t code) override {
        add("exit " + std::to_string(id) + " " + std::to_string(code));
    }
    void connectionManagerDidReceivePtyError(ConnectionManager*, int64_t id, const std::string& r) override {
        add("pty_error " + std::to_string(id) + " " + r);
    }
    void connectionManagerDidReceiveError(ConnectionManager*, const std::string& msg) override { add("error " + msg); }
    void connectionManagerControllerJoined(ConnectionManager*, const std::string& id, const std::string& n) override {
        add("joined " + id + " " + n);
    }
    void connectionManagerControllerLeft(ConnectionManager*, const std::string& id) override { add("left " + id); }
    void connectionManagerDidMeasureLatency(ConnectionManager*, int64_t ms, double cpu, double mem) override {
        add("latency " + std::to_string(ms >= 0) + " " + std::to_string(int(cpu)) + " " + std::to_string(int(mem)));
    }
    bool isAwaitingPathCheck() const override { return awaitingPathCheck; }
    void pathCheckAnswered(bool ok) override { awaitingPathCheck = false; pathAnswers.push_back(ok); }
    void topLevelDirectories(const QList<DirectoryItem>& items) override { top = items; }
    void childDirectories(const QList<DirectoryItem>& items, const QString& path) override {
        children.emplace_back(path, static_cast<int>(items.size()));
    }

private:
    bool late() {
        std::lock_guard l(deadMutex_);
        if (!dead_.count(this)) return false;
        ++lateCalls;
        return true;
    }
    static inline std::mutex deadMutex_;
    static inline std::set<const ManagerEvents*> dead_;
    std::mutex m_;
    std::vector<std::string> log_;
};

}  // namespace ostv::test
