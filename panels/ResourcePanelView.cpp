#include "ResourcePanelView.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QMenu>
#include <QPainter>
#include <QPersistentModelIndex>
#include <QStyledItemDelegate>

#include "Message.h"
#include "Theme.h"

namespace ostv {

namespace {

constexpr int treeRowHeight = 24;
constexpr int maxVisibleSessionRows = 6;

QFont pixelFont(int px, QFont::Weight weight = QFont::Normal) {
    QFont f;
    f.setPixelSize(px);
    f.setWeight(weight);
    return f;
}

void fill(QWidget* w, const QColor& c) {
    QPalette p = w->palette();
    p.setColor(QPalette::Window, c);
    p.setColor(QPalette::Base, c);
    w->setPalette(p);
    w->setAutoFillBackground(true);
}

// One tree row: a folder or file character, then the name.
class DirectoryRowDelegate : public QStyledItemDelegate {
public:
    using QStyledItemDelegate::QStyledItemDelegate;

    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override {
        return QSize(QStyledItemDelegate::sizeHint(option, index).width(), treeRowHeight);
    }

    void paint(QPainter* p, const QStyleOptionViewItem& option, const QModelIndex& index) const override {
        QStyleOptionViewItem opt(option);
        initStyleOption(&opt, index);
        opt.text.clear();
        const QWidget* w = opt.widget;
        QStyle* style = w ? w->style() : nullptr;
        if (style) style->drawPrimitive(QStyle::PE_PanelItemViewItem, &opt, p, w);

        const bool isDir = index.data(DirectoryTreeModel::IsDirectoryRole).toBool();
        const bool selected = opt.state & QStyle::State_Selected;
        const QColor text = selected ? opt.palette.color(QPalette::HighlightedText)
                                     : (isDir ? Theme::label() : Theme::secondaryLabel());
        QRect r = opt.rect.adjusted(2, 0, -4, 0);
        p->save();
        const QFont iconFont = pixelFont(13);
        p->setFont(iconFont);
        p->setPen(text);
        const QString icon = isDir ? QStringLiteral("📂") : QStringLiteral("📄");
        const int iconWidth = QFontMetrics(iconFont).horizontalAdvance(icon);
        p->drawText(r, Qt::AlignLeft | Qt::AlignVCenter, icon);
        r.setLeft(r.left() + iconWidth + 6);
        const QFont nameFont = pixelFont(12);
        p->setFont(nameFont);
        const QString name = QFontMetrics(nameFont).elidedText(index.data().toString(), Qt::ElideRight, r.width());
        p->drawText(r, Qt::AlignLeft | Qt::AlignVCenter, name);
        p->restore();
    }
};

}  // namespace

FlippedStackView::FlippedStackView(QWidget* parent) : QWidget(parent), layout_(new QVBoxLayout(this)) {
    layout_->setContentsMargins(0, 4, 0, 4);
    layout_->setSpacing(0);
    layout_->addStretch(1);
}

void FlippedStackView::addRow(QWidget* row) { layout_->insertWidget(layout_->count() - 1, row); }

void FlippedStackView::removeAllRows() {
    for (QWidget* w : rows()) {
        layout_->removeWidget(w);
        w->hide();
        w->deleteLater();  // a row may be the sender of what is being handled right now
    }
}

QList<QWidget*> FlippedStackView::rows() const {
    QList<QWidget*> out;
    for (int i = 0; i < layout_->count(); ++i)
        if (QWidget* w = layout_->itemAt(i)->widget()) out.append(w);
    return out;
}

ResourcePanelView::ResourcePanelView(QWidget* parent)
    : QWidget(parent), treeModel_(new DirectoryTreeModel(this)) {
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);

    usersHeaderLabel = new QLabel(this);
    column->addWidget(makeSectionBar(usersHeaderLabel));

    usersScrollView = new QScrollArea(this);
    usersScrollView->setFrameShape(QFrame::NoFrame);
    usersScrollView->setWidgetResizable(true);
    usersScrollView->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    usersStack = new FlippedStackView;
    usersScrollView->setWidget(usersStack);
    column->addWidget(usersScrollView);
    themedViews_ << usersScrollView->viewport() << usersStack;

    addSessionButton = new QPushButton(QStringLiteral("+  添加新的本机会话"), this);
    addSessionButton->setFlat(true);
    addSessionButton->setCursor(Qt::PointingHandCursor);
    addSessionButton->setFixedHeight(32);
    connect(addSessionButton, &QPushButton::clicked, this, [this] {
        if (auto* d = delegate_.get()) d->resourcePanelViewDidClickAddSession(this);
    });
    column->addWidget(addSessionButton);

