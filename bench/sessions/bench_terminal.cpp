// The terminal as a user meets it: the real application window against the real local server, with
// shells on real PTYs. Prints these sets of figures:
//
//   throughput  a shell cats a large file; bytes per second until the page has written (acknowledged)
//               all of it, against the page's own write rate for the same bytes fed from memory in the
//               same run, in chunks of the size the relay delivered; three rounds of both, alternating,
//               with how long the page's main thread ran and waited for a core. Target: ratio at least 0.8.
//   keystroke   a key typed into the terminal ("termInput") until its echo is written into the page,
//               p50 and p99 over loopback. Target: p99 at most 5 ms.
//   memory      two tabs flooded by `yes` while a third is typed into; peak resident memory of the
//               client's processes (the program and its web engine helpers, not the server) against
//               the idle figure. Target: at most 1.5 times idle. Typing in the third tab is timed too.
//   typing      keys typed into the shown tab while `yes` runs in two other tabs of the same agent, then
//               while it runs in two tabs of a second agent (shown by a second window with its own link):
//               echo p50 and p99 (targets: p50 at most 8 ms, p99 at most 20 ms), and where the time of an
//               echo goes, stage by stage: relay (agent, its output queue and QUIC both ways), hand-off
//               from the transport thread to the main thread, the view's queue, the bridge to the page
//               (both ways), and the page's write. Then one of the flooded tabs is shown: how long it
//               takes to catch up, and whether its (numbered) lines are complete and in order.
//               With --no-typing-first the server's agents give the shell typed into no priority: the
//               client on its own (target: p99 under 50 ms); the second agent's case is left out then.
//   renderers   the same-agent case of `typing` twice, typing into a tab of the page's own renderer and
//               then into one of the other (DOM or WebGL), and one line comparing them. WebGL needs a GL
//               the web engine can use: under X (-platform xcb) it has Mesa's software GL; offscreen, none.
//
//   bench_terminal [throughput|keystroke|memory|typing|renderers|all] [--file-mib N (per round)] [--keys N]
//                  [--flood-seconds N] [--no-typing-first]
//                  [--chunk-bytes N]   (of the feed from memory; default: the size the relay delivered)
//                  [--renderer dom|webgl]  (of the terminals made after the first; default: the page's pick)
//
// Runs headless by itself (offscreen); under xvfb-run or a desktop pass -platform xcb to see it.
#include <QApplication>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QRegularExpression>
#include <QTimer>
#include <QWebEnginePage>
#include <QWebEngineView>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>
#include <unistd.h>

#include "AdminAPIClient.h"
#include "AppDelegate.h"
#include "AppWiring.h"
#include "ClientIdentity.h"
#include "ConnectionManager.h"
#include "LocalServer.h"
#include "LoginViewController.h"
#include "MainViewController.h"
#include "OutputTrace.h"
#include "ServerConfig.h"
#include "TestSupport.h"

using namespace ostv;
using namespace ostv::test;
using Clock = std::chrono::steady_clock;

namespace {

struct Options {
    QString what = QStringLiteral("all");
    int fileMiB = 24;  // per round
    int keys = 400;
    int floodSeconds = 60;
    int chunkBytes = 0;  // of the feed from memory; 0: the size the relay delivered
    QString renderer;    // of the terminals made after start: "dom" or "webgl"; empty: the page's own pick
    bool typingFirst = true;  // false: the server's agents give the shell typed into no priority
};

// Waits as the application does, asleep in its event loop until something happens (the condition is
// looked at every 10 ms). A loop that polls and sleeps a millisecond between rounds would add up to that
// to every hand-off the figures include, and burn part of a core that the pipeline measured needs.
bool waitFor(const std::function<bool()>& done, int timeoutMs) {
    if (done()) return true;
    QEventLoop loop;
    QTimer look;
    QObject::connect(&look, &QTimer::timeout, &loop, [&] {
        if (done()) loop.quit();
    });
    look.start(10);
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    loop.exec();
    return done();
}

void rest(int ms) {
    QEventLoop loop;
    QTimer::singleShot(ms, Qt::PreciseTimer, &loop, &QEventLoop::quit);
    loop.exec();
}

double secondsSince(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

double percentile(std::vector<double> v, double p) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    const size_t i = std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5));
    return v[i];
}

// ---- resident memory of a process tree ----

std::map<pid_t, pid_t> parentsOfAll() {
    std::map<pid_t, pid_t> parents;
    for (const QString& name : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        bool ok = false;
        const pid_t pid = name.toInt(&ok);
        if (!ok) continue;
        QFile f(QStringLiteral("/proc/%1/stat").arg(pid));
        if (!f.open(QIODevice::ReadOnly)) continue;
        const QByteArray stat = f.readAll();
        const qsizetype close = stat.lastIndexOf(')');  // the command name may hold spaces
        if (close < 0) continue;
        const QList<QByteArray> fields = stat.mid(close + 2).split(' ');
        if (fields.size() > 1) parents[pid] = static_cast<pid_t>(fields[1].toInt());
    }
    return parents;
}

