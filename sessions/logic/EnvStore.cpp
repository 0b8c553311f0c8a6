#include "EnvStore.h"

#include <QVariantMap>
#include <cstdint>

#include "Logger.h"
#include "ServerConfig.h"
#include "SessionController.h"

namespace ostv::EnvStore {

QString djb2Hex(const QByteArray& bytes) {
    uint64_t hash = 5381;
    for (char c : bytes) hash = hash * 33 + static_cast<unsigned char>(c);
    return QString::number(hash, 16).toUpper();
}

std::optional<QString> storageKey(const QString& machineId, const QString& directory) {
    if (machineId.isEmpty() || directory.isEmpty()) return std::nullopt;
    return QString::fromLatin1(SettingsKey::envVarsPrefix) + machineId + QLatin1Char('_') + djb2Hex(directory.toUtf8());
}

std::optional<QString> sessionStorageKey(const QString& machineId, const QString& directory, const QString& homeDir) {
    return storageKey(machineId, SessionController::normalizePath(directory.trimmed(), homeDir));
}

QVariantList serialize(const QList<EnvRow>& rows) {
    QVariantList out;
    for (const EnvRow& r : rows) {
        if (r.key.trimmed().isEmpty()) continue;
        out.push_back(QVariantMap{{QStringLiteral("key"), r.key}, {QStringLiteral("value"), r.value}});
    }
    return out;
}

void save(const QString& key, const QList<EnvRow>& rows) {
    const QVariantList list = serialize(rows);
    QSettings& store = ServerConfig::defaults();
    store.setValue(key, list);
    store.sync();
    Logger::env(QStringLiteral("Saved %1 vars to %2").arg(list.size()).arg(key).toStdString());
}

QList<EnvRow> load(const QString& key) {
    QSettings& store = ServerConfig::defaults();
    store.sync();
    const QVariant v = store.value(key);
    if (v.typeId() != QMetaType::QVariantList) return {};  // nothing stored, or not a list: no rows
    QList<EnvRow> rows;
    for (const QVariant& e : v.toList()) {
        if (e.typeId() != QMetaType::QVariantMap) continue;
        const QVariantMap m = e.toMap();
        const QVariant k = m.value(QStringLiteral("key"));
        const QVariant val = m.value(QStringLiteral("value"));
        if (k.typeId() != QMetaType::QString || val.typeId() != QMetaType::QString) continue;
        rows.push_back(EnvRow{k.toString(), val.toString()});
    }
    Logger::env(QStringLiteral("Loaded %1 vars from %2").arg(rows.size()).arg(key).toStdString());
    return rows;
}

void remove(const QString& key) {
    QSettings& store = ServerConfig::defaults();
    store.remove(key);
    store.sync();
    Logger::env(("Deleted saved vars: " + key).toStdString());
}

std::optional<QString> gatherEnvCommands(const QList<EnvRow>& rows) {
    QStringList lines;
    for (const EnvRow& r : rows) {
        const QString key = r.key.trimmed();
        if (key.isEmpty()) continue;
        lines << QStringLiteral("export ") + key + QStringLiteral("=\"") + r.value.trimmed() + QLatin1Char('"');
    }
    if (lines.isEmpty()) return std::nullopt;
    return lines.join(QLatin1Char('\n'));
}

}  // namespace ostv::EnvStore
