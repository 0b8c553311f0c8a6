#include "TabItemView.h"

#include <algorithm>

#include <QEnterEvent>
#include <QGraphicsOpacityEffect>
#include <QHBoxLayout>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QResizeEvent>

#include "Theme.h"

namespace ostv {

TabItemView::TabItemView(int64_t ptyId, const QString& title, QWidget* parent) : QWidget(parent), ptyId_(ptyId) {
    setAttribute(Qt::WA_Hover);
    setMinimumWidth(30);
    setFixedHeight(26);
    setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);
    setCursor(Qt::PointingHandCursor);

    fullTitle_ = title;
    titleLabel_ = new QLabel(title, this);
    QFont f = titleLabel_->font();
    f.setPointSizeF(11 * 0.75 * 1.333);  // system font 11
    titleLabel_->setFont(f);
    titleLabel_->setTextFormat(Qt::PlainText);
    titleLabel_->setMinimumWidth(0);
    titleLabel_->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);  // may shrink: tabs share the width

    closeButton_ = new QToolButton(this);
    closeButton_->setText(QStringLiteral("✕"));
    closeButton_->setAutoRaise(true);
    closeButton_->setFocusPolicy(Qt::NoFocus);
    closeButton_->setCursor(Qt::ArrowCursor);
    closeButton_->setFixedSize(16, 16);
    closeButton_->setStyleSheet(QStringLiteral("QToolButton{border:none;background:transparent;font-size:11px;}"));
    closeOpacity_ = new QGraphicsOpacityEffect(closeButton_);
    closeOpacity_->setOpacity(0.0);
    closeButton_->setGraphicsEffect(closeOpacity_);
    connect(closeButton_, &QToolButton::clicked, this, [this] {
        if (onClose) onClose(ptyId_);
    });

    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(10, 0, 4, 0);
    row->setSpacing(4);
    row->addWidget(titleLabel_, 1);
    row->addWidget(closeButton_, 0);
    applyStyle();
}

QSize TabItemView::sizeHint() const {
    if (!titleLabel_) return {60, 26};  // asked during construction
    const int text = titleLabel_->fontMetrics().horizontalAdvance(fullTitle_);
    return {std::clamp(text + 10 + 4 + 16 + 12, 60, 200), 26};
}

QString TabItemView::title() const { return fullTitle_; }
void TabItemView::setTitle(const QString& title) {
    fullTitle_ = title;
    setToolTip(QString());
    elideTitle();
    updateGeometry();
}

void TabItemView::elideTitle() {
    // Tabs share the strip's width: a title that does not fit ends in "…" and shows whole as a tooltip.
    const int room = titleLabel_->width();
    const QFontMetrics fm = titleLabel_->fontMetrics();
    const bool fits = room <= 0 || fm.horizontalAdvance(fullTitle_) <= room;
    titleLabel_->setText(fits ? fullTitle_ : fm.elidedText(fullTitle_, Qt::ElideRight, room));
    setToolTip(fits ? QString() : fullTitle_);
}

void TabItemView::resizeEvent(QResizeEvent* e) {
    QWidget::resizeEvent(e);
    layout()->activate();  // the label's new width, before eliding for it
    elideTitle();
}

void TabItemView::setState(State s) {
    currentState_ = s;
    applyStyle();
}

void TabItemView::applyStyle() {
    const bool dark = Theme::isDarkMode();
    QColor text;
    bool showClose = true;
    switch (currentState_) {
        case State::active:
            background_ = QColor::fromRgbF(0.0, 0.47, 0.83, 0.85);
            text = Qt::white;
            break;
        case State::inactive:
            if (isHovered_) {
                background_ = Theme::grey(dark ? 0.2 : 0.85);
                text = Theme::label();
            } else {
                background_ = Qt::transparent;
                text = Theme::secondaryLabel();
                showClose = false;
            }
            break;
        case State::terminated:
            background_ = Qt::transparent;
            text = QColor(142, 142, 147);  // system grey
            break;
    }
    QPalette p = titleLabel_->palette();
    p.setColor(QPalette::WindowText, text);
    titleLabel_->setPalette(p);
    closeButton_->setStyleSheet(
        QStringLiteral("QToolButton{border:none;background:transparent;font-size:11px;color:%1;}").arg(text.name()));
    setCloseShown(showClose);
    update();
}

void TabItemView::setCloseShown(bool shown) {
    if (shown == closeShown_ && fade_) return;
    closeShown_ = shown;
    if (fade_) fade_->stop();
    auto* anim = new QPropertyAnimation(closeOpacity_, "opacity", this);
    anim->setDuration(150);
    anim->setStartValue(closeOpacity_->opacity());
    anim->setEndValue(shown ? 0.8 : 0.0);
    fade_ = anim;
    anim->start(QAbstractAnimation::DeleteWhenStopped);
}

void TabItemView::paintEvent(QPaintEvent*) {
    if (background_.alpha() == 0) return;
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    QPainterPath path;
    path.addRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), 13, 13);
    p.fillPath(path, background_);
}

void TabItemView::mousePressEvent(QMouseEvent* e) {
    if (e->button() == Qt::LeftButton && onSelect) onSelect(ptyId_);
    QWidget::mousePressEvent(e);
}

void TabItemView::enterEvent(QEnterEvent* e) {
    isHovered_ = true;
    applyStyle();
    QWidget::enterEvent(e);
}

void TabItemView::leaveEvent(QEvent* e) {
    isHovered_ = false;
    applyStyle();
    QWidget::leaveEvent(e);
}

void TabItemView::changeEvent(QEvent* e) {
    if (Theme::isPaletteChange(e)) applyStyle();
    QWidget::changeEvent(e);
}

}  // namespace ostv
