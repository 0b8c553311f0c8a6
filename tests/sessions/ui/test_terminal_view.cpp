#include <gtest/gtest.h>

#include <QApplication>
#include <QEnterEvent>
#include <QGraphicsOpacityEffect>
#include <QJsonDocument>
#include <QWebEnginePage>
#include <QWebEngineView>

#include "Fakes.h"
#include "TabItemView.h"
#include "TerminalView.h"
#include "Theme.h"
#include "TestSupport.h"

using namespace ostv;
using namespace ostv::test;

namespace {

class FakeViewDelegate : public QObject, public TerminalViewDelegate {
public:
    std::vector<int64_t> closed;
    void terminalViewDidRequestNewTab(TerminalView*) override {}
    void terminalViewDidSwitchToTab(TerminalView*, int64_t) override {}
    void terminalViewDidCloseTab(TerminalView*, int64_t id) override { closed.push_back(id); }
};

std::string b64(const QByteArray& bytes) { return bytes.toBase64().toStdString(); }

// Records the narrowing the view asks of its link too.
class NarrowingLink : public FakeLink {
public:
    bool narrowed = false;
    void setReceiveNarrowed(bool n) override { narrowed = n; }
};

class TerminalViewTest : public ::testing::Test {
protected:
    NarrowingLink link;
    FakeViewDelegate delegate;
    std::unique_ptr<TerminalView> view;
    QStringList scripts;

    void SetUp() override {
        view = std::make_unique<TerminalView>();
        view->setLink(&link);
        view->setDelegate(&delegate);
        view->scriptObserver = [this](const QString& s) { scripts << s; };
        view->resize(900, 600);
        view->show();
    }
    void TearDown() override { view.reset(); }

    void waitReady() { ASSERT_TRUE(waitUntil([&] { return view->isWebViewReady; }, 60000)) << "page never became ready"; }

