#include "AppDelegate.h"

#include <QApplication>
#include <QCloseEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMenuBar>
#include <QDialog>
#include <QPushButton>
#include <QScreen>
#include <QVBoxLayout>
#include <QWebEnginePage>
#include <QWebEngineView>

#include "AdminAPIClient.h"
#include "LoginViewController.h"
#include "PreferencesViewController.h"
#include "Theme.h"

namespace ostv {

namespace {
AppDelegate* g_instance = nullptr;

// The main window: closing it quits the application (the last window closed ends the event loop).
class MainWindow : public QMainWindow {
public:
    MainWindow() { setAttribute(Qt::WA_QuitOnClose, true); }
};
}  // namespace

AppDelegate::AppDelegate() { g_instance = this; }

AppDelegate::~AppDelegate() {
    if (g_instance == this) g_instance = nullptr;
}

AppDelegate* AppDelegate::instance() { return g_instance; }

QString AppDelegate::windowTitle() {
    return QString::fromLatin1(productName) + QStringLiteral("  v") + QString::fromLatin1(version) +
           QStringLiteral(" · ") + QString::fromLatin1(buildMark);
}

QIcon AppDelegate::applicationIcon() {
    QIcon icon;
    for (int size : {16, 22, 24, 32, 48, 64, 128, 256, 512})
        icon.addFile(QStringLiteral(":/icons/ostvarren-%1.png").arg(size), QSize(size, size));
    return icon;
}

void AppDelegate::applicationDidFinishLaunching() {
    if (!qEnvironmentVariableIsSet("OS_ACTIVITY_MODE")) qputenv("OS_ACTIVITY_MODE", "disable");  // never overwritten
    window_ = std::make_unique<MainWindow>();
    buildMenu();
    window_->setWindowTitle(windowTitle());
    window_->resize(1280, 820);
    window_->setMinimumSize(900, 600);
    setContent(new LoginViewController);  // always the login screen first, even with stored credentials
    if (QScreen* screen = window_->screen()) {
        const QRect avail = screen->availableGeometry();
        window_->move(avail.center() - window_->rect().center());
    }
    window_->show();
    window_->raise();
    window_->activateWindow();
    if (logoutMenuItem_) logoutMenuItem_->setEnabled(false);
}

void AppDelegate::buildMenu() {
    QMenuBar* bar = window_->menuBar();
    bar->setObjectName(QStringLiteral("Main Menu"));

    QMenu* app = bar->addMenu(QStringLiteral("Ostvarren"));
    app->addAction(QStringLiteral("About Ostvarren"), this, &AppDelegate::showAbout)->setMenuRole(QAction::AboutRole);
    app->addSeparator();
    QAction* prefs = app->addAction(QStringLiteral("Preferences…"), this, &AppDelegate::showPreferences);
    prefs->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Comma));
    prefs->setMenuRole(QAction::PreferencesRole);
    app->addSeparator();
    logoutMenuItem_ = app->addAction(QStringLiteral("退出登录"), this, &AppDelegate::showLogin);
    app->addSeparator();
    QAction* quit = app->addAction(QStringLiteral("Quit Ostvarren"), qApp, &QApplication::quit);
    quit->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
    quit->setMenuRole(QAction::QuitRole);

    // Edit actions go to whatever has the keyboard focus. In the terminal the keys themselves belong to
    // the remote shell (the web view claims them first), so Ctrl+C there still interrupts a program.
    QMenu* edit = bar->addMenu(QStringLiteral("Edit"));
    struct Item { const char* title; QKeySequence key; const char* slot; int web; };
    const Item items[] = {
        {"Undo", QKeySequence(Qt::CTRL | Qt::Key_Z), "undo", QWebEnginePage::Undo},
        {"Redo", QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_Z), "redo", QWebEnginePage::Redo},
        {nullptr, {}, nullptr, 0},
        {"Cut", QKeySequence(Qt::CTRL | Qt::Key_X), "cut", QWebEnginePage::Cut},
        {"Copy", QKeySequence(Qt::CTRL | Qt::Key_C), "copy", QWebEnginePage::Copy},
        {"Paste", QKeySequence(Qt::CTRL | Qt::Key_V), "paste", QWebEnginePage::Paste},
        {"Select All", QKeySequence(Qt::CTRL | Qt::Key_A), "selectAll", QWebEnginePage::SelectAll},
    };
    for (const Item& it : items) {
        if (!it.title) {
            edit->addSeparator();
            continue;
        }
        QAction* a = edit->addAction(QString::fromLatin1(it.title));
        a->setShortcut(it.key);
        a->setShortcutContext(Qt::WindowShortcut);
        const char* slot = it.slot;
        const int web = it.web;
        connect(a, &QAction::triggered, this, [this, slot, web] { editAction(slot, web); });
    }

    QMenu* windowMenu = bar->addMenu(QStringLiteral("Window"));
    QAction* minimize = windowMenu->addAction(QStringLiteral("Minimize"), window_.get(), &QWidget::showMinimized);
    minimize->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_M));
    windowMenu->addAction(QStringLiteral("Zoom"), this, [this] {
        if (window_->isMaximized()) window_->showNormal(); else window_->showMaximized();
    });
}

