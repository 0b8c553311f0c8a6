#include "LocalServer.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QProcessEnvironment>
#include <QUrl>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ostv::test {

namespace {

constexpr size_t kOutputCap = 1024 * 1024;

// A null-terminated array of C strings that point into `store`.
std::vector<char*> cStrings(const QStringList& list, std::vector<std::string>& store) {
    for (const QString& s : list) store.push_back(s.toStdString());
    std::vector<char*> out;
    for (auto& s : store) out.push_back(s.data());
    out.push_back(nullptr);
    return out;
}

bool hasOption(const QStringList& args, const QString& name) {
    for (const QString& a : args)
        if (a == name || a.startsWith(name + "=")) return true;
    return false;
}

}  // namespace

LocalServer::LocalServer(QStringList args, Program program) : args_(std::move(args)), program_(program) {}

LocalServer::~LocalServer() {
    stop();
    // A failed test shows what its server said (a sanitizer's report, a refusal, a crash).
    if (::testing::Test::HasFailure()) {
        const std::string out = output();
        const size_t keep = 8192;
        std::fprintf(stderr, "--- the server's output%s ---\n%s\n--- end of the server's output ---\n",
                     out.size() > keep ? " (its end)" : "", out.substr(out.size() > keep ? out.size() - keep : 0).c_str());
    }
}

QString LocalServer::adminUrl() const { return QStringLiteral("http://%1:%2").arg(host_).arg(adminPort_); }

QString LocalServer::code(int agent) const {
    return agent >= 0 && agent < static_cast<int>(agents_.size()) ? agents_[static_cast<size_t>(agent)].code : QString();
}

bool LocalServer::isRunning() const {
    if (pid_ <= 0) return false;
    siginfo_t info{};
    if (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0) return false;
    return info.si_pid == 0;
}

bool LocalServer::start(int timeoutMs) {
    if (pid_ > 0) stop();
    error_.clear();
    const char* binVar = program_ == Program::agent ? "OSTV_AGENT_BIN" : "OSTV_SERVER_BIN";
    const QByteArray bin = qgetenv(binVar);
    if (bin.isEmpty()) {
        error_ = QString::fromLatin1(binVar) + QStringLiteral(" is not set");
        return false;
    }

    QStringList args = started_ ? restartArgs_ : args_;
    // A test that dies (a sanitizer's abort, a crash) takes its server and the server's shells with it.
    if (!args.contains(QStringLiteral("--exit-with-parent"))) args << QStringLiteral("--exit-with-parent");
    if (!started_ && program_ == Program::server) {
        if (!hasOption(args, "--quic-port")) args << "--quic-port" << "0";
        if (!hasOption(args, "--admin-port")) args << "--admin-port" << "0";
    }
    std::vector<std::string> argStore, envStore;
    std::vector<char*> argv = cStrings(launcher_ + QStringList{QString::fromLocal8Bit(bin)} + args, argStore);
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(env_);
    std::vector<char*> envp = cStrings(env.toStringList(), envStore);

    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        error_ = QStringLiteral("pipe: ") + QString::fromLocal8Bit(std::strerror(errno));
        return false;
    }
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&fa, fds[1], STDERR_FILENO);
    posix_spawn_file_actions_addopen(&fa, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    // The program starts with default signal handling, whatever the test process set up.
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t all, none;
    sigfillset(&all);
    sigemptyset(&none);
    posix_spawnattr_setsigdefault(&attr, &all);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    pid_t pid = -1;
    int rc = ::posix_spawn(&pid, argv[0], &fa, &attr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&fa);
    posix_spawnattr_destroy(&attr);
    ::close(fds[1]);
    if (rc != 0) {
        ::close(fds[0]);
        error_ = QStringLiteral("cannot start %1: %2").arg(QString::fromLocal8Bit(bin), QString::fromLocal8Bit(std::strerror(rc)));
        return false;
    }
    pid_ = pid;
    {
        std::lock_guard lock(mutex_);
        ready_ = false;
        eof_ = false;
        partial_.clear();
        host_.clear();
        quicPort_ = adminPort_ = 0;
        agents_.clear();
    }
    reader_ = std::thread([this, fd = fds[0]] { readerLoop(fd); });

    std::unique_lock lock(mutex_);
    const bool ok = cv_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return ready_ || eof_; }) && ready_;
    if (ok && !started_) {
        // Later starts come back on the same ports with the same codes (an agent keeps its code itself).
        restartArgs_ = args_;
        if (program_ == Program::server) {
            for (const QString name : {"--quic-port", "--admin-port", "--code"}) {
                for (int i = 0; i < restartArgs_.size();) {
                    if (restartArgs_[i] == name && i + 1 < restartArgs_.size()) restartArgs_.remove(i, 2);
                    else if (restartArgs_[i].startsWith(name + "=")) restartArgs_.remove(i);
                    else ++i;
                }
            }
            restartArgs_ << "--quic-port" << QString::number(quicPort_) << "--admin-port" << QString::number(adminPort_);
            for (const Agent& a : agents_) restartArgs_ << "--code" << a.code;
        }
        started_ = true;
    }
    if (ok) return true;
    std::string tail = output_.size() > 4000 ? output_.substr(output_.size() - 4000) : output_;
    const bool ended = eof_;
    lock.unlock();
    error_ = (ended ? QStringLiteral("the server ended before it was ready: ")
                   : QStringLiteral("the server was not ready in time: ")) +
             QString::fromStdString(tail);
    stop(2000);
    return false;
}

