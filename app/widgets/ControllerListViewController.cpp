#include "ControllerListViewController.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QVBoxLayout>

#include "Theme.h"

namespace ostv {

namespace {
QLabel* text(const QString& s, double pt, const QColor& c, QWidget* parent) {
    auto* l = new QLabel(s, parent);
    QFont f = l->font();
    f.setPointSizeF(pt * 0.75);
    l->setFont(f);
    l->setTextFormat(Qt::PlainText);
    QPalette p = l->palette();
    p.setColor(QPalette::WindowText, c);
    l->setPalette(p);
    return l;
}
}  // namespace

ControllerListViewController::ControllerListViewController(std::vector<ControllerInfo> controllers, int64_t limit,
                                                           int64_t current, QWidget* parent)
    : QDialog(parent, Qt::Sheet), controllers_(std::move(controllers)) {
    setWindowModality(Qt::WindowModal);
    setWindowTitle(QStringLiteral("选择会话"));
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(20, 18, 20, 16);
    column->setSpacing(8);
    titleLabel = text(QStringLiteral("选择会话 (%1/%2 controllers)").arg(current).arg(limit), 14, Theme::label(), this);
    subtitleLabel = text(QStringLiteral("已达到最大连接数，选择要接管的会话"), 11, Theme::secondaryLabel(), this);
    column->addWidget(titleLabel);
    column->addWidget(subtitleLabel);

    tableView = new QListWidget(this);
    tableView->setFixedWidth(440);
    tableView->setMinimumHeight(160);
    tableView->setSelectionMode(QAbstractItemView::SingleSelection);
    tableView->setSpacing(1);
    tableView->setVerticalScrollBarPolicy(Qt::ScrollBarAsNeeded);
    tableView->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    for (const ControllerInfo& c : controllers_) {
        auto* cell = new QWidget;
        auto* rows = new QVBoxLayout(cell);
        rows->setContentsMargins(10, 4, 10, 4);
        rows->setSpacing(2);
        RowLabels labels{text(QString::fromStdString(c.nickname), 13, Theme::label(), cell),
                         text(QString::fromStdString(c.cwd), 11, Theme::secondaryLabel(), cell), nullptr};
        // A long name or directory is shortened to the row (a path in the middle, where it matters least);
        // the tool tip has it all.
        const int room = tableView->width() - 2 * 10 - 8;
        labels.nickname->setText(labels.nickname->fontMetrics().elidedText(labels.nickname->text(), Qt::ElideRight, room));
        labels.cwd->setToolTip(labels.cwd->text());
        labels.cwd->setText(labels.cwd->fontMetrics().elidedText(labels.cwd->text(), Qt::ElideMiddle, room));
        rows->addStretch(1);  // the lines stay together, centred in the row
        rows->addWidget(labels.nickname);
        rows->addWidget(labels.cwd);
        if (c.workspacePty) {
            labels.pty = text(QStringLiteral("PTY: ") + QString::fromStdString(*c.workspacePty), 10, Theme::systemBlue(), cell);
            rows->addWidget(labels.pty);
        }
        rows->addStretch(1);
        rows_.push_back(labels);
        auto* item = new QListWidgetItem(tableView);
        item->setSizeHint(QSize(420, std::max(48, cell->sizeHint().height())));
        tableView->setItemWidget(item, cell);
    }
    column->addWidget(tableView);

    auto* buttons = new QHBoxLayout();
    buttons->addStretch(1);
    cancelButton = new QPushButton(QStringLiteral("取消"), this);
    takeoverButton = new QPushButton(QStringLiteral("接管"), this);
    cancelButton->setAutoDefault(false);
    takeoverButton->setDefault(true);  // Return
    takeoverButton->setEnabled(false);
    buttons->addWidget(cancelButton);
    buttons->addWidget(takeoverButton);
    column->addLayout(buttons);

    connect(tableView, &QListWidget::itemSelectionChanged, this, &ControllerListViewController::selectionChanged);
    connect(cancelButton, &QPushButton::clicked, this, &ControllerListViewController::onCancel);
    connect(takeoverButton, &QPushButton::clicked, this, &ControllerListViewController::onTakeover);
    applyColours();
}

void ControllerListViewController::selectionChanged() {
    const int row = tableView->currentRow();
    const bool valid = !tableView->selectedItems().isEmpty() && row >= 0 && row < static_cast<int>(controllers_.size());
    if (valid) selectedController_ = controllers_[static_cast<size_t>(row)];
    takeoverButton->setEnabled(valid);
    applyColours();
}

void ControllerListViewController::applyColours() {
    auto colour = [](QLabel* l, const QColor& c) {
        if (!l) return;
        QPalette p = l->palette();
        p.setColor(QPalette::WindowText, c);
        l->setPalette(p);
    };
    colour(titleLabel, Theme::label());
    colour(subtitleLabel, Theme::secondaryLabel());
    tableView->setStyleSheet(QStringLiteral("QListWidget{border:1px solid %1;border-radius:6px;background:transparent;}")
                                 .arg(Theme::border().name()));
    for (size_t i = 0; i < rows_.size(); ++i) {
        const QListWidgetItem* item = tableView->item(static_cast<int>(i));
        const bool selected = item && item->isSelected();
        const QColor onHighlight = palette().color(QPalette::HighlightedText);
        colour(rows_[i].nickname, selected ? onHighlight : Theme::label());
        colour(rows_[i].cwd, selected ? QColor(onHighlight.red(), onHighlight.green(), onHighlight.blue(), 210)
                                      : Theme::secondaryLabel());
        colour(rows_[i].pty, selected ? onHighlight : Theme::systemBlue());
    }
}

void ControllerListViewController::changeEvent(QEvent* e) {
    if (e->type() == QEvent::PaletteChange) applyColours();
    QDialog::changeEvent(e);
}

void ControllerListViewController::onTakeover() {
    if (!selectedController_) return;
    finished_ = true;
    if (auto* d = delegate_.get()) d->controllerListViewControllerDidSelectController(this, *selectedController_);
    accept();
}

void ControllerListViewController::onCancel() { reject(); }

void ControllerListViewController::reject() {
    if (!finished_) {
        finished_ = true;
        if (auto* d = delegate_.get()) d->controllerListViewControllerDidCancel(this);
    }
    QDialog::reject();
}

}  // namespace ostv
