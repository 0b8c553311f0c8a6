#include "ServerOptions.h"

#include <QFileInfo>
#include <QHostAddress>
#include <QRandomGenerator>
#include <algorithm>

namespace ostv::server {

namespace {

bool isSixDigits(const QString& s) {
    return s.size() == 6 && std::all_of(s.begin(), s.end(), [](QChar c) { return c >= '0' && c <= '9'; });
}

std::optional<int> intIn(const QString& text, int lo, int hi) {
    bool ok = false;
    int v = text.toInt(&ok);
    if (!ok || v < lo || v > hi) return std::nullopt;
    return v;
}

}  // namespace

QString ServerOptions::usage() {
    return QStringLiteral(
        "Usage: ostvarren-server [options]\n"
        "Runs the admin HTTP API, the QUIC relay and one or more agents with real shells on this machine.\n"
        "\n"
        "  --bind ADDRESS      address to listen on (default 127.0.0.1)\n"
        "  --quic-port PORT    UDP port of the relay, 0 = any free port (default 9090)\n"
        "  --admin-port PORT   TCP port of the admin API, 0 = any free port (default 8080)\n"
        "  --user NAME         admin user name (default admin)\n"
        "  --password TEXT     admin password (default quill_tarn)\n"
        "  --agents N          number of agents, 1 to 64 (default 1)\n"
        "  --code CODE         six-digit pairing code of the next agent, repeatable (default: random)\n"
        "  --limit N           controllers per agent (default 8)\n"
        "  --shell PATH        shell to start in every terminal (default: the user's login shell)\n"
        "  --exit-with-parent  stop (as on SIGTERM) when the process that started the server ends\n"
        "  --help              show this text\n"
        "\n"
        "Signals: SIGINT or SIGTERM stop the server, hanging up its shells. SIGUSR1 stops only the relay\n"
        "(every controller's connection ends; the agents keep their shells) and SIGUSR2 starts it again on\n"
        "the same port.\n");
}

std::optional<ServerOptions> ServerOptions::parse(const QStringList& args, QString* error) {
    ServerOptions o;
    auto fail = [&](const QString& why) -> std::optional<ServerOptions> {
        *error = why;
        return std::nullopt;
    };
    for (int i = 0; i < args.size(); ++i) {
        QString name = args[i];
        QString value;
        bool inlineValue = false;
        if (int eq = name.indexOf('='); name.startsWith("--") && eq > 0) {
            value = name.mid(eq + 1);
            name = name.left(eq);
            inlineValue = true;
        }
        if (name == "--help" || name == "-h") {
            o.help = true;
            continue;
        }
        if (name == "--exit-with-parent") {
            o.exitWithParent = true;
            continue;
        }
        static const QStringList withValue = {"--bind", "--quic-port", "--admin-port", "--user", "--password",
                                              "--agents", "--code",      "--limit",      "--shell"};
        if (!withValue.contains(name)) return fail(QStringLiteral("unknown option: ") + args[i]);
        if (!inlineValue) {
            if (i + 1 >= args.size()) return fail(name + QStringLiteral(" needs a value"));
            value = args[++i];
        }
        if (name == "--bind") {
            if (QHostAddress(value).isNull()) return fail(QStringLiteral("--bind: not an IP address: ") + value);
            o.bind = value;
        } else if (name == "--quic-port" || name == "--admin-port") {
            auto v = intIn(value, 0, 65535);
            if (!v) return fail(name + QStringLiteral(": not a port number (0-65535): ") + value);
            (name == "--quic-port" ? o.quicPort : o.adminPort) = *v;
        } else if (name == "--user") {
            if (value.isEmpty()) return fail(QStringLiteral("--user: empty user name"));
            o.user = value;
        } else if (name == "--password") {
            o.password = value;
        } else if (name == "--agents") {
            auto v = intIn(value, 1, kMaxAgents);
            if (!v) return fail(QStringLiteral("--agents: expected 1 to %1: ").arg(kMaxAgents) + value);
            o.agents = *v;
        } else if (name == "--code") {
            if (!isSixDigits(value)) return fail(QStringLiteral("--code: expected six digits: ") + value);
            if (std::count(o.codes.begin(), o.codes.end(), value.toStdString()))
                return fail(QStringLiteral("--code: given twice: ") + value);
            o.codes.push_back(value.toStdString());
        } else if (name == "--limit") {
            auto v = intIn(value, 1, 1000);
            if (!v) return fail(QStringLiteral("--limit: expected 1 to 1000: ") + value);
            o.limit = *v;
        } else if (name == "--shell") {
            if (!QFileInfo(value).isExecutable()) return fail(QStringLiteral("--shell: not an executable: ") + value);
            o.shell = value;
        }
    }
    if (static_cast<int>(o.codes.size()) > o.agents)
        return fail(QStringLiteral("%1 codes given for %2 agent(s)").arg(o.codes.size()).arg(o.agents));
    return o;
}

std::string randomPairingCode(const std::vector<std::string>& taken) {
    for (;;) {
        std::string code = QStringLiteral("%1").arg(QRandomGenerator::system()->bounded(1000000), 6, 10, QChar('0')).toStdString();
        if (std::find(taken.begin(), taken.end(), code) == taken.end()) return code;
    }
}

}  // namespace ostv::server