long rssKb(pid_t pid) {
    QFile f(QStringLiteral("/proc/%1/status").arg(pid));
    if (!f.open(QIODevice::ReadOnly)) return 0;
    for (const QByteArray& line : f.readAll().split('\n'))
        if (line.startsWith("VmRSS:")) return line.mid(6).trimmed().split(' ').first().toLong();
    return 0;
}

QString processName(pid_t pid) {
    QFile f(QStringLiteral("/proc/%1/cmdline").arg(pid));
    if (!f.open(QIODevice::ReadOnly)) return QStringLiteral("?");
    const QList<QByteArray> argv = f.readAll().split('\0');
    QString name = QString::fromLocal8Bit(argv.value(0)).section('/', -1);
    for (const QByteArray& a : argv)
        if (a.startsWith("--type=")) name += QLatin1Char(' ') + QString::fromLatin1(a.mid(7));
    return name;
}

// Resident memory of this program and every process below it, except the server's subtree, in KiB.
struct TreeMemory {
    long total = 0;
    std::map<QString, long> byProcess;  // "name pid" -> KiB
};

// This program and every process below it, except the subtree of `outside` (none by default).
std::set<pid_t> ourProcesses(pid_t outside = 0) {
    const auto parents = parentsOfAll();
    std::set<pid_t> tree{getpid()};
    for (bool grew = true; grew;) {
        grew = false;
        for (const auto& [pid, parent] : parents)
            if (pid != outside && tree.count(parent) && tree.insert(pid).second) grew = true;
    }
    return tree;
}

TreeMemory clientMemory(pid_t server) {
    TreeMemory m;
    for (pid_t pid : ourProcesses(server)) {
        const long kb = rssKb(pid);
        m.total += kb;
        m.byProcess[processName(pid) + QStringLiteral(" %1").arg(pid)] = kb;
    }
    return m;
}

void keepPeak(TreeMemory& peak, const TreeMemory& now) {
    peak.total = std::max(peak.total, now.total);
    for (const auto& [name, kb] : now.byProcess) peak.byProcess[name] = std::max(peak.byProcess[name], kb);
}

// The page's main thread (the web engine's renderer process): seconds it ran and seconds it waited,
// runnable, for a core (the kernel's schedstat), to tell a page that had nothing to do from one that was
// crowded out.
struct ThreadTimes {
    double ran = 0, waited = 0;
};

ThreadTimes pageThreadTimes() {
    ThreadTimes busiest;  // the renderer is the web engine's helper that runs the most
    for (pid_t pid : ourProcesses()) {
        if (!processName(pid).startsWith(QLatin1String("QtWebEngineProcess"))) continue;
        QFile f(QStringLiteral("/proc/%1/task/%1/schedstat").arg(pid));
        if (!f.open(QIODevice::ReadOnly)) continue;
        const QList<QByteArray> v = f.readAll().trimmed().split(' ');
        const ThreadTimes t{v.value(0).toDouble() / 1e9, v.value(1).toDouble() / 1e9};
        if (v.size() >= 2 && t.ran > busiest.ran) busiest = t;
    }
    return busiest;
}

// ---- the application ----

class Bench {
public:
    std::unique_ptr<LocalServer> server;
    std::unique_ptr<AppDelegate> app;
    int agents = 1;
    bool typingFirst = true;
    QString pairedCode;  // of the agent the window works with

    bool start() {
        SecretStore::useFileStoreOnlyForTesting(true, makeTempDir("bench") + "/secrets.json");
        ServerConfig::defaults().clear();
        // A plain shell: the figures are of the terminal's path, not of a login shell's start-up (which
        // takes seconds on a busy machine with a heavy profile).
        QStringList args{"--agents", QString::number(agents), "--shell", "/bin/sh"};
        if (!typingFirst) args << QStringLiteral("--no-typing-first");
        server = std::make_unique<LocalServer>(args);
        if (!server->start()) return fail("the local server did not start: " + server->errorString());
        ServerConfig::setString(SettingsKey::serverHost, server->host());
        ServerConfig::setInteger(SettingsKey::serverQuicPort, server->quicPort());
        ServerConfig::setInteger(SettingsKey::adminServerPort, server->adminPort());
        app = std::make_unique<AppDelegate>();
        wireApplication(*app);
        app->applicationDidFinishLaunching();
        app->window()->resize(1280, 800);

        auto* login = qobject_cast<LoginViewController*>(app->currentScreen());
        if (!login) return fail("no login screen");
        login->onLoginClicked();
        if (!waitFor([&] { return workspace() && workspace()->hostListView->hosts().size() == agents; }, 15000))
            return fail("not signed in");
        MainViewController* w = workspace();
        const Host host = w->hostListView->hosts().at(0);
        w->hostListViewDidSelectHost(w->hostListView, host);
        w->hostListViewDidDoubleClickHost(w->hostListView, host);
        if (!w->currentConnectPanel) return fail("no connect panel");
        pairedCode = host.agentCode;
        w->currentConnectPanel->codeField->setText(host.agentCode);
        w->currentConnectPanel->onPair();
        if (!waitFor([&] { return w->currentConnectPanel && w->currentConnectPanel->isPaired(); }, 15000))
            return fail("not paired");
        w->currentConnectPanel->onConfirm();
        if (!waitFor([&] { return view()->tabIds().size() == 1 && view()->isWebViewReady; }, 30000))
            return fail("no first shell");
        return settle(view()->tabIds().first());
    }

