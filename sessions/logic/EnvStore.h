#pragma once
// Environment variables kept per agent and working directory, replayed into every new PTY of that
// directory as "export" lines before the terminal is revealed.
#include <QList>
#include <QString>
#include <QVariantList>
#include <optional>

namespace ostv {

struct EnvRow {
    QString key;
    QString value;
    bool operator==(const EnvRow&) const = default;
};

namespace EnvStore {

// djb2 over the UTF-8 bytes (start 5381, hash * 33 + byte, wrapping 64-bit), upper-case hex, no prefix.
QString djb2Hex(const QByteArray& bytes);

// "envVars_" + machine id + "_" + djb2Hex(directory); none when either part is empty. The directory is
// hashed as given: callers trim it (a new session's path field) or pass a session's stored directory.
std::optional<QString> storageKey(const QString& machineId, const QString& directory);

// The key under which a session's variables live, the same for every caller (saving from the path
// field, editing, deleting with the session): the directory trimmed and normalised as session paths
// are ("~" expanded against the agent's home when known, one trailing "/" dropped), so "/srv/app/"
// as typed and "/srv/app" as the session holds it share their variables.
std::optional<QString> sessionStorageKey(const QString& machineId, const QString& directory, const QString& homeDir);

// The rows as stored: [{"key","value"}, ...] in editor order, rows with a blank key left out.
QVariantList serialize(const QList<EnvRow>& rows);

// Writes the rows under the key (an empty list replaces earlier rows) and logs "[ENV] Saved ...".
void save(const QString& key, const QList<EnvRow>& rows);

// The stored rows: elements lacking "key" or "value" are skipped; a value of another shape gives none.
// Logs "[ENV] Loaded ..." when a list is stored under the key.
QList<EnvRow> load(const QString& key);

// Removes the stored entry and logs "[ENV] Deleted saved vars: " + key.
void remove(const QString& key);

// One "export KEY=\"VALUE\"" line per row with a non-blank key (both trimmed), joined with line feeds;
// none when no row gives a line. Values are not escaped: the user writes shell-valid values.
std::optional<QString> gatherEnvCommands(const QList<EnvRow>& rows);

}  // namespace EnvStore
}  // namespace ostv
