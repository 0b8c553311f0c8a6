#include "TerminalView.h"

#include <QApplication>
#include <QClipboard>
#include <QDesktopServices>
#include <QEvent>
#include <QFontDatabase>
#include <QPainter>
#include <QResizeEvent>
#include <QUrl>
#include <QVBoxLayout>
#include <QWebChannel>
#include <QWebEnginePage>
#include <QWebEngineView>

#include "FrozenOverlay.h"
#include "Logger.h"
#include "OutputTrace.h"
#include "TabItemView.h"
#include "Theme.h"

namespace ostv {
namespace {

constexpr int kFrameMs = 16;  // output is coalesced per frame
constexpr qsizetype kMaxFrameBytes = 96 * 1024;  // per script call (128 KiB of base64)
constexpr qsizetype kMaxFramePiece = 48 * 1024;  // per writeOutput call
constexpr int64_t kPageBusyAbove = 64 * 1024;  // bytes handed to the page and not yet written

// The decoded size of well-formed base64 text: exactly what the page acknowledges once written.
int64_t decodedSize(const QString& b64) {
    qsizetype n = b64.size() / 4 * 3;
    if (b64.endsWith(QLatin1Char('='))) --n;
    if (b64.endsWith(QLatin1String("=="))) --n;
    return static_cast<int64_t>(n);
}

std::optional<int64_t> wholeNumber(const QVariant& v) {
    bool ok = false;
    switch (v.typeId()) {
        case QMetaType::Int:
        case QMetaType::LongLong:
        case QMetaType::UInt:
        case QMetaType::ULongLong: return v.toLongLong();
        case QMetaType::Double: {
            const double d = v.toDouble(&ok);
            if (!ok || d != static_cast<double>(static_cast<int64_t>(d))) return std::nullopt;
            return static_cast<int64_t>(d);
        }
        default: return std::nullopt;
    }
}

class Dot : public QWidget {
public:
    explicit Dot(QWidget* parent) : QWidget(parent) { setFixedSize(8, 8); }
    QColor colour = QColor(136, 136, 136);
protected:
    void paintEvent(QPaintEvent*) override {
        QPainter p(this);
        p.setRenderHint(QPainter::Antialiasing);
        p.setPen(Qt::NoPen);
        p.setBrush(colour);
        p.drawRoundedRect(rect(), 4, 4);
    }
};

QWidget* line(QWidget* parent) {
    auto* w = new QWidget(parent);
    w->setFixedHeight(1);
    w->setAutoFillBackground(true);
    return w;
}

}  // namespace

// ---- bridge ----

TerminalBridge::TerminalBridge(TerminalView* view) : QObject(view), view_(view) {}

void TerminalBridge::termReady() { view_->onPageReady(); }

void TerminalBridge::termInput(const QVariant& body) {
    if (body.typeId() != QMetaType::QVariantMap) return;
    const QVariantMap m = body.toMap();
    const QVariant data = m.value(QStringLiteral("data"));
    const auto id = wholeNumber(m.value(QStringLiteral("ptyId")));
    if (data.typeId() != QMetaType::QString || !id) return;
    view_->onInput(*id, data.toString());
}

void TerminalBridge::termResize(const QVariant& body) {
    if (body.typeId() != QMetaType::QVariantMap) return;
    const QVariantMap m = body.toMap();
    const auto cols = wholeNumber(m.value(QStringLiteral("cols")));
    const auto rows = wholeNumber(m.value(QStringLiteral("rows")));
    const auto id = wholeNumber(m.value(QStringLiteral("ptyId")));
    if (!cols || !rows || !id) return;
    view_->onResize(*id, *cols, *rows);
}

void TerminalBridge::ack(const QVariant& ptyId, const QVariant& bytes) {
    const auto id = wholeNumber(ptyId);
    const auto n = wholeNumber(bytes);
    if (id && n && *n > 0) view_->onAck(*id, *n);
}

void TerminalBridge::openLink(const QString& url) {
    const QUrl u(url);
    if (u.isValid() && (u.scheme() == QLatin1String("http") || u.scheme() == QLatin1String("https")))
        QDesktopServices::openUrl(u);
}

void TerminalBridge::copyText(const QString& text) {
    if (!text.isEmpty()) QGuiApplication::clipboard()->setText(text);
}

void TerminalBridge::selectionChanged(const QString& text) {
    QClipboard* cb = QGuiApplication::clipboard();
    if (cb->supportsSelection() && !text.isEmpty()) cb->setText(text, QClipboard::Selection);
}

void TerminalBridge::requestPaste() { view_->pasteFromClipboard(); }

// ---- view ----

TerminalView::TerminalView(QWidget* parent) : QWidget(parent) {
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);

