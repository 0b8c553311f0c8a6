// Attacks on the server program over loopback addresses (127.0.0.0/8; the root case inside a network
// namespace this run makes and removes), each bounded in count and time, and the figures they leave:
//   1. a guessing script against pairing: tries per minute before and after the limit, and the time
//      the limit leaves for covering all codes;
//   2. 500 idle admin sockets and 1,000 QUIC handshake starts: how long a sign-in takes meanwhile,
//      and a paired controller's typing echo, quiet and under the attack;
//   3. a directory of 200,000 entries, a FIFO and a mount that never answers, listed by one
//      controller while another one types;
//   4. the server started as root on an address other than loopback without --allow-root;
//   5. what a shell's `env` shows of the server's own secrets.
//
//   bench_attack [--quick]     --quick: a 20 s guessing window instead of 60 s
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkDatagram>
#include <QNetworkReply>
#include <QProcess>
#include <QThread>
#include <QRegularExpression>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTimer>
#include <QUdpSocket>
#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <map>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "LineSplitter.h"
#include "LocalServer.h"
#include "Message.h"
#include "QUICTransport.h"
#include "QuicEngine.h"
#include "TestSupport.h"

using namespace ostv;
using Clock = std::chrono::steady_clock;
using ostv::test::LocalServer;
using ostv::test::spin;
using ostv::test::waitUntil;

namespace {

double msSince(Clock::time_point t0) { return std::chrono::duration<double, std::milli>(Clock::now() - t0).count(); }

double percentile(std::vector<double> v, double p) {
    if (v.empty()) return -1;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size())))];
}

sockaddr_in v4(const QHostAddress& a, quint16 port) {
    sockaddr_in s{};
    s.sin_family = AF_INET;
    s.sin_port = htons(port);
    s.sin_addr.s_addr = htonl(a.toIPv4Address());
    return s;
}

// A bare QUIC client from a chosen loopback source address: what a script would use.
class Prober : public QObject {
public:
    bool established = false;
    bool closed = false;
    int retries = 0;
    std::vector<std::string> lines;

    bool start(const QHostAddress& from, quint16 port, const std::string& sni) {
        port_ = port;
        if (!socket_.bind(from, 0)) return false;
        connect(&socket_, &QUdpSocket::readyRead, this, [this] {
            while (socket_.hasPendingDatagrams()) {
                const QNetworkDatagram d = socket_.receiveDatagram();
                const QByteArray b = d.data();
                if (!b.isEmpty() && (static_cast<uint8_t>(b[0]) & 0xf0) == 0xf0) ++retries;  // a Retry packet
                if (engine_ && !closed) engine_->receivePacket(reinterpret_cast<const uint8_t*>(b.constData()), b.size());
            }
        });
        timer_.setSingleShot(true);
        connect(&timer_, &QTimer::timeout, this, [this] {
            if (engine_ && !closed) engine_->onTimer();
        });
        QuicEngine::Hooks h;
        h.sendDatagram = [this](const uint8_t* d, size_t n) {
            socket_.writeDatagram(reinterpret_cast<const char*>(d), static_cast<qint64>(n), QHostAddress::LocalHost, port_);
        };
        h.streamData = [this](const char* d, size_t n) {
            splitter_.feed(std::string_view(d, n), [this](std::string_view l) { lines.emplace_back(l); });
        };
        h.established = [this] { established = true; };
        h.closed = [this](const std::string&, bool) { closed = true; };
        h.armTimer = [this](int64_t ms) {
            if (ms < 0) timer_.stop();
            else timer_.start(static_cast<int>(std::min<int64_t>(ms, 60000)));
        };
        engine_ = std::make_unique<QuicEngine>(std::move(h));
        const sockaddr_in local = v4(socket_.localAddress(), socket_.localPort());
        const sockaddr_in remote = v4(QHostAddress::LocalHost, port);
        std::string error;
        return engine_->startClient(reinterpret_cast<const sockaddr*>(&local), sizeof local,
                                    reinterpret_cast<const sockaddr*>(&remote), sizeof remote, sni, error);
    }
    void sendLine(const std::string& line) {
        if (engine_ && !closed) engine_->send(line + "\n");
    }

private:
    QUdpSocket socket_;
    QTimer timer_;
    quint16 port_ = 0;
    std::unique_ptr<QuicEngine> engine_;
    LineSplitter splitter_{1 << 20};
};

