#include "AgentOptions.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHostAddress>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSaveFile>
#include <QUuid>
#include <sys/stat.h>

#include "LogText.h"
#include "ServerOptions.h"

namespace ostv::server {

QString AgentOptions::usage() {
    return QStringLiteral(
        "Usage: ostvarren-agent --relay HOST[:PORT] --secret-file PATH [options]\n"
        "Makes this machine an agent: dials out to the relay (no port is opened here), registers under its\n"
        "pairing code and gives paired controllers real shells.\n"
        "\n"
        "  --relay HOST[:PORT]  the relay to reach (port default 9090)\n"
        "  --secret-file PATH   the relay's agent secret (a copy of the file the server made, mode 0600)\n"
        "  --code CODE          six-digit pairing code (default: a random one made once and kept in the\n"
        "                       state folder)\n"
        "  --shell PATH         shell to start in every terminal (default: the user's login shell)\n"
        "  --limit N            controllers at once, 1 to 64 (default 8)\n"
        "  --state-dir DIR      where the code is kept (default ~/.local/state/ostvarren-agent)\n"
        "  --machine-id ID      the id to register with (default: /etc/machine-id, else one kept in the\n"
        "                       state folder); only for several agents on one machine\n"
        "  --name NAME          the host name the relay's agent list shows (default: this machine's)\n"
        "  --allow-root         give shells as root (refused without it when run as root)\n"
        "  --exit-with-parent   stop (as on SIGTERM) when the process that started the agent ends\n"
        "  --help               show this text\n"
        "\n"
        "While the relay is away the agent dials again (1 s, doubling to 30 s) and keeps its shells: a\n"
        "controller that pairs again gets them back. SIGINT or SIGTERM stop it, hanging up its shells.\n");
}

bool splitHostPort(const QString& text, QString* host, int* port) {
    QString h = text.trimmed();
    QString p;
    if (h.startsWith('[')) {
        const int close = h.indexOf(']');
        if (close < 0) return false;
        const QString rest = h.mid(close + 1);
        if (!rest.isEmpty()) {
            if (!rest.startsWith(':')) return false;
            p = rest.mid(1);
        }
        h = h.mid(1, close - 1);
    } else if (h.count(':') == 1) {
        p = h.section(':', 1);
        h = h.section(':', 0, 0);
    }
    if (h.isEmpty() || h.contains(QRegularExpression(QStringLiteral("[\\s/]")))) return false;
    if (!p.isNull()) {
        bool ok = false;
        const int v = p.toInt(&ok);
        if (!ok || v < 1 || v > 65535) return false;
        *port = v;
    }
    *host = h;
    return true;
}

std::optional<AgentOptions> AgentOptions::parse(const QStringList& args, QString* error) {
    AgentOptions o;
    auto fail = [&](const QString& why) -> std::optional<AgentOptions> {
        *error = why;
        return std::nullopt;
    };
    const QString bad = readOptions(
        args, {"--help", "-h", "--exit-with-parent", "--allow-root"},
        {"--relay", "--secret-file", "--code", "--shell", "--limit", "--state-dir", "--machine-id", "--name"},
        [&](const QString& name) {
            if (name == "--help" || name == "-h") o.help = true;
            else if (name == "--exit-with-parent") o.exitWithParent = true;
            else if (name == "--allow-root") o.allowRoot = true;
        },
        [&](const QString& name, const QString& value) -> QString {
            if (name == "--relay") {
                if (!splitHostPort(value, &o.relayHost, &o.relayPort))
                    return QStringLiteral("--relay: expected HOST or HOST:PORT: ") + value;
            } else if (name == "--secret-file") {
                o.secretFile = value;
            } else if (name == "--code") {
                if (!QRegularExpression(QStringLiteral("^[0-9]{6}$")).match(value).hasMatch())
                    return QStringLiteral("--code: expected six digits: ") + value;
                o.code = value;
            } else if (name == "--shell") {
                if (!QFileInfo(value).isExecutable()) return QStringLiteral("--shell: not an executable: ") + value;
                o.shell = value;
            } else if (name == "--limit") {
                bool ok = false;
                const int v = value.toInt(&ok);
                if (!ok || v < 1 || v > 64) return QStringLiteral("--limit: expected 1 to 64: ") + value;
                o.limit = v;
            } else if (name == "--state-dir") {
                if (value.isEmpty()) return QStringLiteral("--state-dir: empty path");
                o.stateDir = value;
            } else if (name == "--machine-id") {
                if (!QRegularExpression(QStringLiteral("^[A-Za-z0-9._-]{1,128}$")).match(value).hasMatch())
                    return QStringLiteral("--machine-id: expected 1 to 128 letters, digits, '.', '_' or '-': ") + value;
                o.machineId = value;
            } else if (name == "--name") {
                const auto n = checkedHostName(value);
                if (!n)
                    return QStringLiteral("--name: expected 1 to %1 characters on one line: ")
                                    .arg(ServerOptions::kMaxNameLength) +
                           QString::fromStdString(logSafe(value.toStdString()));
                o.name = *n;
            }
            return {};
        });
    if (!bad.isEmpty()) return fail(bad);
    if (o.help) return o;
    if (o.relayHost.isEmpty()) return fail(QStringLiteral("--relay is required"));
    if (o.secretFile.isEmpty()) return fail(QStringLiteral("--secret-file is required"));
    if (o.stateDir.isEmpty()) {
        const QByteArray xdg = qgetenv("XDG_STATE_HOME");
        o.stateDir = (xdg.isEmpty() ? QDir::homePath() + "/.local/state" : QString::fromLocal8Bit(xdg)) +
                     "/ostvarren-agent";
    }
    return o;
}

bool AgentOptions::mayRunAs(bool runningAsRoot, QString* error) const {
    if (!runningAsRoot || allowRoot) return true;
    *error = QStringLiteral("refusing to give shells as root: run as an ordinary user, or pass --allow-root");
    return false;
}

namespace {

bool makePrivateDir(const QString& dir, QString* error) {
    if (!QDir().mkpath(dir)) {
        *error = QStringLiteral("cannot create the folder ") + dir;
        return false;
    }
    ::chmod(QFile::encodeName(dir).constData(), 0700);
    return true;
}

QString firstLine(const QString& path) {
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly)) return {};
    return QString::fromUtf8(f.readLine(4096)).trimmed();
}

