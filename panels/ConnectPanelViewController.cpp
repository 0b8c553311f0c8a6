#include "ConnectPanelViewController.h"

#include <QEvent>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QPainter>
#include <QVariantAnimation>

#include "ConnectPanelLogic.h"
#include "LocalUser.h"
#include "Logger.h"
#include "Message.h"
#include "ServerConfig.h"
#include "SessionController.h"
#include "Theme.h"

namespace ostv {

namespace {

QFont pixelFont(int px, QFont::Weight weight = QFont::Normal) {
    QFont f;
    f.setPixelSize(px);
    f.setWeight(weight);
    return f;
}

void setTextColor(QWidget* w, const QColor& c) {
    QPalette p = w->palette();
    p.setColor(QPalette::WindowText, c);
    p.setColor(QPalette::Text, c);
    w->setPalette(p);
}

// The default display name: the local login name. It cannot change while the application runs, so
// the process behind it is started once, not on every panel.
QString currentNickname() {
    static const QString name = localLoginName();
    return name;
}

}  // namespace

// --- mode ---

ConnectPanelMode ConnectPanelMode::newSession(const QString& code, std::optional<QString> homeDir,
                                              std::optional<QString> agentOS, std::optional<QString> machineId) {
    ConnectPanelMode m;
    m.kind = Kind::newSession;
    m.code = code;
    m.homeDir = std::move(homeDir);
    m.agentOS = std::move(agentOS);
    m.machineId = std::move(machineId);
    return m;
}

ConnectPanelMode ConnectPanelMode::editSession(const QString& code, const QString& cwd,
                                               std::optional<QString> agentOS, std::optional<QString> machineId) {
    ConnectPanelMode m;
    m.kind = Kind::editSession;
    m.code = code;
    m.cwd = cwd;
    m.agentOS = std::move(agentOS);
    m.machineId = std::move(machineId);
    return m;
}

ConnectPanelMode ConnectPanelMode::newHost() { return ConnectPanelMode(); }

// --- spinner ---

ActivitySpinner::ActivitySpinner(QWidget* parent) : QWidget(parent) {
    setFixedSize(14, 14);
    timer_.setInterval(60);
    connect(&timer_, &QTimer::timeout, this, [this] {
        angle_ = (angle_ + 30) % 360;
        update();
    });
}

void ActivitySpinner::startAnimation() {
    timer_.start();
    update();
}

void ActivitySpinner::stopAnimation() { timer_.stop(); }

void ActivitySpinner::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    QPen pen(Theme::secondaryLabel(), 1.8, Qt::SolidLine, Qt::RoundCap);
    p.setPen(pen);
    p.drawArc(QRectF(rect()).adjusted(1.5, 1.5, -1.5, -1.5), -angle_ * 16, 270 * 16);
}

// --- panel ---

ConnectPanelViewController::ConnectPanelViewController(const ConnectPanelMode& mode, QWidget* parent)
    : QDialog(parent), mode_(mode) {
    setAttribute(Qt::WA_DeleteOnClose);
    setWindowTitle(QStringLiteral(" "));
    setFixedWidth(460);
    buildControls();
    configureForMode();
    loadSavedEnvVars();
    applyTheme();
}

ConnectPanelViewController::~ConnectPanelViewController() = default;

void ConnectPanelViewController::present() {
    setWindowModality(Qt::WindowModal);
    open();
}

