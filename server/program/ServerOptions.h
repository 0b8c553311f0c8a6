#pragma once
// The command line of ostvarren-server.
#include <QString>
#include <QStringList>
#include <optional>
#include <string>
#include <vector>

namespace ostv::server {

struct ServerOptions {
    QString bind = QStringLiteral("127.0.0.1");
    int quicPort = 9090;
    int adminPort = 8080;
    QString user = QStringLiteral("admin");
    QString password = QStringLiteral("quill_tarn");
    int agents = 1;
    std::vector<std::string> codes;  // fixed pairing codes, one per agent in order
    int limit = 8;
    QString shell;                   // empty: the user's login shell
    bool exitWithParent = false;     // stop when the process that started the server ends
    bool help = false;

    static constexpr int kMaxAgents = 64;

    // Parses the arguments after the program name. On a bad argument answers none and sets *error.
    static std::optional<ServerOptions> parse(const QStringList& args, QString* error);
    static QString usage();
};

// A random six-digit pairing code that is not in `taken`.
std::string randomPairingCode(const std::vector<std::string>& taken);

}  // namespace ostv::server
