// ostvarren-server: the admin HTTP API, the QUIC relay and a number of agents with real shells, in
// one program, for running the desktop client against this machine.
#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QSocketNotifier>
#include <QSysInfo>
#include <QTimer>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <sys/prctl.h>
#include <unistd.h>
#include <vector>

#include "Logger.h"
#include "adminapi/AdminHttpApi.h"
#include "agent/Agent.h"
#include "agent/PtyProcess.h"
#include "agent/SystemLoad.h"
#include "program/ServerOptions.h"
#include "quic/QuicServer.h"
#include "relay/QuicControllerLink.h"
#include "relay/Relay.h"

using namespace ostv::server;

namespace {

int signalPipe[2] = {-1, -1};

void onStopSignal(int sig) {
    unsigned char b = static_cast<unsigned char>(sig);
    (void)!::write(signalPipe[1], &b, 1);
}

// This machine's identity; the agents' ids are derived from it so that they stay the same from run to run.
QByteArray machineBase() {
    for (const char* path : {"/etc/machine-id", "/var/lib/dbus/machine-id"}) {
        QFile f(QString::fromLatin1(path));
        if (f.open(QIODevice::ReadOnly)) {
            QByteArray id = f.readAll().trimmed();
            if (!id.isEmpty()) return id;
        }
    }
    QByteArray id = QSysInfo::machineUniqueId();
    return id.isEmpty() ? QSysInfo::machineHostName().toUtf8() : id;
}

std::string agentMachineId(const QByteArray& base, int index) {
    QByteArray h = QCryptographicHash::hash(base + ":ostvarren-agent:" + QByteArray::number(index),
                                            QCryptographicHash::Sha256);
    return h.toHex().left(32).toStdString();
}

void say(const std::string& line) {
    std::fprintf(stdout, "ostvarren-server: %s\n", line.c_str());
    std::fflush(stdout);
}

int fail(const QString& why) {
    std::fprintf(stderr, "ostvarren-server: %s\n", why.toLocal8Bit().constData());
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    const pid_t parent = ::getppid();
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("ostvarren-server"));

    QString error;
    auto parsed = ServerOptions::parse(app.arguments().mid(1), &error);
    if (!parsed) {
        std::fprintf(stderr, "ostvarren-server: %s\n%s", error.toLocal8Bit().constData(),
                     ServerOptions::usage().toLocal8Bit().constData());
        return 2;
    }
    const ServerOptions opt = *parsed;
    if (opt.help) {
        std::fputs(ServerOptions::usage().toLocal8Bit().constData(), stdout);
        return 0;
    }

