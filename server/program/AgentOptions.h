#pragma once
// The command line of ostvarren-agent, and what it keeps in its state folder.
#include <QString>
#include <QStringList>
#include <optional>
#include <string>

namespace ostv::server {

struct AgentOptions {
    QString relayHost;
    int relayPort = 9090;
    QString secretFile;
    QString code;       // empty: the one kept in the state folder (made on first start)
    QString shell;      // empty: the user's login shell
    int limit = 8;
    QString stateDir;   // empty: ~/.local/state/ostvarren-agent
    QString machineId;  // empty: the machine's own
    QString name;       // the host name the relay lists; empty: this machine's
    bool allowRoot = false;
    bool exitWithParent = false;
    bool help = false;

    // Whether shells may start for this user: as root only with --allow-root. On refusal answers
    // false with one line in *error.
    bool mayRunAs(bool runningAsRoot, QString* error) const;

    static std::optional<AgentOptions> parse(const QStringList& args, QString* error);
    static QString usage();
};

// "HOST", "HOST:PORT", "[V6]", "[V6]:PORT" or a bare IPv6 address; the port stays `port` when not given.
// False when the text is none of these.
bool splitHostPort(const QString& text, QString* host, int* port);

// The state folder's contents, made when missing (the folder with mode 0700). Each answers the value
// or nothing with *error set.
std::optional<std::string> keptPairingCode(const QString& stateDir, QString* error);
std::optional<std::string> keptMachineId(const QString& stateDir, QString* error);
// The first line of a secret file, blanks trimmed; nothing when it cannot be read, is empty, or may be
// read or written by other users than its owner.
std::optional<std::string> readSecretFile(const QString& path, QString* error);
// Reads the secret file, or makes one (mode 0600, its folder 0700) with a new random secret when
// it does not exist; *made tells which.
std::optional<std::string> readOrMakeSecretFile(const QString& path, bool* made, QString* error);

}  // namespace ostv::server
