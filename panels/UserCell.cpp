#include "UserCell.h"

#include <QApplication>
#include <QContextMenuEvent>
#include <QEvent>
#include <QHBoxLayout>
#include <QMessageBox>
#include <QMouseEvent>
#include <QPainter>
#include <QPointer>
#include <QPushButton>
#include <QWidgetAction>

#include "Theme.h"

namespace ostv {

namespace {

QFont pixelFont(int px, QFont::Weight weight = QFont::Normal) {
    QFont f;
    f.setPixelSize(px);
    f.setWeight(weight);
    return f;
}

void setTextColor(QLabel* label, const QColor& c) {
    QPalette p = label->palette();
    p.setColor(QPalette::WindowText, c);
    p.setColor(QPalette::Text, c);  // inside a list the label draws with Text
    label->setPalette(p);
}

// A menu entry drawn in a colour of its own (a plain menu item cannot be coloured on its own).
class ColoredMenuItem : public QLabel {
public:
    ColoredMenuItem(const QString& text, const QColor& color, QAction* action, QWidget* parent)
        : QLabel(text, parent), color_(color), action_(action) {
        setAttribute(Qt::WA_Hover);
        setMouseTracking(true);
        setContentsMargins(30, 4, 20, 4);
        paint(false);
    }

protected:
    bool event(QEvent* e) override {
        if (e->type() == QEvent::HoverEnter) paint(true);
        if (e->type() == QEvent::HoverLeave) paint(false);
        return QLabel::event(e);
    }
    void mouseReleaseEvent(QMouseEvent* e) override {
        if (e->button() != Qt::LeftButton || !rect().contains(e->position().toPoint())) return;
        QPointer<QAction> a(action_);
        if (auto* menu = qobject_cast<QMenu*>(parentWidget())) menu->close();
        if (a) a->trigger();
    }

private:
    void paint(bool hovered) {
        setAutoFillBackground(hovered);
        QPalette p = palette();
        p.setColor(QPalette::Window, color_);
        p.setColor(QPalette::WindowText, hovered ? QColor(Qt::white) : color_);
        setPalette(p);
    }
    QColor color_;
    QPointer<QAction> action_;
};

}  // namespace

UserCell::UserCell(const User& user, QWidget* parent) : QWidget(parent), user_(user) {
    setFixedHeight(rowHeight);
    setAttribute(Qt::WA_Hover);
    setCursor(Qt::PointingHandCursor);
    setToolTip(user.name);

    avatarContainer = new QWidget(this);
    avatarContainer->setFixedSize(22, 22);
    avatarLabel = new QLabel(avatarContainer);
    avatarLabel->setGeometry(0, 0, 22, 22);
    avatarLabel->setAlignment(Qt::AlignCenter);
    avatarLabel->setFont(pixelFont(10, QFont::Bold));
    QString avatar = user.avatar.trimmed();
    if (avatar.isEmpty() && !user.name.isEmpty()) avatar = user.name.left(1).toUpper();
    avatarLabel->setText(avatar.left(2));

    nameLabel = new QLabel(user.name, this);
    nameLabel->setFont(pixelFont(12));
    nameLabel->setTextFormat(Qt::PlainText);
    nameLabel->setMinimumWidth(10);
    nameLabel->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);

    kickButton = new QToolButton(this);
    kickButton->setText(QStringLiteral("✕"));
    // On our own row the button closes the session; on another client's it takes that session over.
    kickButton->setToolTip(user.isSelf ? QStringLiteral("关闭会话") : QStringLiteral("接管会话"));
    kickButton->setAutoRaise(true);
    kickButton->setFixedSize(20, 20);
    kickButton->setVisible(false);
    connect(kickButton, &QToolButton::clicked, this, [this] {
        if (auto* d = delegate_.get()) d->userCellDidClickKick(user_);
    });

    for (QWidget* w : std::initializer_list<QWidget*>{avatarContainer, avatarLabel, nameLabel})
        w->setAttribute(Qt::WA_TransparentForMouseEvents);

    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(14, 0, 8, 0);
    row->setSpacing(8);
    row->addWidget(avatarContainer, 0, Qt::AlignVCenter);
    row->addWidget(nameLabel, 1);
    row->addWidget(kickButton, 0, Qt::AlignVCenter);
    applyColors();
}

void UserCell::setActiveSession(bool active) {
    if (isActiveSession_ == active) return;
    isActiveSession_ = active;
    applyColors();
}

void UserCell::applyColors() {
    const bool dark = Theme::isDarkMode();
    setTextColor(nameLabel, Theme::label());
    nameLabel->setFont(pixelFont(12, isActiveSession_ ? QFont::DemiBold : QFont::Normal));
    const QColor avatarBg = user_.isSelf ? Theme::accent() : Theme::grey(dark ? 0.4 : 0.6);
    avatarLabel->setStyleSheet(QStringLiteral("QLabel { background: %1; color: white; border-radius: 11px; }")
                                   .arg(avatarBg.name()));
    kickButton->setStyleSheet(QStringLiteral("QToolButton { color: %1; border: 0; border-radius: 10px; }"
                                             "QToolButton:hover { background: %2; color: %3; }")
                                  .arg(Theme::secondaryLabel().name(),
                                       (dark ? Theme::grey(1.0, 0.12) : Theme::grey(0.0, 0.08)).name(QColor::HexArgb),
                                       Theme::label().name()));
    update();
}

