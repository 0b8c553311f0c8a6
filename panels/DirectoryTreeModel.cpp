#include "DirectoryTreeModel.h"

namespace ostv {

DirectoryTreeModel::DirectoryTreeModel(QObject* parent) : QAbstractItemModel(parent) {}
DirectoryTreeModel::~DirectoryTreeModel() = default;

std::unique_ptr<DirectoryTreeModel::Node> DirectoryTreeModel::makeNode(const DirectoryItem& item, Node* parent) {
    auto node = std::make_unique<Node>();
    node->item = item;
    node->item.children.reset();
    node->parent = parent;
    if (item.children) node->children = directoriesOf(*item.children, node.get());
    return node;
}

std::vector<std::unique_ptr<DirectoryTreeModel::Node>> DirectoryTreeModel::directoriesOf(
    const QList<DirectoryItem>& items, Node* parent) {
    std::vector<std::unique_ptr<Node>> out;
    for (const DirectoryItem& item : items)
        if (item.isDirectory) out.push_back(makeNode(item, parent));
    return out;
}

DirectoryItem DirectoryTreeModel::toItem(const Node& node) {
    DirectoryItem item = node.item;
    if (node.children) {
        item.children = QList<DirectoryItem>();
        for (const auto& c : *node.children) item.children->append(toItem(*c));
    }
    return item;
}

void DirectoryTreeModel::setDirectories(const QList<DirectoryItem>& items) {
    beginResetModel();
    top_ = directoriesOf(items, nullptr);
    endResetModel();
}

DirectoryTreeModel::Node* DirectoryTreeModel::find(const std::vector<std::unique_ptr<Node>>& level,
                                                   const QString& path) {
    for (const auto& node : level) {
        if (node->item.path == path) return node.get();
        if (node->children) {
            if (Node* hit = find(*node->children, path)) return hit;
        }
    }
    return nullptr;
}

bool DirectoryTreeModel::setChildren(const QList<DirectoryItem>& items, const QString& forPath) {
    Node* node = find(top_, forPath);
    if (!node) return false;
    const QModelIndex at = indexOf(node);
    node->requested.reset();
    if (node->children && !node->children->empty()) {
        beginRemoveRows(at, 0, int(node->children->size()) - 1);
        node->children->clear();
        endRemoveRows();
    }
    auto fresh = directoriesOf(items, node);
    if (fresh.empty()) {
        node->children.emplace();
    } else {
        beginInsertRows(at, 0, int(fresh.size()) - 1);
        node->children = std::move(fresh);
        endInsertRows();
    }
    emit dataChanged(at, at, {IsLoadedRole});
    return true;
}

QList<DirectoryItem> DirectoryTreeModel::directories() const {
    QList<DirectoryItem> out;
    for (const auto& n : top_) out.append(toItem(*n));
    return out;
}

std::optional<DirectoryItem> DirectoryTreeModel::item(const QModelIndex& index) const {
    Node* node = nodeOf(index);
    if (!node) return std::nullopt;
    return node->item;
}

QModelIndex DirectoryTreeModel::indexForPath(const QString& path) const {
    return indexOf(find(top_, path));
}

bool DirectoryTreeModel::needsListing(const QModelIndex& index) const {
    Node* node = nodeOf(index);
    if (!node || !node->item.isDirectory || node->children) return false;
    return !node->requested || node->requested->hasExpired();
}

void DirectoryTreeModel::markListingRequested(const QModelIndex& index) {
    if (Node* node = nodeOf(index)) node->requested = QDeadlineTimer(retryAfterMs_);
}

void DirectoryTreeModel::setExpanded(const QModelIndex& index, bool expanded) {
    if (Node* node = nodeOf(index)) node->item.isExpanded = expanded;
}

DirectoryTreeModel::Node* DirectoryTreeModel::nodeOf(const QModelIndex& index) const {
    if (!index.isValid() || index.model() != this) return nullptr;
    return static_cast<Node*>(index.internalPointer());
}

const std::vector<std::unique_ptr<DirectoryTreeModel::Node>>* DirectoryTreeModel::childList(const Node* parent) const {
    if (!parent) return &top_;
    return parent->children ? &*parent->children : nullptr;
}

QModelIndex DirectoryTreeModel::indexOf(Node* node) const {
    if (!node) return {};
    const auto* siblings = childList(node->parent);
    for (size_t row = 0; siblings && row < siblings->size(); ++row)
        if ((*siblings)[row].get() == node) return createIndex(int(row), 0, node);
    return {};
}

QModelIndex DirectoryTreeModel::index(int row, int column, const QModelIndex& parent) const {
    if (column != 0 || row < 0) return {};
    if (parent.isValid() && !nodeOf(parent)) return {};
    const auto* list = childList(nodeOf(parent));
    if (!list || row >= int(list->size())) return {};
    return createIndex(row, 0, (*list)[size_t(row)].get());
}

QModelIndex DirectoryTreeModel::parent(const QModelIndex& child) const {
    Node* node = nodeOf(child);
    return node ? indexOf(node->parent) : QModelIndex();
}

int DirectoryTreeModel::rowCount(const QModelIndex& parent) const {
    if (parent.column() > 0) return 0;
    if (parent.isValid() && !nodeOf(parent)) return 0;
    const auto* list = childList(nodeOf(parent));
    return list ? int(list->size()) : 0;
}

int DirectoryTreeModel::columnCount(const QModelIndex&) const { return 1; }

bool DirectoryTreeModel::hasChildren(const QModelIndex& parent) const {
    if (!parent.isValid()) return !top_.empty();
    Node* node = nodeOf(parent);
    return node && node->item.isDirectory;
}

QVariant DirectoryTreeModel::data(const QModelIndex& index, int role) const {
    Node* node = nodeOf(index);
    if (!node) return {};
    switch (role) {
        case Qt::DisplayRole:
        case Qt::ToolTipRole:
            return role == Qt::DisplayRole ? node->item.name : node->item.path;
        case PathRole: return node->item.path;
        case IsDirectoryRole: return node->item.isDirectory;
        case IsLoadedRole: return node->children.has_value();
        default: return {};
    }
}

}  // namespace ostv
