#pragma once
// The command line of ostvarren-server.
#include <QString>
#include <QStringList>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace ostv::server {

struct ServerOptions {
    QString bind = QStringLiteral("127.0.0.1");
    int quicPort = 9090;
    int adminPort = 8080;
    QString user = QStringLiteral("admin");
    QString password = QString::fromLatin1(kDefaultPassword);
    bool passwordGiven = false;      // --password was on the command line
    QString passwordFile;            // --password-file: the password is its first line
    bool allowRoot = false;          // shells as root on an address other than loopback
    QString stateDir;                // empty: $XDG_STATE_HOME or ~/.local/state, then ostvarren-server
    int agents = 1;
    std::vector<std::string> codes;  // fixed pairing codes, one per agent in order
    int limit = 8;
    QString shell;                   // empty: the user's login shell
    QString agentSecretFile;         // empty: agent-secret in the state folder
    QString name;                    // the agents' host name in the list; empty: this machine's
    bool exitWithParent = false;     // stop when the process that started the server ends
    bool typingFirst = true;         // --no-typing-first: the agents treat every shell's output alike
    bool help = false;

    static constexpr int kMaxAgents = 64;
    static constexpr int kMaxNameLength = 64;
    static constexpr const char* kDefaultPassword = "quill_tarn";

    bool onLoopback() const;
    QString resolvedStateDir() const;
    // Settles the admin password: from --password-file (refused when other users may read the file),
    // else the given or default one; beyond loopback the default or an empty one is refused, and
    // without any a random one is made (*generated set). Also refuses root beyond loopback without
    // --allow-root. On refusal answers false with one line in *error.
    bool settle(bool runningAsRoot, bool* generated, QString* error);

    // Parses the arguments after the program name. On a bad argument answers none and sets *error.
    static std::optional<ServerOptions> parse(const QStringList& args, QString* error);
    static QString usage();
};

// Reads command-line arguments in order: "--name value", "--name=value" or a bare flag. A name in `flags`
// goes to onFlag, one in `valued` with its value to onValue, which answers an error text (empty: taken).
// Answers the first error (an unknown option, a missing value, or onValue's), empty when all were taken.
QString readOptions(const QStringList& args, const QStringList& flags, const QStringList& valued,
                    const std::function<void(const QString& name)>& onFlag,
                    const std::function<QString(const QString& name, const QString& value)>& onValue);

// A --name value: trimmed, 1 to ServerOptions::kMaxNameLength characters, no control characters;
// nothing when it is not one.
std::optional<QString> checkedHostName(const QString& value);

// The host names of `count` built-in agents, in the order they are listed: base + "#1", "#2", ...
// An empty base is this machine's host name ("localhost" when it has none).
std::vector<std::string> builtInHostnames(const QString& base, int count);
// A random admin password of 20 letters and digits.
QString randomPassword();

// A random six-digit pairing code that is not in `taken`.
std::string randomPairingCode(const std::vector<std::string>& taken);

}  // namespace ostv::server