void UserCell::paintEvent(QPaintEvent*) {
    const bool dark = Theme::isDarkMode();
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const QRectF box = QRectF(rect()).adjusted(6.5, 2.0, -6.5, -2.0);
    p.setPen(Qt::NoPen);
    if (isActiveSession_) {
        QColor tint = Theme::accent();
        tint.setAlphaF(dark ? 0.32 : 0.16);
        p.setBrush(tint);
        p.drawRoundedRect(box, 6, 6);
    } else if (isHovered_) {
        p.setBrush(dark ? Theme::grey(1.0, 0.06) : Theme::grey(0.0, 0.05));
        p.drawRoundedRect(box, 6, 6);
    }
}

void UserCell::mousePressEvent(QMouseEvent* e) {
    pressed_ = e->button() == Qt::LeftButton;
    e->accept();
}

void UserCell::mouseReleaseEvent(QMouseEvent* e) {
    const bool click = pressed_ && e->button() == Qt::LeftButton && rect().contains(e->position().toPoint());
    pressed_ = false;
    if (click) {
        if (auto* d = delegate_.get()) d->userCellDidClick(user_);
    }
}

QMenu* UserCell::makeContextMenu(QWidget* parent) {
    auto* menu = new QMenu(parent);
    const User user = user_;
    WeakDelegate<UserCellDelegate> delegate = delegate_;
    // The choices run after the menu has closed (queued, and not tied to the menu, which deletes
    // itself on close), with the row's record copied: the row itself may be rebuilt meanwhile.
    QAction* edit = menu->addAction(QStringLiteral("⚙ 编辑环境变量…"));
    connect(
        edit, &QAction::triggered, qApp,
        [user, delegate] {
            if (auto* d = delegate.get()) d->userCellDidRequestEditEnv(user);
        },
        Qt::QueuedConnection);
    menu->addSeparator();
    if (!user.isSelf) {
        // Another client's shell is not ours to close or delete: it can only be taken over (the
        // workspace asks first), as its row's button does.
        QAction* takeOver = menu->addAction(QStringLiteral("⇄ 接管会话"));
        connect(
            takeOver, &QAction::triggered, qApp,
            [user, delegate] {
                if (auto* d = delegate.get()) d->userCellDidClickKick(user);
            },
            Qt::QueuedConnection);
        return menu;
    }
    QAction* close = menu->addAction(QStringLiteral("✕ 关闭会话"));
    connect(
        close, &QAction::triggered, qApp,
        [user, delegate] {
            if (auto* d = delegate.get()) d->userCellDidRequestClose(user);
        },
        Qt::QueuedConnection);
    auto* remove = new QWidgetAction(menu);
    remove->setText(QStringLiteral("🗑 删除会话（含环境变量）"));
    remove->setDefaultWidget(new ColoredMenuItem(remove->text(), Theme::systemRed(), remove, menu));
    menu->addAction(remove);
    QPointer<UserCell> self(this);
    QPointer<QWidget> owner(parent);
    connect(
        remove, &QAction::triggered, qApp,
        [self, owner, user, delegate] {
            QWidget* anchor = self ? static_cast<QWidget*>(self) : owner.data();
            if (!deleteConfirmation()(anchor)) return;
            if (auto* d = delegate.get()) d->userCellDidRequestDelete(user);
        },
        Qt::QueuedConnection);
    return menu;
}

void UserCell::confirmAndDelete() {
    const User user = user_;
    WeakDelegate<UserCellDelegate> delegate = delegate_;
    if (!deleteConfirmation()(this)) return;  // `this` may be gone now; only copies are used below
    if (auto* d = delegate.get()) d->userCellDidRequestDelete(user);
}

std::function<bool(QWidget*)>& UserCell::deleteConfirmation() {
    static std::function<bool(QWidget*)> ask = [](QWidget* parent) {
        QMessageBox box(parent ? parent->window() : nullptr);
        box.setIcon(QMessageBox::Warning);
        box.setText(QStringLiteral("确认删除会话？"));
        box.setInformativeText(QStringLiteral("将关闭终端并清除保存的环境变量配置，此操作不可撤销。"));
        QPushButton* del = box.addButton(QStringLiteral("删除"), QMessageBox::DestructiveRole);
        QPushButton* cancel = box.addButton(QStringLiteral("取消"), QMessageBox::RejectRole);
        box.setDefaultButton(cancel);
        box.setEscapeButton(cancel);
        box.exec();
        return box.clickedButton() == del;
    };
    return ask;
}

void UserCell::contextMenuEvent(QContextMenuEvent* e) {
    QMenu* menu = makeContextMenu(this);
    menu->setAttribute(Qt::WA_DeleteOnClose);
    menu->popup(e->globalPos());
}

void UserCell::enterEvent(QEnterEvent* e) {
    isHovered_ = true;
    kickButton->setVisible(true);
    update();
    QWidget::enterEvent(e);
}

void UserCell::leaveEvent(QEvent* e) {
    isHovered_ = false;
    kickButton->setVisible(false);
    update();
    QWidget::leaveEvent(e);
}

void UserCell::changeEvent(QEvent* e) {
    if (Theme::isPaletteChange(e)) applyColors();
    QWidget::changeEvent(e);
}

}  // namespace ostv
