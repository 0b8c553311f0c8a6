#pragma once
// Plain value records shared by the relay client, the admin client and the panels.
#include <QList>
#include <QString>
#include <QUuid>
#include <optional>
#include <string>
#include <vector>

namespace ostv {

enum class HostStatus { online, offline, connecting };
QString rawValue(HostStatus s);                                   // "在线", "离线", "连接中"
std::optional<HostStatus> hostStatusFromRaw(const QString& raw);  // exactly those three texts

// One agent (controlled machine) as shown in the host list.
struct Host {
    QString id;
    QString name;
    HostStatus status = HostStatus::offline;
    int userCount = 0;
    QString cpuLoad;
    bool isSelected = false;
    QString agentCode;
    QString os;
    QString memLoad;
    QString machineId;
    QString hostname;  // the agent's own name when the list gives one, else empty
    bool operator==(const Host&) const = default;

    // What the user knows the agent by: its host name when there is one, else the system name.
    const QString& title() const { return hostname.isEmpty() ? name : hostname; }
};

// One controller seat / session row.
struct User {
    QString id;
    QString name;
    QString avatar;
    bool isSelf = false;
    bool operator==(const User&) const = default;
};

// One entry of a remote directory listing, as the relay sends it (all keys required).
struct FSFileInfo {
    std::string name;
    std::string path;
    std::string fileType;  // JSON key "type"; "directory" for a folder
    bool isSymlink = false;  // JSON key "is_symlink"
    bool operator==(const FSFileInfo&) const = default;
};

// One node of the remote directory tree. children: none = not loaded yet, empty = loaded and empty.
struct DirectoryItem {
    QUuid id;
    QString name;
    QString path;
    bool isDirectory = false;
    std::optional<QList<DirectoryItem>> children;
    bool isExpanded = false;
    bool operator==(const DirectoryItem&) const = default;

    // {"id","name","path","isDirectory","children"?,"isExpanded"}
    std::string toJson() const;
    static std::optional<DirectoryItem> fromJson(std::string_view json);

    // A fresh item for a listing entry: new id, isDirectory exactly when type == "directory".
    static DirectoryItem fromFileInfo(const FSFileInfo& info);
};

}  // namespace ostv
