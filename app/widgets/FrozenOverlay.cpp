#include "FrozenOverlay.h"

#include <QEvent>
#include <QPainter>
#include <QVBoxLayout>

#include "Theme.h"

namespace ostv {

namespace {
QLabel* makeLabel(const QString& text, double pointSize, QWidget* parent) {
    auto* l = new QLabel(text, parent);
    QFont f = l->font();
    f.setPointSizeF(pointSize);
    l->setFont(f);
    l->setAlignment(Qt::AlignCenter);
    l->setTextFormat(Qt::PlainText);
    l->setWordWrap(true);
    return l;
}
}  // namespace

FrozenOverlay::FrozenOverlay(QWidget* parent) : QWidget(parent) {
    setAttribute(Qt::WA_StyledBackground, false);
    iconField_ = makeLabel(QStringLiteral("⏸"), 27, this);
    messageLabel_ = makeLabel(QStringLiteral("选择目录或添加会话以启动终端"), 10, this);
    hintLabel_ = makeLabel(QStringLiteral("在左侧目录树右键可快速启动 AI CLI"), 8.5, this);
    auto* col = new QVBoxLayout(this);
    col->setSpacing(8);
    col->addStretch(1);
    col->addWidget(iconField_);
    col->addWidget(messageLabel_);
    col->addWidget(hintLabel_);
    col->addStretch(1);
    applyTheme();
}

void FrozenOverlay::setMessage(const QString& text) { messageLabel_->setText(text); }

void FrozenOverlay::applyTheme() {
    const bool dark = Theme::isDarkMode();
    auto colour = [](QLabel* l, const QColor& c) {
        QPalette p = l->palette();
        p.setColor(QPalette::WindowText, c);
        l->setPalette(p);
    };
    colour(iconField_, Theme::secondaryLabel());
    colour(messageLabel_, Theme::secondaryLabel());
    colour(hintLabel_, Theme::grey(dark ? 0.55 : 0.5));
    update();
}

void FrozenOverlay::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.fillRect(rect(), Theme::grey(Theme::isDarkMode() ? 0.05 : 0.98, 0.9));
}

void FrozenOverlay::changeEvent(QEvent* e) {
    if (Theme::isPaletteChange(e)) applyTheme();
    QWidget::changeEvent(e);
}

}  // namespace ostv
