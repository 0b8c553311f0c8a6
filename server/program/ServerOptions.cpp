#include "ServerOptions.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <sys/stat.h>
#include <QHostAddress>
#include <QRandomGenerator>
#include <QSysInfo>
#include <algorithm>

#include "LogText.h"

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
        "Runs the admin HTTP API, the QUIC relay and any number of agents with real shells on this machine;\n"
        "agents on other machines (ostvarren-agent) register with the relay using the agent secret.\n"
        "\n"
        "  --bind ADDRESS      address to listen on (default 127.0.0.1)\n"
        "  --quic-port PORT    UDP port of the relay, 0 = any free port (default 9090)\n"
        "  --admin-port PORT   TCP port of the admin API, 0 = any free port (default 8080)\n"
        "  --user NAME         admin user name (default admin)\n"
        "  --password TEXT     admin password (default quill_tarn on loopback; elsewhere a random one is\n"
        "                      printed at start, and the default or an empty one is refused)\n"
        "  --password-file F   read the admin password from the first line of F (mode 0600 or stricter)\n"
        "  --allow-root        run shells as root even when listening beyond loopback\n"
        "  --state-dir DIR     where the relay keeps its certificate and key, and the agent secret\n"
        "                      (default $XDG_STATE_HOME/ostvarren-server or ~/.local/state/ostvarren-server)\n"
        "  --agents N          number of built-in agents, 0 to 64 (default 1; 0: relay and admin API only)\n"
        "  --code CODE         six-digit pairing code of the next agent, repeatable (default: random)\n"
        "  --limit N           controllers per agent (default 8)\n"
        "  --shell PATH        shell to start in every terminal (default: the user's login shell)\n"
        "  --agent-secret-file PATH  the secret agents on other machines present (default agent-secret\n"
        "                      in the state folder; made, mode 0600, when missing)\n"
        "  --name NAME         host name the agent list shows, as NAME#1, NAME#2... (default: this\n"
        "                      machine's host name)\n"
        "  --exit-with-parent  stop (as on SIGTERM) when the process that started the server ends\n"
        "  --no-typing-first   no priority for the shell being typed into: a client's other shells keep\n"
        "                      sending at full rate meanwhile (for comparison)\n"
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
    const QString bad = readOptions(
        args, {"--help", "-h", "--exit-with-parent", "--allow-root", "--no-typing-first"},
        {"--bind", "--quic-port", "--admin-port", "--user", "--password", "--agents", "--code", "--limit",
        "--shell", "--agent-secret-file", "--name", "--password-file", "--state-dir"},
        [&](const QString& name) {
            if (name == "--help" || name == "-h") o.help = true;
            else if (name == "--exit-with-parent") o.exitWithParent = true;
            else if (name == "--allow-root") o.allowRoot = true;
            else if (name == "--no-typing-first") o.typingFirst = false;
        },
        [&](const QString& name, const QString& value) -> QString {
            if (name == "--bind") {
                if (QHostAddress(value).isNull()) return QStringLiteral("--bind: not an IP address: ") + value;
                o.bind = value;
            } else if (name == "--quic-port" || name == "--admin-port") {
                auto v = intIn(value, 0, 65535);
                if (!v) return name + QStringLiteral(": not a port number (0-65535): ") + value;
                (name == "--quic-port" ? o.quicPort : o.adminPort) = *v;
            } else if (name == "--user") {
                if (value.isEmpty()) return QStringLiteral("--user: empty user name");
                o.user = value;
            } else if (name == "--password") {
                o.password = value;
                o.passwordGiven = true;
            } else if (name == "--password-file") {
                if (value.isEmpty()) return QStringLiteral("--password-file: empty path");
                o.passwordFile = value;
            } else if (name == "--state-dir") {
                if (value.isEmpty()) return QStringLiteral("--state-dir: empty path");
                o.stateDir = value;
            } else if (name == "--agents") {
                auto v = intIn(value, 0, kMaxAgents);
                if (!v) return QStringLiteral("--agents: expected 0 to %1: ").arg(kMaxAgents) + value;
                o.agents = *v;
            } else if (name == "--code") {
                if (!isSixDigits(value)) return QStringLiteral("--code: expected six digits: ") + value;
                if (std::count(o.codes.begin(), o.codes.end(), value.toStdString()))
                    return QStringLiteral("--code: given twice: ") + value;
                o.codes.push_back(value.toStdString());
            } else if (name == "--limit") {
                auto v = intIn(value, 1, 1000);
                if (!v) return QStringLiteral("--limit: expected 1 to 1000: ") + value;
                o.limit = *v;
            } else if (name == "--name") {
                const auto n = checkedHostName(value);
                if (!n)
                    return QStringLiteral("--name: expected 1 to %1 characters on one line: ").arg(kMaxNameLength) +
                           QString::fromStdString(logSafe(value.toStdString()));
                o.name = *n;
            } else if (name == "--shell") {
                if (!QFileInfo(value).isExecutable()) return QStringLiteral("--shell: not an executable: ") + value;
                o.shell = value;
            } else if (name == "--agent-secret-file") {
                if (value.isEmpty()) return QStringLiteral("--agent-secret-file: empty path");
                o.agentSecretFile = value;
            }
            return {};
        });
    if (!bad.isEmpty()) return fail(bad);
    if (o.passwordGiven && !o.passwordFile.isEmpty())
        return fail(QStringLiteral("--password and --password-file: give only one"));
    if (static_cast<int>(o.codes.size()) > o.agents)
        return fail(QStringLiteral("%1 codes given for %2 agent(s)").arg(o.codes.size()).arg(o.agents));
    return o;
}