    titleBar_ = new QWidget(this);
    titleBar_->setFixedHeight(34);
    titleBar_->setAutoFillBackground(true);
    auto* titleRow = new QHBoxLayout(titleBar_);
    titleRow->setContentsMargins(12, 0, 12, 0);
    titleRow->setSpacing(6);
    iconLabel_ = new QLabel(QStringLiteral("⌨"), titleBar_);
    titleLabel_ = new QLabel(QStringLiteral("终端"), titleBar_);
    QFont tf = titleLabel_->font();
    tf.setBold(true);
    titleLabel_->setFont(tf);
    hostLabel_ = new QLabel(titleBar_);
    hostLabel_->hide();
    latencyLabel_ = new QLabel(titleBar_);
    QFont mono = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    latencyLabel_->setFont(mono);
    latencyLabel_->hide();
    auto* dot = new Dot(titleBar_);
    statusDot_ = dot;
    titleRow->addWidget(iconLabel_);
    titleRow->addWidget(titleLabel_, 1);
    titleRow->addWidget(hostLabel_);
    titleRow->addWidget(latencyLabel_);
    titleRow->addWidget(statusDot_);
    column->addWidget(titleBar_);
    topBorderView_ = line(this);
    column->addWidget(topBorderView_);

    tabBar_ = new QWidget(this);
    tabBar_->setAutoFillBackground(true);
    auto* tabRow = new QHBoxLayout(tabBar_);
    tabRow->setContentsMargins(8, 2, 8, 2);
    tabRow->setSpacing(4);
    auto* stackHolder = new QWidget(tabBar_);
    tabStack_ = new QHBoxLayout(stackHolder);
    tabStack_->setContentsMargins(0, 0, 0, 0);
    tabStack_->setSpacing(4);
    tabStack_->addStretch(1);
    addTabButton_ = new QToolButton(tabBar_);
    addTabButton_->setText(QStringLiteral("+"));
    addTabButton_->setAutoRaise(true);
    addTabButton_->setFocusPolicy(Qt::NoFocus);
    addTabButton_->setToolTip(QStringLiteral("新建会话"));
    connect(addTabButton_, &QToolButton::clicked, this, [this] {
        if (auto* d = delegate_.get()) d->terminalViewDidRequestNewTab(this);
    });
    tabRow->addWidget(stackHolder, 1);
    tabRow->addWidget(addTabButton_);
    column->addWidget(tabBar_);
    tabBorderView_ = line(this);
    column->addWidget(tabBorderView_);

    contentView_ = new QWidget(this);
    auto* content = new QVBoxLayout(contentView_);
    content->setContentsMargins(0, 0, 0, 0);
    webView_ = new QWebEngineView(contentView_);
    content->addWidget(webView_);
    column->addWidget(contentView_, 1);

    frozenOverlay_ = new FrozenOverlay(contentView_);
    frozenOverlay_->raise();
    contentView_->installEventFilter(this);

    bridge_ = new TerminalBridge(this);
    channel_ = new QWebChannel(this);
    channel_->registerObject(QStringLiteral("bridge"), bridge_);
    webView_->page()->setWebChannel(channel_);
    webView_->page()->setBackgroundColor(Theme::isDarkMode() ? QColor(30, 30, 30) : Qt::white);
    connect(webView_->page(), &QWebEnginePage::renderProcessTerminated, this,
            [this](QWebEnginePage::RenderProcessTerminationStatus, int code) {
                // The page is gone with everything it drew: start it again and recreate the terminals,
                // so the sessions stay usable; nothing waits on acknowledgements that will never come.
                Logger::error("Terminal page process ended (code " + std::to_string(code) + "); reloading it");
                isWebViewReady = false;
                frame_.clear();
                frameBytes_ = 0;
                unackedPerPty_.clear();
                unacked_ = 0;
                held_.clear();
                heldTotal_ = 0;
                updatePause();
                pendingOutputs.clear();
                for (int64_t id : tabPtyIds) pendingOutputs.emplace_back(QStringLiteral("__CREATE__%1").arg(id), id);
                webView_->load(QUrl(QStringLiteral("qrc:/terminal/terminal.html")));
            });