void ConnectPanelViewController::buildControls() {
    auto* root = new QVBoxLayout(this);
    root->setContentsMargins(22, 18, 22, 16);
    root->setSpacing(10);

    titleLabel = new QLabel(this);
    titleLabel->setFont(pixelFont(15, QFont::Bold));
    root->addWidget(titleLabel);

    auto* form = new QGridLayout;
    form->setHorizontalSpacing(10);
    form->setVerticalSpacing(6);
    form->setColumnMinimumWidth(0, 60);
    form->setColumnStretch(1, 1);

    codeLabel = new QLabel(QStringLiteral("配对码"), this);
    codeField = new QLineEdit(this);
    codeField->setPlaceholderText(QStringLiteral("输入 6 位配对码"));
    codeField->setMaxLength(32);
    pairButton = new QPushButton(QStringLiteral("连接"), this);
    pairButton->setMinimumWidth(76);
    form->addWidget(codeLabel, 0, 0, Qt::AlignRight | Qt::AlignVCenter);
    form->addWidget(codeField, 0, 1);
    form->addWidget(pairButton, 0, 2);

    auto* pairRow = new QHBoxLayout;
    pairRow->setSpacing(6);
    pairSpinner = new ActivitySpinner(this);
    pairSpinner->hide();
    pairStatusLabel = new QLabel(this);
    pairStatusLabel->setFont(pixelFont(11));
    pairRow->addWidget(pairSpinner);
    pairRow->addWidget(pairStatusLabel, 1);
    form->addLayout(pairRow, 1, 1, 1, 2);

    nicknameLabel = new QLabel(QStringLiteral("显示名称"), this);
    nicknameField = new QLineEdit(this);
    nicknameField->setMaxLength(64);
    form->addWidget(nicknameLabel, 2, 0, Qt::AlignRight | Qt::AlignVCenter);
    form->addWidget(nicknameField, 2, 1, 1, 2);

    pathLabel = new QLabel(QStringLiteral("工作目录"), this);
    pathField = new QLineEdit(this);
    pathField->setPlaceholderText(QStringLiteral("/home/user 或 C:\\Users\\user"));
    form->addWidget(pathLabel, 3, 0, Qt::AlignRight | Qt::AlignVCenter);
    form->addWidget(pathField, 3, 1, 1, 2);
    root->addLayout(form);

    auto* envHeader = new QHBoxLayout;
    envHeader->setSpacing(6);
    envDisclosure = new QToolButton(this);
    envDisclosure->setText(QStringLiteral("环境变量"));
    envDisclosure->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    envDisclosure->setArrowType(Qt::RightArrow);
    envDisclosure->setAutoRaise(true);
    envDisclosure->setCursor(Qt::PointingHandCursor);
    envHintLabel = new QLabel(QStringLiteral("新终端启动时在该目录下导出"), this);
    envHintLabel->setFont(pixelFont(11));
    addEnvButton = new QPushButton(QStringLiteral("添加环境变量"), this);
    envHeader->addWidget(envDisclosure);
    envHeader->addWidget(envHintLabel, 1);
    envHeader->addWidget(addEnvButton);
    root->addLayout(envHeader);

    envScrollView = new QScrollArea(this);
    envScrollView->setWidgetResizable(true);
    envScrollView->setFrameShape(QFrame::StyledPanel);
    envScrollView->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    envRowsHost_ = new QWidget;
    envStack = new QVBoxLayout(envRowsHost_);
    envStack->setContentsMargins(6, 6, 6, 6);
    envStack->setSpacing(4);
    envStack->addStretch(1);
    envScrollView->setWidget(envRowsHost_);
    root->addWidget(envScrollView);

    statusLabel = new QLabel(this);
    statusLabel->setFont(pixelFont(12));
    statusLabel->setWordWrap(true);
    root->addWidget(statusLabel);
    root->addStretch(1);

    auto* buttons = new QHBoxLayout;
    buttons->addStretch(1);
    cancelButton = new QPushButton(QStringLiteral("关闭"), this);
    confirmButton = new QPushButton(QStringLiteral("确认"), this);
    confirmButton->setDefault(true);
    cancelButton->setAutoDefault(false);
    pairButton->setAutoDefault(false);
    addEnvButton->setAutoDefault(false);
    buttons->addWidget(cancelButton);
    buttons->addWidget(confirmButton);
    root->addLayout(buttons);

    connect(codeField, &QLineEdit::textChanged, this, &ConnectPanelViewController::updatePairButton);
    connect(codeField, &QLineEdit::returnPressed, this, [this] {
        if (mode_.kind == ConnectPanelMode::Kind::newHost && !isPaired_) onPair();
    });
    connect(pairButton, &QPushButton::clicked, this, &ConnectPanelViewController::onPair);
    connect(confirmButton, &QPushButton::clicked, this, &ConnectPanelViewController::onConfirm);
    connect(cancelButton, &QPushButton::clicked, this, &ConnectPanelViewController::onCancel);
    connect(addEnvButton, &QPushButton::clicked, this, &ConnectPanelViewController::onAddEnvRow);
    connect(envDisclosure, &QToolButton::clicked, this, &ConnectPanelViewController::onToggleEnv);

    setEnvExpanded(false, false);
}