// One guess: connect from `from`, pair with `code`, answer the relay's reply ("" when none came).
std::string guess(const QHostAddress& from, quint16 port, const std::string& code) {
    Prober p;
    if (!p.start(from, port, "ctrl-" + code)) return {};
    if (!waitUntil([&] { return p.established || p.closed; }, 5000) || p.closed) return {};
    Message m("pair");
    m.code = code;
    m.nickname = "guess";
    p.sendLine(m.encode());
    std::string answer;
    waitUntil(
        [&] {
            for (const std::string& l : p.lines)
                if (auto d = Message::decode(l); d && (d->type == "error" || d->type == "paired")) {
                    answer = d->type == "error" ? d->msg.value_or("") : "paired";
                    return true;
                }
            return p.closed;
        },
        5000);
    return answer;
}

// A paired controller through the client's own transport, with the times its output arrives. A
// QObject: the transport hands its states and data only to a delegate it can watch for going away.
class Controller : public QObject, public QUICTransportDelegate {
public:
    Controller(const LocalServer& s, const std::string& code)
        : t_(s.host(), s.quicPort(), QStringLiteral("ctrl-") + QString::fromStdString(code)) {
        t_.setDelegate(this);
    }
    bool pair(const std::string& code, const std::string& nick) {
        t_.connect();
        if (!waitUntil([&] { return kind_ == QUICTransportState::Kind::ready; }, 15000)) return false;
        Message m("pair");
        m.code = code;
        m.nickname = nick;
        send(m);
        return waitUntil([&] { return paired_.load(); }, 5000);
    }
    void send(const Message& m) { t_.send(m.encode()); }
    void type(const std::string& text) {
        Message in("INPUT");
        in.ptyId = 1;
        in.data = text;
        send(in);
    }
    std::string output() {
        std::lock_guard l(m_);
        return output_;
    }
    size_t fsResults() {
        std::lock_guard l(m_);
        return fsLines_.size();
    }
    std::vector<std::pair<std::string, double>> fsAnswers(Clock::time_point t0) {
        std::lock_guard l(m_);
        std::vector<std::pair<std::string, double>> out;
        for (const auto& [line, at] : fsLines_) out.emplace_back(line, std::chrono::duration<double, std::milli>(at - t0).count());
        return out;
    }
    // Keystroke echo times: one key at a time, `n` of them `gapMs` apart.
    std::vector<double> typing(int n, int gapMs) {
        std::vector<double> samples;
        for (int i = 0; i < n; ++i) {
            const size_t before = keys_.load();
            const auto t0 = Clock::now();
            type("k");
            // Timed where the echo arrives (the transport's thread), not when this busy loop sees it.
            if (waitUntil([&] { return keys_.load() > before; }, 2000))
                samples.push_back(
                    std::chrono::duration<double, std::milli>(Clock::time_point(Clock::duration(lastKeyAt_.load())) - t0)
                        .count());
            else samples.push_back(2000);
            spin(gapMs);
        }
        return samples;
    }
    void disconnect() { t_.disconnect(); }

