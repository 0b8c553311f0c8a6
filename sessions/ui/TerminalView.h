#pragma once
// The right-hand area of the workspace: a title bar, a tab strip, and one web view whose page draws every
// terminal of the session. PTY output goes to the page as base64 text; keystrokes and sizes come back.
#include <QElapsedTimer>
#include <QHBoxLayout>
#include <QJsonObject>
#include <QLabel>
#include <QList>
#include <QMap>
#include <QPointer>
#include <QSet>
#include <QTimer>
#include <QToolButton>
#include <QVariant>
#include <QWidget>
#include <deque>
#include <functional>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

#include "SessionInterfaces.h"
#include "WeakDelegate.h"

class QWebEngineView;
class QWebChannel;

namespace ostv {

class FrozenOverlay;
class TabItemView;
class TerminalView;

class TerminalViewDelegate {
public:
    virtual ~TerminalViewDelegate() = default;
    virtual void terminalViewDidRequestNewTab(TerminalView* view) = 0;
    // The tab of this PTY became the shown one: the workspace highlights its session row.
    virtual void terminalViewDidSwitchToTab(TerminalView* view, int64_t ptyId) = 0;
    // The user closed this tab: the workspace forgets the session and asks the agent to close the PTY.
    virtual void terminalViewDidCloseTab(TerminalView* view, int64_t ptyId) = 0;
};

// The object the page talks to through the web channel (published as "bridge").
class TerminalBridge : public QObject {
    Q_OBJECT
public:
    explicit TerminalBridge(TerminalView* view);
public slots:
    void termReady();
    void termInput(const QVariant& body);
    void termResize(const QVariant& body);
    void ack(const QVariant& ptyId, const QVariant& bytes);
    void openLink(const QString& url);
    void copyText(const QString& text);
    void selectionChanged(const QString& text);
    void requestPaste();

private:
    TerminalView* view_;
};

class TerminalView : public QWidget, public TerminalSurface {
    Q_OBJECT
public:
    explicit TerminalView(QWidget* parent = nullptr);
    ~TerminalView() override;

    void setDelegate(TerminalViewDelegate* d) { delegate_.set(d); }
    void setLink(RelayLink* link) { link_.set(link); }

    // TerminalSurface
    void createTab(int64_t ptyId, const QString& title) override;
    void switchTab(int64_t ptyId) override;
    void closeTab(int64_t ptyId) override;
    void removeAllTabs() override;
    void maskTab(int64_t ptyId, const QString& message) override;
    bool isTabTerminated(int64_t ptyId) const override { return terminatedTabs.contains(ptyId); }
    QList<int64_t> tabIds() const override { return tabPtyIds; }
    void writeOutput(const std::string& base64, int64_t ptyId) override;
    void clearScreen(int64_t ptyId, bool useActive) override;
    void triggerResize(int64_t ptyId, bool useActive) override;
    void focus() override;
    void showFrozenOverlay() override;
    void hideFrozenOverlay() override;
    void showEmptyState(const QString& text) override;

    void updateLatency(int64_t milliseconds);
    void hideLatency();
    void setTitle(const QString& text);
    // The paired agent's host name at the right of the title bar; empty hides it.
    void setHostName(const QString& name);
    void setStatusColor(const QColor& c);
    void applyTheme();
    // Reads the clipboard and types its text into the active terminal (Ctrl+Shift+V, Shift+Insert).
    void pasteFromClipboard();
    void pasteText(const QString& text);
    static QString escapeForScript(const QString& text);  // for a single-quoted script argument
    // Only A-Z a-z 0-9 + / with at most two "=" at the end, in groups of four.
    static bool isWellFormedBase64(std::string_view text);

    // State (the names the rest of the workspace uses).
    bool isWebViewReady = false;
    std::vector<std::pair<QString, int64_t>> pendingOutputs;
    int64_t activePtyId = 0;
    QList<int64_t> tabPtyIds;
    std::map<int64_t, TabItemView*> tabItems;
    QSet<int64_t> terminatedTabs;
    std::map<int64_t, QString> tabTitles;

    QWebEngineView* webView() const { return webView_; }
    FrozenOverlay* frozenOverlay() const { return frozenOverlay_; }
    QLabel* latencyLabel() const { return latencyLabel_; }
    QLabel* titleLabel() const { return titleLabel_; }
    QLabel* hostLabel() const { return hostLabel_; }
    QWidget* tabBar() const { return tabBar_; }
    int tabBarHeight() const { return tabBar_->maximumHeight(); }

