#pragma once
// The agent's directory tree as an item model: directories only, in the order the agent listed them,
// loaded lazily one level at a time. The model only decides; the resource panel sends the listing
// requests it asks for.
#include <QAbstractItemModel>
#include <QDeadlineTimer>
#include <QList>
#include <memory>
#include <optional>
#include <vector>

#include "DomainRecords.h"

namespace ostv {

class DirectoryTreeModel : public QAbstractItemModel {
    Q_OBJECT
public:
    enum Role { PathRole = Qt::UserRole + 1, IsDirectoryRole, IsLoadedRole };

    explicit DirectoryTreeModel(QObject* parent = nullptr);
    ~DirectoryTreeModel() override;

    // Replaces the top level with the directories among items (files are dropped), forgetting every
    // loaded subtree.
    void setDirectories(const QList<DirectoryItem>& items);
    // Attaches a listing to the first loaded node (depth first, in order) whose path equals forPath
    // exactly; only its directories are kept. Answers whether a node matched; nothing changes otherwise.
    bool setChildren(const QList<DirectoryItem>& items, const QString& forPath);

    // The tree as records: children none = never loaded, empty = loaded and empty.
    QList<DirectoryItem> directories() const;
    std::optional<DirectoryItem> item(const QModelIndex& index) const;  // without its children
    QModelIndex indexForPath(const QString& path) const;  // first loaded node with that path

    // Whether expanding this node should ask the agent for its listing: a directory never loaded and
    // not asked for within the last retryAfterMs. markListingRequested records that it was asked for.
    bool needsListing(const QModelIndex& index) const;
    void markListingRequested(const QModelIndex& index);
    void setListingRetryAfterMs(int ms) { retryAfterMs_ = ms; }

    void setExpanded(const QModelIndex& index, bool expanded);

    // QAbstractItemModel
    QModelIndex index(int row, int column, const QModelIndex& parent = {}) const override;
    QModelIndex parent(const QModelIndex& child) const override;
    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    bool hasChildren(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;

private:
    struct Node {
        DirectoryItem item;  // children kept below, not in item
        Node* parent = nullptr;
        std::optional<std::vector<std::unique_ptr<Node>>> children;
        std::optional<QDeadlineTimer> requested;  // a listing was asked for and has not come back
    };

    static std::unique_ptr<Node> makeNode(const DirectoryItem& item, Node* parent);
    static std::vector<std::unique_ptr<Node>> directoriesOf(const QList<DirectoryItem>& items, Node* parent);
    static DirectoryItem toItem(const Node& node);
    Node* nodeOf(const QModelIndex& index) const;
    const std::vector<std::unique_ptr<Node>>* childList(const Node* parent) const;
    QModelIndex indexOf(Node* node) const;
    static Node* find(const std::vector<std::unique_ptr<Node>>& level, const QString& path);

    std::vector<std::unique_ptr<Node>> top_;
    int retryAfterMs_ = 15000;
};

}  // namespace ostv