    frameTimer_.setSingleShot(true);
    connect(&frameTimer_, &QTimer::timeout, this, &TerminalView::flushOutput);
    feedTimer_.setSingleShot(true);
    feedTimer_.setInterval(4);
    connect(&feedTimer_, &QTimer::timeout, this, &TerminalView::feedBackground);

    webView_->load(QUrl(QStringLiteral("qrc:/terminal/terminal.html")));
    updateTabBar();
    applyTheme();
}

TerminalView::~TerminalView() {
    if (auto* l = link_.get()) {  // never leave the link stalled or narrowed behind us
        if (receivePaused_) l->setReceivePaused(false);
        if (receiveNarrowed_) l->setReceiveNarrowed(false);
    }
}

void TerminalView::run(const QString& script) {
    if (!frame_.empty()) flushOutput();  // keep every call in order with the output before it
    if (scriptObserver) scriptObserver(script);
    webView_->page()->runJavaScript(script);
}

void TerminalView::flushOutput() {
    frameTimer_.stop();
    if (frame_.empty()) return;
    lastFlush_.start();
    QString script;
    script.reserve(frameBytes_ / 3 * 4 + 64 * static_cast<qsizetype>(frame_.size()));
    for (const auto& [id, bytes] : frame_) {
        trace::mark(trace::Stage::handedToPage, id);
        script += QStringLiteral("writeOutput('");
        script += QLatin1String(bytes.toBase64());
        script += QStringLiteral("',") + QString::number(id) + QStringLiteral(");");
    }
    frame_.clear();
    frameBytes_ = 0;
    if (scriptObserver) scriptObserver(script);
    webView_->page()->runJavaScript(script);
}

void TerminalView::onPageReady() {
    if (isWebViewReady) return;
    isWebViewReady = true;
    run(QStringLiteral("setTheme('%1')").arg(Theme::isDarkMode() ? "dark" : "light"));
    auto queued = std::move(pendingOutputs);
    pendingOutputs.clear();
    for (auto& [text, id] : queued) {
        if (text.startsWith(QLatin1String("__CREATE__"))) {
            if (!tabPtyIds.contains(id)) continue;  // closed while the page was loading
            run(QStringLiteral("createTerminal(%1)").arg(id));
            const QString title = tabTitles.count(id) ? tabTitles.at(id) : QString::number(id);
            activePtyId = id;
            if (!tabItems.count(id)) addTabItem(id, title);
            titleLabel_->setText(title);
            updateTabBar();
        } else {
            handOver(id, decodedSize(text));
            run(QStringLiteral("writeOutput('") + text + QStringLiteral("',") + QString::number(id) + QLatin1Char(')'));
        }
    }
    emit pageReady();
}

void TerminalView::createTab(int64_t ptyId, const QString& title) {
    if (tabPtyIds.contains(ptyId)) return;
    tabPtyIds.push_back(ptyId);
    if (!isWebViewReady) {
        // Made once the page is ready, tab item and all, in order with the output that follows.
        pendingOutputs.emplace_back(QStringLiteral("__CREATE__%1").arg(ptyId), ptyId);
        tabTitles[ptyId] = title;
        return;
    }
    run(QStringLiteral("createTerminal(%1)").arg(ptyId));
    activePtyId = ptyId;
    addTabItem(ptyId, title);
    titleLabel_->setText(title);
    updateTabBar();
}

