#include "PtyProcess.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QPointer>
#include <QSocketNotifier>
#include <QTimer>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <pty.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace ostv::server {

namespace {

constexpr int kMaxDimension = 1000;

int clampDimension(int v, int fallback) {
    if (v <= 0) return fallback;
    return std::min(v, kMaxDimension);
}

// argv/envp built before fork(), so that the child only calls async-signal-safe functions.
struct ExecPlan {
    std::string path;
    std::string argv0;
    std::string cwd;
    std::vector<std::string> env;
    std::vector<char*> envp;
};

ExecPlan makePlan(const PtyProcess::Options& o) {
    ExecPlan plan;
    plan.path = o.shell.toStdString();
    plan.argv0 = "-" + QFileInfo(o.shell).fileName().toStdString();
    plan.cwd = o.cwd.toStdString();

    // A clean environment: who the user is, where programs are, the language, the terminal. Nothing
    // else of the server's own (agent sockets, display, session bus, sudo's variables, secrets) reaches
    // a shell that a controller drives.
    const passwd* pw = ::getpwuid(::geteuid());
    const std::string user = pw && pw->pw_name ? pw->pw_name : qEnvironmentVariable("USER").toStdString();
    const std::string path = qEnvironmentVariableIsEmpty("PATH") ? std::string("/usr/local/bin:/usr/bin:/bin")
                                                                 : qEnvironmentVariable("PATH").toStdString();
    std::vector<std::pair<std::string, std::string>> vars = {
        {"HOME", QDir::homePath().toStdString()},
        {"USER", user},
        {"LOGNAME", user},
        {"SHELL", plan.path},
        {"PATH", path},
        {"TERM", "xterm-256color"},
    };
    bool haveLocale = false;
    for (char** e = environ; e && *e; ++e) {
        std::string_view kv(*e);
        const auto eq = kv.find('=');
        if (eq == std::string_view::npos) continue;
        const std::string_view name = kv.substr(0, eq);
        if (name != "LANG" && name != "LANGUAGE" && name.substr(0, 3) != "LC_") continue;
        if (name == "LANG" || name == "LC_ALL") haveLocale = true;
        vars.emplace_back(std::string(name), std::string(kv.substr(eq + 1)));
    }
    // Without any locale the shell falls back to ASCII and mangles the terminal's UTF-8.
    if (!haveLocale) vars.emplace_back("LANG", "C.UTF-8");
    for (const QString& e : o.extraEnv) {
        const int eq = static_cast<int>(e.indexOf('='));
        if (eq > 0) vars.emplace_back(e.left(eq).toStdString(), e.mid(eq + 1).toStdString());
    }
    vars.emplace_back("PWD", plan.cwd);
    // A later entry replaces an earlier one of the same name.
    for (const auto& [k, v] : vars) {
        const std::string prefix = k + "=";
        const std::string entry = prefix + v;
        auto same = std::find_if(plan.env.begin(), plan.env.end(),
                                 [&prefix](const std::string& x) { return x.compare(0, prefix.size(), prefix) == 0; });
        if (same != plan.env.end()) *same = entry;
        else plan.env.push_back(entry);
    }
    for (auto& s : plan.env) plan.envp.push_back(s.data());
    plan.envp.push_back(nullptr);
    return plan;
}

struct ReapEntry {
    pid_t pid;
    std::chrono::steady_clock::time_point killAt;
    bool killed = false;
};

class ReaperState : public QObject {
public:
    std::vector<ReapEntry> entries;
    QTimer timer;

    ReaperState() : QObject(QCoreApplication::instance()) {
        timer.setInterval(50);
        QObject::connect(&timer, &QTimer::timeout, this, [this] { sweep(); });
    }

    void sweep() {
        auto now = std::chrono::steady_clock::now();
        std::erase_if(entries, [&](ReapEntry& e) {
            int status = 0;
            pid_t r = ::waitpid(e.pid, &status, WNOHANG);
            if (r == e.pid || (r < 0 && errno == ECHILD)) return true;
            if (!e.killed && now >= e.killAt) {
                ::kill(-e.pid, SIGKILL);
                ::kill(e.pid, SIGKILL);
                e.killed = true;
            }
            return false;
        });
        if (entries.empty()) timer.stop();
    }
};

ReaperState* reaper() {
    static QPointer<ReaperState> state;
    if (!state) state = new ReaperState();
    return state;
}

}  // namespace

QString defaultLoginShell() {
    if (const passwd* pw = ::getpwuid(::getuid()); pw && pw->pw_shell && *pw->pw_shell) {
        QString s = QString::fromLocal8Bit(pw->pw_shell);
        if (QFileInfo(s).isExecutable()) return s;
    }
    QString env = qEnvironmentVariable("SHELL");
    if (!env.isEmpty() && QFileInfo(env).isExecutable()) return env;
    return QStringLiteral("/bin/sh");
}

