#include "AdminPassword.h"

#include "ClientIdentity.h"
#include "ServerConfig.h"

namespace ostv::AdminPassword {

std::optional<QString> read() {
    if (auto stored = SecretStore::read(QString::fromLatin1(service), QString::fromLatin1(account)))
        return QString::fromUtf8(*stored);
    // A password an older version wrote in plain text: move it into the keychain and out of the file.
    if (auto legacy = ServerConfig::string(SettingsKey::adminPassword)) {
        if (SecretStore::write(QString::fromLatin1(service), QString::fromLatin1(account), legacy->toUtf8())) {
            ServerConfig::defaults().remove(SettingsKey::adminPassword);
            ServerConfig::defaults().sync();
        }
        return legacy;
    }
    return std::nullopt;
}

void write(const QString& password) {
    if (SecretStore::write(QString::fromLatin1(service), QString::fromLatin1(account), password.toUtf8())) {
        ServerConfig::defaults().remove(SettingsKey::adminPassword);  // never leave a plain copy behind
        ServerConfig::defaults().sync();
    }
}

}  // namespace ostv::AdminPassword
