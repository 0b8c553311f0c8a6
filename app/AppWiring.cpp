#include "AppWiring.h"

#include <QPointer>
#include <QTimer>

#include "AppDelegate.h"
#include "ConnectionManager.h"
#include "MainViewController.h"

namespace ostv {

void wireApplication(AppDelegate& delegate) {
    QPointer<AppDelegate> app(&delegate);
    delegate.workspaceFactory = [app]() -> QWidget* {
        auto* workspace = new MainViewController(&ConnectionManager::shared());
        workspace->onNeedsLogin = [app] {
            // Later, not inside the host list's own callback: the switch replaces the workspace.
            QTimer::singleShot(0, [app] {
                if (app) app->showLogin();
            });
        };
        return workspace;
    };
    delegate.disconnectRelay = [] { ConnectionManager::shared().disconnect(); };
}

}  // namespace ostv
