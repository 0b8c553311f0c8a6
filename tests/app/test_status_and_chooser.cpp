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

TEST(StatusBar, TextsForEveryStatus) {
    StatusBarView bar;
    bar.rightLabel()->setText("12ms");
    bar.setStatus(ConnectionStatus::connected(QString("Linux")));
    EXPECT_EQ(bar.iconLabel()->text(), "●");
    EXPECT_EQ(bar.textLabel()->text(), "已连接 — Linux");
    EXPECT_TRUE(bar.rightLabel()->text().isEmpty());  // emptied on every status change
    bar.setStatus(ConnectionStatus::connected(QString()));
    EXPECT_EQ(bar.textLabel()->text(), "已连接");
    bar.setStatus(ConnectionStatus::connected());
    EXPECT_EQ(bar.textLabel()->text(), "已连接");
    bar.setStatus(ConnectionStatus::reconnecting(0));
    EXPECT_EQ(bar.iconLabel()->text(), "⟳");
    EXPECT_EQ(bar.textLabel()->text(), "正在重连…");
    bar.setStatus(ConnectionStatus::reconnecting(3));
    EXPECT_EQ(bar.textLabel()->text(), "正在重连… (第 3 次)");
    bar.setStatus(ConnectionStatus::connecting());
    EXPECT_EQ(bar.iconLabel()->text(), "◦");
    EXPECT_EQ(bar.textLabel()->text(), "正在连接…");
    bar.setStatus(ConnectionStatus::disconnected());
    EXPECT_EQ(bar.iconLabel()->text(), "⚠");
    EXPECT_EQ(bar.textLabel()->text(), "连接已断开");
    EXPECT_EQ(colour(bar.iconLabel()), Theme::systemOrange());
    EXPECT_EQ(colour(bar.textLabel()), Theme::systemOrange());
    bar.setStatus(ConnectionStatus::idle());
    EXPECT_TRUE(bar.iconLabel()->text().isEmpty());
    EXPECT_TRUE(bar.textLabel()->text().isEmpty());
    EXPECT_EQ(bar.height(), 24);
}

TEST(StatusBar, ColoursFollowTheTableAndSomeCasesKeepThePreviousOnes) {
    StatusBarView bar;
    bar.setStatus(ConnectionStatus::connected(QString("a")));
    EXPECT_EQ(colour(bar.iconLabel()), Theme::systemGreen());
    EXPECT_EQ(colour(bar.textLabel()), Theme::secondaryLabel());
    bar.setStatus(ConnectionStatus::reconnecting(2));
    EXPECT_EQ(colour(bar.iconLabel()), Theme::systemOrange());
    EXPECT_EQ(colour(bar.textLabel()), Theme::systemOrange());
    // "connecting" leaves the icon's colour as it was and greys the text; "idle" changes no colour.
    bar.setStatus(ConnectionStatus::connecting());
    EXPECT_EQ(colour(bar.iconLabel()), Theme::systemOrange());
    EXPECT_EQ(colour(bar.textLabel()), Theme::secondaryLabel());
    bar.setStatus(ConnectionStatus::connected());
    bar.setStatus(ConnectionStatus::idle());
    EXPECT_EQ(colour(bar.iconLabel()), Theme::systemGreen());
    EXPECT_EQ(bar.currentStatus().kind, ConnectionStatus::Kind::idle);
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

std::vector<ControllerInfo> two() {
    return {{"c1", "alice", "/home/alice", std::nullopt}, {"c2", "bob", "/srv", std::string("3")}};
}
}  // namespace