    void stop() {
        ConnectionManager::shared().disconnect();
        app.reset();
        AdminAPIClient::shared().resetSession();
        server.reset();
        SecretStore::useFileStoreOnlyForTesting(false);
    }

    MainViewController* workspace() const { return qobject_cast<MainViewController*>(app->currentScreen()); }
    TerminalView* view() const { return workspace()->terminalView; }

    // A new shell tab in a folder of its own (one session per folder); answers its PTY id, or -1.
    int64_t newTab(const QString& title) {
        const qsizetype before = view()->tabIds().size();
        workspace()->sessions().allocateAndCreatePty(title, std::nullopt, std::nullopt, makeTempDir(title));
        if (!waitFor([&] { return view()->tabIds().size() == before + 1; }, 20000)) {
            fail("no new tab " + title);
            return -1;
        }
        const int64_t id = view()->tabIds().last();
        return settle(id) ? id : -1;
    }

    // Waits until the shell of the tab answers: its prompt has come and a typed command ran.
    bool settle(int64_t id) {
        const QString mark = QStringLiteral("ready-%1").arg(id);
        type(id, QStringLiteral("echo %1-$((6*7))\r").arg(mark));
        if (!waitFor([&] { return pageText(id).contains(mark + "-42"); }, 20000))
            return fail(QStringLiteral("the shell of tab %1 does not answer").arg(id));
        return true;
    }

    // Types into the terminal as the keyboard does (the terminal's own input path, then "termInput").
    void type(int64_t id, const QString& text, TerminalView* in = nullptr) {
        js(QStringLiteral("terminals.get(%1).term.input('%2')").arg(id).arg(TerminalView::escapeForScript(text)), in);
    }

    void js(const QString& script, TerminalView* in = nullptr) { (in ? in : view())->webView()->page()->runJavaScript(script); }

    QVariant eval(const QString& script, int timeoutMs = 10000, TerminalView* in = nullptr) {
        QVariant result;
        bool done = false;
        (in ? in : view())->webView()->page()->runJavaScript(script, [&](const QVariant& v) { result = v; done = true; });
        waitFor([&] { return done; }, timeoutMs);
        return result;
    }

    QString pageText(int64_t id, TerminalView* in = nullptr) {
        return eval(QStringLiteral("__terminalText(%1)").arg(id), 10000, in).toString();
    }

    bool fail(const QString& why) {
        std::fprintf(stderr, "bench_terminal: %s\n", why.toLocal8Bit().constData());
        return false;
    }
};

// ---- throughput ----

// A build log of sorts: numbered lines of varied length, some colour, some Chinese.
QByteArray makeLog(int mib) {
    QByteArray out;
    out.reserve(mib * 1024 * 1024 + 4096);
    static const char* words[] = {"compiling", "linking", "src/core/Message.cpp", "warning:", "ok", "模块", "完成",
                                  "-Wall", "-O2", "target", "relay", "终端输出"};
    for (int line = 0; out.size() < mib * 1024 * 1024; ++line) {
        out += QByteArray::number(line).rightJustified(7, '0');
        if (line % 17 == 0) out += " \x1b[32mPASS\x1b[0m";
        for (int w = 0; w < 6 + line % 9; ++w) {
            out += ' ';
            out += words[(line * 7 + w * 3) % 12];
        }
        out += '\n';
    }
    return out;
}

// Starts one way of writing `bytes` into the page and times it until the page has written them all:
// seconds, and the page's main thread meanwhile.
std::optional<std::pair<double, ThreadTimes>> timeUntilWritten(Bench& b, qsizetype bytes, const std::function<void()>& start,
                                                               const char* failure) {
    const int64_t acked0 = b.view()->acknowledgedBytesTotal();
    const ThreadTimes p0 = pageThreadTimes();
    const auto t0 = Clock::now();
    start();
    if (!waitFor([&] { return b.view()->acknowledgedBytesTotal() - acked0 >= bytes; }, 600000)) {
        b.fail(failure);
        return std::nullopt;
    }
    const double secs = secondsSince(t0);
    const ThreadTimes p1 = pageThreadTimes();
    return std::make_pair(secs, ThreadTimes{p1.ran - p0.ran, p1.waited - p0.waited});
}

