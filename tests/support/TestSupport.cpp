#include "TestSupport.h"

#if defined(__SANITIZE_ADDRESS__)
#define OSTV_LEAK_CHECK 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define OSTV_LEAK_CHECK 1
#endif
#endif
#if OSTV_LEAK_CHECK
#include <sanitizer/lsan_interface.h>
#endif

#include <QDir>
#include <QFile>
#include <cstdlib>
#include <QSettings>
#include <QTemporaryDir>
#include <QThread>
#include <fcntl.h>
#include <memory>
#include <unistd.h>
#include <vector>

namespace ostv::test {

void prepareEnvironment() {
    setenv("QT_QPA_PLATFORM", "offscreen", 0);
    setenv("QTWEBENGINE_DISABLE_SANDBOX", "1", 0);
    setenv("QTWEBENGINE_CHROMIUM_FLAGS", "--disable-gpu --no-sandbox", 0);
    setenv("OSTV_SERVER_BIN", OSTV_SERVER_BIN_DEFAULT, 0);
    setenv("OSTV_AGENT_BIN", OSTV_AGENT_BIN_DEFAULT, 0);
    setenv("OSTV_SOURCE_DIR", OSTV_SOURCE_DIR_DEFAULT, 0);
    const QString home = QStringLiteral(OSTV_TEST_HOME) + "/p" + QString::number(QCoreApplication::applicationPid());
    for (const char* sub : {"config", "data", "cache", "state", "runtime"}) QDir().mkpath(home + "/" + sub);
    QFile::setPermissions(home + "/runtime", QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    for (const auto& [var, sub] : {std::pair{"XDG_CONFIG_HOME", "config"}, {"XDG_DATA_HOME", "data"},
                                   {"XDG_CACHE_HOME", "cache"}, {"XDG_STATE_HOME", "state"}})
        setenv(var, (home + "/" + sub).toLocal8Bit().constData(), 1);
    setenv("XDG_RUNTIME_DIR", (home + "/runtime").toLocal8Bit().constData(), 0);
}

bool waitUntil(const std::function<bool()>& pred, int timeoutMs) {
    QDeadlineTimer deadline(timeoutMs);
    while (!pred()) {
        if (deadline.hasExpired()) return pred();
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(1);
    }
    return true;
}

void spin(int ms) { waitUntil([] { return false; }, ms); }

bool processRunning(long pid) {
    QFile f(QStringLiteral("/proc/%1/stat").arg(pid));
    if (pid <= 0 || !f.open(QIODevice::ReadOnly)) return false;
    const QByteArray stat = f.readAll();
    const qsizetype close = stat.lastIndexOf(')');
    return close > 0 && close + 2 < stat.size() && stat[close + 2] != 'Z';
}

QString makeTempDir(const QString& prefix) {
    static std::vector<std::unique_ptr<QTemporaryDir>> dirs;
    dirs.push_back(std::make_unique<QTemporaryDir>(QDir::tempPath() + "/ostv-" + prefix + "-XXXXXX"));
    return dirs.back()->path();
}

void isolateSettings() {
    const QString dir = makeTempDir(QStringLiteral("settings"));
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, dir);
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, dir);
    QSettings s;
    s.clear();
    s.sync();
}

StdoutCapture::StdoutCapture() {
    fflush(stdout);
    int fds[2];
    // Close-on-exec: a program the test starts (the server, a shell) must not hold the test's own
    // output open, or whoever reads it (CTest) waits for that program to end too.
    if (pipe2(fds, O_CLOEXEC) != 0) return;
    fcntl(fds[0], F_SETFL, O_NONBLOCK);
    fcntl(fds[1], F_SETPIPE_SZ, 1 << 20);
    savedFd_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    dup2(fds[1], STDOUT_FILENO);
    close(fds[1]);
    pipeRead_ = fds[0];
}

void StdoutCapture::drain() {
    if (pipeRead_ < 0) return;
    fflush(stdout);
    char buf[65536];
    for (;;) {
        ssize_t n = read(pipeRead_, buf, sizeof buf);
        if (n <= 0) break;
        captured_.append(buf, static_cast<size_t>(n));
        if (savedFd_ >= 0) (void)!write(savedFd_, buf, static_cast<size_t>(n));
    }
}

std::string StdoutCapture::text() {
    drain();
    return captured_;
}

StdoutCapture::~StdoutCapture() {
    drain();
    if (savedFd_ >= 0) {
        dup2(savedFd_, STDOUT_FILENO);
        close(savedFd_);
    }
    if (pipeRead_ >= 0) close(pipeRead_);
}

void checkLeaksNow() {
#if OSTV_LEAK_CHECK
    __lsan_do_leak_check();
#endif
}

std::map<QString, QVariant> snapshot(QSettings& settings) {
    settings.sync();
    std::map<QString, QVariant> all;
    for (const QString& key : settings.allKeys()) all[key] = settings.value(key);
    return all;
}

}  // namespace ostv::test