bool LocalServer::restart(int timeoutMs) {
    stop();
    return start(timeoutMs);
}

int LocalServer::stop(int timeoutMs) {
    if (pid_ <= 0) {
        joinReader();
        return -1;
    }
    ::kill(pid_, SIGTERM);
    int status = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (pid_t r; (r = ::waitpid(pid_, &status, WNOHANG)) == 0 || (r < 0 && errno == EINTR);) {
        if (std::chrono::steady_clock::now() >= deadline) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, &status, 0);
            status = -2;
            break;
        }
        ::usleep(10 * 1000);
    }
    pid_ = -1;
    joinReader();
    return status;
}

void LocalServer::joinReader() {
    if (reader_.joinable()) reader_.join();
}

void LocalServer::readerLoop(int fd) {
    char buf[16384];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        std::lock_guard lock(mutex_);
        output_.append(buf, static_cast<size_t>(n));
        if (output_.size() > kOutputCap) {
            size_t cut = output_.size() - kOutputCap / 2;
            output_.erase(0, cut);
            dropped_ += cut;
        }
        partial_.append(buf, static_cast<size_t>(n));
        size_t start = 0;
        for (size_t nl; (nl = partial_.find('\n', start)) != std::string::npos; start = nl + 1) {
            const std::string_view line(partial_.data() + start, nl - start);
            for (auto& [needle, count] : counted_) count += line.find(needle) != std::string_view::npos;
            if (!ready_) parseLine(std::string(line));
        }
        partial_.erase(0, start);
        if (partial_.size() > 65536) partial_.clear();
        cv_.notify_all();
    }
    ::close(fd);
    std::lock_guard lock(mutex_);
    eof_ = true;
    cv_.notify_all();
}

// Called with mutex_ held.
void LocalServer::parseLine(const std::string& line) {
    const std::string kPrefix = program_ == Program::agent ? "ostvarren-agent: " : "ostvarren-server: ";
    if (line.rfind(kPrefix, 0) != 0) return;
    const QString rest = QString::fromStdString(line.substr(kPrefix.size()));
    const QStringList w = rest.split(' ', Qt::SkipEmptyParts);
    if (w.size() == 1 && w[0] == "ready") {
        ready_ = true;
    } else if (w.size() == 2 && w[0] == "admin") {
        QUrl url(w[1]);
        adminPort_ = static_cast<quint16>(url.port());
        host_ = url.host();
    } else if (w.size() == 3 && w[0] == "relay" && w[1] == "quic") {
        int colon = w[2].lastIndexOf(':');
        quicPort_ = static_cast<quint16>(w[2].mid(colon + 1).toUInt());
        if (host_.isEmpty()) host_ = w[2].left(colon).remove('[').remove(']');
    } else if (w.size() >= 4 && w[0] == "agent" && w[2] == "code") {
        Agent a;
        a.code = w[3];
        for (int i = 4; i + 1 < w.size(); i += 2) {
            if (w[i] == "machine_id") a.machineId = w[i + 1];
            if (w[i] == "os") a.os = w[i + 1];
            if (w[i] == "hostname") break;  // the rest of the line, blanks included
        }
        if (const qsizetype at = rest.indexOf(" hostname "); at >= 0) a.hostname = rest.mid(at + 10);
        agents_.push_back(a);
    }
}

std::string LocalServer::output() const {
    std::lock_guard lock(mutex_);
    return output_;
}

int LocalServer::countLines(const std::string& needle) {
    std::lock_guard lock(mutex_);
    for (const auto& [n, count] : counted_)
        if (n == needle) return count;
    counted_.emplace_back(needle, 0);
    return 0;
}

size_t LocalServer::outputMark() const {
    std::lock_guard lock(mutex_);
    return dropped_ + output_.size();
}

bool LocalServer::waitForOutput(const std::string& needle, int timeoutMs, size_t from) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
        size_t off = from > dropped_ ? from - dropped_ : 0;
        return off <= output_.size() && output_.find(needle, off) != std::string::npos;
    });
}

bool LocalServer::stopRelay(int timeoutMs) {
    if (!isRunning()) return false;
    const size_t mark = outputMark();
    ::kill(pid_, SIGUSR1);
    return waitForOutput("relay stopped", timeoutMs, mark);
}

bool LocalServer::startRelay(int timeoutMs) {
    if (!isRunning()) return false;
    const size_t mark = outputMark();
    ::kill(pid_, SIGUSR2);
    return waitForOutput("relay started again", timeoutMs, mark);
}

int LocalServer::childCount() const {
    if (pid_ <= 0) return 0;
    int n = 0;
    for (const QString& entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        bool isPid = false;
        entry.toInt(&isPid);
        if (!isPid) continue;
        QFile stat(QStringLiteral("/proc/") + entry + QStringLiteral("/stat"));
        if (!stat.open(QIODevice::ReadOnly)) continue;
        const QByteArray text = stat.readAll();
        // "pid (name) state ppid ...": the name may hold blanks, so read after its closing bracket.
        const QList<QByteArray> rest = text.mid(text.lastIndexOf(')') + 2).split(' ');
        if (rest.size() > 1 && rest[1].toInt() == pid_) ++n;
    }
    return n;
}

}  // namespace ostv::test