// One round: the shell prints the file (end to end), then the same bytes from memory. Answers the two
// times in seconds, or nothing.
struct Round {
    double e2eSecs = 0, memSecs = 0;
    ThreadTimes e2ePage, memPage;  // the page's main thread during each
    int chunks = 0;
};
std::optional<Round> throughputRound(Bench& b, int64_t id, const QString& path, const QByteArray& shown,
                                     std::vector<std::string>& feed, int& chunkSize, const Options& o) {
    Round r;
    // End to end: the shell prints the file; done when the page has written that many bytes.
    const int64_t chunks0 = b.view()->outputChunksTotal();
    const auto e2e = timeUntilWritten(b, shown.size(), [&] { b.type(id, QStringLiteral("cat %1\r").arg(path)); },
                                      "the file never reached the page");
    if (!e2e) return std::nullopt;
    std::tie(r.e2eSecs, r.e2ePage) = *e2e;
    rest(1000);
    r.chunks = static_cast<int>(b.view()->outputChunksTotal() - chunks0);
    if (feed.empty()) {
        chunkSize = o.chunkBytes > 0 ? o.chunkBytes
                                     : static_cast<int>(std::clamp<int64_t>(shown.size() / std::max(1, r.chunks), 256, 256 * 1024));
        for (qsizetype at = 0; at < shown.size(); at += chunkSize) feed.push_back(shown.mid(at, chunkSize).toBase64().toStdString());
    }

    // From memory: the same bytes, in chunks of the size the relay delivered, into the same terminal
    // (its shell idles at the prompt), handed over as fast as the view takes them: the feed stops while
    // the view has paused the relay.
    size_t next = 0;
    QTimer feeder;
    QObject::connect(&feeder, &QTimer::timeout, [&] {
        for (qsizetype handed = 0; next < feed.size() && !b.view()->receivePaused() && handed < 1024 * 1024; ++next) {
            b.view()->writeOutput(feed[next], id);
            handed += chunkSize;
        }
    });
    // Not a zero timer: that would spin this thread, taking a core from the page it measures.
    const auto mem = timeUntilWritten(b, shown.size(), [&] { feeder.start(1); }, "the page never wrote the bytes fed from memory");
    if (!mem) return std::nullopt;
    std::tie(r.memSecs, r.memPage) = *mem;
    feeder.stop();
    b.js(QStringLiteral("clearTerminal(%1)").arg(id));
    rest(500);
    return r;
}

// The two ways alternate, round by round, so that a machine whose speed drifts during the run (a
// virtual one shares its cores) weighs on both alike; the ratio is of the totals.
bool throughput(Bench& b, const Options& o) {
    const int64_t id = b.view()->tabIds().first();
    b.view()->switchTab(id);
    const QByteArray log = makeLog(o.fileMiB);
    const QString path = makeTempDir("log") + "/build.log";
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly) || f.write(log) != log.size()) return b.fail("cannot write " + path);
    f.close();
    QByteArray shown = log;  // what the terminal receives: the PTY turns each line feed into CR LF
    shown.replace("\n", "\r\n");

    constexpr int kRounds = 3;
    std::vector<std::string> feed;
    int chunkSize = 0, chunks = 0;
    double e2eSecs = 0, memSecs = 0;
    ThreadTimes e2ePage, memPage;
    QStringList rounds;
    for (int i = 0; i < kRounds; ++i) {
        const auto r = throughputRound(b, id, path, shown, feed, chunkSize, o);
        if (!r) return false;
        e2eSecs += r->e2eSecs;
        memSecs += r->memSecs;
        chunks += r->chunks;
        e2ePage.ran += r->e2ePage.ran;
        e2ePage.waited += r->e2ePage.waited;
        memPage.ran += r->memPage.ran;
        memPage.waited += r->memPage.waited;
        rounds << QString::number(r->memSecs / r->e2eSecs, 'f', 2);
    }

    const double mb = static_cast<double>(shown.size()) * kRounds / 1e6;
    std::printf("throughput: %.1f MB of terminal output in %d rounds (%d chunks of about %d bytes from the relay)\n", mb,
                kRounds, chunks, chunkSize);
    std::printf("  shell on the local server to page   %7.2f s  %7.2f MB/s\n", e2eSecs, mb / e2eSecs);
    std::printf("  memory to page                      %7.2f s  %7.2f MB/s\n", memSecs, mb / memSecs);
    std::printf("  ratio                               %7.2f    (target >= 0.80; rounds %s)\n", memSecs / e2eSecs,
                rounds.join(QStringLiteral(", ")).toLocal8Bit().constData());
    std::printf("  the page's main thread ran / waited for a core: end to end %.0f %% / %.0f %%, from memory %.0f %% / %.0f %%\n",
                100 * e2ePage.ran / e2eSecs, 100 * e2ePage.waited / e2eSecs, 100 * memPage.ran / memSecs,
                100 * memPage.waited / memSecs);
    std::printf("  renderer                            %s\n",
                b.eval("__pageState().renderer").toString().toLocal8Bit().constData());
    return true;
}

// ---- keystrokes ----

struct EchoFigures {
    size_t samples = 0;
    double p50 = 0, p99 = 0, max = 0;
};

// Types `keys` characters into a `cat` in tab `id`, one every `gapMs`, and reads the echo times the page
// measured. With `during` set, it is called between keys (to sample something else meanwhile).
EchoFigures echoTimes(Bench& b, int64_t id, int keys, int gapMs, const std::function<void()>& during = {}) {
    b.type(id, QStringLiteral("cat\r"));
    rest(500);
    b.eval("__startEchoProbe()");
    for (int i = 0; i < keys; ++i) {
        b.type(id, (i % 60 == 59) ? QStringLiteral("\r") : QString(QChar('a' + i % 26)));
        rest(gapMs);
        if (during) during();
    }
    rest(500);
    std::vector<double> samples;
    for (const QVariant& v : b.eval("__echoSamples()").toList()) samples.push_back(v.toDouble());
    b.type(id, QStringLiteral("\x03"));  // ends the cat
    EchoFigures f;
    f.samples = samples.size();
    f.p50 = percentile(samples, 0.50);
    f.p99 = percentile(samples, 0.99);
    f.max = samples.empty() ? 0 : *std::max_element(samples.begin(), samples.end());
    return f;
}