    void quicTransportDidChangeState(QUICTransport*, const QUICTransportState& s) override { kind_ = s.kind; }
    void quicTransportDidReceiveData(QUICTransport*, std::string_view chunk) override {
        std::lock_guard l(m_);
        splitter_.feed(chunk, [&](std::string_view line) {
            auto t = MessageTypeSniff::decode(line);
            if (!t) return;
            if (t->type == "paired") paired_ = true;
            if (t->type == "fs_result") fsLines_.emplace_back(std::string(line), Clock::now());
            if (t->type != "PTY_DATA") return;
            auto m = Message::decode(line);
            if (!m || !m->data) return;
            const std::string bytes = QByteArray::fromBase64(QByteArray::fromStdString(*m->data)).toStdString();
            if (const auto k = std::count(bytes.begin(), bytes.end(), 'k')) {
                lastKeyAt_ = Clock::now().time_since_epoch().count();
                keys_ += static_cast<size_t>(k);
            }
            output_ += bytes;
        });
    }
    void quicTransportDidEncounterError(QUICTransport*, const QUICTransportError&) override {}

private:
    std::atomic<QUICTransportState::Kind> kind_{QUICTransportState::Kind::setup};
    std::atomic<bool> paired_{false};
    std::atomic<size_t> keys_{0};
    std::atomic<Clock::rep> lastKeyAt_{0};
    std::mutex m_;
    LineSplitter splitter_{64 * 1024 * 1024};
    std::string output_;
    std::vector<std::pair<std::string, Clock::time_point>> fsLines_;
    QUICTransport t_;  // last: its thread delivers into the members above until it has stopped
};

double signInMs(QNetworkAccessManager& nam, const LocalServer& s, bool* ok) {
    QNetworkRequest req(QUrl(s.adminUrl() + "/admin/login"));
    req.setHeader(QNetworkRequest::ContentTypeHeader, "application/json");
    req.setTransferTimeout(5000);
    const auto t0 = Clock::now();
    QNetworkReply* r = nam.post(req, R"({"username":"admin","password":"quill_tarn"})");
    waitUntil([&] { return r->isFinished(); }, 6000);
    const double ms = msSince(t0);
    *ok = r->isFinished() && r->readAll().contains("\"token\"");
    r->deleteLater();
    return ms;
}

int openFds(pid_t pid) { return static_cast<int>(QDir(QStringLiteral("/proc/%1/fd").arg(pid)).entryList(QDir::Files | QDir::System).size()); }

// A mount with no FUSE daemon behind it: every access to it waits. Needs root and /dev/fuse.
struct HungMount {
    QByteArray dir;
    int fd = -1;
    explicit HungMount(const QString& d) : dir(QFile::encodeName(d)) {
        fd = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
        if (fd < 0) return;
        const std::string opts = "fd=" + std::to_string(fd) + ",rootmode=40000,user_id=0,group_id=0";
        if (::mount("ostv-hung", dir.constData(), "fuse.ostv-hung", MS_NOSUID | MS_NODEV, opts.c_str()) != 0) {
            ::close(fd);
            fd = -1;
        }
    }
    ~HungMount() {
        if (fd < 0) return;
        ::umount2(dir.constData(), MNT_DETACH);
        ::close(fd);
    }
};

void printTyping(const char* label, const std::vector<double>& v) {
    std::printf("  %-44s p50 %6.2f ms  p99 %6.2f ms  (%zu keys)\n", label, percentile(v, 0.5), percentile(v, 0.99), v.size());
}

}  // namespace