    // Flow control: decoded bytes handed to the page and not yet written by it.
    int64_t unacknowledgedBytes() const { return unacked_; }
    int64_t acknowledgedBytesTotal() const { return acknowledgedTotal_; }  // since the view was made
    int64_t outputChunksTotal() const { return outputChunks_; }  // writeOutput calls handed to the page
    bool receivePaused() const { return receivePaused_; }
    // Output of tabs not shown, held here until the page has room for it (counted for the pause too).
    int64_t heldBytes() const { return heldTotal_; }
    static constexpr int64_t kPauseAbove = 2 * 1024 * 1024;
    // Above this the link is narrowed: the relay may send only a little ahead of what was read.
    static constexpr int64_t kNarrowAbove = kPauseAbove / 2;
    // Close below the pause mark: while the link is paused nothing else comes in either, an echo included.
    static constexpr int64_t kResumeBelow = kPauseAbove - 128 * 1024;
    // Output of tabs not shown that the page may have at once (it writes that in the shown tab's gaps).
    static constexpr int64_t kBackgroundInPage = 256 * 1024;
    // While a key waits for its echo (that tab's next output), the link reads on up to kHardLimit: the echo
    // is behind whatever the relay queued meanwhile, and the page writes hidden tabs' output only slowly,
    // so a fixed room above the usual mark fills up after a few keys and then holds every echo until the
    // page has caught up. At the limit reading stops, and goes on again kEchoResumeBelow under it.
    static constexpr int64_t kHardLimit = 8 * 1024 * 1024;
    static constexpr int64_t kEchoResumeBelow = kHardLimit - 256 * 1024;

    // Every script call the view issues, in order (diagnostics and tests; bounded).
    std::function<void(const QString&)> scriptObserver;

signals:
    void pageReady();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
    void resizeEvent(QResizeEvent* e) override;
    void changeEvent(QEvent* e) override;

private:
    friend class TerminalBridge;
    void run(const QString& script);
    void flushOutput();
    void addTabItem(int64_t ptyId, const QString& title);
    void updateTabStyles();
    void updateTabBar();
    void onPageReady();
    void onInput(int64_t ptyId, const QString& data);
    void onResize(int64_t ptyId, int64_t cols, int64_t rows);
    void handOver(int64_t ptyId, int64_t bytes);  // counts output given to the page, pauses the link if due
    void onAck(int64_t ptyId, int64_t bytes);
    void forgetUnacked(int64_t ptyId);
    void queueForPage(int64_t ptyId, const QByteArray& bytes);  // into the next frame's call
    void feedBackground();
    void releaseHeld(int64_t ptyId);  // all of it to the page, in order
    void dropHeld(int64_t ptyId);
    void updatePause();
    void layoutOverlay();

    WeakDelegate<TerminalViewDelegate> delegate_;
    WeakDelegate<RelayLink> link_;
    QWebEngineView* webView_ = nullptr;
    QWebChannel* channel_ = nullptr;
    TerminalBridge* bridge_ = nullptr;
    QWidget* titleBar_ = nullptr;
    QLabel* iconLabel_ = nullptr;
    QLabel* titleLabel_ = nullptr;
    QLabel* hostLabel_ = nullptr;
    QLabel* latencyLabel_ = nullptr;
    QWidget* statusDot_ = nullptr;
    QWidget* topBorderView_ = nullptr;
    QWidget* tabBar_ = nullptr;
    QHBoxLayout* tabStack_ = nullptr;
    QToolButton* addTabButton_ = nullptr;
    QWidget* tabBorderView_ = nullptr;
    QWidget* contentView_ = nullptr;
    FrozenOverlay* frozenOverlay_ = nullptr;
    QColor statusColor_;

    // Output waiting for the next frame, in arrival order.
    std::vector<std::pair<int64_t, QByteArray>> frame_;  // (PTY, bytes) in order of first arrival
    qsizetype frameBytes_ = 0;
    QTimer frameTimer_;
    QElapsedTimer lastFlush_;
    int64_t acknowledgedTotal_ = 0;
    int64_t outputChunks_ = 0;
    bool loggedBadOutput_ = false;
    std::map<int64_t, int64_t> unackedPerPty_;
    int64_t unacked_ = 0;
    bool receivePaused_ = false;
    bool receiveNarrowed_ = false;
    std::map<int64_t, std::deque<QByteArray>> held_;  // per PTY, in arrival order
    int64_t heldTotal_ = 0;
    int64_t lastFed_ = 0;  // the PTY fed last, for turns among the held ones
    QTimer feedTimer_;
    int64_t awaitingEcho_ = 0;  // the PTY typed into last, until its output comes
};

}  // namespace ostv