std::unique_ptr<PtyProcess> PtyProcess::start(const Options& options, QString* error) {
    QFileInfo dir(options.cwd);
    if (!dir.exists()) {
        *error = QStringLiteral("目录不存在: ") + options.cwd;
        return nullptr;
    }
    if (!dir.isDir()) {
        *error = QStringLiteral("不是目录: ") + options.cwd;
        return nullptr;
    }
    if (!dir.isExecutable()) {
        *error = QStringLiteral("无权进入目录: ") + options.cwd;
        return nullptr;
    }
    if (!QFileInfo(options.shell).isExecutable()) {
        *error = QStringLiteral("无法启动 shell: ") + options.shell;
        return nullptr;
    }

    ExecPlan plan = makePlan(options);
    winsize ws{};
    ws.ws_col = static_cast<unsigned short>(clampDimension(options.cols, 80));
    ws.ws_row = static_cast<unsigned short>(clampDimension(options.rows, 24));

    int master = -1;
    pid_t pid = ::forkpty(&master, nullptr, nullptr, &ws);
    if (pid < 0) {
        *error = QStringLiteral("无法创建终端: ") + QString::fromLocal8Bit(std::strerror(errno));
        return nullptr;
    }
    if (pid == 0) {
        // Child: async-signal-safe calls only.
        for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGCHLD, SIGPIPE, SIGTSTP, SIGTTIN, SIGTTOU})
            ::signal(sig, SIG_DFL);
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::close_range(3, ~0U, 0);
        if (::chdir(plan.cwd.c_str()) != 0) {
            static const char msg[] = "ostvarren: cannot enter the working directory\r\n";
            (void)!::write(STDERR_FILENO, msg, sizeof msg - 1);
            ::_exit(127);
        }
        char* argv[] = {plan.argv0.data(), nullptr};
        ::execve(plan.path.c_str(), argv, plan.envp.data());
        static const char msg[] = "ostvarren: cannot start the shell\r\n";
        (void)!::write(STDERR_FILENO, msg, sizeof msg - 1);
        ::_exit(127);
    }

    ::fcntl(master, F_SETFL, ::fcntl(master, F_GETFL) | O_NONBLOCK);
    ::fcntl(master, F_SETFD, FD_CLOEXEC);

    std::unique_ptr<PtyProcess> p(new PtyProcess());
    p->pid_ = pid;
    p->master_ = master;
    p->readNotifier_ = new QSocketNotifier(master, QSocketNotifier::Read, p.get());
    QObject::connect(p->readNotifier_, &QSocketNotifier::activated, p.get(), [q = p.get()] { q->onReadable(); });
    p->writeNotifier_ = new QSocketNotifier(master, QSocketNotifier::Write, p.get());
    p->writeNotifier_->setEnabled(false);
    QObject::connect(p->writeNotifier_, &QSocketNotifier::activated, p.get(), [q = p.get()] { q->onWritable(); });
    // A shell can end while something it started still holds the terminal open, so the master never
    // reports end of file: the child is polled as well.
    p->pollTimer_ = new QTimer(p.get());
    p->pollTimer_->setInterval(500);
    QObject::connect(p->pollTimer_, &QTimer::timeout, p.get(), [q = p.get()] { q->pollChild(); });
    p->pollTimer_->start();
    return p;
}

PtyProcess::~PtyProcess() {
    *alive_ = false;
    if (pid_ > 0 && !childReaped_) {
        ::kill(-pid_, SIGHUP);
        ::kill(pid_, SIGHUP);
        closeMaster();
        ChildReaper::adopt(pid_);
    } else {
        closeMaster();
    }
}

void PtyProcess::closeMaster() {
    if (readNotifier_) readNotifier_->setEnabled(false);
    if (writeNotifier_) writeNotifier_->setEnabled(false);
    if (master_ >= 0) {
        ::close(master_);
        master_ = -1;
    }
}

void PtyProcess::write(std::string_view bytes) {
    if (master_ < 0 || eof_ || bytes.empty()) return;
    if (inputOffset_ > 0 && inputOffset_ == input_.size()) {
        input_.clear();
        inputOffset_ = 0;
    }
    input_.append(bytes);
    if (pendingInput() > kInputHighWater) wasCongested_ = true;
    onWritable();
}

void PtyProcess::onWritable() {
    while (master_ >= 0 && inputOffset_ < input_.size()) {
        ssize_t n = ::write(master_, input_.data() + inputOffset_, input_.size() - inputOffset_);
        if (n > 0) {
            inputOffset_ += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == EAGAIN) break;
        // EIO and the like: the terminal is gone; what was queued can no longer be delivered.
        input_.clear();
        inputOffset_ = 0;
        break;
    }
    if (inputOffset_ >= input_.size()) {
        input_.clear();
        inputOffset_ = 0;
    } else if (inputOffset_ > (1 << 20) && inputOffset_ * 2 > input_.size()) {
        input_.erase(0, inputOffset_);
        inputOffset_ = 0;
    }
    if (writeNotifier_) writeNotifier_->setEnabled(master_ >= 0 && pendingInput() > 0);
    if (wasCongested_ && pendingInput() < kInputLowWater) {
        wasCongested_ = false;
        if (onInputDrained) onInputDrained();
    }
}

