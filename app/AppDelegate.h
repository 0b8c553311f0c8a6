#pragma once
#include <QAction>
#include <QDialog>
#include <QIcon>
#include <QMainWindow>
#include <QObject>
#include <QPointer>
#include <functional>
#include <memory>

namespace ostv {

// Owns the one main window, builds the menu, and switches the window between the login screen and the
// workspace. Each switch creates a fresh screen.
class AppDelegate : public QObject {
    Q_OBJECT
public:
    AppDelegate();
    ~AppDelegate() override;
    static AppDelegate* instance();  // the application's delegate, or none

    static constexpr const char* productName = "Ostvarren";
    static constexpr const char* version = "1.0.0";
    static constexpr const char* buildMark = "#04060750";
    static constexpr const char* tagLine = "远程终端中继 · 多端协同 · 实时接管";
    static QString windowTitle();  // "Ostvarren  v1.0.0 · #04060750"
    static QIcon applicationIcon();  // the icon in every rendered size, from the resources

    // The workspace to show after login, and what ends the relay session on logout (set by main).
    std::function<QWidget*()> workspaceFactory;
    std::function<void()> disconnectRelay;

    void applicationDidFinishLaunching();
    void showMain();
    void showLogin();
    void showPreferences();
    void showAbout();

    QMainWindow* window() const { return window_.get(); }
    QAction* logoutMenuItem() const { return logoutMenuItem_; }
    QWidget* currentScreen() const;
    QDialog* aboutPanel() const { return aboutPanel_; }

private:
    void buildMenu();
    void setContent(QWidget* screen);
    void editAction(const char* lineEditSlot, int webAction);
    std::unique_ptr<QMainWindow> window_;
    QPointer<QAction> logoutMenuItem_;
    QPointer<QDialog> aboutPanel_;
};

}  // namespace ostv