void TerminalView::addTabItem(int64_t ptyId, const QString& title) {
    tabTitles[ptyId] = title;
    auto* item = new TabItemView(ptyId, title, tabBar_);
    QPointer<TerminalView> self(this);
    item->onSelect = [self](int64_t id) {
        if (self) self->switchTab(id);
    };
    item->onClose = [self](int64_t id) {
        if (self && self->tabPtyIds.size() >= 2) self->closeTab(id);  // the last tab's close does nothing
    };
    tabStack_->insertWidget(tabStack_->count() - 1, item);
    tabItems[ptyId] = item;
    updateTabStyles();
}

void TerminalView::updateTabStyles() {
    for (auto& [id, item] : tabItems) {
        if (terminatedTabs.contains(id))
            item->setState(TabItemView::State::terminated);
        else if (id == activePtyId)
            item->setState(TabItemView::State::active);
        else
            item->setState(TabItemView::State::inactive);
    }
}

void TerminalView::updateTabBar() {
    const bool show = tabPtyIds.size() >= 2;
    tabBar_->setFixedHeight(show ? 30 : 0);
    tabBar_->setVisible(show);
    tabBorderView_->setVisible(show);
}

void TerminalView::switchTab(int64_t ptyId) {
    activePtyId = ptyId;
    run(QStringLiteral("switchTerminal(%1)").arg(ptyId));
    releaseHeld(ptyId);  // what it missed while hidden, before anything newer
    updateTabStyles();
    if (auto it = tabTitles.find(ptyId); it != tabTitles.end()) titleLabel_->setText(it->second);
    if (tabPtyIds.contains(ptyId)) hideFrozenOverlay();
    if (auto* d = delegate_.get()) d->terminalViewDidSwitchToTab(this, ptyId);
}

void TerminalView::closeTab(int64_t ptyId) {
    const qsizetype index = tabPtyIds.indexOf(ptyId);
    if (index < 0) return;
    tabPtyIds.removeAt(index);
    run(QStringLiteral("removeTerminal(%1)").arg(ptyId));
    if (awaitingEcho_ == ptyId) awaitingEcho_ = 0;  // no echo will come
    dropHeld(ptyId);
    forgetUnacked(ptyId);
    if (auto it = tabItems.find(ptyId); it != tabItems.end()) {
        it->second->hide();
        it->second->deleteLater();
        tabItems.erase(it);
    }
    if (activePtyId == ptyId && !tabPtyIds.isEmpty()) switchTab(tabPtyIds.at(index > 0 ? index - 1 : 0));
    terminatedTabs.remove(ptyId);
    tabTitles.erase(ptyId);
    updateTabBar();
    if (auto* d = delegate_.get()) d->terminalViewDidCloseTab(this, ptyId);
}

void TerminalView::removeAllTabs() {
    for (int64_t id : tabPtyIds) run(QStringLiteral("removeTerminal(%1)").arg(id));
    for (auto& [id, item] : tabItems) {
        item->hide();
        item->deleteLater();
    }
    tabPtyIds.clear();
    tabItems.clear();
    terminatedTabs.clear();
    tabTitles.clear();
    pendingOutputs.clear();  // nothing queued for a terminal that no longer exists
    held_.clear();
    heldTotal_ = 0;
    awaitingEcho_ = 0;
    for (auto& [id, n] : std::map<int64_t, int64_t>(unackedPerPty_)) forgetUnacked(id);
    updatePause();
    updateTabBar();
}

QString TerminalView::escapeForScript(const QString& text) {
    QString out;
    out.reserve(text.size() + 8);
    for (QChar c : text) {
        switch (c.unicode()) {
            case '\\': out += QLatin1String("\\\\"); break;
            case '\'': out += QLatin1String("\\'"); break;
            case '\n': out += QLatin1String("\\n"); break;
            case '\r': out += QLatin1String("\\r"); break;
            case 0x2028: out += QLatin1String("\\u2028"); break;  // line breaks to a script, too
            case 0x2029: out += QLatin1String("\\u2029"); break;
            default: out += c;
        }
    }
    return out;
}

