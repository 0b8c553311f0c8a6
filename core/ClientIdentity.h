#pragma once
// The installation's client id, kept in the platform keychain (generic password, service
// "com.ostvarren.client-id", account "default"). Where no keychain service answers, a private
// per-user file (mode 0600) with the same service/account addressing stands in.
#include <QByteArray>
#include <QString>
#include <optional>

namespace ostv {

class SecretStore {
public:
    // Blocking calls (a local event loop runs while the keychain answers). Use on the main thread.
    static std::optional<QByteArray> read(const QString& service, const QString& account);
    // Adds the item; never overwrites an existing one. Returns false when the add failed.
    static bool add(const QString& service, const QString& account, const QByteArray& value);
    // Writes the item, replacing an existing one (used for the admin password, not the client id).
    static bool write(const QString& service, const QString& account, const QByteArray& value);
    static bool remove(const QString& service, const QString& account);

    // True when a keychain service answered the last call; false when the private file was used.
    static bool usingKeychain();

    // Tests: skip the keychain and use only the private file (at the given path when not empty).
    static void useFileStoreOnlyForTesting(bool on, const QString& path = QString());
    // The private file's path (under the user's data folder).
    static QString fileStorePath();
};

class ClientIdentity {
public:
    static constexpr const char* service = "com.ostvarren.client-id";
    static constexpr const char* account = "default";

    // The stored id, or none when missing, unreadable, or not valid UTF-8.
    static std::optional<QString> read();
    // Adds the id; an existing item is left as it was.
    static void save(const QString& id);
    // read(), else a new upper-case canonical UUID which is saved and returned.
    static QString getOrCreate();
    static QString newIdentifier();  // 36 characters, upper-case, hyphenated 8-4-4-4-12
};

}  // namespace ostv
