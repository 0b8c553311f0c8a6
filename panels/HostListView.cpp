#include "HostListView.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QStyledItemDelegate>
#include <QVBoxLayout>

#include "Theme.h"

namespace ostv {

namespace {

QString hex(const QColor& c) { return c.name(QColor::HexRgb); }

// The cells draw selection, hover and focus themselves: the list paints nothing under them. (No style
// sheet on the list either: it would override the colours of the cells' labels.)
class BlankRowDelegate : public QStyledItemDelegate {
public:
    using QStyledItemDelegate::QStyledItemDelegate;
    void paint(QPainter*, const QStyleOptionViewItem&, const QModelIndex&) const override {}
};

}  // namespace

HostListView::HostListView(QWidget* parent) : QWidget(parent), model_(new HostListModel(this)) {
    setAutoFillBackground(true);
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);

    createBrand();
    column->addWidget(brandView);
    column->addWidget(brandBorder);

    tableView = new QListWidget(this);
    tableView->setFrameShape(QFrame::NoFrame);
    tableView->setSelectionMode(QAbstractItemView::SingleSelection);
    tableView->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    tableView->setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    tableView->setUniformItemSizes(true);
    tableView->setMouseTracking(true);
    tableView->setSpacing(0);
    tableView->setItemDelegate(new BlankRowDelegate(tableView));
    column->addWidget(tableView, 1);

    buttonDivider = new QFrame(this);
    buttonDivider->setFixedHeight(1);
    column->addWidget(buttonDivider);

    addButton = new QPushButton(QStringLiteral("+ 添加受控端"), this);
    addButton->setFlat(true);
    addButton->setCursor(Qt::PointingHandCursor);
    addButton->setFixedHeight(40);
    column->addWidget(addButton);

    connect(addButton, &QPushButton::clicked, this, &HostListView::onAddClick);
    // Selection, not the current row: the list moves its current row by itself when it takes focus,
    // and that is no choice of the user.
    connect(tableView, &QListWidget::itemSelectionChanged, this, &HostListView::onSelectionChanged);
    connect(tableView, &QListWidget::itemDoubleClicked, this, &HostListView::onDoubleClicked);
    connect(model_, &HostListModel::hostsReloaded, this, &HostListView::reloadData);
    connect(model_, &HostListModel::hostChanged, this, [this](int row) {
        if (HostCell* cell = cellAt(row)) cell->configure(model_->hosts().at(row));
        syncCurrentRow();
    });
    connect(model_, &HostListModel::resourcesChanged, this, [this](int row) {
        if (HostCell* cell = cellAt(row)) cell->updateResources(model_->hosts().at(row));
    });
    connect(model_, &HostListModel::unauthorized, this, [this] {
        if (auto* d = delegate_.get()) d->hostListViewNeedsLogin(this);
    });

    applyTheme();
}

// The model owns the poll timer and goes with this view, so polling ends with it and an answer still
// in flight finds nothing to update.
HostListView::~HostListView() = default;

void HostListView::createBrand() {
    brandView = new QWidget(this);
    brandView->setAutoFillBackground(true);
    brandView->setFixedHeight(44);
    auto* row = new QHBoxLayout(brandView);
    row->setContentsMargins(16, 0, 16, 0);
    brandLabel_ = new QLabel(brandView);
    QFont f = brandLabel_->font();
    f.setPixelSize(13);
    brandLabel_->setFont(f);
    brandLabel_->setTextFormat(Qt::RichText);
    row->addWidget(brandLabel_);
    row->addStretch(1);
    brandBorder = new QFrame(this);
    brandBorder->setFixedHeight(1);
    brandBorder->setAutoFillBackground(true);
}