bool keystroke(Bench& b, const Options& o) {
    const int64_t id = b.view()->tabIds().first();
    b.view()->switchTab(id);
    rest(300);
    const EchoFigures f = echoTimes(b, id, o.keys, 15);
    std::printf("keystroke round trip: %d keys typed into cat, %zu echoes timed in the page\n", o.keys, f.samples);
    std::printf("  p50 %.2f ms   p99 %.2f ms (target <= 5)   max %.2f ms\n", f.p50, f.p99, f.max);
    return f.samples > 0 || b.fail("no echo was timed");
}

// ---- memory under a flood ----

bool memory(Bench& b, const Options& o) {
    const int64_t a = b.view()->tabIds().first();
    const int64_t c = b.newTab(QStringLiteral("flood-2"));
    const int64_t typing = b.newTab(QStringLiteral("typing"));
    if (c < 0 || typing < 0) return false;
    b.view()->switchTab(c);
    rest(3000);
    const pid_t server = b.server->pid();
    TreeMemory idle;
    for (int i = 0; i < 8; ++i, rest(250)) keepPeak(idle, clientMemory(server));

    for (int64_t id : {a, c}) b.type(id, QStringLiteral("yes 'ostvarren flood: the quick brown fox 敏捷的狐狸 jumps'\r"));
    const auto t0 = Clock::now();
    TreeMemory peak;
    int pausedSamples = 0, samples = 0;
    auto sample = [&] {
        keepPeak(peak, clientMemory(server));
        ++samples;
        if (b.view()->receivePaused()) ++pausedSamples;
    };
    const int64_t acked0 = b.view()->acknowledgedBytesTotal();
    // Typing in the third tab for part of the time, then sampling until the time is up.
    const int keys = std::max(20, std::min(o.floodSeconds * 1000 / 4 / 50, 300));
    int tick = 0;
    const EchoFigures f = echoTimes(b, typing, keys, 50, [&] {
        if (++tick % 5 == 0) sample();
    });
    while (secondsSince(t0) < o.floodSeconds) {
        rest(250);
        sample();
    }
    const double secs = secondsSince(t0);
    const int64_t written = b.view()->acknowledgedBytesTotal() - acked0;
    for (int64_t id : {a, c}) b.type(id, QStringLiteral("\x03"));
    rest(2000);
    const TreeMemory after = clientMemory(server);

    std::printf("memory under a flood: `yes` in two tabs for %.0f s, typing in a third\n", secs);
    std::printf("  client RSS idle   %8ld KiB\n", idle.total);
    std::printf("  client RSS peak   %8ld KiB  ratio %.2f (target <= 1.50)\n", peak.total,
                static_cast<double>(peak.total) / static_cast<double>(std::max(1L, idle.total)));
    std::printf("  client RSS after  %8ld KiB\n", after.total);
    for (const auto& [name, kb] : peak.byProcess)
        std::printf("    %-40s idle %8ld  peak %8ld  after %8ld KiB\n", name.toLocal8Bit().constData(),
                    idle.byProcess.count(name) ? idle.byProcess.at(name) : 0L, kb,
                    after.byProcess.count(name) ? after.byProcess.at(name) : 0L);
    std::printf("  written by the page %.1f MB (%.1f MB/s); relay reading paused in %d of %d samples\n",
                static_cast<double>(written) / 1e6, static_cast<double>(written) / 1e6 / secs, pausedSamples, samples);
    std::printf("  typing in the third tab meanwhile: %zu echoes, p50 %.2f ms  p99 %.2f ms  max %.2f ms\n", f.samples,
                f.p50, f.p99, f.max);
    return true;
}


// ---- typing while other tabs flood ----

const QString kFloodCommand = QStringLiteral("yes 'ostvarren flood: the quick brown fox 敏捷的狐狸 jumps'\r");

struct Spread {
    double p50 = 0, p99 = 0;
    size_t n = 0;
};
Spread spread(const std::vector<double>& v) { return {percentile(v, 0.5), percentile(v, 0.99), v.size()}; }

// The stages of each echo, from the client's time stamps (steady clock, milliseconds) and the page's.
struct StageFigures {
    Spread relay, handOff, viewQueue, bridge, pageWrite;
};