void ConnectPanelViewController::configureForMode() {
    using Kind = ConnectPanelMode::Kind;
    if (mode_.kind != Kind::newHost) agentOS_ = mode_.agentOS;
    const QString storedName = ServerConfig::string(SettingsKey::lastNickname).value_or(QString());
    switch (mode_.kind) {
        case Kind::newHost:
            titleLabel->setText(QStringLiteral("添加受控端"));
            codeField->clear();
            setFieldEditable(codeField, true);
            isPaired_ = false;
            pairButton->show();
            pairButton->setEnabled(false);
            setFieldEditable(pathField, false);
            pathField->setEnabled(false);  // greyed out until the agent is paired
            nicknameField->setText(storedName);
            confirmButton->setText(QStringLiteral("确认"));
            confirmButton->setEnabled(false);
            codeField->setFocus();
            break;
        case Kind::newSession:
            titleLabel->setText(QStringLiteral("添加新的本机会话"));
            codeField->setText(mode_.code);
            setFieldEditable(codeField, false);
            isPaired_ = true;
            pairButton->hide();
            setFieldEditable(pathField, true);
            if (mode_.homeDir && !mode_.homeDir->isEmpty()) pathField->setText(*mode_.homeDir);
            nicknameField->setText(storedName);
            confirmButton->setText(QStringLiteral("确认"));
            confirmButton->setEnabled(true);
            pathField->setFocus();
            break;
        case Kind::editSession:
            titleLabel->setText(QStringLiteral("编辑会话"));
            codeField->setText(mode_.code);
            setFieldEditable(codeField, false);
            isPaired_ = true;
            pairButton->hide();
            pathField->setText(mode_.cwd);
            setFieldEditable(pathField, false);
            nicknameLabel->hide();
            nicknameField->hide();
            confirmButton->setText(QStringLiteral("保存"));
            confirmButton->setEnabled(true);
            // Expanded on the next turn of the event loop, once the panel is built.
            QTimer::singleShot(0, this, [this] { setEnvExpanded(true, false); });
            break;
    }
    if (mode_.kind != Kind::newHost) {
        pathField->setPlaceholderText(ConnectPanelLogic::pathPlaceholder(agentOS_));
        pairStatusLabel->hide();  // nothing to pair: no empty line under the code
    }
    // The whoami name is what an empty display name stands for.
    if (!nicknameField->isHidden()) nicknameField->setPlaceholderText(currentNickname());
}

void ConnectPanelViewController::setFieldEditable(QLineEdit* field, bool editable) {
    field->setReadOnly(!editable);
    field->setFocusPolicy(editable ? Qt::StrongFocus : Qt::ClickFocus);
    setTextColor(field, editable ? Theme::label() : Theme::secondaryLabel());
}

void ConnectPanelViewController::setStatus(QLabel* label, const QString& text, const QColor& color) {
    label->setText(text);
    setTextColor(label, color);
}

void ConnectPanelViewController::applyTheme() {
    setFieldEditable(codeField, !codeField->isReadOnly());
    setFieldEditable(pathField, !pathField->isReadOnly());
    setTextColor(envHintLabel, Theme::secondaryLabel());
    for (QLabel* l : {codeLabel, nicknameLabel, pathLabel}) setTextColor(l, Theme::label());
}