// Writes `text` to `path` with mode 0600 (the folder made first).
bool writePrivate(const QString& path, const QByteArray& text, QString* error) {
    if (!makePrivateDir(QFileInfo(path).absolutePath(), error)) return false;
    QSaveFile f(path);
    if (!f.open(QIODevice::WriteOnly) ||
        !f.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner) || f.write(text) != text.size() ||
        !f.commit()) {
        *error = QStringLiteral("cannot write ") + path + QStringLiteral(": ") + f.errorString();
        return false;
    }
    return true;
}

}  // namespace

std::optional<std::string> keptPairingCode(const QString& stateDir, QString* error) {
    const QString path = stateDir + "/code";
    const QString kept = firstLine(path);
    if (QRegularExpression(QStringLiteral("^[0-9]{6}$")).match(kept).hasMatch()) return kept.toStdString();
    const std::string code = randomPairingCode({});
    if (!writePrivate(path, QByteArray::fromStdString(code) + "\n", error)) return std::nullopt;
    return code;
}

std::optional<std::string> keptMachineId(const QString& stateDir, QString* error) {
    for (const QString& path : {QStringLiteral("/etc/machine-id"), stateDir + "/machine-id"}) {
        const QString id = firstLine(path);
        if (QRegularExpression(QStringLiteral("^[A-Za-z0-9._-]{1,128}$")).match(id).hasMatch()) return id.toStdString();
    }
    const QByteArray id = QUuid::createUuid().toString(QUuid::Id128).toLatin1();
    if (!writePrivate(stateDir + "/machine-id", id + "\n", error)) return std::nullopt;
    return id.toStdString();
}

std::optional<std::string> readSecretFile(const QString& path, QString* error) {
    struct stat st {};
    if (::stat(QFile::encodeName(path).constData(), &st) == 0 && (st.st_mode & 077) != 0) {
        *error = QStringLiteral("the secret file %1 may be read by other users (mode %2); chmod 600 it")
                     .arg(path)
                     .arg(st.st_mode & 0777, 3, 8, QChar('0'));
        return std::nullopt;
    }
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read the secret file ") + path + QStringLiteral(": ") + f.errorString();
        return std::nullopt;
    }
    const QString secret = QString::fromUtf8(f.readLine(4096)).trimmed();
    if (secret.isEmpty()) {
        *error = QStringLiteral("the secret file ") + path + QStringLiteral(" is empty");
        return std::nullopt;
    }
    return secret.toStdString();
}

std::optional<std::string> readOrMakeSecretFile(const QString& path, bool* made, QString* error) {
    *made = false;
    if (QFileInfo::exists(path)) return readSecretFile(path, error);
    quint32 words[8];
    QRandomGenerator::system()->fillRange(words);
    const QByteArray secret = QByteArray(reinterpret_cast<const char*>(words), sizeof words).toHex();
    if (!writePrivate(path, secret + "\n", error)) return std::nullopt;
    *made = true;
    return secret.toStdString();
}

}  // namespace ostv::server