void TerminalView::maskTab(int64_t ptyId, const QString& message) {
    releaseHeld(ptyId);  // its last words are shown under the mask
    terminatedTabs.insert(ptyId);
    if (awaitingEcho_ == ptyId) {
        awaitingEcho_ = 0;  // no echo will come
        updatePause();
    }
    run(QStringLiteral("maskTerminal(%1,'%2')").arg(ptyId).arg(escapeForScript(message)));
    if (auto it = tabItems.find(ptyId); it != tabItems.end()) {
        const auto title = tabTitles.find(ptyId);
        const bool titled = title != tabTitles.end() && !title->second.isEmpty();
        it->second->setTitle(QStringLiteral("⊘ ") + (titled ? title->second : QStringLiteral("终端")));
    }
    updateTabStyles();
}

bool TerminalView::isWellFormedBase64(std::string_view text) {
    if (text.size() % 4 != 0) return false;
    size_t end = text.size();
    for (int pad = 0; pad < 2 && end > 0 && text[end - 1] == '='; ++pad) --end;
    for (size_t i = 0; i < end; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/'))
            return false;
    }
    return true;
}

void TerminalView::writeOutput(const std::string& base64, int64_t ptyId) {
    if (terminatedTabs.contains(ptyId)) return;
    // The text goes into a script call as it stands, so nothing but base64 may pass: anything else
    // (a broken or hostile peer) could end the quoted argument and run as script in the page.
    if (!isWellFormedBase64(base64)) {
        if (!loggedBadOutput_) {
            loggedBadOutput_ = true;
            Logger::error("Terminal output for PTY " + std::to_string(ptyId) + " is not base64; dropped");
        }
        return;
    }
    if (!isWebViewReady) {
        pendingOutputs.emplace_back(QString::fromLatin1(base64.data(), static_cast<qsizetype>(base64.size())), ptyId);
        return;
    }
    if (!tabPtyIds.contains(ptyId)) return;  // the page has no terminal for it either
    const QByteArray bytes = QByteArray::fromBase64(QByteArray::fromRawData(base64.data(), static_cast<qsizetype>(base64.size())));
    ++outputChunks_;
    if (ptyId == awaitingEcho_) awaitingEcho_ = 0;  // the echo is here: the usual mark again
    if (ptyId != activePtyId) {
        // A hidden tab's output waits here and goes to the page as the page makes room for it, so the
        // shown tab's output (an echo) never queues behind a flood in another tab.
        std::deque<QByteArray>& q = held_[ptyId];
        if (!q.empty() && q.back().size() + bytes.size() <= kMaxFramePiece)
            q.back() += bytes;
        else
            q.push_back(bytes);
        heldTotal_ += bytes.size();
        updatePause();
        // Fed a little later, many small pieces joined: each call into the page has its own cost.
        if (!feedTimer_.isActive()) feedTimer_.start();
        return;
    }
    handOver(ptyId, bytes.size());
    queueForPage(ptyId, bytes);
    const auto own = unackedPerPty_.find(ptyId);
    const int64_t ownUnacked = own == unackedPerPty_.end() ? 0 : own->second;
    if (frameBytes_ >= kMaxFrameBytes) {
        flushOutput();  // very large scripts are not delivered reliably: hand over in slices
    } else if (ownUnacked <= kPageBusyAbove && !frameTimer_.isActive()) {
        flushOutput();  // the page keeps up: at once, so an echo never waits for a frame
    } else if (!frameTimer_.isActive()) {
        // The page has fallen behind with this tab (much written and not yet acknowledged): its output
        // is joined into one call per frame.
        const qint64 since = lastFlush_.isValid() ? lastFlush_.elapsed() : kFrameMs;
        frameTimer_.start(static_cast<int>(std::max<qint64>(0, kFrameMs - since)));
    }
}

// Output waiting for the same frame is joined per terminal: the page writes a few large pieces much
// faster than many small ones. Each terminal still gets its bytes in order.
void TerminalView::queueForPage(int64_t ptyId, const QByteArray& bytes) {
    auto last = std::find_if(frame_.rbegin(), frame_.rend(), [&](const auto& e) { return e.first == ptyId; });
    if (last != frame_.rend() && last->second.size() + bytes.size() <= kMaxFramePiece)
        last->second += bytes;
    else
        frame_.emplace_back(ptyId, bytes);
    frameBytes_ += bytes.size();
}

