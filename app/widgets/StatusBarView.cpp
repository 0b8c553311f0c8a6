#include "StatusBarView.h"

#include <QEvent>
#include <QFontDatabase>
#include <QHBoxLayout>
#include <QPainter>

#include "Theme.h"

namespace ostv {

StatusBarView::StatusBarView(QWidget* parent) : QWidget(parent) {
    setFixedHeight(24);
    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(10, 0, 10, 0);
    row->setSpacing(4);
    iconLabel_ = new QLabel(this);
    textLabel_ = new QLabel(this);
    rightLabel_ = new QLabel(this);
    for (QLabel* l : {iconLabel_, textLabel_}) {
        QFont f = l->font();
        f.setPointSizeF(11 * 0.75);
        l->setFont(f);
    }
    QFont mono = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    mono.setPointSizeF(10 * 0.75);
    rightLabel_->setFont(mono);
    rightLabel_->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    row->addWidget(iconLabel_);
    row->addWidget(textLabel_);
    row->addStretch(1);
    row->addWidget(rightLabel_);
    iconColour_ = textColour_ = Theme::secondaryLabel();
    updateLayer();
}

void StatusBarView::setStatus(const ConnectionStatus& status) {
    currentStatus_ = status;
    const QColor secondary = Theme::secondaryLabel();
    switch (status.kind) {
        case ConnectionStatus::Kind::connected:
            iconLabel_->setText(QStringLiteral("●"));
            iconColour_ = Theme::systemGreen();
            textLabel_->setText(status.agentName && !status.agentName->isEmpty()
                                    ? QStringLiteral("已连接 — ") + *status.agentName
                                    : QStringLiteral("已连接"));
            textColour_ = secondary;
            break;
        case ConnectionStatus::Kind::reconnecting:
            iconLabel_->setText(QStringLiteral("⟳"));
            iconColour_ = Theme::systemOrange();
            textLabel_->setText(status.attempt >= 1 ? QStringLiteral("正在重连… (第 %1 次)").arg(status.attempt)
                                                    : QStringLiteral("正在重连…"));
            textColour_ = Theme::systemOrange();
            break;
        case ConnectionStatus::Kind::idle:
            iconLabel_->clear();
            textLabel_->clear();
            break;
        case ConnectionStatus::Kind::connecting:
            iconLabel_->setText(QStringLiteral("◦"));
            textLabel_->setText(QStringLiteral("正在连接…"));
            textColour_ = secondary;
            break;
        case ConnectionStatus::Kind::disconnected:
            iconLabel_->setText(QStringLiteral("⚠"));
            iconColour_ = Theme::systemOrange();
            textLabel_->setText(QStringLiteral("连接已断开"));
            textColour_ = Theme::systemOrange();
            break;
    }
    rightLabel_->clear();
    updateLayer();
}

void StatusBarView::updateLayer() {
    auto colour = [](QLabel* l, const QColor& c) {
        QPalette p = l->palette();
        p.setColor(QPalette::WindowText, c);
        l->setPalette(p);
    };
    colour(iconLabel_, iconColour_);
    colour(textLabel_, textColour_);
    colour(rightLabel_, Theme::secondaryLabel());
    update();
}

void StatusBarView::paintEvent(QPaintEvent*) {
    QPainter p(this);
    const bool dark = Theme::isDarkMode();
    p.fillRect(rect(), Theme::grey(dark ? 0.15 : 0.95));
    p.fillRect(QRect(0, 0, width(), 1), Theme::grey(dark ? 0.2 : 0.85));
}

void StatusBarView::changeEvent(QEvent* e) {
    if (e->type() == QEvent::PaletteChange) setStatus(currentStatus_);
    QWidget::changeEvent(e);
}

}  // namespace ostv