TEST(Chooser, TakeoverNeedsAValidSelection) {
    ChooserDelegate d;
    ControllerListViewController c(two(), 2, 2);
    c.setDelegate(&d);
    EXPECT_EQ(c.titleLabel->text(), "选择会话 (2/2 controllers)");
    EXPECT_EQ(c.subtitleLabel->text(), "已达到最大连接数，选择要接管的会话");
    EXPECT_FALSE(c.takeoverButton->isEnabled());
    c.onTakeover();  // nothing selected: nothing happens
    EXPECT_TRUE(d.chosen.empty());
    c.tableView->setCurrentRow(1);
    EXPECT_TRUE(c.takeoverButton->isEnabled());
    c.onTakeover();
    ASSERT_EQ(d.chosen.size(), 1u);
    EXPECT_EQ(d.chosen[0].id, "c2");
    EXPECT_EQ(d.cancels, 0);
    // Rows: nickname and directory, and the PTY line only where there is one.
    EXPECT_EQ(c.tableView->itemWidget(c.tableView->item(0))->findChildren<QLabel*>().size(), 2);
    EXPECT_EQ(c.tableView->itemWidget(c.tableView->item(1))->findChildren<QLabel*>().size(), 3);
}

TEST(Chooser, CancelAndEscapeTellTheWorkspaceOnce) {
    ChooserDelegate d;
    {
        ControllerListViewController c(two(), 8, 8);
        c.setDelegate(&d);
        c.show();
        QTest::keyClick(&c, Qt::Key_Escape);
        EXPECT_EQ(d.cancels, 1);
    }
    ControllerListViewController c(two(), 8, 8);
    c.setDelegate(&d);
    c.cancelButton->click();
    EXPECT_EQ(d.cancels, 2);
    EXPECT_TRUE(d.chosen.empty());
    // With the workspace gone, cancelling still closes the sheet without a crash.
    ControllerListViewController orphan(two(), 8, 8);
    { ChooserDelegate gone; orphan.setDelegate(&gone); }
    orphan.show();
    orphan.cancelButton->click();
    EXPECT_FALSE(orphan.isVisible());
}

TEST(Chooser, LongRowsAreShortenedAndTheSelectedRowReadsOnTheHighlight) {
    const std::string longCwd = "/home/carol/work/clients/northwind/deployments/2026/november/staging/services/api-gateway";
    ControllerListViewController c({{"c1", "alice", "/home/alice", std::nullopt}, {"c2", "carol", longCwd, std::string("12")}},
                                   2, 2);
    const auto labels = [&](int row) { return c.tableView->itemWidget(c.tableView->item(row))->findChildren<QLabel*>(); };
    QLabel* cwd = labels(1).at(1);
    EXPECT_LE(cwd->sizeHint().width(), c.tableView->width());
    EXPECT_TRUE(cwd->text().contains(QChar(0x2026)));  // shortened in the middle...
    EXPECT_TRUE(cwd->text().startsWith("/home/carol"));
    EXPECT_TRUE(cwd->text().endsWith("api-gateway"));
    EXPECT_EQ(cwd->toolTip(), QString::fromStdString(longCwd));  // ...and whole in the tip
    EXPECT_EQ(labels(0).at(1)->text(), "/home/alice");

    c.tableView->setCurrentRow(0);
    const QColor onHighlight = c.palette().color(QPalette::HighlightedText);
    EXPECT_EQ(colour(labels(0).at(0)), onHighlight);
    EXPECT_EQ(colour(labels(1).at(0)), Theme::label());
    EXPECT_EQ(colour(labels(1).at(2)), Theme::systemBlue());
    c.tableView->setCurrentRow(1);
    EXPECT_EQ(colour(labels(0).at(0)), Theme::label());
    EXPECT_EQ(colour(labels(1).at(2)), onHighlight);
    ASSERT_TRUE(c.selectedController());
    EXPECT_EQ(c.selectedController()->id, "c2");
}

TEST(Chooser, AnEmptyListNeverEnablesTakeover) {
    ChooserDelegate d;
    ControllerListViewController c({}, 1, 1);
    c.setDelegate(&d);
    c.show();
    c.tableView->setCurrentRow(0);
    EXPECT_FALSE(c.takeoverButton->isEnabled());
    QTest::keyClick(&c, Qt::Key_Return);  // the default button is disabled: Return does nothing
    EXPECT_TRUE(d.chosen.empty());
    EXPECT_EQ(d.cancels, 0);
    EXPECT_FALSE(c.selectedController().has_value());
}
