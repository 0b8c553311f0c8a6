#include "LoginViewController.h"

#include <QEvent>
#include <QFontDatabase>
#include <QPainter>
#include <QPointer>
#include <QTextBoundaryFinder>
#include <QVBoxLayout>

#include "AdminAPIClient.h"
#include "AdminPassword.h"
#include "AppDelegate.h"
#include "ServerConfig.h"
#include "Theme.h"

namespace ostv {

namespace {
const QChar kMask(0x25CF);  // ●

QLabel* label(const QString& text, double pt, QWidget* parent, bool bold = false) {
    auto* l = new QLabel(text, parent);
    QFont f = l->font();
    f.setPointSizeF(pt * 0.75);  // the design's sizes are in points of a 96-dpi screen
    f.setBold(bold);
    l->setFont(f);
    l->setAlignment(Qt::AlignCenter);
    l->setTextFormat(Qt::PlainText);
    return l;
}

QLineEdit* field(const QString& placeholder, QWidget* parent) {
    auto* f = new QLineEdit(parent);
    f->setPlaceholderText(placeholder);
    f->setFixedHeight(32);
    QFont font = f->font();
    font.setPointSizeF(13 * 0.75);
    f->setFont(font);
    f->setAttribute(Qt::WA_MacShowFocusRect, false);
    f->setInputMethodHints(Qt::ImhNoPredictiveText | Qt::ImhNoAutoUppercase);
    return f;
}
}  // namespace

namespace {
// Where each character (as the user sees one: a grapheme, which may be several code points and, past
// the basic plane, more than one UTF-16 unit) ends.
QList<qsizetype> characterEnds(const QString& text) {
    QList<qsizetype> ends;
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    while (finder.toNextBoundary() > 0) ends.append(finder.position());
    return ends;
}
}  // namespace

QString applyPasswordEdit(const QString& text, QString& password) {
    const qsizetype typed = characterEnds(text).size();
    QList<qsizetype> ends = characterEnds(password);
    if (typed > ends.size()) {
        for (char32_t c : text.toUcs4())
            if (c != kMask.unicode()) password.append(QString::fromUcs4(&c, 1));
        ends = characterEnds(password);
    } else if (typed < ends.size()) {
        password.truncate(typed > 0 ? ends.at(typed - 1) : 0);
        ends.resize(typed);
    }
    return QString(ends.size(), kMask);
}

LoginViewController::LoginViewController(QWidget* parent) : QWidget(parent) {
    resize(1280, 820);
    auto* outer = new QVBoxLayout(this);
    outer->addStretch(1);
    auto* column = new QVBoxLayout();
    column->setSpacing(40);
    outer->addLayout(column);
    outer->addStretch(1);

    auto* header = new QVBoxLayout();
    header->setSpacing(6);
    brandIcon_ = label(QString(), 56, this);
    brandIcon_->setFixedHeight(76);
    brandText_ = label(QStringLiteral("Ostvarren"), 48, this, true);
    subtitle_ = label(QStringLiteral("Remote terminals, relayed and shared"), 14, this);
    tagline_ = label(QStringLiteral("远程终端中继 · 多端协同 · 实时接管"), 13, this);
    header->addWidget(brandIcon_);
    header->addWidget(brandText_);
    header->addWidget(subtitle_);
    header->addWidget(tagline_);
    column->addLayout(header);

    card_ = new QWidget(this);
    card_->setObjectName(QStringLiteral("loginCard"));
    card_->setFixedWidth(380);
    auto* stack = new QVBoxLayout(card_);
    stack->setContentsMargins(24, 24, 24, 24);
    stack->setSpacing(14);
    hostField = field(QStringLiteral("服务器地址"), card_);
    userField = field(QStringLiteral("用户名"), card_);
    passField = field(QStringLiteral("密码"), card_);
    passField->setContextMenuPolicy(Qt::NoContextMenu);  // no copying the masks around
    errorLabel = new QLabel(card_);
    QFont ef = errorLabel->font();
    ef.setPointSizeF(11 * 0.75);
    errorLabel->setFont(ef);
    errorLabel->setAlignment(Qt::AlignCenter);
    errorLabel->setWordWrap(true);
    errorLabel->hide();
    loginButton = new QPushButton(QStringLiteral("登录"), card_);
    loginButton->setFixedHeight(36);
    QFont bf = loginButton->font();
    bf.setPointSizeF(14 * 0.75);
    bf.setWeight(QFont::DemiBold);
    loginButton->setFont(bf);
    loginButton->setDefault(true);
    for (QWidget* w : {static_cast<QWidget*>(hostField), static_cast<QWidget*>(userField),
                       static_cast<QWidget*>(passField), static_cast<QWidget*>(errorLabel),
                       static_cast<QWidget*>(loginButton)})
        stack->addWidget(w);
    auto* cardRow = new QHBoxLayout();
    cardRow->addStretch(1);
    cardRow->addWidget(card_);
    cardRow->addStretch(1);
    column->addLayout(cardRow);

    versionLabel = new QLabel(QStringLiteral("v1.0.0 · #04060750"), this);
    QFont vf = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    vf.setPointSizeF(11 * 0.75);
    versionLabel->setFont(vf);
    versionLabel->setAlignment(Qt::AlignCenter);
    column->addWidget(versionLabel);

    for (QLineEdit* f : {hostField, userField, passField})
        connect(f, &QLineEdit::returnPressed, this, &LoginViewController::onLoginClicked);
    connect(loginButton, &QPushButton::clicked, this, &LoginViewController::onLoginClicked);
    connect(passField, &QLineEdit::textEdited, this, &LoginViewController::controlTextDidChange);

    applyTheme();
    prefillDefaults();
    AdminAPIClient::shared().warmUp();  // open the connection while the user is still typing
}

void LoginViewController::prefillDefaults() {
    hostField->setText(ServerConfig::serverHost());
    const auto user = ServerConfig::string(SettingsKey::adminUsername);
    userField->setText(user && !user->isEmpty() ? *user : QString::fromLatin1(ServerConfig::defaultAdminUsername));
    const auto pass = AdminPassword::read();
    realPassword = pass && !pass->isEmpty() ? *pass : QString::fromLatin1(ServerConfig::defaultAdminPassword);
    passField->setText(QString(characterEnds(realPassword).size(), kMask));
}

void LoginViewController::controlTextDidChange(const QString& text) {
    const QString masked = applyPasswordEdit(text, realPassword);
    passField->setText(masked);
    passField->setCursorPosition(static_cast<int>(masked.size()));
}

void LoginViewController::onLoginClicked() {
    if (isLoading) return;
    const QString host = hostField->text().trimmed();
    const QString user = userField->text().trimmed();
    const QString pass = realPassword;
    if (host.isEmpty() || user.isEmpty() || pass.isEmpty()) {
        errorLabel->setText(QStringLiteral("请填写服务器地址、用户名和密码"));
        errorLabel->show();
        return;
    }
    ServerConfig::setString(SettingsKey::serverHost, host);
    ServerConfig::setString(SettingsKey::adminUsername, user);
    ServerConfig::defaults().sync();
    AdminPassword::write(pass);

    errorLabel->hide();
    isLoading = true;
    updateLoadingState();
    QPointer<LoginViewController> self(this);
    AdminAPIClient::shared().login(user, pass, [self](bool success, std::optional<QString> message) {
        if (!self) return;
        self->isLoading = false;
        self->updateLoadingState();
        if (success) {
            if (AppDelegate* app = AppDelegate::instance()) app->showMain();
        } else {
            self->errorLabel->setText(message.value_or(QStringLiteral("登录失败")));
            self->errorLabel->show();
        }
    });
}

void LoginViewController::updateLoadingState() {
    loginButton->setText(isLoading ? QStringLiteral("登录中…") : QStringLiteral("登录"));
    for (QWidget* w : {static_cast<QWidget*>(loginButton), static_cast<QWidget*>(hostField),
                       static_cast<QWidget*>(userField), static_cast<QWidget*>(passField)})
        w->setEnabled(!isLoading);
}

void LoginViewController::applyTheme() {
    const bool dark = Theme::isDarkMode();
    // The card and, inside it, rounded fields and the accent-coloured login button.
    const QColor accent = Theme::accent();
    card_->setStyleSheet(
        QStringLiteral("#loginCard{background:%1;border:1px solid %2;border-radius:12px;}"
                       "#loginCard QLineEdit{background:%3;color:%4;border:1px solid %5;border-radius:6px;"
                       "padding:0 8px;selection-background-color:%6;selection-color:white;}"
                       "#loginCard QLineEdit:focus{border:1px solid %6;}"
                       "#loginCard QLineEdit:disabled{color:%7;}"
                       "#loginCard QPushButton{background:%6;color:white;border:none;border-radius:6px;}"
                       "#loginCard QPushButton:hover{background:%8;}"
                       "#loginCard QPushButton:pressed{background:%9;}"
                       "#loginCard QPushButton:disabled{background:%10;color:rgba(255,255,255,190);}")
            .arg(Theme::grey(dark ? 0.15 : 0.95).name(), Theme::grey(dark ? 0.2 : 0.85).name(),
                 Theme::grey(dark ? 0.21 : 1.0).name(), Theme::label().name(), Theme::grey(dark ? 0.3 : 0.8).name(),
                 accent.name(), Theme::grey(dark ? 0.45 : 0.6).name(), accent.lighter(112).name(),
                 accent.darker(115).name())
            .arg(dark ? accent.darker(160).name() : accent.lighter(150).name()));
    const QIcon icon = AppDelegate::applicationIcon();
    const QPixmap brand = icon.pixmap(QSize(72, 72), devicePixelRatioF());
    if (!brand.isNull()) {
        brandIcon_->setPixmap(brand);
    } else {  // no icon in the resources: the glyph in the accent colour
        brandIcon_->setText(QStringLiteral("▣"));
        QPalette p = brandIcon_->palette();
        p.setColor(QPalette::WindowText, accent);
        brandIcon_->setPalette(p);
    }
    auto colour = [](QLabel* l, const QColor& c) {
        QPalette p = l->palette();
        p.setColor(QPalette::WindowText, c);
        l->setPalette(p);
    };
    colour(tagline_, Theme::secondaryLabel());
    colour(subtitle_, Theme::label());
    colour(errorLabel, Theme::systemRed());
    colour(versionLabel, Theme::grey(dark ? 0.55 : 0.5));
    update();
}

void LoginViewController::showEvent(QShowEvent* e) {
    QWidget::showEvent(e);
    if (!focused_) {
        focused_ = true;
        userField->setFocus(Qt::OtherFocusReason);  // the cursor starts in the user-name field
    }
}

void LoginViewController::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.fillRect(rect(), Theme::grey(Theme::isDarkMode() ? 0.12 : 0.97));
}

void LoginViewController::changeEvent(QEvent* e) {
    if (e->type() == QEvent::PaletteChange) applyTheme();
    QWidget::changeEvent(e);
}

}  // namespace ostv