void AppDelegate::editAction(const char* lineEditSlot, int webAction) {
    QWidget* focus = QApplication::focusWidget();
    for (QWidget* w = focus; w; w = w->parentWidget()) {
        if (auto* view = qobject_cast<QWebEngineView*>(w)) {
            view->page()->triggerAction(static_cast<QWebEnginePage::WebAction>(webAction));
            return;
        }
    }
    if (focus) QMetaObject::invokeMethod(focus, lineEditSlot);
}

QWidget* AppDelegate::currentScreen() const { return window_ ? window_->centralWidget() : nullptr; }

void AppDelegate::setContent(QWidget* screen) {
    QWidget* old = window_->takeCentralWidget();
    window_->setCentralWidget(screen);
    screen->show();
    if (old) {
        old->hide();
        old->deleteLater();  // a fresh screen every time; nothing of the previous one is kept
    }
}

void AppDelegate::showMain() {
    if (!window_) return;
    setContent(workspaceFactory ? workspaceFactory() : new QWidget);
    if (logoutMenuItem_) logoutMenuItem_->setEnabled(true);
}

void AppDelegate::showLogin() {
    if (disconnectRelay) disconnectRelay();
    AdminAPIClient::shared().resetSession();
    if (!window_) return;
    setContent(new LoginViewController);
    if (logoutMenuItem_) logoutMenuItem_->setEnabled(false);
}

void AppDelegate::showPreferences() {
    if (!window_) return;
    auto* sheet = new PreferencesViewController(window_.get());
    sheet->setAttribute(Qt::WA_DeleteOnClose);
    sheet->open();
}

void AppDelegate::showAbout() {
    if (aboutPanel_) {  // one about panel at a time: bring the open one forward
        aboutPanel_->raise();
        aboutPanel_->activateWindow();
        return;
    }
    auto* panel = new QDialog(window_.get());
    panel->setObjectName(QStringLiteral("aboutPanel"));
    panel->setWindowTitle(QStringLiteral("About Ostvarren"));
    panel->setAttribute(Qt::WA_DeleteOnClose);
    auto* column = new QVBoxLayout(panel);
    column->setContentsMargins(36, 24, 36, 18);
    column->setSpacing(6);
    auto centred = [panel](const QString& text, double pt, bool bold, const QColor& colour) {
        auto* l = new QLabel(text, panel);
        l->setAlignment(Qt::AlignCenter);
        l->setTextFormat(Qt::PlainText);
        l->setTextInteractionFlags(Qt::TextSelectableByMouse);
        QFont f = l->font();
        f.setPointSizeF(pt * 0.75);
        f.setBold(bold);
        l->setFont(f);
        if (colour.isValid()) {
            QPalette p = l->palette();
            p.setColor(QPalette::WindowText, colour);
            l->setPalette(p);
        }
        return l;
    };
    auto* icon = new QLabel(panel);
    icon->setAlignment(Qt::AlignCenter);
    icon->setPixmap(applicationIcon().pixmap(QSize(64, 64), panel->devicePixelRatioF()));
    column->addWidget(icon);
    column->addSpacing(4);
    column->addWidget(centred(QString::fromLatin1(productName), 16, true, {}));
    column->addWidget(centred(QStringLiteral("Version %1 (%2)").arg(QString::fromLatin1(version), QString::fromLatin1(buildMark)),
                              11, false, {}));
    column->addSpacing(6);
    QLabel* credits = centred(QString::fromUtf8(tagLine), 11, false, Theme::secondaryLabel());
    credits->setObjectName(QStringLiteral("aboutCredits"));
    column->addWidget(credits);
    column->addSpacing(10);
    auto* ok = new QPushButton(QStringLiteral("OK"), panel);
    ok->setDefault(true);
    ok->setMinimumWidth(80);
    connect(ok, &QPushButton::clicked, panel, &QDialog::accept);
    auto* row = new QHBoxLayout();
    row->addStretch(1);
    row->addWidget(ok);
    row->addStretch(1);
    column->addLayout(row);
    panel->setFixedSize(panel->sizeHint().expandedTo(QSize(300, 0)));
    aboutPanel_ = panel;
    panel->show();
}

}  // namespace ostv
