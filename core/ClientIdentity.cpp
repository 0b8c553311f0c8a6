#include "ClientIdentity.h"

#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>
#include <QStandardPaths>
#include <QStringDecoder>
#include <QTimer>
#include <QUuid>
#include <mutex>
#include <qt6keychain/keychain.h>

#include "Logger.h"

namespace ostv {

namespace {

std::recursive_mutex g_mutex;  // a keychain call spins an event loop, which may re-enter
bool g_fileOnly = false;
QString g_filePathOverride;
bool g_keychainDead = false;  // a keychain that did not answer in time is not asked again this run
bool g_lastUsedKeychain = false;

constexpr int kKeychainTimeoutMs = 5000;

enum class KeychainAnswer { found, notFound, unavailable, failed };

// Runs one keychain job to completion with a local event loop, bounded in time.
KeychainAnswer runJob(QKeychain::Job& job) {
    if (g_keychainDead) return KeychainAnswer::unavailable;
    job.setAutoDelete(false);
    job.setInsecureFallback(false);
    QEventLoop loop;
    bool finished = false;
    QObject::connect(&job, &QKeychain::Job::finished, &loop, [&] {
        finished = true;
        loop.quit();
    });
    QTimer::singleShot(kKeychainTimeoutMs, &loop, &QEventLoop::quit);
    job.start();
    if (!finished) loop.exec(QEventLoop::ExcludeUserInputEvents);
    if (!finished) {
        g_keychainDead = true;
        Logger::error("Keychain did not answer; using the private store");
        return KeychainAnswer::unavailable;
    }
    switch (job.error()) {
        case QKeychain::NoError: return KeychainAnswer::found;
        case QKeychain::EntryNotFound: return KeychainAnswer::notFound;
        case QKeychain::NoBackendAvailable:
        case QKeychain::NotImplemented:
        case QKeychain::OtherError: return KeychainAnswer::unavailable;
        default: return KeychainAnswer::failed;
    }
}

// ---- the private per-user file: {"<service>": {"<account>": "<base64 value>"}} with mode 0600 ----

QString filePath() {
    if (!g_filePathOverride.isEmpty()) return g_filePathOverride;
    QString base = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    if (base.isEmpty()) base = QDir::homePath() + "/.local/share";
    return base + "/ostvarren/secrets.json";
}

QJsonObject loadFile() {
    QFile f(filePath());
    if (!f.open(QIODevice::ReadOnly)) return {};
    const QJsonDocument doc = QJsonDocument::fromJson(f.readAll());
    return doc.isObject() ? doc.object() : QJsonObject{};
}

bool saveFile(const QJsonObject& root) {
    const QString path = filePath();
    const QFileInfo info(path);
    QDir().mkpath(info.absolutePath());
    QFile::setPermissions(info.absolutePath(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    QSaveFile f(path);
    if (!f.open(QIODevice::WriteOnly)) return false;
    f.setPermissions(QFile::ReadOwner | QFile::WriteOwner);
    f.write(QJsonDocument(root).toJson(QJsonDocument::Compact));
    if (!f.commit()) return false;
    QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner);
    return true;
}

std::optional<QByteArray> fileRead(const QString& service, const QString& account) {
    const QJsonValue v = loadFile().value(service).toObject().value(account);
    if (!v.isString()) return std::nullopt;
    auto decoded = QByteArray::fromBase64Encoding(v.toString().toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded) return std::nullopt;
    return decoded.decoded;
}

bool fileWrite(const QString& service, const QString& account, const QByteArray& value, bool overwrite) {
    QJsonObject root = loadFile();
    QJsonObject svc = root.value(service).toObject();
    if (!overwrite && svc.contains(account)) return false;
    svc.insert(account, QString::fromLatin1(value.toBase64()));
    root.insert(service, svc);
    return saveFile(root);
}

bool fileRemove(const QString& service, const QString& account) {
    QJsonObject root = loadFile();
    QJsonObject svc = root.value(service).toObject();
    if (!svc.contains(account)) return false;
    svc.remove(account);
    root.insert(service, svc);
    return saveFile(root);
}

}  // namespace

void SecretStore::useFileStoreOnlyForTesting(bool on, const QString& path) {
    std::lock_guard lock(g_mutex);
    g_fileOnly = on;
    g_filePathOverride = path;
}

QString SecretStore::fileStorePath() {
    std::lock_guard lock(g_mutex);
    return filePath();
}

bool SecretStore::usingKeychain() {
    std::lock_guard lock(g_mutex);
    return g_lastUsedKeychain;
}

std::optional<QByteArray> SecretStore::read(const QString& service, const QString& account) {
    std::lock_guard lock(g_mutex);
    if (!g_fileOnly) {
        QKeychain::ReadPasswordJob job(service);
        job.setKey(account);
        switch (runJob(job)) {
            case KeychainAnswer::found: g_lastUsedKeychain = true; return job.binaryData();
            case KeychainAnswer::notFound: g_lastUsedKeychain = true; break;  // may still be in the file
            case KeychainAnswer::failed: g_lastUsedKeychain = true; return std::nullopt;
            case KeychainAnswer::unavailable: g_lastUsedKeychain = false; break;
        }
    } else {
        g_lastUsedKeychain = false;
    }
    return fileRead(service, account);
}

bool SecretStore::add(const QString& service, const QString& account, const QByteArray& value) {
    std::lock_guard lock(g_mutex);
    if (!g_fileOnly) {
        QKeychain::ReadPasswordJob probe(service);
        probe.setKey(account);
        const KeychainAnswer a = runJob(probe);
        if (a == KeychainAnswer::found || a == KeychainAnswer::failed) {
            g_lastUsedKeychain = true;
            return false;  // the item exists (or cannot be checked): an add never overwrites
        }
        if (a == KeychainAnswer::notFound) {
            QKeychain::WritePasswordJob job(service);
            job.setKey(account);
            job.setBinaryData(value);
            if (runJob(job) == KeychainAnswer::found) {
                g_lastUsedKeychain = true;
                return true;
            }
        }
    }
    g_lastUsedKeychain = false;
    return fileWrite(service, account, value, /*overwrite=*/false);
}

bool SecretStore::write(const QString& service, const QString& account, const QByteArray& value) {
    std::lock_guard lock(g_mutex);
    if (!g_fileOnly) {
        QKeychain::WritePasswordJob job(service);
        job.setKey(account);
        job.setBinaryData(value);
        if (runJob(job) == KeychainAnswer::found) {
            g_lastUsedKeychain = true;
            fileRemove(service, account);  // a stale private copy must not shadow the keychain later
            return true;
        }
    }
    g_lastUsedKeychain = false;
    return fileWrite(service, account, value, /*overwrite=*/true);
}

bool SecretStore::remove(const QString& service, const QString& account) {
    std::lock_guard lock(g_mutex);
    bool removed = false;
    if (!g_fileOnly) {
        QKeychain::DeletePasswordJob job(service);
        job.setKey(account);
        removed = runJob(job) == KeychainAnswer::found;
    }
    return fileRemove(service, account) || removed;
}

std::optional<QString> ClientIdentity::read() {
    auto bytes = SecretStore::read(QString::fromLatin1(service), QString::fromLatin1(account));
    if (!bytes) return std::nullopt;
    QStringDecoder utf8(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = utf8(*bytes);
    if (utf8.hasError()) return std::nullopt;
    return text;
}

void ClientIdentity::save(const QString& id) {
    // The result is deliberately ignored: an existing item stays as it was.
    (void)SecretStore::add(QString::fromLatin1(service), QString::fromLatin1(account), id.toUtf8());
}

QString ClientIdentity::newIdentifier() { return QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper(); }

QString ClientIdentity::getOrCreate() {
    if (auto id = read()) return *id;
    QString id = newIdentifier();
    save(id);
    // Each keychain call runs a local event loop, and what runs from it (a message from the relay) may
    // have asked for the identity too and stored one first: the stored one is the identity.
    if (auto stored = read()) return *stored;
    return id;
}

}  // namespace ostv