void ConnectPanelViewController::changeEvent(QEvent* e) {
    if (Theme::isPaletteChange(e)) applyTheme();
    QDialog::changeEvent(e);
}

// --- pairing ---

void ConnectPanelViewController::updatePairButton() {
    if (mode_.kind != ConnectPanelMode::Kind::newHost || isPaired_) return;
    // While a pairing runs the button stays "连接中…" and disabled.
    if (pairTimeoutTimer_ && pairTimeoutTimer_->isActive()) return;
    pairButton->setEnabled(ConnectPanelLogic::isValidPairingCode(codeField->text()));
}

void ConnectPanelViewController::onPair() {
    const QString code = ConnectPanelLogic::trimmedCode(codeField->text());
    if (!ConnectPanelLogic::isValidPairingCode(code)) return;

    pairButton->setText(QStringLiteral("连接中…"));
    pairButton->setEnabled(false);
    pairSpinner->show();
    pairSpinner->startAnimation();
    pairStatusLabel->clear();
    statusLabel->clear();

    if (pairTimeoutTimer_) pairTimeoutTimer_->deleteLater();
    pairTimeoutTimer_ = new QTimer(this);  // a child: it goes with the panel, so a late tick finds nothing
    pairTimeoutTimer_->setSingleShot(true);
    QTimer* timer = pairTimeoutTimer_;
    connect(timer, &QTimer::timeout, this, [this, timer] {
        if (timer != pairTimeoutTimer_ || isPaired_) return;
        pairDidFail(QStringLiteral("连接超时，请检查配对码和网络"));
    });
    timer->start(pairTimeoutMs_);

    const QString typedName = nicknameField->text().trimmed();
    const QString nickname = typedName.isEmpty() ? currentNickname() : typedName;
    ServerConfig::setString(SettingsKey::lastPairCode, code);
    if (!typedName.isEmpty()) ServerConfig::setString(SettingsKey::lastNickname, typedName);

    if (auto* d = delegate_.get()) d->connectPanelDidRequestPairWithCode(this, code, nickname);
}

void ConnectPanelViewController::pairDidSucceed(const std::optional<QString>& homeDir,
                                                const std::optional<QString>& agentOS) {
    isPaired_ = true;
    agentOS_ = agentOS;
    if (pairTimeoutTimer_) {
        pairTimeoutTimer_->stop();
        pairTimeoutTimer_->deleteLater();
        pairTimeoutTimer_ = nullptr;
    }
    pairSpinner->stopAnimation();
    pairSpinner->hide();

    pairButton->setText(QStringLiteral("已连接"));
    pairButton->setEnabled(false);
    setStatus(pairStatusLabel, QStringLiteral("✓ 连接成功"), Theme::systemGreen());

    setFieldEditable(codeField, false);
    pathField->setEnabled(true);
    setFieldEditable(pathField, true);
    if (homeDir && !homeDir->isEmpty() && pathField->text().isEmpty()) pathField->setText(*homeDir);
    pathField->setPlaceholderText(ConnectPanelLogic::pathPlaceholder(agentOS_));

    confirmButton->setEnabled(true);
    pairStatusLabel->clear();
    statusLabel->clear();
    pathField->setFocus();
}

void ConnectPanelViewController::pairDidFail(const QString& message) {
    if (pairTimeoutTimer_) {
        pairTimeoutTimer_->stop();
        pairTimeoutTimer_->deleteLater();
        pairTimeoutTimer_ = nullptr;
    }
    pairSpinner->stopAnimation();
    pairSpinner->hide();
    pairButton->setText(QStringLiteral("连接"));
    pairButton->setEnabled(true);
    setStatus(pairStatusLabel, QStringLiteral("✗ ") + message, Theme::systemRed());
}

// --- confirm ---

std::optional<QString> ConnectPanelViewController::validatePathFormat() const {
    return ConnectPanelLogic::validatePathFormat(pathField->text(), agentOS_);
}