// Follows each typed key through the marks: the first output read from the stream after the input left,
// its dispatch on the main thread, its hand-over to the page. Keys typed while an echo is outstanding
// are not timed (as the page does).
StageFigures stagesOf(const std::vector<trace::Mark>& marks, const QVariantList& page) {
    std::vector<double> relay, handOff, viewQueue, native;
    int64_t in = -1, rx = -1, disp = -1;
    auto ms = [](int64_t a, int64_t b) { return static_cast<double>(b - a) / 1e6; };
    for (const trace::Mark& m : marks) {
        switch (m.stage) {
            case trace::Stage::inputSent:
                if (in < 0) in = m.nanos;
                break;
            case trace::Stage::received:
                if (in >= 0 && rx < 0) rx = m.nanos;
                break;
            case trace::Stage::dispatched:
                if (rx >= 0 && disp < 0) disp = m.nanos;
                break;
            case trace::Stage::handedToPage:
                if (disp >= 0) {
                    relay.push_back(ms(in, rx));
                    handOff.push_back(ms(rx, disp));
                    viewQueue.push_back(ms(disp, m.nanos));
                    native.push_back(ms(in, m.nanos));
                    in = rx = disp = -1;
                }
                break;
        }
    }
    std::vector<double> toPage, write;
    for (const QVariant& v : page) {
        const QVariantList pair = v.toList();
        if (pair.size() != 2) continue;
        toPage.push_back(pair[0].toDouble());
        write.push_back(pair[1].toDouble());
    }
    // The bridge both ways: from the page's input to its output call, less the client's own part. Paired
    // key by key when both sides timed the same keys, else from the medians.
    std::vector<double> bridge;
    if (toPage.size() == native.size()) {
        for (size_t i = 0; i < native.size(); ++i) bridge.push_back(std::max(0.0, toPage[i] - native[i]));
    } else if (!toPage.empty() && !native.empty()) {
        bridge.push_back(std::max(0.0, percentile(toPage, 0.5) - percentile(native, 0.5)));
    }
    return {spread(relay), spread(handOff), spread(viewQueue), spread(bridge), spread(write)};
}

void printStages(const StageFigures& s) {
    auto one = [](const char* name, const Spread& x) {
        std::printf("    %-44s p50 %7.2f ms  p99 %7.2f ms  (%zu)\n", name, x.p50, x.p99, x.n);
    };
    one("relay: agent, its output queue, QUIC", s.relay);
    one("hand-off to the main thread", s.handOff);
    one("view queue (held, coalesced)", s.viewQueue);
    one("bridge to the page and back", s.bridge);
    one("page write (queue and parse)", s.pageWrite);
}

QString rendererOf(Bench& b, int64_t id) {
    return b.eval(QStringLiteral("__pageState().renderers[%1]").arg(id)).toString();
}

// Types into tab `typing` of the bench's window while something else floods; prints one line of figures
// under `label` and the stages. Answers the echo times (none when no echo was timed).
std::optional<Spread> typeDuringFlood(Bench& b, int64_t typing, const QString& label, int keys,
                                      const std::function<int64_t()>& written) {
    b.view()->switchTab(typing);
    b.type(typing, QStringLiteral("cat\r"));
    rest(1500);  // the flood is at full speed by now
    trace::OutputTrace::instance().take();
    trace::OutputTrace::instance().watch(typing);
    b.eval("__startEchoProbe()");
    std::mt19937 jitter(7);
    const int64_t written0 = written();
    const auto t0 = Clock::now();
    std::vector<double> queuedAtPausedKeys;  // MiB this view had to write when a key found reading paused
    for (int i = 0; i < keys; ++i) {
        if (b.view()->receivePaused())
            queuedAtPausedKeys.push_back(static_cast<double>(b.view()->unacknowledgedBytes() + b.view()->heldBytes()) /
                                         (1024.0 * 1024.0));
        b.type(typing, (i % 60 == 59) ? QStringLiteral("\r") : QString(QChar('a' + i % 26)));
        rest(30 + static_cast<int>(jitter() % 20));  // not in step with any timer
    }
    rest(500);
    const double secs = secondsSince(t0);
    const int64_t bytes = written() - written0;
    trace::OutputTrace::instance().watch(0);
    std::vector<double> samples;
    for (const QVariant& v : b.eval("__echoSamples()").toList()) samples.push_back(v.toDouble());
    const StageFigures stages = stagesOf(trace::OutputTrace::instance().take(), b.eval("__echoStages()").toList());
    b.type(typing, QStringLiteral("\x03"));
    const Spread all = spread(samples);
    const double max = samples.empty() ? 0 : *std::max_element(samples.begin(), samples.end());
    std::printf("typing, %s: p50 %.2f ms  p99 %.2f ms  max %.2f ms  (%zu echoes of %d keys; target p50 <= 8, p99 <= 20)\n",
                label.toLocal8Bit().constData(), all.p50, all.p99, max, all.n, keys);
    std::printf("  flood output written by the pages meanwhile: %.1f MB (%.1f MB/s)\n", static_cast<double>(bytes) / 1e6,
                static_cast<double>(bytes) / 1e6 / secs);
    const Spread queued = spread(queuedAtPausedKeys);
    std::printf("  keys typed while this view had paused reading: %zu of %d (its queue then: p50 %.2f MiB, p99 %.2f MiB)\n",
                queued.n, keys, queued.p50, queued.p99);
    std::printf("  stages of an echo (renderer of the tab typed into: %s):\n", rendererOf(b, typing).toLocal8Bit().constData());
    printStages(stages);
    if (all.n == 0) {
        b.fail("no echo was timed");
        return std::nullopt;
    }
    return all;
}

// Waits until a view has nothing of its output left to write (after a flood was stopped).
bool drained(TerminalView* v, int timeoutMs = 60000) {
    int quiet = 0;
    int64_t last = -1;
    return waitFor(
        [&] {
            const int64_t now = v->acknowledgedBytesTotal();
            quiet = (now == last && v->unacknowledgedBytes() == 0 && v->heldBytes() == 0) ? quiet + 1 : 0;
            last = now;
            return quiet >= 20;
        },
        timeoutMs);
}