void PtyProcess::resize(int cols, int rows) {
    if (master_ < 0) return;
    winsize ws{};
    ws.ws_col = static_cast<unsigned short>(clampDimension(cols, 80));
    ws.ws_row = static_cast<unsigned short>(clampDimension(rows, 24));
    ::ioctl(master_, TIOCSWINSZ, &ws);
}

std::pair<int, int> PtyProcess::windowSize() const {
    winsize ws{};
    if (master_ < 0 || ::ioctl(master_, TIOCGWINSZ, &ws) != 0) return {0, 0};
    return {ws.ws_col, ws.ws_row};
}

void PtyProcess::setReadEnabled(bool enabled) {
    if (readEnabled_ == enabled) return;
    readEnabled_ = enabled;
    if (readNotifier_ && master_ >= 0 && !eof_) readNotifier_->setEnabled(enabled);
    // Output that waited for the reader may be all that stands between a dead shell and its exit.
    if (enabled && childReaped_ && !finished_) {
        std::weak_ptr<bool> alive = alive_;
        QTimer::singleShot(0, this, [this, alive] {
            if (!alive.expired() && *alive.lock()) onReadable();
        });
    }
}

void PtyProcess::onReadable() {
    if (finished_) return;
    std::weak_ptr<bool> alive = alive_;
    char buf[kReadChunk];
    // A terminal hands over a few KiB per read: reads are joined into chunks of up to kReadChunk, so a
    // flood travels in fewer, larger messages, while what there is goes out as soon as the terminal has
    // no more (an echo waits for nothing). A bounded number of chunks per wake-up keeps one busy shell
    // from starving the others.
    for (int i = 0; i < 8 && readEnabled_ && master_ >= 0 && !eof_; ++i) {
        size_t have = 0;
        bool drained = false, ended = false;
        while (have < sizeof buf) {
            const ssize_t n = ::read(master_, buf + have, sizeof buf - have);
            if (n > 0) {
                have += static_cast<size_t>(n);
            } else if (n < 0 && errno == EINTR) {
                continue;
            } else {
                drained = n < 0 && errno == EAGAIN;
                ended = !drained;  // 0 or EIO: every holder of the terminal's slave side is gone
                break;
            }
        }
        if (have > 0 && onOutput) {
            onOutput(std::string_view(buf, have));
            if (alive.expired()) return;
        }
        if (drained) {
            if (childReaped_) finish();
            return;
        }
        if (!ended) continue;
        eof_ = true;
        if (readNotifier_) readNotifier_->setEnabled(false);
        pollChild();
        if (alive.expired()) return;
        if (!childReaped_) {
            pollTimer_->setInterval(20);  // the shell is on its way out; collect it promptly
        }
        return;
    }
}

void PtyProcess::pollChild() {
    if (finished_) return;
    if (!childReaped_) {
        int status = 0;
        pid_t r = ::waitpid(pid_, &status, WNOHANG);
        if (r == pid_ || (r < 0 && errno == ECHILD)) childReaped_ = true;
    }
    if (!childReaped_) return;
    if (eof_) {
        finish();
        return;
    }
    // The shell is gone but the terminal is still open (a background job holds it): deliver what is
    // readable now, then end; the job gets the hang-up when the terminal closes. While the reader is
    // held back the end waits for it, so that the last output is not lost.
    if (!readEnabled_) return;
    std::weak_ptr<bool> alive = alive_;
    onReadable();
    if (!alive.expired() && !finished_) finish();
}

void PtyProcess::finish() {
    if (finished_) return;
    finished_ = true;
    pollTimer_->stop();
    if (!eof_ && pid_ > 0) ::kill(-pid_, SIGHUP);
    closeMaster();
    if (onExit) onExit();
}

void ChildReaper::adopt(pid_t pid) {
    if (pid <= 0) return;
    ReaperState* r = reaper();
    r->entries.push_back({pid, std::chrono::steady_clock::now() + std::chrono::seconds(3)});
    if (!r->timer.isActive()) r->timer.start();
}

int ChildReaper::pendingCount() { return static_cast<int>(reaper()->entries.size()); }

int ChildReaper::drainAll(int timeoutMs) {
    ReaperState* r = reaper();
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        r->sweep();
        if (r->entries.empty()) return 0;
        auto now = std::chrono::steady_clock::now();
        if (now >= deadline) break;
        // Past half the budget, stop waiting politely.
        if (now + std::chrono::milliseconds(timeoutMs / 2) >= deadline)
            for (auto& e : r->entries) e.killAt = std::min(e.killAt, now);
        ::usleep(10 * 1000);
    }
    return static_cast<int>(r->entries.size());
}

}  // namespace ostv::server
