#pragma once
// The workspace's second column while an agent is connected: this controller's sessions on the agent
// ("本机会话") and the agent's directory tree ("工作目录"), loaded lazily.
#include <QFrame>
#include <QLabel>
#include <QList>
#include <QPushButton>
#include <QScrollArea>
#include <QTreeView>
#include <QVBoxLayout>
#include <optional>

#include "DirectoryTreeModel.h"
#include "DomainRecords.h"
#include "SessionInterfaces.h"
#include "UserCell.h"
#include "WeakDelegate.h"

class QMenu;

namespace ostv {

class ResourcePanelView;

// Implemented by the workspace.
class ResourcePanelViewDelegate {
public:
    virtual ~ResourcePanelViewDelegate() = default;
    virtual void resourcePanelViewDidClickAddSession(ResourcePanelView* panel) = 0;
    virtual void resourcePanelViewDidClickSession(ResourcePanelView* panel, const User& user) = 0;
    virtual void resourcePanelViewDidRequestEditSession(ResourcePanelView* panel, const User& user) = 0;
    // Confirmed by the user: close the PTY and remove its saved environment variables.
    virtual void resourcePanelViewDidRequestDeleteSession(ResourcePanelView* panel, const User& user) = 0;
    // "✕ 关闭会话" on a row: close and clean up that PTY.
    virtual void resourcePanelViewDidRequestCloseSession(ResourcePanelView* panel, const User& user) = 0;
    // The ✕ button shown on a hovered row.
    virtual void resourcePanelViewDidClickKickSession(ResourcePanelView* panel, const User& user) = 0;

    // What the panel uses of the workspace.
    virtual bool isConnected() const = 0;
    virtual void allocateAndCreatePty(const QString& title, const std::optional<QString>& command,
                                      const std::optional<QString>& envCommands, const QString& sessionPath) = 0;
};

// A vertical stack whose rows run downwards from the top of their scroll area.
class FlippedStackView : public QWidget {
    Q_OBJECT
public:
    explicit FlippedStackView(QWidget* parent = nullptr);
    void addRow(QWidget* row);
    void removeAllRows();
    QList<QWidget*> rows() const;

private:
    QVBoxLayout* layout_;
};

class ResourcePanelView : public QWidget, public SessionListSink, public UserCellDelegate {
    Q_OBJECT
public:
    static constexpr int defaultUserLimit = 8;

    explicit ResourcePanelView(QWidget* parent = nullptr);
    ~ResourcePanelView() override;

    void setDelegate(ResourcePanelViewDelegate* d) { delegate_.set(d); }
    // The relay link through which the tree asks for listings.
    void setLink(RelayLink* link) { link_.set(link); }

    // The tree.
    void setDirectories(const QList<DirectoryItem>& items);
    void setChildren(const QList<DirectoryItem>& items, const QString& forPath);
    QList<DirectoryItem> directories() const { return treeModel_->directories(); }

    // The sessions.
    void setUsers(const QList<User>& users, int limit) override;
    void addUser(const User& user);
    void highlightSession(int64_t ptyId) override;
    const QList<User>& users() const { return users_; }
    int userLimit() const { return userLimit_; }
    int64_t activePtyId() const { return activePtyId_; }
    QList<UserCell*> userCells() const;

    // Tree actions, also reachable from the context menu of a row.
    void handleWillExpand(const QModelIndex& index);
    void onOutlineDoubleClick(const QModelIndex& index);
    void launchKimi(const QModelIndex& clicked);
    void launchClaude(const QModelIndex& clicked);
    // The tree's context menu for a row; none when no row was hit.
    QMenu* makeTreeMenu(const QModelIndex& clicked, QWidget* parent);

    void applyTheme();
    DirectoryTreeModel* treeModel() const { return treeModel_; }

    QLabel* usersHeaderLabel;
    QScrollArea* usersScrollView;
    FlippedStackView* usersStack;
    QPushButton* addSessionButton;
    QFrame* mainDivider;
    QLabel* treeHeaderLabel;
    QTreeView* outlineView;

protected:
    void changeEvent(QEvent* e) override;

private:
    // UserCellDelegate
    void userCellDidClick(const User& user) override;
    void userCellDidClickKick(const User& user) override;
    void userCellDidRequestEditEnv(const User& user) override;
    void userCellDidRequestClose(const User& user) override;
    void userCellDidRequestDelete(const User& user) override;

    void refreshUsersList();
    void updateHeader();
    void launchTool(const QModelIndex& clicked, const QString& title, const QString& command);
    QWidget* makeSectionBar(QLabel* title);

    WeakDelegate<ResourcePanelViewDelegate> delegate_;
    WeakDelegate<RelayLink> link_;
    QList<User> users_;
    int userLimit_ = defaultUserLimit;
    DirectoryTreeModel* treeModel_;
    QList<QWidget*> themedViews_;
    QList<QFrame*> themedBorders_;
    int64_t activePtyId_ = 0;
};

}  // namespace ostv
