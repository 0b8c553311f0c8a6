// ostvarren-server: the admin HTTP API, the QUIC relay and a number of agents with real shells, in
// one program; agents on other machines (ostvarren-agent) register with its relay.
#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QSocketNotifier>
#include <QSysInfo>
#include <QTimer>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string_view>
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
#include "link/AgentHub.h"
#include "program/AgentOptions.h"
#include "program/ServerOptions.h"
#include "relay/AgentPort.h"
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
    if (parsed->help) {
        std::fputs(ServerOptions::usage().toLocal8Bit().constData(), stdout);
        return 0;
    }
    // The password on the command line is read; other users' `ps` need not show it from now on.
    for (int i = 1; i < argc; ++i) {
        const std::string_view a(argv[i]);
        char* secret = a == "--password" && i + 1 < argc ? argv[i + 1]
                       : a.rfind("--password=", 0) == 0    ? argv[i] + std::strlen("--password=")
                                                           : nullptr;
        if (secret) std::memset(secret, 'x', std::strlen(secret));
    }
    bool passwordMade = false;
    if (!parsed->settle(::geteuid() == 0, &passwordMade, &error)) return fail(error);
    const ServerOptions opt = *parsed;

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

    // The secret agents on other machines register with.
    const QString secretPath =
        opt.agentSecretFile.isEmpty() ? opt.resolvedStateDir() + QStringLiteral("/agent-secret") : opt.agentSecretFile;
    bool secretMade = false;
    const auto agentSecret = readOrMakeSecretFile(secretPath, &secretMade, &error);
    if (!agentSecret) return fail(error);

    SystemLoad load;

    // Agents, each with its pairing code: the given ones in order, random ones for the rest. They are
    // numbered in the order the client lists them (by machine id), so that agent 1, the first code and
    // the host name "#1" are the top row.
    std::vector<std::string> codes = opt.codes;
    while (static_cast<int>(codes.size()) < opt.agents) codes.push_back(randomPairingCode(codes));
    const QByteArray base = machineBase();
    std::vector<std::string> machineIds;
    for (int i = 1; i <= opt.agents; ++i) machineIds.push_back(agentMachineId(base, i));
    std::sort(machineIds.begin(), machineIds.end());
    const std::vector<std::string> hostnames = builtInHostnames(opt.name, opt.agents);
    const QString shell = opt.shell.isEmpty() ? defaultLoginShell() : opt.shell;
    std::vector<std::unique_ptr<Agent>> agents;
    std::vector<Agent*> agentPtrs;
    for (int i = 0; i < opt.agents; ++i) {
        AgentConfig c;
        c.index = i + 1;
        c.code = codes[static_cast<size_t>(i)];
        c.machineId = machineIds[static_cast<size_t>(i)];
        c.os = "linux";
        c.hostname = hostnames[static_cast<size_t>(i)];
        c.homeDir = QDir::homePath();
        c.shell = shell;
        c.limit = opt.limit;
        c.typingFirst = opt.typingFirst;
        agents.push_back(std::make_unique<Agent>(c));
        agentPtrs.push_back(agents.back().get());
    }

    Relay relay(agentPtrs, [&load] { return std::pair<double, double>{load.cpu(), load.mem()}; });
    AgentHub hub(&relay, *agentSecret);
    auto acceptConnection = [&relay, &hub](QuicConnection* c) {
        if (c->alpn() == ostv::kAgentAlpn) hub.accept(new QuicControllerLink(c));
        else relay.accept(new QuicControllerLink(c));
    };

    const QHostAddress bindAddress(opt.bind);
    AdminHttpApi admin;
    admin.setCredentials(opt.user, opt.password);
    admin.setAgentSource([&relay] {
        std::vector<AgentSummary> out;
        for (AgentPort* a : relay.agents()) {
            AgentSummary s;
            s.code = a->code();
            s.machineId = a->machineId();
            s.os = a->os();
            s.hostname = a->hostname();
            s.controllerCount = a->controllerCount();
            std::tie(s.cpu, s.mem) = a->load();
            out.push_back(std::move(s));
        }
        return out;
    });
    if (!admin.listen(bindAddress, static_cast<quint16>(opt.adminPort)))
        return fail(QStringLiteral("cannot listen for the admin API on %1:%2").arg(opt.bind).arg(opt.adminPort));

    const QString stateDir = opt.resolvedStateDir();
    auto quic = std::make_unique<QuicServer>();
    quic->setStateDir(stateDir);
    quic->onConnection = acceptConnection;
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
        hub.closeAll();
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
        next->setStateDir(stateDir);
        next->onConnection = acceptConnection;
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
    say(std::string(secretMade ? "agent secret made in " : "agent secret in ") + secretPath.toStdString());
    if (passwordMade) say("admin password " + opt.password.toStdString() + " (made for this run)");
    for (Agent* a : agentPtrs)
        say("agent " + std::to_string(a->config().index) + " code " + a->config().code + " machine_id " +
            a->config().machineId + " os " + a->config().os + " hostname " + a->config().hostname);
    say("ready");

    const int rc = app.exec();

    ostv::Logger::info("ostvarren-server: stopping");
    relayDown = relayUp = nullptr;
    relay.closeAll();
    hub.closeAll();
    for (Agent* a : agentPtrs) a->hangUpAll();
    // Let the close frames go out before the sockets go.
    QTimer::singleShot(150, &app, &QCoreApplication::quit);
    app.exec();
    const int left = ChildReaper::drainAll(2000);
    if (left > 0) ostv::Logger::error("ostvarren-server: " + std::to_string(left) + " shell(s) did not end");
    ostv::Logger::info("ostvarren-server: stopped");
    return rc;
}
