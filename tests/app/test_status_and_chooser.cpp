#include <gtest/gtest.h>

#include <QTest>

#include "ControllerListViewController.h"
#include "StatusBarView.h"
#include "TestSupport.h"
#include "Theme.h"

using namespace ostv;

namespace {
QColor colour(QWidget* w) { return w->palette().color(QPalette::WindowText); }
}  // namespace

// In order: some statuses keep the colours of the one before ("connecting" the icon's, "idle" both).
TEST(StatusBar, TextsAndColoursForEveryStatus) {
    StatusBarView bar;
    const QColor green = Theme::systemGreen(), orange = Theme::systemOrange(), grey = Theme::secondaryLabel();
    const struct {
        ConnectionStatus status;
        const char *icon, *text;
        QColor iconColour, textColour;
    } steps[] = {
        {ConnectionStatus::connected(QString("Linux")), "●", "已连接 — Linux", green, grey},
        {ConnectionStatus::connected(QString()), "●", "已连接", green, grey},
        {ConnectionStatus::reconnecting(0), "⟳", "正在重连…", orange, orange},
        {ConnectionStatus::reconnecting(1), "⟳", "正在重连… (第 1 次)", orange, orange},
        {ConnectionStatus::connecting(), "◦", "正在连接…", orange, grey},
        {ConnectionStatus::disconnected(), "⚠", "连接已断开", orange, orange},
        {ConnectionStatus::connected(), "●", "已连接", green, grey},
        {ConnectionStatus::idle(), "", "", green, grey},
    };
    for (const auto& step : steps) {
        bar.rightLabel()->setText("12ms");
        bar.setStatus(step.status);
        EXPECT_EQ(bar.iconLabel()->text(), QString::fromUtf8(step.icon)) << step.text;
        EXPECT_EQ(bar.textLabel()->text(), QString::fromUtf8(step.text));
        EXPECT_EQ(colour(bar.iconLabel()), step.iconColour) << step.text;
        EXPECT_EQ(colour(bar.textLabel()), step.textColour) << step.text;
        EXPECT_TRUE(bar.rightLabel()->text().isEmpty());  // emptied on every status change
    }
}

namespace {
class ChooserDelegate : public QObject, public ControllerListViewControllerDelegate {
public:
    std::vector<ControllerInfo> chosen;
    int cancels = 0;
    void controllerListViewControllerDidSelectController(ControllerListViewController*, const ControllerInfo& c) override {
        chosen.push_back(c);
    }
    void controllerListViewControllerDidCancel(ControllerListViewController*) override { ++cancels; }
};

const std::string longCwd = "/home/carol/work/clients/northwind/deployments/2026/november/staging/services/api-gateway";
std::vector<ControllerInfo> two() {
    return {{"c1", "alice", "/home/alice", std::nullopt}, {"c2", "carol", longCwd, std::string("12")}};
}
}  // namespace

TEST(Chooser, TakeoverNeedsAValidSelectionLongRowsAreShortenedAndCancellingTellsTheWorkspaceOnce) {
    ChooserDelegate d;
    ControllerListViewController c(two(), /*limit=*/3, /*current=*/2);
    c.setDelegate(&d);
    EXPECT_EQ(c.titleLabel->text(), "选择会话 (2/3 controllers)");
    EXPECT_EQ(c.subtitleLabel->text(), "已达到最大连接数，选择要接管的会话");
    EXPECT_FALSE(c.takeoverButton->isEnabled());
    c.onTakeover();  // nothing selected: nothing happens
    EXPECT_TRUE(d.chosen.empty());
    // Rows: nickname, directory and a PTY line where there is one; the selected row reads on the highlight.
    const auto labels = [&](int row) { return c.tableView->itemWidget(c.tableView->item(row))->findChildren<QLabel*>(); };
    ASSERT_EQ(labels(0).size(), 2);
    ASSERT_EQ(labels(1).size(), 3);
    const auto colours = [&] { return QList<QColor>{colour(labels(0).at(0)), colour(labels(1).at(0)), colour(labels(1).at(2))}; };
    const QColor onHighlight = c.palette().color(QPalette::HighlightedText);
    c.tableView->setCurrentRow(0);
    EXPECT_EQ(colours(), (QList<QColor>{onHighlight, Theme::label(), Theme::systemBlue()}));
    c.tableView->setCurrentRow(1);
    EXPECT_EQ(colours(), (QList<QColor>{Theme::label(), onHighlight, onHighlight}));
    EXPECT_TRUE(c.takeoverButton->isEnabled());
    c.onTakeover();
    ASSERT_EQ(d.chosen.size(), 1u);
    EXPECT_EQ(d.chosen[0].id, "c2");

    QLabel* cwd = labels(1).at(1);
    EXPECT_LE(cwd->sizeHint().width(), c.tableView->width());
    EXPECT_TRUE(cwd->text().contains(QChar(0x2026)));  // shortened in the middle...
    EXPECT_TRUE(cwd->text().startsWith("/home/carol"));
    EXPECT_TRUE(cwd->text().endsWith("api-gateway"));
    EXPECT_EQ(cwd->toolTip(), QString::fromStdString(longCwd));  // ...and whole in the tip
    EXPECT_EQ(labels(0).at(1)->text(), "/home/alice");

    // An empty list never enables it, not even by Return; Escape tells the workspace, once: "取消" adds nothing.
    ControllerListViewController empty({}, 1, 1);
    empty.setDelegate(&d);
    empty.show();
    empty.tableView->setCurrentRow(0);
    EXPECT_FALSE(empty.takeoverButton->isEnabled());
    QTest::keyClick(&empty, Qt::Key_Return);
    EXPECT_EQ(d.chosen.size(), 1u);
    EXPECT_EQ(d.cancels, 0);
    QTest::keyClick(&empty, Qt::Key_Escape);
    empty.cancelButton->click();
    EXPECT_EQ(d.cancels, 1);
    // With the workspace gone, "取消" still closes the sheet without a crash.
    ControllerListViewController orphan(two(), 8, 8);
    { ChooserDelegate gone; orphan.setDelegate(&gone); }
    orphan.show();
    orphan.cancelButton->click();
    EXPECT_FALSE(orphan.isVisible());
}
