// A shell stand-in for fuzzing the agent: the same PtyProcess interface, no process at all. What is
// written comes back as output from the event loop (as a terminal's echo would), in chunks of at most
// kReadChunk and only while reading is enabled; a Ctrl-D in the input ends the "shell" once its output
// is out. Directory checks are the real ones, so a CREATE_PTY fails the same way.
#include <QFileInfo>
#include <QTimer>
#include <algorithm>

#include "agent/PtyProcess.h"

namespace ostv::server {

QString defaultLoginShell() { return QStringLiteral("/bin/sh"); }

void ChildReaper::adopt(pid_t) {}
int ChildReaper::drainAll(int) { return 0; }
int ChildReaper::pendingCount() { return 0; }

std::unique_ptr<PtyProcess> PtyProcess::start(const Options& options, QString* error) {
    QFileInfo dir(options.cwd);
    if (!dir.exists() || !dir.isDir()) {
        *error = QStringLiteral("目录不存在: ") + options.cwd;
        return nullptr;
    }
    std::unique_ptr<PtyProcess> p(new PtyProcess());
    p->pid_ = 0;
    p->resize(options.cols, options.rows);
    return p;
}

PtyProcess::~PtyProcess() { *alive_ = false; }

void PtyProcess::closeMaster() {}

void PtyProcess::write(std::string_view bytes) {
    if (finished_ || eof_ || bytes.empty()) return;
    input_.append(bytes);
    if (pendingInput() > kInputHighWater) wasCongested_ = true;
    onWritable();
}

// Schedules the echo of what is queued.
void PtyProcess::onWritable() {
    std::weak_ptr<bool> alive = alive_;
    QTimer::singleShot(0, this, [this, alive] {
        if (!alive.expired() && *alive.lock()) onReadable();
    });
}

void PtyProcess::resize(int cols, int rows) {
    // Stored where the real one keeps its descriptor: nothing else reads these here.
    master_ = std::clamp(cols, 1, 1000) * 1000 + std::clamp(rows, 1, 1000);
}

std::pair<int, int> PtyProcess::windowSize() const { return {master_ / 1000, master_ % 1000}; }

void PtyProcess::setReadEnabled(bool enabled) {
    if (readEnabled_ == enabled) return;
    readEnabled_ = enabled;
    if (enabled) onWritable();
}

void PtyProcess::onReadable() {
    if (finished_) return;
    std::weak_ptr<bool> alive = alive_;
    while (readEnabled_ && inputOffset_ < input_.size()) {
        const size_t n = std::min(kReadChunk, input_.size() - inputOffset_);
        const std::string chunk = input_.substr(inputOffset_, n);
        inputOffset_ += n;
        if (chunk.find('\x04') != std::string::npos) eof_ = true;
        if (onOutput) onOutput(chunk);
        if (alive.expired()) return;
    }
    if (inputOffset_ == input_.size()) {
        input_.clear();
        inputOffset_ = 0;
    }
    if (wasCongested_ && pendingInput() < kInputLowWater) {
        wasCongested_ = false;
        if (onInputDrained) onInputDrained();
        if (alive.expired()) return;
    }
    if (eof_ && pendingInput() == 0) finish();
}

void PtyProcess::pollChild() {}

void PtyProcess::finish() {
    if (finished_) return;
    finished_ = true;
    childReaped_ = true;
    if (onExit) onExit();
}

}  // namespace ostv::server