void ConnectPanelViewController::sendListing(const QString& path) {
    if (!link_ || !link_->isLinkConnected()) return;
    Message m("fs_op");
    m.op = "list";
    m.path = path.toStdString();
    link_->send(m);
}

void ConnectPanelViewController::onConfirm() {
    if (!isPaired_ || closed_) return;
    if (mode_.kind == ConnectPanelMode::Kind::editSession) {
        saveEnvVars();
        const QString code = ConnectPanelLogic::trimmedCode(codeField->text());
        closePanel();
        if (auto* d = delegate_.get()) d->setCurrentConnectPanel(nullptr);
        ServerConfig::setString(SettingsKey::lastPairCode, code);
        Logger::session(("Saved env vars for cwd=" + mode_.cwd + ", code=" + code).toStdString());
        return;
    }
    if (const auto error = validatePathFormat()) {
        setStatus(statusLabel, *error, Theme::systemRed());
        return;
    }
    confirmButton->setEnabled(false);
    setStatus(statusLabel, QStringLiteral("正在验证路径…"), Theme::secondaryLabel());
    if (auto* d = delegate_.get()) d->setPendingPathValidation(true);
    // The agent's answer comes back through the workspace as pathValidated(). Without a link nothing
    // is sent and the panel waits; the user can close it.
    sendListing(pathField->text().trimmed());
}

void ConnectPanelViewController::pathValidated(bool exists) {
    if (closed_) return;
    if (!exists) {
        setStatus(statusLabel, QStringLiteral("路径不存在"), Theme::systemRed());
        confirmButton->setEnabled(true);
        return;
    }
    proceedWithConfirm();
}

void ConnectPanelViewController::proceedWithConfirm() {
    const QString path = pathField->text().trimmed();
    const QString typedName = nicknameField->text().trimmed();
    if (!typedName.isEmpty()) ServerConfig::setString(SettingsKey::lastNickname, typedName);

    const std::optional<QString> commands = gatherEnvCommands();
    if (envStorageKey()) {
        saveEnvVars();
        Logger::session(("Saved env vars for cwd=" + path + ", code=" + codeField->text().trimmed()).toStdString());
    }

    closePanel();
    auto* d = delegate_.get();
    if (d) {
        d->setCurrentConnectPanel(nullptr);
        d->setPendingAutoCreate(false);
        d->setPendingEnvCommands(commands);
        if (d->isConnected())
            d->allocateAndCreatePty(SessionController::lastPathComponent(path), std::nullopt, commands, path);
    }
    if (mode_.kind == ConnectPanelMode::Kind::newHost) sendListing(QStringLiteral("."));
}

void ConnectPanelViewController::onCancel() { closePanel(); }

void ConnectPanelViewController::closePanel() { done(QDialog::Rejected); }

void ConnectPanelViewController::done(int result) {
    if (!closed_) {
        closed_ = true;
        if (pairTimeoutTimer_) pairTimeoutTimer_->stop();
        pairSpinner->stopAnimation();
        if (auto* d = delegate_.get()) d->setCurrentConnectPanel(nullptr);
    }
    QDialog::done(result);
}

// --- environment rows ---

std::optional<QString> ConnectPanelViewController::envStorageKey() const {
    switch (mode_.kind) {
        case ConnectPanelMode::Kind::newSession:
            return EnvStore::sessionStorageKey(mode_.machineId.value_or(QString()), pathField->text(),
                                               mode_.homeDir.value_or(QString()));
        case ConnectPanelMode::Kind::editSession:
            return EnvStore::sessionStorageKey(mode_.machineId.value_or(QString()), mode_.cwd, QString());
        case ConnectPanelMode::Kind::newHost:
            return std::nullopt;
    }
    return std::nullopt;
}

QList<EnvRow> ConnectPanelViewController::envRowValues() const {
    QList<EnvRow> rows;
    for (const EnvRowView& r : envRows) rows.append({r.keyField->text(), r.valueField->text()});
    return rows;
}

QVariantList ConnectPanelViewController::serializeEnvVars() const { return EnvStore::serialize(envRowValues()); }