// The text of a tab that ran `yes ... | cat -n`: are its numbered lines consecutive (none missing, none
// out of order)? Answers how many there are, or -1 (and where) when not.
int64_t numberedLinesInOrder(const QString& text, QString* where) {
    static const QRegularExpression numbered(QStringLiteral("^\\s*(\\d+)\\s+ostvarren flood"));
    int64_t count = 0, last = -1;
    for (const QString& line : text.split(QLatin1Char('\n'))) {
        const QRegularExpressionMatch m = numbered.match(line);  // not the command, ^C or the prompt
        if (!m.hasMatch()) continue;
        const int64_t n = m.captured(1).toLongLong();
        if (last >= 0 && n != last + 1) {
            *where = QStringLiteral("%1 after %2").arg(n).arg(last);
            return -1;
        }
        last = n;
        ++count;
    }
    return count;
}

// Three tabs of the bench's window: two to flood and one to type into (the last).
struct ThreeTabs {
    int64_t floodA = -1, floodB = -1, typed = -1;
};
std::optional<ThreeTabs> threeTabs(Bench& b) {
    QList<int64_t> tabs = b.view()->tabIds();
    while (tabs.size() < 3) {
        if (b.newTab(QStringLiteral("tab-%1").arg(tabs.size() + 1)) < 0) return std::nullopt;
        tabs = b.view()->tabIds();
    }
    return ThreeTabs{tabs.at(0), tabs.at(1), tabs.last()};
}

// Typing into tab `into` while the two flood tabs of the same agent flood; the second one numbers its
// lines, to be checked when shown.
std::optional<Spread> sameAgentPass(Bench& b, const ThreeTabs& t, int64_t into, const QString& label, int keys) {
    b.view()->switchTab(into);
    b.type(t.floodA, kFloodCommand);
    b.type(t.floodB, kFloodCommand.chopped(1) + QStringLiteral(" | cat -n\r"));
    auto f = typeDuringFlood(b, into, label, keys, [&] { return b.view()->acknowledgedBytesTotal(); });
    for (int64_t id : {t.floodA, t.floodB}) b.type(id, QStringLiteral("\x03"));
    return f;
}

bool typing(Bench& b, const Options& o) {
    const int keys = std::min(o.keys, 300);
    const auto tabs = threeTabs(b);
    if (!tabs) return false;
    const int64_t typed = tabs->typed, floodB = tabs->floodB;
    const QString server = b.typingFirst ? QString() : QStringLiteral(", server without typing first");

    const bool first = sameAgentPass(b, *tabs, typed, QStringLiteral("two tabs of the same agent flooding") + server, keys)
                           .has_value();
    // The numbered tab is shown at once: whatever this view and the page still hold of it comes first.
    rest(200);
    const auto t0 = Clock::now();
    b.view()->switchTab(floodB);
    if (!drained(b.view())) return b.fail("the flooded tabs never caught up");
    const double caughtUp = secondsSince(t0);
    b.type(floodB, QStringLiteral("echo end-$((6*7))\r"));
    if (!waitFor([&] { return b.pageText(floodB).contains(QStringLiteral("end-42")); }, 20000))
        return b.fail("the flooded tab does not answer after the flood");
    QString where;
    const int64_t lines = numberedLinesInOrder(b.pageText(floodB), &where);
    if (lines > 0)
        std::printf("  a flooded tab, shown after the flood: caught up in %.2f s, complete and in order (%lld numbered lines)\n",
                    caughtUp, static_cast<long long>(lines));
    else
        std::printf("  a flooded tab, shown after the flood: caught up in %.2f s, NOT complete and in order (%s)\n",
                    caughtUp, lines < 0 ? where.toLocal8Bit().constData() : "no numbered lines");
    if (!first || lines <= 0) return false;
    if (!b.typingFirst) return true;  // what the client does alone: the second agent adds nothing here

    // Two tabs of a second agent, in a second window with its own link (another controller of the
    // same server), typing in the first window meanwhile.
    ConnectionManager otherLink;
    auto other = std::make_unique<MainViewController>(&otherLink);
    other->resize(1200, 800);
    other->show();
    other->sessions().pendingAutoCreate = true;
    const QString otherCode = b.server->code(0) == b.pairedCode ? b.server->code(1) : b.server->code(0);
    other->connectPanelDidRequestPairWithCode(nullptr, otherCode, QStringLiteral("second"));
    other->sessions().pendingAutoCreate = true;  // the pairing request resets the link state
    TerminalView* ov = other->terminalView;
    if (!waitFor([&] { return ov->tabIds().size() == 1 && ov->isWebViewReady; }, 30000))
        return b.fail("no shell on the second agent");
    other->sessions().allocateAndCreatePty(QStringLiteral("flood-2"), std::nullopt, std::nullopt, makeTempDir("flood-2"));
    if (!waitFor([&] { return ov->tabIds().size() == 2; }, 20000)) return b.fail("no second shell on the second agent");
    rest(1000);
    for (int64_t id : ov->tabIds()) b.type(id, kFloodCommand, ov);
    const bool ok = typeDuringFlood(b, typed, QStringLiteral("two tabs of a second agent flooding"), keys,
                                    [&] { return ov->acknowledgedBytesTotal(); })
                        .has_value();
    for (int64_t id : ov->tabIds()) b.type(id, QStringLiteral("\x03"), ov);
    drained(ov);
    otherLink.disconnect();
    other.reset();
    return ok;
}