QString readOptions(const QStringList& args, const QStringList& flags, const QStringList& valued,
                    const std::function<void(const QString& name)>& onFlag,
                    const std::function<QString(const QString& name, const QString& value)>& onValue) {
    for (int i = 0; i < args.size(); ++i) {
        QString name = args[i];
        QString value;
        bool inlineValue = false;
        if (int eq = name.indexOf('='); name.startsWith("--") && eq > 0) {
            value = name.mid(eq + 1);
            name = name.left(eq);
            inlineValue = true;
        }
        if (flags.contains(name)) {
            onFlag(name);
            continue;
        }
        if (!valued.contains(name)) return QStringLiteral("unknown option: ") + args[i];
        if (!inlineValue) {
            if (i + 1 >= args.size()) return name + QStringLiteral(" needs a value");
            value = args[++i];
        }
        if (QString why = onValue(name, value); !why.isEmpty()) return why;
    }
    return {};
}

std::optional<QString> checkedHostName(const QString& value) {
    const QString n = value.trimmed();
    if (n.isEmpty() || n.size() > ServerOptions::kMaxNameLength ||
        std::any_of(n.begin(), n.end(), [](QChar c) {
            return c.category() == QChar::Other_Control || c.category() == QChar::Other_Format;
        }))
        return std::nullopt;
    return n;
}

std::vector<std::string> builtInHostnames(const QString& base, int count) {
    QString name = base.isEmpty() ? QSysInfo::machineHostName() : base;
    if (name.isEmpty()) name = QStringLiteral("localhost");
    std::vector<std::string> out;
    for (int i = 1; i <= count; ++i) out.push_back((name + QLatin1Char('#') + QString::number(i)).toStdString());
    return out;
}

bool ServerOptions::onLoopback() const { return QHostAddress(bind).isLoopback(); }

QString ServerOptions::resolvedStateDir() const {
    if (!stateDir.isEmpty()) return stateDir;
    QString base = qEnvironmentVariable("XDG_STATE_HOME");
    if (base.isEmpty() || QDir::isRelativePath(base)) base = QDir::homePath() + QStringLiteral("/.local/state");
    return base + QStringLiteral("/ostvarren-server");
}

bool ServerOptions::settle(bool runningAsRoot, bool* generated, QString* error) {
    *generated = false;
    const bool loopback = onLoopback();
    if (runningAsRoot && !loopback && !allowRoot && agents > 0) {
        *error = QStringLiteral("refusing to give shells as root on %1 (not loopback): run as an ordinary user, "
                                "or pass --allow-root")
                     .arg(bind);
        return false;
    }
    if (!passwordFile.isEmpty()) {
        struct stat st {};
        const QByteArray path = QFile::encodeName(passwordFile);
        if (::stat(path.constData(), &st) != 0) {
            *error = QStringLiteral("--password-file: cannot read ") + passwordFile;
            return false;
        }
        if ((st.st_mode & 077) != 0) {
            *error = QStringLiteral("--password-file: %1 may be read by other users (mode %2); chmod 600 it")
                         .arg(passwordFile)
                         .arg(st.st_mode & 0777, 3, 8, QChar('0'));
            return false;
        }
        QFile f(passwordFile);
        if (!f.open(QIODevice::ReadOnly)) {
            *error = QStringLiteral("--password-file: cannot read ") + passwordFile;
            return false;
        }
        password = QString::fromUtf8(f.readLine(4096)).remove(QChar('\n')).remove(QChar('\r'));
        passwordGiven = true;
    }
    if (loopback) return true;
    if (!passwordGiven) {
        password = randomPassword();
        *generated = true;
        return true;
    }
    if (password.isEmpty() || password == QLatin1String(kDefaultPassword)) {
        *error = QStringLiteral("refusing %1 admin password on %2 (not loopback): choose another, or leave it out "
                                "for a random one")
                     .arg(password.isEmpty() ? QStringLiteral("an empty") : QStringLiteral("the default"), bind);
        return false;
    }
    return true;
}

QString randomPassword() {
    static const char alphabet[] = "abcdefghijkmnpqrstuvwxyzABCDEFGHJKLMNPQRSTUVWXYZ23456789";
    QString out;
    for (int i = 0; i < 20; ++i)
        out += QChar(alphabet[QRandomGenerator::system()->bounded(static_cast<int>(sizeof alphabet - 1))]);
    return out;
}

std::string randomPairingCode(const std::vector<std::string>& taken) {
    for (;;) {
        std::string code = QStringLiteral("%1").arg(QRandomGenerator::system()->bounded(1000000), 6, 10, QChar('0')).toStdString();
        if (std::find(taken.begin(), taken.end(), code) == taken.end()) return code;
    }
}

}  // namespace ostv::server