void ConnectPanelViewController::saveEnvVars() {
    if (const auto key = envStorageKey()) EnvStore::save(*key, envRowValues());
}

void ConnectPanelViewController::loadSavedEnvVars() {
    const auto key = envStorageKey();
    if (!key) return;
    for (const EnvRow& row : EnvStore::load(*key)) {
        onAddEnvRow();
        envRows.last().keyField->setText(row.key);
        envRows.last().valueField->setText(row.value);
    }
    // Loaded rows leave the section folded as it was built (adding a row by hand opens it).
    if (!envRows.isEmpty()) setEnvExpanded(false, false);
}

std::optional<QString> ConnectPanelViewController::gatherEnvCommands() const {
    return EnvStore::gatherEnvCommands(envRowValues());
}

void ConnectPanelViewController::onAddEnvRow() {
    EnvRowView r;
    r.view = new QWidget(envRowsHost_);
    auto* row = new QHBoxLayout(r.view);
    row->setContentsMargins(0, 0, 0, 0);
    row->setSpacing(6);
    r.keyField = new QLineEdit(r.view);
    r.keyField->setPlaceholderText(QStringLiteral("KEY"));
    r.valueField = new QLineEdit(r.view);
    r.valueField->setPlaceholderText(QStringLiteral("value"));
    r.deleteButton = new QToolButton(r.view);
    r.deleteButton->setText(QStringLiteral("✕"));
    r.deleteButton->setAutoRaise(true);
    r.deleteButton->setToolTip(QStringLiteral("删除"));
    row->addWidget(r.keyField, 2);
    row->addWidget(new QLabel(QStringLiteral("="), r.view));
    row->addWidget(r.valueField, 3);
    row->addWidget(r.deleteButton);
    QWidget* view = r.view;
    connect(r.deleteButton, &QToolButton::clicked, this, [this, view] { onDeleteEnvRow(view); });
    envStack->insertWidget(envStack->count() - 1, r.view);
    envRows.append(r);
    setEnvExpanded(true, isVisible());
    if (isVisible()) r.keyField->setFocus();
}

void ConnectPanelViewController::onDeleteEnvRow(QWidget* rowView) {
    for (int i = 0; i < envRows.size(); ++i) {
        if (envRows[i].view != rowView) continue;
        envStack->removeWidget(rowView);
        rowView->hide();
        rowView->deleteLater();  // its own delete button is the sender
        envRows.removeAt(i);
        return;
    }
}

void ConnectPanelViewController::onToggleEnv() { setEnvExpanded(!isEnvExpanded_, isVisible()); }

void ConnectPanelViewController::setEnvExpanded(bool expanded, bool animated) {
    const bool changed = isEnvExpanded_ != expanded;
    isEnvExpanded_ = expanded;
    envDisclosure->setArrowType(expanded ? Qt::DownArrow : Qt::RightArrow);
    if (envAnimation_) {
        envAnimation_->stop();
        envAnimation_->deleteLater();
        envAnimation_ = nullptr;
    }
    const double target = expanded ? 1.0 : 0.0;
    if (!animated || !changed) {
        applyEnvHeights(target);
        return;
    }
    envAnimation_ = new QVariantAnimation(this);
    envAnimation_->setDuration(180);
    envAnimation_->setEasingCurve(QEasingCurve::InOutQuad);
    envAnimation_->setStartValue(expanded ? 0.0 : 1.0);
    envAnimation_->setEndValue(target);
    connect(envAnimation_, &QVariantAnimation::valueChanged, this,
            [this](const QVariant& v) { applyEnvHeights(v.toDouble()); });
    envAnimation_->start();
}

void ConnectPanelViewController::applyEnvHeights(double t) {
    const int rows = int(expandedRowsHeight * t + 0.5);
    envScrollView->setFixedHeight(rows);
    envScrollView->setVisible(rows > 0);
    setFixedHeight(int(collapsedHeight + (expandedHeight - collapsedHeight) * t + 0.5));
}

}  // namespace ostv
