#pragma once
// The mouse as a user works it, for the end-to-end cases: a press goes to the widget that is under the
// pointer (a row's cell, a label) and reaches the list or view below it the way a real press does when
// the cell leaves it alone.
#include <QAbstractItemView>
#include <QApplication>
#include <QContextMenuEvent>
#include <QListWidget>
#include <QMenu>
#include <QMenuBar>
#include <QTest>

namespace ostv::test {

// A click (or a double-click) on row `row` of a list.
inline void clickRow(QListWidget* list, int row, bool twice = false) {
    list->scrollToItem(list->item(row));
    const QPoint pos = list->visualItemRect(list->item(row)).center();
    QWidget* target = list->viewport()->childAt(pos);
    const QPoint at = target ? target->mapFrom(list->viewport(), pos) : pos;
    if (!target) target = list->viewport();
    QTest::mouseClick(target, Qt::LeftButton, {}, at);
    if (twice) QTest::mouseDClick(target, Qt::LeftButton, {}, at);
}

// A right-click on an item of a view: answers the context menu it opened, or none.
inline QMenu* openContextMenu(QAbstractItemView* view, const QModelIndex& index, QWidget* menuParent) {
    view->scrollTo(index);
    const QPoint pos = view->visualRect(index).center();
    QContextMenuEvent ev(QContextMenuEvent::Mouse, pos, view->viewport()->mapToGlobal(pos));
    QApplication::sendEvent(view->viewport(), &ev);
    for (QMenu* menu : menuParent->findChildren<QMenu*>())
        if (menu->isVisible()) return menu;
    return nullptr;
}

// Clicks the item of an open menu whose text contains `text`; false when there is none.
inline bool clickMenuItem(QMenu* menu, const QString& text) {
    for (QAction* a : menu->actions()) {
        if (!a->text().contains(text)) continue;
        const QPoint at = menu->actionGeometry(a).center();
        QTest::mouseMove(menu, at);
        QTest::mouseClick(menu, Qt::LeftButton, {}, at);
        return true;
    }
    return false;
}

// Opens the menu titled `menuTitle` of a menu bar and clicks its item `item`.
inline bool chooseFromMenuBar(QMenuBar* bar, const QString& menuTitle, const QString& item) {
    for (QAction* top : bar->actions()) {
        if (top->text() != menuTitle || !top->menu()) continue;
        QTest::mouseClick(bar, Qt::LeftButton, {}, bar->actionGeometry(top).center());
        QMenu* menu = top->menu();
        if (!QTest::qWaitFor([menu] { return menu->isVisible(); }, 2000)) return false;
        return clickMenuItem(menu, item);
    }
    return false;
}

}  // namespace ostv::test