    // Stop signals arrive through a pipe, so that the stop runs on the event loop.
    if (::pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) return fail(QStringLiteral("cannot create a pipe"));
    struct sigaction sa {};
    sa.sa_handler = onStopSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &sa, nullptr);
    ::sigaction(SIGTERM, &sa, nullptr);
    ::sigaction(SIGHUP, &sa, nullptr);
    if (opt.exitWithParent) {
        // The kernel sends SIGTERM when the parent goes; if it went before this was set, stop now.
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent) onStopSignal(SIGTERM);
    }
    ::sigaction(SIGUSR1, &sa, nullptr);  // the relay goes away; the agents and their shells stay
    ::sigaction(SIGUSR2, &sa, nullptr);  // the relay comes back on the same port
    ::signal(SIGPIPE, SIG_IGN);
    std::function<void()> relayDown, relayUp;
    QSocketNotifier stopNotifier(signalPipe[0], QSocketNotifier::Read);
    QObject::connect(&stopNotifier, &QSocketNotifier::activated, &app, [&] {
        unsigned char b = 0;
        bool stop = false;
        while (::read(signalPipe[0], &b, 1) == 1) {
            if (b == SIGUSR1 && relayDown) relayDown();
            else if (b == SIGUSR2 && relayUp) relayUp();
            else if (b != SIGUSR1 && b != SIGUSR2) stop = true;
        }
        if (stop) QCoreApplication::quit();
    });

    SystemLoad load;

    // Agents, each with its pairing code: the given ones in order, random ones for the rest.
    std::vector<std::string> codes = opt.codes;
    while (static_cast<int>(codes.size()) < opt.agents) codes.push_back(randomPairingCode(codes));
    const QByteArray base = machineBase();
    const QString shell = opt.shell.isEmpty() ? defaultLoginShell() : opt.shell;
    std::vector<std::unique_ptr<Agent>> agents;
    std::vector<Agent*> agentPtrs;
    for (int i = 0; i < opt.agents; ++i) {
        AgentConfig c;
        c.index = i + 1;
        c.code = codes[static_cast<size_t>(i)];
        c.machineId = agentMachineId(base, c.index);
        c.os = "linux";
        c.homeDir = QDir::homePath();
        c.shell = shell;
        c.limit = opt.limit;
        agents.push_back(std::make_unique<Agent>(c));
        agentPtrs.push_back(agents.back().get());
    }

    Relay relay(agentPtrs, [&load] { return std::pair<double, double>{load.cpu(), load.mem()}; });

    const QHostAddress bindAddress(opt.bind);
    AdminHttpApi admin;
    admin.setCredentials(opt.user, opt.password);
    admin.setAgentSource([&agentPtrs, &load] {
        std::vector<AgentSummary> out;
        for (Agent* a : agentPtrs) {
            AgentSummary s;
            s.code = a->config().code;
            s.machineId = a->config().machineId;
            s.os = a->config().os;
            s.controllerCount = a->controllerCount();
            s.cpu = load.cpu();
            s.mem = load.mem();
            out.push_back(std::move(s));
        }
        return out;
    });
    if (!admin.listen(bindAddress, static_cast<quint16>(opt.adminPort)))
        return fail(QStringLiteral("cannot listen for the admin API on %1:%2").arg(opt.bind).arg(opt.adminPort));

    auto quic = std::make_unique<QuicServer>();
    quic->onConnection = [&relay](QuicConnection* c) { relay.accept(new QuicControllerLink(c)); };
    if (!quic->listen(bindAddress, static_cast<quint16>(opt.quicPort)))
        return fail(QStringLiteral("cannot listen for the relay on %1:%2: %3")
                        .arg(opt.bind)
                        .arg(opt.quicPort)
                        .arg(quic->errorString()));
    const quint16 relayPort = quic->port();

    // Stopping only the relay (SIGUSR1) ends every controller's connection as a relay that goes away
    // would, while the agents keep their shells for the controllers' return; SIGUSR2 listens again.
    std::unique_ptr<QuicServer> retiring;  // a stopped relay's listener, until its close frames are out
    bool upWanted = false;
    relayDown = [&] {
        if (!quic) return;
        relay.closeAll();
        retiring = std::move(quic);
        say("relay stopped");
        QTimer::singleShot(150, &app, [&] {
            retiring.reset();
            if (upWanted && relayUp) {
                upWanted = false;
                relayUp();
            }
        });
    };
    relayUp = [&] {
        if (quic) return;
        if (retiring) {
            upWanted = true;
            return;
        }
        auto next = std::make_unique<QuicServer>();
        next->onConnection = [&relay](QuicConnection* c) { relay.accept(new QuicControllerLink(c)); };
        if (!next->listen(bindAddress, relayPort)) {
            say("relay cannot listen again on port " + std::to_string(relayPort) + ": " +
                next->errorString().toStdString());
            return;
        }
        quic = std::move(next);
        say("relay started again on port " + std::to_string(relayPort));
    };

    const std::string host = bindAddress.protocol() == QAbstractSocket::IPv6Protocol
                                 ? "[" + opt.bind.toStdString() + "]"
                                 : opt.bind.toStdString();
    say("admin http://" + host + ":" + std::to_string(admin.port()));
    say("relay quic " + host + ":" + std::to_string(quic->port()));
    for (Agent* a : agentPtrs)
        say("agent " + std::to_string(a->config().index) + " code " + a->config().code + " machine_id " +
            a->config().machineId + " os " + a->config().os);
    say("ready");

    const int rc = app.exec();

    ostv::Logger::info("ostvarren-server: stopping");
    relayDown = relayUp = nullptr;
    relay.closeAll();
    for (Agent* a : agentPtrs) a->hangUpAll();
    // Let the close frames go out before the sockets go.
    QTimer::singleShot(150, &app, &QCoreApplication::quit);
    app.exec();
    const int left = ChildReaper::drainAll(2000);
    if (left > 0) ostv::Logger::error("ostvarren-server: " + std::to_string(left) + " shell(s) did not end");
    ostv::Logger::info("ostvarren-server: stopped");
    return rc;
}