    mainDivider = new QFrame(this);
    mainDivider->setFixedHeight(1);
    themedBorders_ << mainDivider;
    column->addWidget(mainDivider);

    treeHeaderLabel = new QLabel(QStringLiteral("工作目录"), this);
    column->addWidget(makeSectionBar(treeHeaderLabel));

    outlineView = new QTreeView(this);
    outlineView->setModel(treeModel_);
    outlineView->setItemDelegate(new DirectoryRowDelegate(outlineView));
    outlineView->setHeaderHidden(true);
    outlineView->setFrameShape(QFrame::NoFrame);
    outlineView->setUniformRowHeights(true);
    outlineView->setExpandsOnDoubleClick(false);
    outlineView->setIndentation(14);
    outlineView->setContextMenuPolicy(Qt::CustomContextMenu);
    outlineView->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    outlineView->header()->setStretchLastSection(true);
    themedViews_ << outlineView->viewport();
    column->addWidget(outlineView, 1);

    connect(outlineView, &QTreeView::expanded, this, &ResourcePanelView::handleWillExpand);
    connect(outlineView, &QTreeView::collapsed, this,
            [this](const QModelIndex& index) { treeModel_->setExpanded(index, false); });
    connect(outlineView, &QTreeView::doubleClicked, this, &ResourcePanelView::onOutlineDoubleClick);
    connect(outlineView, &QWidget::customContextMenuRequested, this, [this](const QPoint& pos) {
        QMenu* menu = makeTreeMenu(outlineView->indexAt(pos), this);
        if (!menu) return;
        menu->setAttribute(Qt::WA_DeleteOnClose);
        menu->popup(outlineView->viewport()->mapToGlobal(pos));
    });

    refreshUsersList();
    updateHeader();
    applyTheme();
}

ResourcePanelView::~ResourcePanelView() = default;

QWidget* ResourcePanelView::makeSectionBar(QLabel* title) {
    auto* bar = new QWidget(this);
    bar->setFixedHeight(30);
    auto* row = new QHBoxLayout(bar);
    row->setContentsMargins(14, 0, 14, 0);
    title->setParent(bar);
    title->setFont(pixelFont(11, QFont::DemiBold));
    row->addWidget(title);
    row->addStretch(1);
    themedViews_ << bar;
    auto* border = new QFrame(this);
    border->setFixedHeight(1);
    themedBorders_ << border;
    auto* wrap = new QWidget(this);
    auto* v = new QVBoxLayout(wrap);
    v->setContentsMargins(0, 0, 0, 0);
    v->setSpacing(0);
    v->addWidget(bar);
    v->addWidget(border);
    bar->setProperty("sectionBar", true);
    return wrap;
}

void ResourcePanelView::applyTheme() {
    const bool dark = Theme::isDarkMode();
    const QColor listBg = Theme::grey(dark ? 0.12 : 0.98);
    fill(this, listBg);
    for (QWidget* w : themedViews_)
        fill(w, w->property("sectionBar").toBool() ? Theme::grey(dark ? 0.15 : 0.95) : listBg);
    for (QFrame* b : themedBorders_) fill(b, Theme::grey(dark ? 0.2 : 0.85));
    for (QLabel* l : {usersHeaderLabel, treeHeaderLabel}) {
        QPalette p = l->palette();
        p.setColor(QPalette::WindowText, Theme::secondaryLabel());
        p.setColor(QPalette::Text, Theme::secondaryLabel());
        l->setPalette(p);
    }
    addSessionButton->setStyleSheet(
        QStringLiteral("QPushButton { color: %1; border: 0; font-size: 12px; padding: 0 14px; text-align: left; }"
                       "QPushButton:hover { color: %2; }")
            .arg(Theme::accent().name(), Theme::accent().lighter(dark ? 130 : 80).name()));
    outlineView->setStyleSheet(QStringLiteral("QTreeView { background: %1; border: 0; outline: 0; }")
                                   .arg(listBg.name()));
    outlineView->viewport()->update();
}

void ResourcePanelView::changeEvent(QEvent* e) {
    if (Theme::isPaletteChange(e)) applyTheme();
    QWidget::changeEvent(e);
}

// --- tree ---

void ResourcePanelView::setDirectories(const QList<DirectoryItem>& items) { treeModel_->setDirectories(items); }

void ResourcePanelView::setChildren(const QList<DirectoryItem>& items, const QString& forPath) {
    treeModel_->setChildren(items, forPath);
}