    // Evaluates an expression in the page and waits for its value.
    QVariant eval(const QString& js) {
        QVariant result;
        bool done = false;
        view->webView()->page()->runJavaScript(js, [&](const QVariant& v) { result = v; done = true; });
        EXPECT_TRUE(waitUntil([&] { return done; }, 10000)) << js.toStdString();
        return result;
    }
    QString pageText(int64_t id) { return eval(QStringLiteral("__terminalText(%1)").arg(id)).toString(); }
    bool pageShows(int64_t id, const QString& needle, int ms = 10000) {
        return waitUntil([&] { return pageText(id).contains(needle); }, ms);
    }
    void tabs(std::initializer_list<int64_t> ids) {
        for (int64_t id : ids) view->createTab(id, QStringLiteral("t%1").arg(id));
    }
};

// A tab made before the page is ready: its output is written after its creation, in order, and its
// tab item comes with the page, shown in the strip with its title. Text cut inside a character
// renders whole.
TEST_F(TerminalViewTest, OutputIsWrittenInOrderAndWholeFromBeforeThePageIsReady) {
    ASSERT_FALSE(view->isWebViewReady);
    view->createTab(1, "one");
    view->writeOutput(b64("first "), 1);
    view->writeOutput(b64("second"), 1);
    waitReady();
    ASSERT_TRUE(pageShows(1, "first second"));
    tabs({2});
    spin(100);
    for (int64_t id : {1, 2}) {
        ASSERT_EQ(view->tabItems.count(id), 1u) << id;
        const TabItemView* item = view->tabItems.at(id);
        EXPECT_EQ(item->title(), id == 1 ? "one" : "t2");
        EXPECT_TRUE(item->isVisible() && item->width() >= 60) << id;
    }
    const QByteArray text = QString::fromUtf8("中😀 ok").toUtf8();
    view->writeOutput(b64(text.left(2)), 2);  // cuts the first character in the middle
    view->writeOutput(b64(text.mid(2)), 2);
    ASSERT_TRUE(pageShows(2, QString::fromUtf8("中😀 ok")));
    // Unicode 11 widths: the emoji is wide there (older tables make it narrow), so the cursor stands at 7.
    EXPECT_EQ(eval("terminals.get(2).term.buffer.active.cursorX").toInt(), 7);
}

TEST_F(TerminalViewTest, MaskedTabDropsOutputAndInputAndIsLabelled) {
    waitReady();
    view->createTab(1, QString());
    view->createTab(2, "two");
    view->writeOutput(b64("before"), 1);
    view->maskTab(1, "会话已被接管");
    view->writeOutput(b64("after"), 1);
    ASSERT_TRUE(pageShows(1, "before"));
    spin(200);
    EXPECT_FALSE(pageText(1).contains("after"));
    EXPECT_TRUE(scripts.contains("maskTerminal(1,'会话已被接管')"));
    EXPECT_EQ(view->tabItems.at(1)->title(), "⊘ 终端");  // no stored title
    EXPECT_EQ(view->tabItems.at(1)->state(), TabItemView::State::terminated);
    // Keystrokes from the page: dropped for the masked tab, sent for the live one.
    eval("bridge.termInput({data: 'x', ptyId: 1}); bridge.termInput({data: 'y', ptyId: 2}); 0");
    eval("bridge.termInput('not a dictionary'); bridge.termInput({data: 5, ptyId: 2}); bridge.termInput({ptyId: 2}); 0");
    ASSERT_TRUE(waitUntil([&] { return !link.ofType("INPUT").empty(); }, 5000));
    spin(100);
    auto inputs = link.ofType("INPUT");
    ASSERT_EQ(inputs.size(), 1u);
    EXPECT_EQ(inputs[0].ptyId, 2);
    EXPECT_EQ(inputs[0].data, "y");
}

TEST_F(TerminalViewTest, TabStripAndClosingRules) {
    waitReady();
    tabs({1});
    EXPECT_EQ(view->tabBarHeight(), 0);
    tabs({2, 3});
    EXPECT_EQ(view->tabBarHeight(), 30);
    EXPECT_EQ(view->activePtyId, 3);
    view->switchTab(2);
    EXPECT_EQ(view->tabItems.at(2)->state(), TabItemView::State::active);
    EXPECT_EQ(view->tabItems.at(1)->state(), TabItemView::State::inactive);
    view->closeTab(2);  // the active middle tab: its left neighbour takes over
    EXPECT_EQ(view->activePtyId, 1);
    EXPECT_EQ(view->tabPtyIds, (QList<int64_t>{1, 3}));
    view->closeTab(1);  // the first: the new first takes over
    EXPECT_EQ(view->activePtyId, 3);
    EXPECT_EQ(view->tabBarHeight(), 0);
    EXPECT_EQ(delegate.closed, (std::vector<int64_t>{2, 1}));
    // The only tab's close button does nothing.
    view->tabItems.at(3)->closeButton()->click();
    EXPECT_EQ(view->tabPtyIds, QList<int64_t>{3});
    view->removeAllTabs();
    EXPECT_TRUE(view->tabPtyIds.isEmpty());
    EXPECT_EQ(delegate.closed.size(), 2u);  // removing all sends no close request
    ASSERT_TRUE(waitUntil([&] { return eval("__pageState().ids.length").toInt() == 0; }, 5000));
}

// A paste reaches the shell as the same text, and a resize as the size the page fitted.
TEST_F(TerminalViewTest, PasteAndResizeReachTheLinkAsThePageHasThem) {
    waitReady();
    tabs({1});
    const QString text = QString::fromUtf8("it's a \\path\\ and\nline two\r\n\"end\" 中");
    view->pasteText(text);
    // Quotes, backslashes and line ends survive the script argument; the terminal turns line feeds into
    // carriage returns.
    ASSERT_TRUE(waitUntil([&] { return !link.ofType("INPUT").empty(); }, 5000));
    QString typed;
    for (const auto& m : link.ofType("INPUT")) typed += QString::fromStdString(*m.data);
    QString expected = text;
    expected.replace("\r\n", "\r").replace('\n', '\r');
    EXPECT_EQ(typed, expected);

    link.sent.clear();
    view->triggerResize(1, false);
    ASSERT_TRUE(waitUntil([&] { return !link.ofType("RESIZE").empty(); }, 5000));
    auto r = link.ofType("RESIZE").back();
    EXPECT_EQ(r.ptyId, 1);
    EXPECT_GT(*r.cols, 20);
    EXPECT_GT(*r.rows, 5);
    link.connected = false;  // nothing is sent while the link is down
    link.sent.clear();
    view->resize(700, 500);
    view->triggerResize(0, true);
    spin(300);
    EXPECT_TRUE(link.ofType("RESIZE").empty());
}

// A key reads on while its echo is awaited: the echo is behind whatever the relay queued meanwhile. It
// reads on until that tab's output arrives, up to the hard limit, and again as soon as the page has
// written a little of that (not only once it is back under the usual mark). Up to the last part nothing
// runs the event loop, so the page acknowledges nothing meanwhile.
TEST_F(TerminalViewTest, AKeyReadsOnUntilItsEchoComesUpToTheHardLimit) {
    waitReady();
    tabs({1, 2});  // 2 is shown, 1 floods
    TerminalBridge bridge(view.get());
    auto key = [&] { bridge.termInput(QVariantMap{{"data", "x"}, {"ptyId", 2}}); };
    const std::string chunk = b64(QByteArray(48 * 1024, 'y').replace(80, 1, "\n"));
    auto queued = [&] { return view->unacknowledgedBytes() + view->heldBytes(); };
    auto floodUpTo = [&](int64_t bytes) {
        while (queued() < bytes) view->writeOutput(chunk, 1);
    };
    floodUpTo(3 * 1024 * 1024);
    ASSERT_TRUE(link.paused);
    key();
    EXPECT_EQ(link.ofType("INPUT").size(), 1u);
    EXPECT_FALSE(link.paused) << "a key reads on";
    EXPECT_TRUE(link.narrowed) << "behind the page, with little in flight";
    view->writeOutput(chunk, 1);
    EXPECT_FALSE(link.paused) << "until its own tab's output comes, not another's";
    view->writeOutput(b64("x"), 2);
    EXPECT_TRUE(link.paused) << "its echo came";

    key();
    floodUpTo(TerminalView::kHardLimit - 64 * 1024);
    EXPECT_FALSE(link.paused);
    floodUpTo(TerminalView::kHardLimit);
    EXPECT_TRUE(link.paused) << "never past the hard limit";
    key();
    EXPECT_TRUE(link.paused);
    ASSERT_TRUE(waitUntil([&] { return !link.paused; }, 30000)) << "the page never wrote anything";
    EXPECT_GT(queued(), TerminalView::kPauseAbove) << "an awaited echo reads on as soon as there is room";
    EXPECT_EQ(link.ofType("INPUT").size(), 3u);
    // The echo comes; caught up, the link reads on with its full window again.
    view->writeOutput(b64("x"), 2);
    view->switchTab(1);
    ASSERT_TRUE(waitUntil([&] { return queued() == 0; }, 90000))
        << "still queued: " << queued() << " page: " << QJsonDocument::fromVariant(eval("__pageState()")).toJson().toStdString();
    EXPECT_FALSE(view->receivePaused());
    EXPECT_FALSE(link.paused);
    EXPECT_FALSE(link.narrowed);
}

// A hidden tab's output waits (in this view and in the page) while the shown tab's goes first. Shown
// again, a tab has all of it, in order, before anything newer; a tab masked while hidden still shows
// what came before its mask.
TEST_F(TerminalViewTest, AHiddenTabsOutputIsCompleteAndInOrderWhenShown) {
    waitReady();
    tabs({1, 2, 3});  // 3 is shown
    QStringList expected;
    for (int i = 0; i < 8000; ++i) {
        expected << QStringLiteral("line %1 ").arg(i, 5, 10, QChar('0')) + QString(10 + i % 37, QChar('a' + i % 26));
        view->writeOutput(b64((expected.last() + "\r\n").toUtf8()), 1);
        if (i % 100 == 0) view->writeOutput(b64("tick\r\n"), 3);
    }
    view->writeOutput(b64("last words"), 2);
    EXPECT_GT(view->heldBytes(), 0);  // more than the page takes of hidden tabs at once
    view->maskTab(2, "会话已终止 (exit 0)");
    view->switchTab(1);
    view->writeOutput(b64("after the switch"), 1);
    expected << "after the switch";
    ASSERT_TRUE(pageShows(1, "after the switch", 30000));
    EXPECT_EQ(pageText(1), expected.join('\n'));
    EXPECT_TRUE(pageShows(2, "last words"));
    EXPECT_EQ(view->heldBytes(), 0);

    // A hidden tab that scrolls is not drawn (its rows are drawn when it is shown), and a selection
    // is drawn and cleared as before.
    const QString drawn = QStringLiteral("terminals.get(3).el.querySelector('.xterm-rows').textContent");
    for (int i = 0; i < 200; ++i) view->writeOutput(b64(QByteArray("scrolling ") + QByteArray::number(i) + "\r\n"), 3);
    view->writeOutput(b64("hidden-draw"), 3);
    ASSERT_TRUE(pageShows(3, "hidden-draw"));
    spin(200);  // frames go by
    EXPECT_FALSE(eval(drawn).toString().contains("hidden-draw"));
    view->switchTab(3);
    EXPECT_TRUE(waitUntil([&] { return eval(drawn).toString().contains("hidden-draw"); }, 5000));
    const QString selected = QStringLiteral("terminals.get(3).el.querySelectorAll('.xterm-selection div').length");
    eval("terminals.get(3).term.selectAll()");
    EXPECT_TRUE(waitUntil([&] { return eval(selected).toInt() > 0; }, 5000));
    eval("terminals.get(3).term.clearSelection()");
    EXPECT_TRUE(waitUntil([&] { return eval(selected).toInt() == 0; }, 5000));
}

// The shown tab floods without a break: a hidden tab's output still gets written meanwhile.
TEST_F(TerminalViewTest, AFloodInTheShownTabDoesNotStarveAHiddenOne) {
    waitReady();
    tabs({1, 2});  // 2 is shown
    const std::string chunk = b64(QByteArray(16 * 1024, 'y').replace(80, 2, "\r\n"));
    QTimer flood;
    QObject::connect(&flood, &QTimer::timeout, [&] {
        if (!view->receivePaused()) view->writeOutput(chunk, 2);
    });
    flood.start(1);
    spin(300);
    view->writeOutput(b64("hidden news"), 1);
    const bool written = pageShows(1, "hidden news", 3000);  // far more than a turn takes, far less than the flood lasts
    const int64_t shownBusy = view->unacknowledgedBytes();
    flood.stop();
    EXPECT_TRUE(written);
    EXPECT_GT(shownBusy, 0) << "the shown tab was not flooding any more";
}

TEST_F(TerminalViewTest, EveryByteHandedOverIsAcknowledgedExactlyAndNoneThatIsNotBase64) {
    // Echoes are one or two bytes: their base64 ends in padding. Counting them by their text length
    // would leave a remainder per chunk that piles up until the link pauses for good.
    waitReady();
    tabs({1, 2});
    int64_t sent = 0;
    for (int i = 0; i < 300; ++i) {
        const QByteArray bytes = QByteArray(1 + i % 3, char('a' + i % 26));
        view->writeOutput(b64(bytes), 1 + i % 2);
        sent += bytes.size();
    }
    ASSERT_TRUE(waitUntil([&] { return view->acknowledgedBytesTotal() == sent; }, 20000))
        << view->acknowledgedBytesTotal() << " of " << sent;
    EXPECT_EQ(view->unacknowledgedBytes(), 0);
    // Closing a tab with output still in the page forgets its share.
    view->writeOutput(b64(QByteArray(64 * 1024, 'z')), 2);
    view->closeTab(2);
    EXPECT_EQ(view->unacknowledgedBytes(), 0);

    // Output that is not base64 never reaches the page, and nothing is counted for it.
    StdoutCapture log;
    for (const char* bad : {"');document.title='owned';('", "YWJj\nZA==", "YWJ", "YW=j", "Y===", "YWJj ZGVm"})
        view->writeOutput(bad, 1);
    view->writeOutput(b64("still fine"), 1);
    ASSERT_TRUE(pageShows(1, "still fine"));
    EXPECT_NE(eval("document.title").toString(), "owned");
    for (const QString& s : scripts) EXPECT_FALSE(s.contains("owned")) << s.toStdString();
    EXPECT_TRUE(waitUntil([&] { return view->unacknowledgedBytes() == 0; }, 5000));  // nothing counted for them
    EXPECT_NE(log.text().find("is not base64"), std::string::npos);
    EXPECT_TRUE(TerminalView::isWellFormedBase64(""));
    EXPECT_TRUE(TerminalView::isWellFormedBase64("YQ=="));
    EXPECT_TRUE(TerminalView::isWellFormedBase64("+/9a"));
    EXPECT_FALSE(TerminalView::isWellFormedBase64("YW'j"));  // a quote would end the script's argument
}

double closeOpacity(const TabItemView& tab) {
    return static_cast<QGraphicsOpacityEffect*>(tab.closeButton()->graphicsEffect())->opacity();
}

// The close button shows on hover (fading in and out) and on the active or ended tab. A title too long
// for the tab is elided, kept whole in the tool tip.
TEST(TabItemViewTest, CloseButtonFollowsStateAndHoverAndALongTitleIsElided) {
    const QString longTitle = QStringLiteral("a very long session title that cannot fit into a narrow tab");
    TabItemView tab(1, longTitle);
    tab.resize(90, 26);
    tab.show();
    EXPECT_EQ(closeOpacity(tab), 0.0);  // starts hidden
    tab.setState(TabItemView::State::inactive);
    EXPECT_FALSE(tab.closeButtonShown());
    QEnterEvent enter(QPointF(5, 5), QPointF(5, 5), QPointF(5, 5));
    QApplication::sendEvent(&tab, &enter);
    EXPECT_TRUE(tab.isHovered() && tab.closeButtonShown());
    ASSERT_TRUE(waitUntil([&] { return qFuzzyCompare(closeOpacity(tab), 0.8); }, 2000)) << closeOpacity(tab);
    QEvent leave(QEvent::Leave);
    QApplication::sendEvent(&tab, &leave);
    EXPECT_FALSE(tab.isHovered() || tab.closeButtonShown());
    EXPECT_GT(closeOpacity(tab), 0.0);  // fading, not gone at once
    ASSERT_TRUE(waitUntil([&] { return closeOpacity(tab) == 0.0; }, 2000));

    for (auto s : {TabItemView::State::active, TabItemView::State::terminated}) {
        tab.setState(s);
        EXPECT_TRUE(tab.closeButtonShown()) << static_cast<int>(s);
    }
    EXPECT_EQ(tab.title(), longTitle);
    EXPECT_EQ(tab.toolTip(), longTitle);
    const auto* label = tab.findChild<QLabel*>();
    ASSERT_NE(label, nullptr);
    EXPECT_TRUE(label->text().endsWith(QChar(0x2026))) << label->text().toStdString();
    EXPECT_LE(label->fontMetrics().horizontalAdvance(label->text()), label->width());
    EXPECT_EQ(tab.sizeHint().width(), 200);  // asks for the most a tab may take
    tab.resize(800, 26);
    spin(50);
    EXPECT_EQ(label->text().toStdString(), longTitle.toStdString());
    EXPECT_TRUE(tab.toolTip().isEmpty());
}

}  // namespace

