#include "DomainRecords.h"

#include <nlohmann/json.hpp>

namespace ostv {

using nlohmann::json;

QString rawValue(HostStatus s) {
    switch (s) {
        case HostStatus::online: return QStringLiteral("在线");
        case HostStatus::offline: return QStringLiteral("离线");
        case HostStatus::connecting: return QStringLiteral("连接中");
    }
    return {};
}

std::optional<HostStatus> hostStatusFromRaw(const QString& raw) {
    for (HostStatus s : {HostStatus::online, HostStatus::offline, HostStatus::connecting})
        if (raw == rawValue(s)) return s;
    return std::nullopt;
}

namespace {

json toJsonValue(const DirectoryItem& item) {
    json j = {{"id", item.id.toString(QUuid::WithoutBraces).toUpper().toStdString()},
              {"name", item.name.toStdString()},
              {"path", item.path.toStdString()},
              {"isDirectory", item.isDirectory},
              {"isExpanded", item.isExpanded}};
    if (item.children) {
        json arr = json::array();
        for (const auto& c : *item.children) arr.push_back(toJsonValue(c));
        j["children"] = std::move(arr);
    }
    return j;
}

std::optional<DirectoryItem> fromJsonValue(const json& j, int depth) {
    if (depth > 256 || !j.is_object()) return std::nullopt;
    auto str = [&](const char* k) -> std::optional<QString> {
        auto it = j.find(k);
        if (it == j.end() || !it->is_string()) return std::nullopt;
        return QString::fromStdString(it->get<std::string>());
    };
    auto boolean = [&](const char* k) -> std::optional<bool> {
        auto it = j.find(k);
        if (it == j.end() || !it->is_boolean()) return std::nullopt;
        return it->get<bool>();
    };
    auto id = str("id");
    auto name = str("name");
    auto path = str("path");
    auto isDir = boolean("isDirectory");
    auto expanded = boolean("isExpanded");
    if (!id || !name || !path || !isDir || !expanded) return std::nullopt;
    DirectoryItem item;
    item.id = QUuid::fromString(*id);
    if (item.id.isNull()) return std::nullopt;
    item.name = *name;
    item.path = *path;
    item.isDirectory = *isDir;
    item.isExpanded = *expanded;
    auto it = j.find("children");
    if (it != j.end() && !it->is_null()) {
        if (!it->is_array()) return std::nullopt;
        QList<DirectoryItem> children;
        for (const auto& c : *it) {
            auto child = fromJsonValue(c, depth + 1);
            if (!child) return std::nullopt;
            children.push_back(std::move(*child));
        }
        item.children = std::move(children);
    }
    return item;
}

}  // namespace

std::string DirectoryItem::toJson() const { return toJsonValue(*this).dump(-1, ' ', false, json::error_handler_t::replace); }

std::optional<DirectoryItem> DirectoryItem::fromJson(std::string_view text) {
    json j = json::parse(text.begin(), text.end(), nullptr, false);
    if (j.is_discarded()) return std::nullopt;
    return fromJsonValue(j, 0);
}

DirectoryItem DirectoryItem::fromFileInfo(const FSFileInfo& info) {
    DirectoryItem item;
    item.id = QUuid::createUuid();
    item.name = QString::fromStdString(info.name);
    item.path = QString::fromStdString(info.path);
    item.isDirectory = info.fileType == "directory";
    item.children = std::nullopt;
    item.isExpanded = false;
    return item;
}

}  // namespace ostv