void ResourcePanelView::handleWillExpand(const QModelIndex& index) {
    treeModel_->setExpanded(index, true);
    if (!treeModel_->needsListing(index)) return;
    if (!delegate_ || !link_ || !link_->isLinkConnected()) return;
    Message m("fs_op");
    m.op = "list";
    m.path = index.data(DirectoryTreeModel::PathRole).toString().toStdString();
    treeModel_->markListingRequested(index);
    link_->send(m);
}

void ResourcePanelView::onOutlineDoubleClick(const QModelIndex& index) {
    if (!index.isValid() || !index.data(DirectoryTreeModel::IsDirectoryRole).toBool()) return;
    if (outlineView->isExpanded(index))
        outlineView->collapse(index);
    else
        outlineView->expand(index);
}

QMenu* ResourcePanelView::makeTreeMenu(const QModelIndex& clicked, QWidget* parent) {
    if (!clicked.isValid()) return nullptr;
    auto* menu = new QMenu(parent);
    const QPersistentModelIndex row(clicked);
    QPointer<ResourcePanelView> self(this);
    connect(menu->addAction(QStringLiteral("🚀 在此目录启动 Kimi")), &QAction::triggered, this, [self, row] {
        if (self) self->launchKimi(row);
    });
    connect(menu->addAction(QStringLiteral("🤖 在此目录启动 Claude")), &QAction::triggered, this, [self, row] {
        if (self) self->launchClaude(row);
    });
    return menu;
}

void ResourcePanelView::launchKimi(const QModelIndex& clicked) {
    launchTool(clicked, QStringLiteral("Kimi"), QStringLiteral("kimi"));
}

void ResourcePanelView::launchClaude(const QModelIndex& clicked) {
    launchTool(clicked, QStringLiteral("Claude"), QStringLiteral("claude"));
}

void ResourcePanelView::launchTool(const QModelIndex& clicked, const QString& title, const QString& command) {
    const std::optional<DirectoryItem> item = treeModel_->item(clicked);
    if (!item) return;
    auto* d = delegate_.get();
    if (!d || !d->isConnected()) return;
    d->allocateAndCreatePty(title, command, std::nullopt, item->path);
}

// --- sessions ---

void ResourcePanelView::setUsers(const QList<User>& users, int limit) {
    users_ = users;
    userLimit_ = limit;
    refreshUsersList();
    updateHeader();
}

void ResourcePanelView::addUser(const User& user) {
    users_.append(user);
    refreshUsersList();
    updateHeader();
}

void ResourcePanelView::refreshUsersList() {
    usersStack->removeAllRows();
    for (const User& u : users_) {
        auto* cell = new UserCell(u, usersStack);
        cell->setDelegate(this);
        usersStack->addRow(cell);
    }
    const int shown = std::min<int>(int(users_.size()), maxVisibleSessionRows);
    usersScrollView->setFixedHeight(shown * UserCell::rowHeight + 8);
    highlightSession(activePtyId_);
}

void ResourcePanelView::updateHeader() {
    usersHeaderLabel->setText(QStringLiteral("本机会话 (%1/%2)").arg(users_.size()).arg(userLimit_));
}

void ResourcePanelView::highlightSession(int64_t ptyId) {
    activePtyId_ = ptyId;
    for (UserCell* cell : userCells()) {
        bool ok = false;
        const qlonglong n = cell->user().id.mid(4).toLongLong(&ok);
        // A PTY id is this client's: another client's row with the same number is not the active one.
        cell->setActiveSession(ok && n == ptyId && cell->user().isSelf);
    }
}

QList<UserCell*> ResourcePanelView::userCells() const {
    QList<UserCell*> out;
    for (QWidget* w : usersStack->rows())
        if (auto* cell = qobject_cast<UserCell*>(w)) out.append(cell);
    return out;
}

void ResourcePanelView::userCellDidClick(const User& user) {
    if (auto* d = delegate_.get()) d->resourcePanelViewDidClickSession(this, user);
}

void ResourcePanelView::userCellDidClickKick(const User& user) {
    if (auto* d = delegate_.get()) d->resourcePanelViewDidClickKickSession(this, user);
}

void ResourcePanelView::userCellDidRequestEditEnv(const User& user) {
    if (auto* d = delegate_.get()) d->resourcePanelViewDidRequestEditSession(this, user);
}

void ResourcePanelView::userCellDidRequestClose(const User& user) {
    if (auto* d = delegate_.get()) d->resourcePanelViewDidRequestCloseSession(this, user);
}

void ResourcePanelView::userCellDidRequestDelete(const User& user) {
    if (auto* d = delegate_.get()) d->resourcePanelViewDidRequestDeleteSession(this, user);
}

}  // namespace ostv
