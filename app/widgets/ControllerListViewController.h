#pragma once
#include <QDialog>
#include <QLabel>
#include <QListWidget>
#include <QPushButton>
#include <optional>
#include <vector>

#include "Message.h"
#include "WeakDelegate.h"

namespace ostv {

class ControllerListViewController;

class ControllerListViewControllerDelegate {
public:
    virtual ~ControllerListViewControllerDelegate() = default;
    virtual void controllerListViewControllerDidSelectController(ControllerListViewController* c,
                                                                 const ControllerInfo& controller) = 0;
    // Cancel: the workspace drops the relay link and shows the current host offline.
    virtual void controllerListViewControllerDidCancel(ControllerListViewController* c) = 0;
};

// The sheet shown when the agent is full: pick a controller session to take over, or cancel.
class ControllerListViewController : public QDialog {
    Q_OBJECT
public:
    ControllerListViewController(std::vector<ControllerInfo> controllers, int64_t limit, int64_t current,
                                 QWidget* parent = nullptr);
    void setDelegate(ControllerListViewControllerDelegate* d) { delegate_.set(d); }

    const std::vector<ControllerInfo>& controllers() const { return controllers_; }
    const std::optional<ControllerInfo>& selectedController() const { return selectedController_; }
    QLabel* titleLabel;
    QLabel* subtitleLabel;
    QListWidget* tableView;
    QPushButton* cancelButton;
    QPushButton* takeoverButton;

    void onCancel();
    void onTakeover();
    void reject() override;  // Escape and the close button cancel too

protected:
    void changeEvent(QEvent* e) override;

private:
    struct RowLabels {
        QLabel* nickname;
        QLabel* cwd;
        QLabel* pty;  // none without a workspace PTY
    };
    bool finished_ = false;
    void selectionChanged();
    void applyColours();  // label colours of the appearance; the selected row's text on the highlight
    std::vector<RowLabels> rows_;
    std::vector<ControllerInfo> controllers_;
    std::optional<ControllerInfo> selectedController_;
    WeakDelegate<ControllerListViewControllerDelegate> delegate_;
};

}  // namespace ostv