// Hands held output of hidden tabs to the page, a piece per tab in turn, while the page has less than
// kBackgroundInPage of it to write.
void TerminalView::feedBackground() {
    if (!isWebViewReady || held_.empty()) return;
    const auto active = unackedPerPty_.find(activePtyId);
    int64_t inPage = unacked_ - (active == unackedPerPty_.end() ? 0 : active->second);
    bool fed = false;
    while (inPage < kBackgroundInPage && !held_.empty()) {
        auto it = held_.upper_bound(lastFed_);
        if (it == held_.end()) it = held_.begin();
        const int64_t id = it->first;
        QByteArray bytes = std::move(it->second.front());
        it->second.pop_front();
        if (it->second.empty()) held_.erase(it);
        lastFed_ = id;
        heldTotal_ -= bytes.size();
        inPage += bytes.size();
        handOver(id, bytes.size());
        queueForPage(id, bytes);
        fed = true;
        if (frameBytes_ >= kMaxFrameBytes) flushOutput();
    }
    if (fed) flushOutput();
}

void TerminalView::releaseHeld(int64_t ptyId) {
    auto it = held_.find(ptyId);
    if (it == held_.end()) return;
    std::deque<QByteArray> q = std::move(it->second);
    held_.erase(it);
    for (const QByteArray& bytes : q) {
        heldTotal_ -= bytes.size();
        handOver(ptyId, bytes.size());
        queueForPage(ptyId, bytes);
        if (frameBytes_ >= kMaxFrameBytes) flushOutput();
    }
    flushOutput();
}

void TerminalView::dropHeld(int64_t ptyId) {
    auto it = held_.find(ptyId);
    if (it == held_.end()) return;
    for (const QByteArray& bytes : it->second) heldTotal_ -= bytes.size();
    held_.erase(it);
    updatePause();
}

// The link stops reading while the page and this view together have more than kPauseAbove to write, or
// kHardLimit while an echo is awaited.
void TerminalView::updatePause() {
    const int64_t queued = unacked_ + heldTotal_;
    const bool pause = awaitingEcho_ != 0 ? (receivePaused_ ? queued >= kEchoResumeBelow : queued >= kHardLimit)
                                          : (receivePaused_ ? queued >= kResumeBelow : queued > kPauseAbove);
    // Behind the page by more than kNarrowAbove, the link keeps little in flight: what the relay has
    // sent arrives whatever this view decides, and an echo waits behind all of it.
    const bool narrow = queued > kNarrowAbove;
    if (narrow != receiveNarrowed_) {
        receiveNarrowed_ = narrow;
        if (auto* l = link_.get()) l->setReceiveNarrowed(narrow);
    }
    if (pause == receivePaused_) return;
    receivePaused_ = pause;
    if (auto* l = link_.get()) l->setReceivePaused(pause);
}

void TerminalView::handOver(int64_t ptyId, int64_t bytes) {
    unackedPerPty_[ptyId] += bytes;
    unacked_ += bytes;
    updatePause();
}

void TerminalView::onAck(int64_t ptyId, int64_t bytes) {
    auto it = unackedPerPty_.find(ptyId);
    if (it == unackedPerPty_.end()) return;
    const int64_t n = std::min(bytes, it->second);
    it->second -= n;
    unacked_ -= n;
    acknowledgedTotal_ += n;
    if (it->second == 0) unackedPerPty_.erase(it);
    feedBackground();
    updatePause();
}

void TerminalView::forgetUnacked(int64_t ptyId) {
    auto it = unackedPerPty_.find(ptyId);
    if (it == unackedPerPty_.end()) return;
    onAck(ptyId, it->second);
}

void TerminalView::onInput(int64_t ptyId, const QString& data) {
    if (!delegate_ || terminatedTabs.contains(ptyId)) return;
    RelayLink* l = link_.get();
    if (!l || !l->isLinkConnected()) return;
    Message m("INPUT");
    m.ptyId = ptyId;
    m.data = data.toStdString();
    l->send(m);
    trace::mark(trace::Stage::inputSent, ptyId);
    // Its echo is behind whatever the relay queued meanwhile: read on until it comes.
    awaitingEcho_ = ptyId;
    updatePause();
}

