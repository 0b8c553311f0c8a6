// Process entry: the application object, its delegate, and the event loop.
#include <QApplication>
#include <QIcon>
#include <QTimer>
#include <unistd.h>

#include "AppDelegate.h"
#include "AppWiring.h"
#include "Theme.h"

int main(int argc, char** argv) {
    // The web engine's sandbox cannot start for root; everyone else keeps it.
    if (geteuid() == 0 && !qEnvironmentVariableIsSet("QTWEBENGINE_DISABLE_SANDBOX"))
        qputenv("QTWEBENGINE_DISABLE_SANDBOX", "1");
    QCoreApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
    QCoreApplication::setOrganizationName(QStringLiteral("Ostvarren"));
    QCoreApplication::setApplicationName(QStringLiteral("Ostvarren"));
    QGuiApplication::setDesktopFileName(QStringLiteral("ostvarren"));
    QApplication app(argc, argv);
    ostv::Theme::install();  // the same look on every desktop, light or dark as the desktop asks
    QApplication::setWindowIcon(ostv::AppDelegate::applicationIcon());

    ostv::AppDelegate delegate;
    ostv::wireApplication(delegate);
    QTimer::singleShot(0, &delegate, &ostv::AppDelegate::applicationDidFinishLaunching);
    return app.exec();
}