// The latency's colour follows its bands; the page follows the application's appearance live.
TEST_F(TerminalViewTest, LatencyColoursAndThePageFollowsTheAppearanceLive) {
    std::map<int, QColor> at;  // green below 100 ms, yellow below 300, red from there
    for (int ms : {0, 99, 100, 299, 300}) {
        view->updateLatency(ms);
        EXPECT_EQ(view->latencyLabel()->text(), QString::number(ms) + "ms");
        at[ms] = view->latencyLabel()->palette().color(QPalette::WindowText);
    }
    EXPECT_GT(at[99].green(), at[99].red());
    EXPECT_GT(at[300].red(), at[300].green());
    EXPECT_TRUE(at[0] == at[99] && at[100] == at[299] && at[100] != at[99] && at[100] != at[300]);
    EXPECT_EQ(TerminalView::escapeForScript("a'b\\c\nd"), "a\\'b\\\\c\\nd");

    waitReady();
    view->createTab(1, "a");
    const QPalette before = QApplication::palette();
    auto pageLooks = [&] {
        return eval("document.body.className + ' ' + terminals.get(1).term.options.theme.background").toString();
    };
    QApplication::setPalette(Theme::palette(true));
    EXPECT_TRUE(waitUntil([&] { return pageLooks().startsWith("dark "); }, 5000)) << pageLooks().toStdString();
    const QString darkBackground = pageLooks().section(' ', 1);
    QApplication::setPalette(Theme::palette(false));
    EXPECT_TRUE(waitUntil([&] { return pageLooks().startsWith("light "); }, 5000)) << pageLooks().toStdString();
    EXPECT_NE(pageLooks().section(' ', 1), darkBackground);  // the terminal's own colours changed too
    QApplication::setPalette(before);
}