void HostListView::applyTheme() {
    const bool dark = Theme::isDarkMode();
    auto fill = [](QWidget* w, const QColor& c) {
        QPalette p = w->palette();
        p.setColor(QPalette::Window, c);
        p.setColor(QPalette::Base, c);
        w->setPalette(p);
        w->setAutoFillBackground(true);
    };
    fill(brandView, Theme::grey(dark ? 0.15 : 0.95));
    fill(brandBorder, Theme::grey(dark ? 0.2 : 0.85));
    fill(buttonDivider, Theme::grey(dark ? 0.2 : 0.85));
    fill(this, Theme::grey(dark ? 0.13 : 0.97));
    fill(tableView->viewport(), Theme::grey(dark ? 0.13 : 0.97));
    brandLabel_->setText(QStringLiteral("<span style=\"font-weight:700; letter-spacing:1px; color:%1\">QUORV</span>"
                                        "&nbsp;<span style=\"font-weight:700; letter-spacing:1px; "
                                        "color:%2\">DRASK</span>")
                             .arg(hex(Theme::label()), hex(Theme::accent())));
    addButton->setStyleSheet(QStringLiteral("QPushButton { color: %1; border: 0; font-size: 13px; padding: 0 16px; "
                                            "text-align: left; }"
                                            "QPushButton:hover { color: %2; }")
                                 .arg(hex(Theme::accent()), hex(Theme::accent().lighter(dark ? 130 : 80))));
    for (int i = 0; i < tableView->count(); ++i)
        if (HostCell* cell = cellAt(i)) cell->configure(model_->hosts().value(i));
}

void HostListView::changeEvent(QEvent* e) {
    if (Theme::isPaletteChange(e)) applyTheme();
    QWidget::changeEvent(e);
}

HostCell* HostListView::cellAt(int row) const {
    QListWidgetItem* item = tableView->item(row);
    return item ? qobject_cast<HostCell*>(tableView->itemWidget(item)) : nullptr;
}

void HostListView::reloadData() {
    const QList<Host>& rows = model_->hosts();
    syncing_ = true;
    while (tableView->count() > rows.size()) delete tableView->takeItem(tableView->count() - 1);
    while (tableView->count() < rows.size()) {
        auto* item = new QListWidgetItem(tableView);
        item->setSizeHint(QSize(0, HostCell::rowHeight));
        tableView->setItemWidget(item, new HostCell);
    }
    for (int i = 0; i < rows.size(); ++i) cellAt(i)->configure(rows[i]);
    syncing_ = false;
    syncCurrentRow();
}

// Keeps the list's current row on the host marked selected, without reporting it as a user choice.
void HostListView::syncCurrentRow() {
    int selected = -1;
    const QList<Host>& rows = model_->hosts();
    for (int i = 0; i < rows.size(); ++i)
        if (rows[i].isSelected) selected = i;
    syncing_ = true;
    if (selected < 0) {
        tableView->clearSelection();
        tableView->setCurrentRow(-1);
    } else {
        tableView->setCurrentRow(selected);
    }
    syncing_ = false;
}

void HostListView::updateHost(const Host& host) { model_->updateHost(host); }

void HostListView::updateHostResources(const QString& id, const QString& cpu, const QString& mem) {
    model_->updateHostResources(id, cpu, mem);
}

void HostListView::selectHost(int index) { model_->selectHost(index); }

void HostListView::onSelectionChanged() {
    if (syncing_) return;
    const QList<QListWidgetItem*> chosen = tableView->selectedItems();
    if (chosen.isEmpty()) return;
    const int row = tableView->row(chosen.first());
    if (row < 0 || row >= model_->hosts().size()) return;
    if (!model_->hosts().at(row).isSelected) model_->selectHost(row);
    if (auto* d = delegate_.get()) d->hostListViewDidSelectHost(this, model_->hosts().at(row));
}

void HostListView::onDoubleClicked(QListWidgetItem* item) {
    const int row = tableView->row(item);
    if (row < 0 || row >= model_->hosts().size()) return;
    model_->selectHost(row);
    if (auto* d = delegate_.get()) d->hostListViewDidDoubleClickHost(this, model_->hosts().at(row));
}

void HostListView::onAddClick() {
    if (auto* d = delegate_.get()) d->hostListViewDidRequestAddHost(this);
}

}  // namespace ostv
