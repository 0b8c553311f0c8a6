// ostvarren-agent: makes this machine an agent of a relay on another one. It dials out (no port is
// opened here), registers with its pairing code and serves the controllers the relay seats on it.
#include <QCoreApplication>
#include <QDir>
#include <QHostInfo>
#include <QSocketNotifier>
#include <QTimer>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "LogText.h"
#include "Logger.h"
#include "agent/PtyProcess.h"
#include "agent/SystemLoad.h"
#include "link/AgentClient.h"
#include "program/AgentOptions.h"

using namespace ostv::server;

namespace {

int signalPipe[2] = {-1, -1};

void onStopSignal(int sig) {
    unsigned char b = static_cast<unsigned char>(sig);
    (void)!::write(signalPipe[1], &b, 1);
}

void say(const std::string& line) {
    std::fprintf(stdout, "ostvarren-agent: %s\n", line.c_str());
    std::fflush(stdout);
}

int fail(const QString& why, int rc = 1) {
    std::fprintf(stderr, "ostvarren-agent: %s\n", why.toLocal8Bit().constData());
    return rc;
}

}  // namespace

int main(int argc, char** argv) {
    const pid_t parent = ::getppid();
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("ostvarren-agent"));

    QString error;
    auto parsed = AgentOptions::parse(app.arguments().mid(1), &error);
    if (!parsed) {
        std::fprintf(stderr, "ostvarren-agent: %s\n%s", error.toLocal8Bit().constData(),
                     AgentOptions::usage().toLocal8Bit().constData());
        return 2;
    }
    const AgentOptions opt = *parsed;
    if (opt.help) {
        std::fputs(AgentOptions::usage().toLocal8Bit().constData(), stdout);
        return 0;
    }

    if (!opt.mayRunAs(::geteuid() == 0, &error)) return fail(error);
    auto secret = readSecretFile(opt.secretFile, &error);
    if (!secret) return fail(error);
    std::optional<std::string> code = opt.code.isEmpty() ? keptPairingCode(opt.stateDir, &error) : opt.code.toStdString();
    if (!code) return fail(error);
    std::optional<std::string> machineId =
        opt.machineId.isEmpty() ? keptMachineId(opt.stateDir, &error) : opt.machineId.toStdString();
    if (!machineId) return fail(error);

    if (::pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) return fail(QStringLiteral("cannot create a pipe"));
    struct sigaction sa {};
    sa.sa_handler = onStopSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &sa, nullptr);
    ::sigaction(SIGTERM, &sa, nullptr);
    ::sigaction(SIGHUP, &sa, nullptr);
    if (opt.exitWithParent) {
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent) onStopSignal(SIGTERM);
    }
    ::signal(SIGPIPE, SIG_IGN);
    QSocketNotifier stopNotifier(signalPipe[0], QSocketNotifier::Read);
    QObject::connect(&stopNotifier, &QSocketNotifier::activated, &app, [&] {
        unsigned char b = 0;
        while (::read(signalPipe[0], &b, 1) == 1) {
        }
        QCoreApplication::quit();
    });

    SystemLoad load;
    AgentClientOptions o;
    o.host = opt.relayHost.toStdString();
    o.port = static_cast<uint16_t>(opt.relayPort);
    o.secret = *secret;
    o.hostname = (opt.name.isEmpty() ? QHostInfo::localHostName() : opt.name).toStdString();
    o.agent.index = 1;
    o.agent.code = *code;
    o.agent.machineId = *machineId;
    o.agent.os = "linux";
    o.agent.homeDir = QDir::homePath();
    o.agent.shell = opt.shell.isEmpty() ? defaultLoginShell() : opt.shell;
    o.agent.limit = opt.limit;
    AgentClient client(o, [&load] { return std::pair<double, double>{load.cpu(), load.mem()}; });

    int rc = 0;
    client.onRegistered = [&] { say("registered with the relay"); };
    client.onDisconnected = [&](const std::string& why, int retryMs) {
        say("relay not connected (" + logSafe(why, 200) + "); next attempt in " + std::to_string(retryMs) + " ms");
    };
    client.onRefused = [&](const std::string& why) {
        std::fprintf(stderr, "ostvarren-agent: %s\n", why.c_str());
        rc = 3;
        QCoreApplication::quit();
    };

    const std::string relay = (opt.relayHost.contains(':') ? "[" + o.host + "]" : o.host) + ":" + std::to_string(o.port);
    // The one place the code is printed: the user needs it to pair.
    say("agent 1 code " + o.agent.code + " machine_id " + o.agent.machineId + " os " + o.agent.os + " hostname " +
        logSafe(o.hostname));
    say("relay " + relay);
    say("ready");
    client.start();

    const int loopRc = app.exec();
    if (rc == 0) rc = loopRc;
    ostv::Logger::info("ostvarren-agent: stopping");
    client.stop();
    // Let the close frames go out before the sockets go.
    QTimer::singleShot(150, &app, &QCoreApplication::quit);
    app.exec();
    const int left = ChildReaper::drainAll(2000);
    if (left > 0) ostv::Logger::error("ostvarren-agent: " + std::to_string(left) + " shell(s) did not end");
    ostv::Logger::info("ostvarren-agent: stopped");
    return rc;
}
