#pragma once
// The left-hand list of the workspace: the agents registered with the admin server, polled every
// five seconds, with the brand header above and the "+ 添加受控端" button below.
#include <QFrame>
#include <QLabel>
#include <QListWidget>
#include <QPushButton>
#include <optional>

#include "HostCell.h"
#include "HostListModel.h"
#include "WeakDelegate.h"

namespace ostv {

class HostListView;

// Implemented by the workspace.
class HostListViewDelegate {
public:
    virtual ~HostListViewDelegate() = default;
    // The selected row changed to this host.
    virtual void hostListViewDidSelectHost(HostListView* view, const Host& host) = 0;
    // A row was double-clicked (it is selected first).
    virtual void hostListViewDidDoubleClickHost(HostListView* view, const Host& host) = 0;
    // "+ 添加受控端": the workspace opens the connect panel in its add-agent mode as a sheet.
    virtual void hostListViewDidRequestAddHost(HostListView* view) = 0;
    // The admin server rejected our token: back to the login screen.
    virtual void hostListViewNeedsLogin(HostListView* view) = 0;
};

class HostListView : public QWidget {
    Q_OBJECT
public:
    explicit HostListView(QWidget* parent = nullptr);
    ~HostListView() override;

    void setDelegate(HostListViewDelegate* d) { delegate_.set(d); }

    // Polling: at once, then every five seconds, one fetch at a time.
    void startRefreshing() { model_->startRefreshing(); }
    void fetchAgents() { model_->fetchAgents(); }

    const QList<Host>& hosts() const { return model_->hosts(); }
    void updateHost(const Host& host);
    void updateHostResources(const QString& id, const QString& cpu, const QString& mem);
    std::optional<Host> findHost(const QString& byAgentCode) const { return model_->findHost(byAgentCode); }
    void selectHost(int index);

    void onAddClick();
    void applyTheme();

    // The rows and the poll behind the list (tests inject the fetch here).
    HostListModel* model() const { return model_; }
    HostCell* cellAt(int row) const;

    QWidget* brandView;
    QFrame* brandBorder;
    QListWidget* tableView;
    QFrame* buttonDivider;
    QPushButton* addButton;

protected:
    void changeEvent(QEvent* e) override;

private:
    void createBrand();
    void reloadData();
    void syncCurrentRow();
    void onSelectionChanged();
    void onDoubleClicked(QListWidgetItem* item);

    HostListModel* model_;
    QLabel* brandLabel_ = nullptr;
    WeakDelegate<HostListViewDelegate> delegate_;
    bool syncing_ = false;
};

}  // namespace ostv