int main(int argc, char** argv) {
    ostv::test::prepareEnvironment();
    QCoreApplication app(argc, argv);
    const bool quick = argc > 1 && std::string(argv[1]) == "--quick";
    const int guessSeconds = quick ? 20 : 60;
    int failures = 0;

    // ---- 1. guessing pairing codes ----
    {
        QTemporaryDir home;
        LocalServer server({"--code", "424242"});
        server.setEnv("HOME", home.path());
        if (!server.start()) {
            std::fprintf(stderr, "server did not start: %s\n", server.errorString().toLocal8Bit().constData());
            return 1;
        }
        std::printf("1. guessing pairing codes (the relay's limits as shipped)\n");
        const QHostAddress one("127.0.0.2");
        auto t0 = Clock::now();
        int before = 0;
        for (int i = 0; i < 4; ++i) before += guess(one, server.quicPort(), "00000" + std::to_string(i)) == "配对码无效";
        const double beforeMs = msSince(t0);
        std::printf("  before the limit: %d guesses in %.0f ms = %.0f tries/min from one address\n", before, beforeMs,
                    before * 60000.0 / beforeMs);

        // Then from 200 addresses in turn, for the window: what still gets tried.
        const int linesBefore = server.countLines("pairing from");
        int tried = 0, refused = 0, silent = 0, attempts = 0, triedSinceLimit = 0;
        Clock::time_point limited{};
        t0 = Clock::now();
        for (int i = 0; msSince(t0) < guessSeconds * 1000.0 && attempts < 20000; ++i, ++attempts) {
            const QHostAddress from(QStringLiteral("127.0.1.%1").arg(1 + i % 200));
            char code[8];
            std::snprintf(code, sizeof code, "%06d", 100000 + i);
            const std::string answer = guess(from, server.quicPort(), code);
            if (answer == "配对码无效") {
                ++tried;
                triedSinceLimit += refused > 0;
            } else if (answer.find("配对尝试过多") != std::string::npos) {
                if (refused++ == 0) limited = Clock::now();
            } else {
                ++silent;
            }
        }
        const double minutes = msSince(t0) / 60000.0;
        // The steady rate once the limit holds (the first minute's allowance spent).
        const double rate = refused > 0 ? triedSinceLimit / (msSince(limited) / 60000.0) : tried / minutes;
        QThread::msleep(200);  // the server's last lines on their way
        const int refusalLines = server.countLines("pairing from") - linesBefore;
        std::printf("  from 200 addresses: %d guesses tried, %d refused, %d unanswered in %.2f min (%.1f tries/min"
                    " with the first minute's allowance)\n", tried, refused, silent, minutes, tried / minutes);
        std::printf("  after the limit: %d guesses in %.2f min since the first refusal = %.1f tries/min\n",
                    triedSinceLimit, refused > 0 ? msSince(limited) / 60000.0 : 0.0, rate);
        std::printf("  refusals logged:  %d lines for %d refusals\n", refusalLines, refused);
        std::printf("  time to cover all 1,000,000 codes at that rate: %.0f days (half of them on average: %.0f days)\n",
                    1e6 / std::max(rate, 1e-9) / 1440.0, 0.5e6 / std::max(rate, 1e-9) / 1440.0);
        if (rate > 25) ++failures;
    }

    // ---- 2 to 5: one server, two controllers ----
    QTemporaryDir home;
    const QString big = home.path() + "/big";
    QDir().mkpath(big);
    for (int i = 0; i < 200000; ++i) {
        const int fd = ::open(QFile::encodeName(big + "/entry-" + QString::number(i)).constData(), O_CREAT | O_WRONLY, 0600);
        if (fd >= 0) ::close(fd);
    }
    const QString fifo = home.path() + "/fifo";
    ::mkfifo(QFile::encodeName(fifo).constData(), 0600);
    const QString hungDir = home.path() + "/hung";
    QDir().mkpath(hungDir);

    LocalServer server({"--code", "515151", "--limit", "4"});
    server.setEnv("HOME", home.path());
    const char* secrets[] = {"SSH_AUTH_SOCK", "DISPLAY", "DBUS_SESSION_BUS_ADDRESS", "SUDO_USER", "OSTV_BENCH_SECRET"};
    for (const char* s : secrets) server.setEnv(QString::fromLatin1(s), "leaked-value");
    if (!server.start()) {
        std::fprintf(stderr, "server did not start: %s\n", server.errorString().toLocal8Bit().constData());
        return 1;
    }
    Controller typist(server, "515151"), lister(server, "515151");
    if (!typist.pair("515151", "typist") || !lister.pair("515151", "lister")) {
        const std::string out = server.output();
        std::fprintf(stderr, "not paired; the server said:\n%s\n", out.substr(out.size() > 4000 ? out.size() - 4000 : 0).c_str());
        return 1;
    }
    Message create("CREATE_PTY");
    create.ptyId = 1;
    create.cols = 120;
    create.rows = 40;
    create.cwd = "~";
    create.clientId = "bench-typist";
    typist.send(create);
    spin(800);

    // 5 first (the shell is fresh): the server's own variables that reach a shell.
    typist.type("echo \"leaked=$(env | grep -cE '^(SSH_AUTH_SOCK|DISPLAY|DBUS_SESSION_BUS_ADDRESS|SUDO_USER|OSTV_BENCH_SECRET)=')\"\r");
    QRegularExpressionMatch leaked;
    waitUntil([&] {
        leaked = QRegularExpression("leaked=(\\d+)").match(QString::fromStdString(typist.output()));
        return leaked.hasMatch();
    }, 5000);
    typist.type("exec cat\r");
    spin(500);

    std::printf("2. 500 idle admin sockets and 1,000 QUIC handshake starts\n");
    QNetworkAccessManager nam;
    bool ok = false;
    signInMs(nam, server, &ok);  // the connection the client keeps from its warm-up
    const std::vector<double> quiet = typist.typing(200, 20);
    std::vector<std::unique_ptr<QTcpSocket>> idle;
    for (int i = 0; i < 500; ++i) {
        auto s = std::make_unique<QTcpSocket>();
        s->bind(QHostAddress(QStringLiteral("127.0.2.%1").arg(1 + i / 20)), 0);
        s->connectToHost(QHostAddress::LocalHost, server.adminPort());
        idle.push_back(std::move(s));
    }
    std::vector<std::unique_ptr<Prober>> probers;
    std::vector<double> signIns;
    std::vector<double> underAttack;
    int signInFailures = 0, peakFds = 0;
    const auto attack0 = Clock::now();
    for (int batch = 0; batch < 20; ++batch) {
        for (int i = 0; i < 50; ++i) {
            auto p = std::make_unique<Prober>();
            const int n = batch * 50 + i;
            p->start(QHostAddress(QStringLiteral("127.0.3.%1").arg(1 + n / 20)), server.quicPort(), "ctrl-000000");
            probers.push_back(std::move(p));
        }
        const auto typed = typist.typing(5, 10);
        underAttack.insert(underAttack.end(), typed.begin(), typed.end());
        if (batch % 4 == 0) {
            signIns.push_back(signInMs(nam, server, &ok));
            signInFailures += !ok;
        }
        peakFds = std::max(peakFds, openFds(server.pid()));
    }
    const double attackMs = msSince(attack0);
    for (int i = 0; i < 3; ++i) {
        const auto typed = typist.typing(20, 20);
        underAttack.insert(underAttack.end(), typed.begin(), typed.end());
        signIns.push_back(signInMs(nam, server, &ok));
        signInFailures += !ok;
        peakFds = std::max(peakFds, openFds(server.pid()));
    }
    int stillOpen = 0, retries = 0, handshakes = 0;
    for (auto& s : idle) stillOpen += s->state() == QAbstractSocket::ConnectedState;
    for (auto& p : probers) {
        retries += p->retries > 0;
        handshakes += p->established;
    }
    std::printf("  handshake starts: 1000 in %.0f ms; answered with a Retry: %d; completed: %d\n", attackMs, retries, handshakes);
    std::printf("  idle admin sockets still open at the end: %d of 500; server's open files at peak: %d\n", stillOpen, peakFds);
    std::printf("  sign-in during the attack: max %.1f ms, p50 %.1f ms (%zu sign-ins, %d failed)\n",
                *std::max_element(signIns.begin(), signIns.end()), percentile(signIns, 0.5), signIns.size(), signInFailures);
    printTyping("typing echo, quiet:", quiet);
    printTyping("typing echo, under the attack:", underAttack);
    if (*std::max_element(signIns.begin(), signIns.end()) > 1000 || signInFailures || percentile(underAttack, 0.99) > 50)
        ++failures;
    idle.clear();
    probers.clear();

    std::printf("3. huge, FIFO and hung directories listed by one controller while another types\n");
    HungMount hung(hungDir);
    auto fsOp = [&](const QString& path) {
        Message m("fs_op");
        m.op = "list";
        m.path = path.toStdString();
        lister.send(m);
    };
    const auto fs0 = Clock::now();
    const size_t fsBefore = lister.fsResults();
    int asked = 0;
    for (int round = 0; round < 3; ++round) {
        fsOp(big);
        fsOp(fifo);
        asked += 2;
        if (hung.fd >= 0 && round == 0) {
            fsOp(hungDir);
            ++asked;
        }
    }
    const std::vector<double> listing = typist.typing(150, 20);
    waitUntil([&] { return lister.fsResults() >= fsBefore + static_cast<size_t>(asked); }, 15000);
    // Per path: the first listing that came back (success) and the answers that came back as failed
    // (not a directory, timed out, or refused while the agent's listings were all still running).
    struct Answers {
        double listedMs = -1, firstFailedMs = -1;
        size_t entries = 0;
        int failed = 0;
    };
    std::map<std::string, Answers> byPath;
    for (const auto& [line, ms] : lister.fsAnswers(fs0)) {
        auto r = FSResultEnvelope::decode(line);
        if (!r || !r->path) continue;
        Answers& a = byPath[*r->path];
        if (r->success && a.listedMs < 0) {
            a.listedMs = ms;
            a.entries = r->data ? r->data->size() : 0;
        } else if (!r->success) {
            ++a.failed;
            if (a.firstFailedMs < 0) a.firstFailedMs = ms;
        }
    }
    const Answers bigA = byPath[big.toStdString()], fifoA = byPath[fifo.toStdString()], hungA = byPath[hungDir.toStdString()];
    std::printf("  200,000 entries: listed after %.0f ms with %zu entries (the cap); %d of its requests answered as"
                " failed (the agent's listings all running)\n", bigA.listedMs, bigA.entries, bigA.failed);
    std::printf("  FIFO: answered (as not a directory) after %.0f ms\n", fifoA.firstFailedMs);
    if (hung.fd >= 0) std::printf("  hung mount: answered (as failed) after %.0f ms\n", hungA.firstFailedMs);
    else std::printf("  hung mount: not run (no /dev/fuse or no right to mount)\n");
    std::printf("  answers: %zu of %d\n", lister.fsResults() - fsBefore, asked);
    printTyping("typing echo meanwhile:", listing);
    if (percentile(listing, 0.99) > 50) ++failures;

    std::printf("4. started as root on an address other than loopback\n");
    if (::geteuid() != 0) {
        std::printf("  not run: not root\n");
    } else {
        const QString ns = QStringLiteral("ostv-bench-%1").arg(::getpid());
        if (QProcess::execute("ip", {"netns", "add", ns}) != 0) {
            std::printf("  not run: network namespaces are refused here\n");
        } else {
            QProcess::execute("ip", {"netns", "exec", ns, "ip", "link", "set", "lo", "up"});
            QProcess::execute("ip", {"netns", "exec", ns, "ip", "addr", "add", "10.98.0.1/32", "dev", "lo"});
            QProcess p;
            p.setProcessChannelMode(QProcess::MergedChannels);
            const auto t0 = Clock::now();
            p.start("ip", {"netns", "exec", ns, qEnvironmentVariable("OSTV_SERVER_BIN"), "--bind", "10.98.0.1",
                           "--quic-port", "0", "--admin-port", "0"});
            if (!p.waitForFinished(10000)) {  // it did not refuse: it must not outlive its namespace
                p.kill();
                p.waitForFinished(2000);
            }
            const QString said = QString::fromLocal8Bit(p.readAll()).trimmed();
            std::printf("  exit %d after %.0f ms, %lld line(s): %s\n", p.exitCode(), msSince(t0),
                        static_cast<long long>(said.split('\n').size()), said.toLocal8Bit().constData());
            QProcess::execute("ip", {"netns", "delete", ns});
            if (p.exitCode() == 0) ++failures;
        }
    }

    std::printf("5. a shell's env\n");
    std::printf("  inherited secrets visible: %s of 5 set in the server's environment\n",
                leaked.hasMatch() ? leaked.captured(1).toLocal8Bit().constData() : "?");
    if (!leaked.hasMatch() || leaked.captured(1) != "0") ++failures;

    typist.disconnect();
    lister.disconnect();
    server.stop();
    return failures == 0 ? 0 : 1;
}