void TerminalView::onResize(int64_t ptyId, int64_t cols, int64_t rows) {
    if (!delegate_) return;
    RelayLink* l = link_.get();
    if (!l || !l->isLinkConnected()) return;
    Message m("RESIZE");
    m.ptyId = ptyId;
    m.cols = cols;
    m.rows = rows;
    l->send(m);
}

void TerminalView::clearScreen(int64_t ptyId, bool useActive) {
    run(QStringLiteral("clearTerminal(%1)").arg(useActive ? activePtyId : ptyId));
}

void TerminalView::triggerResize(int64_t ptyId, bool useActive) {
    run(QStringLiteral("resizeTerminal(%1)").arg(useActive ? activePtyId : ptyId));
}

void TerminalView::focus() {
    webView_->setFocus(Qt::OtherFocusReason);
    run(QStringLiteral("focusTerminal(%1)").arg(activePtyId));
}

void TerminalView::pasteText(const QString& text) {
    if (text.isEmpty()) return;
    run(QStringLiteral("pasteText('") + escapeForScript(text) + QStringLiteral("')"));
}

void TerminalView::pasteFromClipboard() { pasteText(QGuiApplication::clipboard()->text()); }

void TerminalView::showFrozenOverlay() {
    frozenOverlay_->setMessage(QStringLiteral("选择目录或添加会话以启动终端"));
    frozenOverlay_->show();
    frozenOverlay_->raise();
    layoutOverlay();
}

void TerminalView::hideFrozenOverlay() { frozenOverlay_->hide(); }

void TerminalView::showEmptyState(const QString& text) {
    frozenOverlay_->setMessage(text);
    frozenOverlay_->show();
    frozenOverlay_->raise();
    layoutOverlay();
}

void TerminalView::updateLatency(int64_t ms) {
    latencyLabel_->setText(QString::number(ms) + QStringLiteral("ms"));
    QColor c = ms < 100 ? Theme::systemGreen() : ms < 300 ? QColor(0xE6, 0xB4, 0x00) : Theme::systemRed();
    QPalette p = latencyLabel_->palette();
    p.setColor(QPalette::WindowText, c);
    latencyLabel_->setPalette(p);
    latencyLabel_->show();
}

void TerminalView::hideLatency() { latencyLabel_->hide(); }

void TerminalView::setTitle(const QString& text) { titleLabel_->setText(text); }

void TerminalView::setHostName(const QString& name) {
    hostLabel_->setText(name);
    hostLabel_->setVisible(!name.isEmpty());
}

void TerminalView::setStatusColor(const QColor& c) {
    static_cast<Dot*>(statusDot_)->colour = c;
    statusDot_->update();
}

void TerminalView::applyTheme() {
    const bool dark = Theme::isDarkMode();
    auto fill = [](QWidget* w, const QColor& c) {
        QPalette p = w->palette();
        p.setColor(QPalette::Window, c);
        w->setPalette(p);
    };
    fill(titleBar_, Theme::panelBackground());
    QPalette hp = hostLabel_->palette();
    hp.setColor(QPalette::WindowText, Theme::secondaryLabel());
    hostLabel_->setPalette(hp);
    fill(tabBar_, Theme::panelBackground());
    fill(topBorderView_, Theme::border());
    fill(tabBorderView_, Theme::border());
    webView_->page()->setBackgroundColor(dark ? QColor(30, 30, 30) : Qt::white);
    frozenOverlay_->applyTheme();
    for (auto& [id, item] : tabItems) item->applyStyle();
    if (isWebViewReady) run(QStringLiteral("setTheme('%1')").arg(dark ? "dark" : "light"));
}

void TerminalView::layoutOverlay() { frozenOverlay_->setGeometry(contentView_->rect()); }

bool TerminalView::eventFilter(QObject* watched, QEvent* event) {
    if (watched == contentView_ && event->type() == QEvent::Resize) layoutOverlay();
    return QWidget::eventFilter(watched, event);
}

void TerminalView::resizeEvent(QResizeEvent* e) {
    QWidget::resizeEvent(e);
    layoutOverlay();
}

void TerminalView::changeEvent(QEvent* e) {
    if (Theme::isPaletteChange(e)) applyTheme();
    QWidget::changeEvent(e);
}

}  // namespace ostv