// The same-agent pass twice: typing into a tab drawn by the page's own pick of renderer, then into one
// drawn by the other (the flooded tabs are not drawn while hidden). WebGL needs a GL the web engine can
// use (under X: -platform xcb; the offscreen platform has none): without, the second tab says so.
bool renderers(Bench& b, const Options& o) {
    const int keys = std::min(o.keys, 300);
    const auto tabs = threeTabs(b);
    if (!tabs) return false;
    const QString mine = rendererOf(b, tabs->typed);
    const auto first = sameAgentPass(b, *tabs, tabs->typed, QStringLiteral("two tabs of the same agent flooding, renderer ") + mine, keys);
    if (!first || !drained(b.view())) return b.fail("the first renderer's pass failed");
    const QString wanted = mine == QLatin1String("webgl") ? QStringLiteral("dom") : QStringLiteral("webgl");
    const QString before = b.eval("renderer").toString();
    b.eval(QStringLiteral("renderer = '%1'").arg(wanted));
    const int64_t other = b.newTab(QStringLiteral("renderer-") + wanted);
    b.eval(QStringLiteral("renderer = '%1'").arg(before));
    if (other < 0) return false;
    const QString got = rendererOf(b, other);
    const auto second = sameAgentPass(b, *tabs, other, QStringLiteral("two tabs of the same agent flooding, renderer ") + got, keys);
    if (!second || !drained(b.view())) return b.fail("the second renderer's pass failed");
    const QString gl = b.eval("__pageState().gl").toString();
    std::printf("renderers compared, typing while two tabs flood:  %s p50 %.2f ms p99 %.2f ms", mine.toLocal8Bit().constData(),
                first->p50, first->p99);
    if (got == wanted)
        std::printf("  %s p50 %.2f ms p99 %.2f ms", got.toLocal8Bit().constData(), second->p50, second->p99);
    else
        std::printf("  %s did not start (a second %s tab: p50 %.2f ms p99 %.2f ms)", wanted.toLocal8Bit().constData(),
                    got.toLocal8Bit().constData(), second->p50, second->p99);
    std::printf("  (WebGL here: %s)\n", gl.isEmpty() ? "none" : gl.toLocal8Bit().constData());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    prepareEnvironment();
    QCoreApplication::setOrganizationName("Ostvarren");
    QCoreApplication::setApplicationName("Ostvarren");
    QApplication qapp(argc, argv);
    isolateSettings();

    Options o;
    const QStringList args = QCoreApplication::arguments().mid(1);
    for (qsizetype i = 0; i < args.size(); ++i) {
        const QString& arg = args[i];
        auto number = [&](int& into) {
            bool ok = false;
            const int v = i + 1 < args.size() ? args[i + 1].toInt(&ok) : 0;
            if (ok && v > 0) into = v;
            ++i;
            return ok && v > 0;
        };
        bool ok = true;
        if (arg == "--file-mib") ok = number(o.fileMiB);
        else if (arg == "--keys") ok = number(o.keys);
        else if (arg == "--flood-seconds") ok = number(o.floodSeconds);
        else if (arg == "--chunk-bytes") ok = number(o.chunkBytes);
        else if (arg == "--no-typing-first") o.typingFirst = false;
        else if (arg == "--renderer" && i + 1 < args.size() && (args[i + 1] == "dom" || args[i + 1] == "webgl")) o.renderer = args[++i];
        else if (arg == "throughput" || arg == "keystroke" || arg == "memory" || arg == "typing" || arg == "renderers" ||
                 arg == "all")
            o.what = arg;
        else ok = false;
        if (!ok) {
            std::fprintf(stderr,
                         "usage: bench_terminal [throughput|keystroke|memory|typing|renderers|all] [--file-mib N] [--keys N] "
                         "[--flood-seconds N] [--chunk-bytes N] [--renderer dom|webgl] [--no-typing-first]\n");
            return 2;
        }
    }

    Bench b;
    if (o.what == "all" || o.what == "typing") b.agents = 2;
    b.typingFirst = o.typingFirst;
    bool ok = b.start();
    if (ok && !o.renderer.isEmpty()) b.eval(QStringLiteral("renderer = '%1'").arg(o.renderer));
    if (ok) {
        std::printf("renderer in the page: %s\n", b.eval("__pageState().renderer").toString().toLocal8Bit().constData());
        if (ok && (o.what == "all" || o.what == "keystroke")) ok = keystroke(b, o);
        if (ok && (o.what == "all" || o.what == "throughput")) ok = throughput(b, o);
        if (ok && (o.what == "all" || o.what == "memory")) ok = memory(b, o);
        if (ok && (o.what == "all" || o.what == "typing")) ok = typing(b, o);
        if (ok && o.what == "renderers") ok = renderers(b, o);
    }
    std::fflush(stdout);
    b.stop();
    return ok ? 0 : 1;
}
