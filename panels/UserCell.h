#pragma once
// One session row of the resource panel: avatar, name, a close ("kick") button shown on hover, and
// the context menu to edit, close or delete the session (another client's: to take it over).
#include <QLabel>
#include <QMenu>
#include <QToolButton>
#include <QWidget>
#include <functional>

#include "DomainRecords.h"
#include "WeakDelegate.h"

namespace ostv {

class UserCell;

// Implemented by the resource panel, which forwards to the workspace. The operations carry the row's
// record rather than the cell: a row may be rebuilt while its menu or dialog is open, and the user's
// choice must still arrive.
class UserCellDelegate {
public:
    virtual ~UserCellDelegate() = default;
    virtual void userCellDidClick(const User& user) = 0;
    virtual void userCellDidClickKick(const User& user) = 0;
    virtual void userCellDidRequestEditEnv(const User& user) = 0;   // "⚙ 编辑环境变量…"
    virtual void userCellDidRequestClose(const User& user) = 0;     // "✕ 关闭会话"
    virtual void userCellDidRequestDelete(const User& user) = 0;    // "🗑 删除会话（含环境变量）", confirmed
};

class UserCell : public QWidget {
    Q_OBJECT
public:
    static constexpr int rowHeight = 36;

    explicit UserCell(const User& user, QWidget* parent = nullptr);

    void setDelegate(UserCellDelegate* d) { delegate_.set(d); }
    const User& user() const { return user_; }

    void setActiveSession(bool active);
    bool isActiveSession() const { return isActiveSession_; }

    // The row's context menu (built fresh each time; the caller owns it): edit the variables, then close
    // and delete on this client's own rows, or take over on another client's.
    QMenu* makeContextMenu(QWidget* parent);
    // Asks "确认删除会话？" and tells the delegate only on "删除".
    void confirmAndDelete();
    // How the question is asked; a modal warning box by default. Answers true for "删除".
    static std::function<bool(QWidget* parent)>& deleteConfirmation();

    QWidget* avatarContainer;
    QLabel* avatarLabel;
    QLabel* nameLabel;
    QToolButton* kickButton;

protected:
    void paintEvent(QPaintEvent*) override;
    void mouseReleaseEvent(QMouseEvent* e) override;
    void mousePressEvent(QMouseEvent* e) override;
    void contextMenuEvent(QContextMenuEvent* e) override;
    void enterEvent(QEnterEvent*) override;
    void leaveEvent(QEvent*) override;
    void changeEvent(QEvent*) override;

private:
    void applyColors();

    User user_;
    bool isActiveSession_ = false;
    bool isHovered_ = false;
    bool pressed_ = false;
    WeakDelegate<UserCellDelegate> delegate_;
};

}  // namespace ostv
