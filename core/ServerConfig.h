#pragma once
// The settings store: one QSettings for the whole application, read at the moment of use, never
// cached. Readers apply the defaults themselves; these helpers are the shared readers.
#include <QSettings>
#include <QString>
#include <QStringList>
#include <cstdint>
#include <optional>

namespace ostv {

namespace SettingsKey {
inline constexpr const char* serverHost = "serverHost";
inline constexpr const char* serverQuicPort = "serverQuicPort";
inline constexpr const char* adminServerPort = "adminServerPort";
inline constexpr const char* adminUsername = "adminUsername";
inline constexpr const char* adminPassword = "adminPassword";
inline constexpr const char* lastPairCode = "lastPairCode";
inline constexpr const char* lastNickname = "lastNickname";
inline constexpr const char* confirmedMachines = "confirmedMachines";
inline constexpr const char* confirmedAgentCodes = "confirmedAgentCodes";
inline constexpr const char* envVarsPrefix = "envVars_";
}  // namespace SettingsKey

class ServerConfig {
public:
    // The shared handle to the one store (created once, thread-safe). Use from the main thread.
    static QSettings& defaults();

    static constexpr const char* defaultServerHost = "127.0.0.1";
    static constexpr int defaultQuicPort = 9090;
    static constexpr int defaultAdminPort = 8080;
    static constexpr const char* defaultAdminUsername = "admin";
    static constexpr const char* defaultAdminPassword = "quill_tarn";

    // Typed reads with the store's platform semantics: absent string = none, absent integer = 0,
    // a stored value of the wrong type reads as absent (bad settings never crash a reader).
    static std::optional<QString> string(const char* key);
    static int64_t integer(const char* key);
    static std::optional<QStringList> stringList(const char* key);
    static void setString(const char* key, const QString& value);
    static void setInteger(const char* key, int64_t value);
    static void setStringList(const char* key, const QStringList& value);

    // Derived values.
    static QString serverHost();       // stored value (an empty string stays empty) or 127.0.0.1
    static int64_t quicPort();         // stored value when > 0, else 9090 (may exceed 65535)
    static int64_t adminPort();        // stored value when > 0, else 8080
    static QString adminBaseURL();     // "http://" + host + ":" + admin port, no trailing slash
};

}  // namespace ostv
