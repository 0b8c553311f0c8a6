#include "PreferencesViewController.h"

#include <QEvent>
#include <QFontDatabase>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QPointer>
#include <QTimer>
#include <QVBoxLayout>

#include "AdminPassword.h"
#include "AppDelegate.h"
#include "ServerConfig.h"
#include "Theme.h"

namespace ostv {

int64_t parsePortField(const QString& text, int64_t fallback) {
    if (text.isEmpty()) return fallback;
    QString digits = text;
    if (digits.startsWith(QLatin1Char('+'))) {
        digits.remove(0, 1);
        if (digits.startsWith(QLatin1Char('-'))) return fallback;  // one sign at most
    }
    if (digits.isEmpty() || digits.startsWith(QLatin1Char('+'))) return fallback;
    for (qsizetype i = 0; i < digits.size(); ++i) {
        const QChar c = digits.at(i);
        if (!(c.isDigit() && c.unicode() < 128) && !(i == 0 && c == QLatin1Char('-'))) return fallback;
    }
    bool ok = false;
    const qlonglong v = digits.toLongLong(&ok);
    return ok ? static_cast<int64_t>(v) : fallback;
}

namespace {
QLineEdit* monoField(const QString& placeholder, QWidget* parent, bool secure = false) {
    auto* f = new QLineEdit(parent);
    f->setPlaceholderText(placeholder);
    f->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    f->setFixedHeight(24);
    f->setMinimumWidth(240);
    if (secure) f->setEchoMode(QLineEdit::Password);
    return f;
}
}  // namespace

PreferencesViewController::PreferencesViewController(QWidget* parent) : QDialog(parent, Qt::Sheet) {
    setWindowTitle(QStringLiteral("偏好设置"));
    setWindowModality(Qt::WindowModal);
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(24, 20, 24, 20);
    column->setSpacing(12);
    auto* heading = new QLabel(QStringLiteral("服务器设置"), this);
    QFont hf = heading->font();
    hf.setBold(true);
    heading->setFont(hf);
    column->addWidget(heading);

    auto* form = new QFormLayout();
    form->setLabelAlignment(Qt::AlignRight | Qt::AlignVCenter);
    form->setHorizontalSpacing(12);
    form->setVerticalSpacing(10);
    serverField = monoField(QString::fromLatin1(ServerConfig::defaultServerHost), this);
    quicPortField = monoField(QStringLiteral("9090"), this);
    adminPortField = monoField(QStringLiteral("8080"), this);
    passwordField = monoField(QStringLiteral("quill_tarn"), this, true);
    auto addRow = [&](const QString& text, QLineEdit* f) {
        auto* l = new QLabel(text, this);
        l->setFixedWidth(100);
        l->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
        rowLabels_.append(l);
        form->addRow(l, f);
    };
    addRow(QStringLiteral("服务器地址"), serverField);
    addRow(QStringLiteral("QUIC 端口"), quicPortField);
    addRow(QStringLiteral("Admin 端口"), adminPortField);
    addRow(QStringLiteral("Admin 密码"), passwordField);
    column->addLayout(form);

    statusLabel = new QLabel(this);
    statusLabel->setWordWrap(true);
    column->addWidget(statusLabel);

    auto* buttons = new QHBoxLayout();
    buttons->addStretch(1);
    cancelButton = new QPushButton(QStringLiteral("取消"), this);
    saveButton = new QPushButton(QStringLiteral("保存"), this);
    cancelButton->setFixedWidth(80);
    saveButton->setFixedWidth(80);
    saveButton->setDefault(true);  // Return saves; Escape cancels (the dialog's reject)
    buttons->addWidget(cancelButton);
    buttons->addWidget(saveButton);
    column->addLayout(buttons);
    connect(saveButton, &QPushButton::clicked, this, &PreferencesViewController::onSave);
    connect(cancelButton, &QPushButton::clicked, this, &PreferencesViewController::onCancel);
    applyTheme();
    loadSettings();
}

void PreferencesViewController::setStatus(const QString& text, StatusKind kind) {
    statusLabel->setText(text);
    statusKind_ = kind;
    applyTheme();
}

void PreferencesViewController::applyTheme() {
    auto colour = [](QLabel* l, const QColor& c) {
        QPalette p = l->palette();
        p.setColor(QPalette::WindowText, c);
        l->setPalette(p);
    };
    for (QLabel* l : rowLabels_) colour(l, Theme::secondaryLabel());
    colour(statusLabel, statusKind_ == StatusKind::error ? Theme::systemRed() : Theme::systemGreen());
}

void PreferencesViewController::changeEvent(QEvent* e) {
    if (e->type() == QEvent::PaletteChange) applyTheme();
    QDialog::changeEvent(e);
}

void PreferencesViewController::loadSettings() {
    serverField->setText(ServerConfig::serverHost());
    const int64_t quic = ServerConfig::integer(SettingsKey::serverQuicPort);
    quicPortField->setText(quic > 0 ? QString::number(quic) : QStringLiteral("9090"));
    const int64_t admin = ServerConfig::integer(SettingsKey::adminServerPort);
    adminPortField->setText(admin > 0 ? QString::number(admin) : QStringLiteral("8080"));
    passwordField->setText(AdminPassword::read().value_or(QString::fromLatin1(ServerConfig::defaultAdminPassword)));
}

void PreferencesViewController::onSave() {
    const QString host = serverField->text().trimmed();
    if (host.isEmpty()) {
        setStatus(QStringLiteral("服务器地址不能为空"), StatusKind::error);
        return;
    }
    const int64_t quic = parsePortField(quicPortField->text(), ServerConfig::defaultQuicPort);
    const int64_t admin = parsePortField(adminPortField->text(), ServerConfig::defaultAdminPort);
    ServerConfig::setString(SettingsKey::serverHost, host);
    ServerConfig::setInteger(SettingsKey::serverQuicPort, quic);
    ServerConfig::setInteger(SettingsKey::adminServerPort, admin);
    ServerConfig::defaults().sync();
    AdminPassword::write(passwordField->text());
    setStatus(QStringLiteral("✓ 已保存，请重新登录"), StatusKind::saved);
    saveButton->setEnabled(false);

    QPointer<PreferencesViewController> self(this);
    QTimer::singleShot(returnDelayMs, [self] {
        if (self) self->accept();
        if (AppDelegate* app = AppDelegate::instance()) app->showLogin();
    });
}

void PreferencesViewController::onCancel() { reject(); }

}  // namespace ostv
