#include "HostCell.h"

#include <QEvent>
#include <QFontDatabase>
#include <QHBoxLayout>
#include <QPainter>
#include <QTextDocument>
#include <QVBoxLayout>

#include "HostListModel.h"
#include "OsIcons.h"
#include "Theme.h"

namespace ostv {

namespace {

// A one-line label that shortens its text with an ellipsis instead of growing the row.
class ElidingLabel : public QLabel {
public:
    using QLabel::QLabel;
    QSize minimumSizeHint() const override { return QSize(20, QLabel::minimumSizeHint().height()); }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter p(this);
        p.setPen(palette().color(foregroundRole()));
        p.setFont(font());
        const QString shown = fontMetrics().elidedText(text(), Qt::ElideRight, contentsRect().width());
        p.drawText(contentsRect(), int(alignment()), shown);
    }
};

void setTextColor(QLabel* label, const QColor& c) {
    QPalette p = label->palette();
    p.setColor(QPalette::WindowText, c);
    p.setColor(QPalette::Text, c);  // inside a list the label draws with Text
    label->setPalette(p);
}

QFont pixelFont(int px, QFont::Weight weight = QFont::Normal, bool fixed = false) {
    QFont f = fixed ? QFontDatabase::systemFont(QFontDatabase::FixedFont) : QFont();
    f.setPixelSize(px);
    f.setWeight(weight);
    return f;
}

}  // namespace

StatusDot::StatusDot(QWidget* parent) : QWidget(parent) { setFixedSize(8, 8); }

void StatusDot::setColor(const QColor& c) {
    color_ = c;
    update();
}

void StatusDot::paintEvent(QPaintEvent*) {
    if (!color_.isValid()) return;
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(Qt::NoPen);
    p.setBrush(color_);
    p.drawEllipse(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5));
}

HostCell::HostCell(QWidget* parent) : QWidget(parent) {
    setFixedHeight(rowHeight);
    setAttribute(Qt::WA_Hover);

    statusDot = new StatusDot(this);
    osIconView = new QLabel(this);
    osIconView->setFixedSize(20, 20);
    nameLabel = new ElidingLabel(this);
    nameLabel->setFont(pixelFont(13, QFont::DemiBold));
    osLabel = new ElidingLabel(this);
    osLabel->setFont(pixelFont(10, QFont::Medium));
    osLabel->setMaximumWidth(72);
    osLabel->hide();
    statusLabel = new QLabel(this);
    statusLabel->setFont(pixelFont(11));
    userCountLabel = new QLabel(this);
    userCountLabel->setFont(pixelFont(11));
    userCountLabel->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    cpuLabel = new QLabel(this);
    memLabel = new QLabel(this);
    for (QLabel* l : {cpuLabel, memLabel}) {
        l->setFont(pixelFont(10, QFont::Normal, true));
        l->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    }
    // Clicks go through to the list, which owns selection and double-click.
    for (QWidget* w : std::initializer_list<QWidget*>{statusDot, osIconView, nameLabel, osLabel, statusLabel,
                                                      userCountLabel, cpuLabel, memLabel})
        w->setAttribute(Qt::WA_TransparentForMouseEvents);

    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(16, 6, 16, 6);
    row->setSpacing(0);
    row->addWidget(statusDot, 0, Qt::AlignVCenter);
    row->addSpacing(9);
    row->addWidget(osIconView, 0, Qt::AlignVCenter);
    row->addSpacing(10);

    auto* text = new QVBoxLayout;
    text->setContentsMargins(0, 0, 0, 0);
    text->setSpacing(2);
    auto* top = new QHBoxLayout;
    top->setSpacing(6);
    top->addWidget(nameLabel, 1);
    top->addWidget(userCountLabel);
    auto* bottom = new QHBoxLayout;
    bottom->setSpacing(8);
    bottom->addWidget(osLabel);
    bottom->addWidget(statusLabel);
    bottom->addStretch(1);
    bottom->addWidget(cpuLabel);
    bottom->addWidget(memLabel);
    text->addLayout(top);
    text->addLayout(bottom);
    row->addLayout(text, 1);

    applyColors();
}

void HostCell::configure(const Host& host) {
    host_ = host;
    osIconView->setPixmap(OsIcons::pixmap(HostRows::osIconName(host.os), 20, Theme::isDarkMode(), devicePixelRatioF()));
    nameLabel->setText(host.title());
    const QString caption = HostRows::osCaption(host);
    osLabel->setText(caption);
    osLabel->setVisible(!caption.isEmpty());
    // As plain text: a host name is the server's text and must not be read as markup.
    setToolTip(Qt::convertFromPlainText(HostRows::toolTip(host), Qt::WhiteSpaceNoWrap));
    statusLabel->setText(rawValue(host.status));
    userCountLabel->setText(HostRows::userCountText(host.userCount));
    statusDot->setColor(HostRows::colorFromHex(HostRows::statusColorText(host.status)).value_or(QColor()));
    updateResources(host);
    update();
}

void HostCell::updateResources(const Host& host) {
    host_.cpuLoad = host.cpuLoad;
    host_.memLoad = host.memLoad;
    const HostRows::LoadLabels labels = HostRows::loadLabels(host);
    cpuLabel->setText(labels.cpu);
    memLabel->setText(labels.mem);
    cpuLabel->setVisible(!labels.cpu.isEmpty());
    memLabel->setVisible(!labels.mem.isEmpty());
}

void HostCell::applyColors() {
    setTextColor(nameLabel, Theme::label());
    for (QLabel* l : {osLabel, statusLabel, userCountLabel, cpuLabel, memLabel}) setTextColor(l, Theme::secondaryLabel());
    if (!host_.id.isEmpty() || !host_.name.isEmpty())
        osIconView->setPixmap(
            OsIcons::pixmap(HostRows::osIconName(host_.os), 20, Theme::isDarkMode(), devicePixelRatioF()));
    update();
}

void HostCell::paintEvent(QPaintEvent*) {
    const bool dark = Theme::isDarkMode();
    const QRectF box = QRectF(rect()).adjusted(6.5, 2.5, -6.5, -2.5);
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    if (host_.isSelected) {
        p.setPen(QPen(Theme::accent(), 1.0));
        p.setBrush(Theme::grey(dark ? 0.2 : 0.85));
        p.drawRoundedRect(box, 6, 6);
    } else if (isHovered_) {
        p.setPen(Qt::NoPen);
        p.setBrush(dark ? Theme::grey(1.0, 0.06) : Theme::grey(0.0, 0.05));
        p.drawRoundedRect(box, 6, 6);
    }
}

void HostCell::enterEvent(QEnterEvent* e) {
    isHovered_ = true;
    update();
    QWidget::enterEvent(e);
}

void HostCell::leaveEvent(QEvent* e) {
    isHovered_ = false;
    update();
    QWidget::leaveEvent(e);
}

void HostCell::changeEvent(QEvent* e) {
    if (Theme::isPaletteChange(e)) {
        applyColors();
    }
    QWidget::changeEvent(e);
}

}  // namespace ostv
