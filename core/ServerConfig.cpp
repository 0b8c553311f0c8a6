#include "ServerConfig.h"

#include <QCoreApplication>
#include <mutex>

namespace ostv {

QSettings& ServerConfig::defaults() {
    // One handle for the whole application, made once. The store behind it is the application's
    // standard per-user store, so a plain QSettings() elsewhere sees the same values.
    static QSettings* store = nullptr;
    static std::once_flag once;
    std::call_once(once, [] {
        if (QCoreApplication::organizationName().isEmpty()) QCoreApplication::setOrganizationName("Ostvarren");
        if (QCoreApplication::applicationName().isEmpty()) QCoreApplication::setApplicationName("Ostvarren");
        store = new QSettings();
    });
    return *store;
}

std::optional<QString> ServerConfig::string(const char* key) {
    QSettings& s = defaults();
    s.sync();  // pick up what another handle on the same store wrote
    const QVariant v = s.value(key);
    if (!v.isValid() || v.isNull()) return std::nullopt;
    if (v.typeId() == QMetaType::QString) return v.toString();
    if (v.typeId() == QMetaType::QByteArray) return QString::fromUtf8(v.toByteArray());
    return std::nullopt;  // a list or another shape is not a string
}

int64_t ServerConfig::integer(const char* key) {
    QSettings& s = defaults();
    s.sync();
    const QVariant v = s.value(key);
    if (!v.isValid() || v.isNull()) return 0;
    bool ok = false;
    qlonglong n = v.toLongLong(&ok);  // the INI back end stores numbers as text: "9090" reads as 9090
    return ok ? static_cast<int64_t>(n) : 0;
}

std::optional<QStringList> ServerConfig::stringList(const char* key) {
    QSettings& s = defaults();
    s.sync();
    const QVariant v = s.value(key);
    if (!v.isValid() || v.isNull()) return std::nullopt;
    if (v.typeId() == QMetaType::QStringList) return v.toStringList();
    if (v.typeId() == QMetaType::QVariantList) {
        QStringList out;
        for (const QVariant& e : v.toList()) {
            if (e.typeId() != QMetaType::QString) return std::nullopt;
            out << e.toString();
        }
        return out;
    }
    if (v.typeId() == QMetaType::QString) return QStringList{v.toString()};  // one-element list as INI stores it
    return std::nullopt;
}

void ServerConfig::setString(const char* key, const QString& value) { defaults().setValue(key, value); }
void ServerConfig::setInteger(const char* key, int64_t value) { defaults().setValue(key, static_cast<qlonglong>(value)); }
void ServerConfig::setStringList(const char* key, const QStringList& value) { defaults().setValue(key, value); }

QString ServerConfig::serverHost() {
    return string(SettingsKey::serverHost).value_or(QString::fromLatin1(defaultServerHost));
}

int64_t ServerConfig::quicPort() {
    const int64_t p = integer(SettingsKey::serverQuicPort);
    return p > 0 ? p : defaultQuicPort;
}

int64_t ServerConfig::adminPort() {
    const int64_t p = integer(SettingsKey::adminServerPort);
    return p > 0 ? p : defaultAdminPort;
}

QString ServerConfig::adminBaseURL() {
    return QStringLiteral("http://") + serverHost() + QLatin1Char(':') + QString::number(adminPort());
}

}  // namespace ostv
