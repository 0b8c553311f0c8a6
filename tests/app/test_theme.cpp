#include <gtest/gtest.h>

#include <QApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QProcess>
#include <QScopeGuard>
#include <QThread>

#include "AppearanceWatcher.h"
#include "ClientIdentity.h"
#include "LoginViewController.h"
#include "StatusBarView.h"
#include "TestSupport.h"
#include "Theme.h"

using namespace ostv;
using namespace ostv::test;

namespace {

// Restores the light palette after a test that switched appearance, so later tests start the same way.
struct PaletteGuard {
    ~PaletteGuard() { QApplication::setPalette(Theme::palette(false)); }
};

QColor textColour(QWidget* w) { return w->palette().color(QPalette::WindowText); }

// The desktop portal's settings interface, as a desktop offers it on the session bus.
class FakePortal : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.portal.Settings")
public:
    QVariant answer;  // what Read hands back inside its variant
public Q_SLOTS:
    QDBusVariant Read(const QString& ns, const QString& key) {
        // The portal's Read wraps the value twice, as the desktops' portals do.
        if (ns == "org.freedesktop.appearance" && key == "color-scheme")
            return QDBusVariant(QVariant::fromValue(QDBusVariant(answer)));
        return QDBusVariant(QVariant(QString()));
    }
};

// A private session bus for one test: the portal on one connection, the application on another.
class PrivateBus {
public:
    PrivateBus() {
        daemon_.start("dbus-daemon", {"--session", "--nofork", "--print-address"});
        if (!daemon_.waitForStarted(3000)) return;
        if (!waitUntil([&] { return daemon_.canReadLine(); }, 5000)) return;
        address_ = QString::fromUtf8(daemon_.readLine()).trimmed();
    }
    ~PrivateBus() {
        QDBusConnection::disconnectFromBus("portal-side");
        QDBusConnection::disconnectFromBus("app-side");
        daemon_.kill();
        daemon_.waitForFinished(3000);
    }
    bool ok() const { return !address_.isEmpty(); }
    QDBusConnection connect(const QString& name) { return QDBusConnection::connectToBus(address_, name); }

private:
    QProcess daemon_;
    QString address_;
};

void announce(QDBusConnection& portal, const QString& key, const QVariant& value) {
    QDBusMessage signal = QDBusMessage::createSignal("/org/freedesktop/portal/desktop",
                                                     "org.freedesktop.portal.Settings", "SettingChanged");
    signal << QString("org.freedesktop.appearance") << key << QVariant::fromValue(QDBusVariant(value));
    portal.send(signal);
}

}  // namespace

TEST(Appearance, BothPalettesKeepTextAndFieldsReadableAndAnExplicitLightWinsOverTheThemeNamesDarkHint) {
    // Without a scheme from the portal, the theme name may still ask for dark (the portal: see below).
    EXPECT_FALSE(Theme::prefersDark(2u, true, "Adwaita:dark"));
    EXPECT_TRUE(Theme::prefersDark(std::nullopt, false, "Adwaita:Dark "));
    EXPECT_FALSE(Theme::prefersDark(std::nullopt, false, "Adwaita"));
    EXPECT_FALSE(Theme::prefersDark(0u, false, "darkish"));

    PaletteGuard restore;
    for (bool dark : {false, true}) {
        const QPalette p = Theme::palette(dark);
        QApplication::setPalette(p);
        EXPECT_EQ(Theme::isDarkMode(), dark);
        for (auto [fg, bg] : {std::pair{QPalette::Text, QPalette::Base}, {QPalette::WindowText, QPalette::Window},
                              {QPalette::ButtonText, QPalette::Button}})
            EXPECT_GT(std::abs(p.color(fg).lightnessF() - p.color(bg).lightnessF()), 0.6) << dark << " role " << fg;
        // A field must stand apart from the window around it, and disabled text from enabled text.
        EXPECT_GT(std::abs(p.color(QPalette::Base).lightnessF() - p.color(QPalette::Window).lightnessF()), 0.03) << dark;
        EXPECT_NE(p.color(QPalette::Disabled, QPalette::Text), p.color(QPalette::Active, QPalette::Text));
    }
}

TEST(Appearance, ViewsFollowTheDesktopWhenItSwitchesAndThePlatformDecidesWithoutIt) {
    PaletteGuard restore;
    PrivateBus bus;
    if (!bus.ok()) GTEST_SKIP() << "dbus-daemon is not available, so no private session bus can be started";
    SecretStore::useFileStoreOnlyForTesting(true, makeTempDir("theme") + "/secrets.json");
    QApplication::setPalette(Theme::palette(false));
    {  // While nobody offers the portal, or without a bus at all, the platform decides.
        AppearanceWatcher noPortal(bus.connect("app-side"), /*platformPaletteIsDark=*/true);
        EXPECT_EQ(noPortal.colorScheme(), std::nullopt);
        noPortal.apply();
        EXPECT_TRUE(Theme::isDarkMode());
        AppearanceWatcher noBus(QDBusConnection(QStringLiteral("not-connected")), false);
        noBus.apply();
        EXPECT_FALSE(Theme::isDarkMode());
    }

    // The portal answers from its own thread, as it would from its own process: the application's first
    // read blocks its thread for the answer.
    QThread portalThread;
    portalThread.start();
    FakePortal portal;
    portal.answer = QVariant(uint(1));  // the desktop prefers dark
    portal.moveToThread(&portalThread);
    QDBusConnection portalSide = bus.connect("portal-side");
    ASSERT_TRUE(portalSide.registerObject("/org/freedesktop/portal/desktop", &portal, QDBusConnection::ExportAllSlots));
    ASSERT_TRUE(portalSide.registerService("org.freedesktop.portal.Desktop"));
    const auto stop = qScopeGuard([&] { portalThread.quit(); portalThread.wait(); });

    QWidget window;  // the views live inside the main window, as in the application
    auto* bar = new StatusBarView(&window);
    bar->setStatus(ConnectionStatus::connected(QString("build-01")));
    const QColor lightGreen = textColour(bar->iconLabel());
    auto* login = new LoginViewController(&window);
    const auto card = [login] { return login->findChild<QWidget*>("loginCard")->styleSheet(); };
    const QString lightCard = card();

    auto watcher = std::make_unique<AppearanceWatcher>(bus.connect("app-side"), /*platformPaletteIsDark=*/false);
    EXPECT_EQ(watcher->colorScheme(), 1u);
    watcher->apply();
    EXPECT_TRUE(Theme::isDarkMode());
    // The views re-apply their colours when the palette change reaches them: a different green, a dark card.
    ASSERT_TRUE(waitUntil([&] { return textColour(bar->iconLabel()) != lightGreen; }));
    EXPECT_EQ(textColour(bar->textLabel()), Theme::secondaryLabel());
    EXPECT_NE(card(), lightCard);

    // The desktop switches to light while the application runs.
    announce(portalSide, "color-scheme", QVariant(uint(2)));
    ASSERT_TRUE(waitUntil([&] { return !Theme::isDarkMode() && textColour(bar->iconLabel()) == lightGreen; }));
    EXPECT_EQ(card(), lightCard);
    EXPECT_EQ(bar->textLabel()->text(), "已连接 — build-01");  // the status itself is kept

    // Other settings and values that are not a colour scheme change nothing.
    StdoutCapture log;
    announce(portalSide, "accent-color", QVariant(uint(1)));
    announce(portalSide, "color-scheme", QVariant(QString("dark")));
    announce(portalSide, "color-scheme", QVariant(uint(9)));
    ASSERT_TRUE(waitUntil([&] { return log.text().find("color-scheme") != std::string::npos; }));
    spin(200);
    EXPECT_FALSE(Theme::isDarkMode());
    EXPECT_EQ(watcher->colorScheme(), 2u);
    watcher.reset();

    // "No preference" hands the decision back to the platform's palette (dark here).
    AppearanceWatcher platformDark(bus.connect("app-side"), /*platformPaletteIsDark=*/true);
    announce(portalSide, "color-scheme", QVariant(uint(0)));
    ASSERT_TRUE(waitUntil([] { return Theme::isDarkMode(); }));
    SecretStore::useFileStoreOnlyForTesting(false);
}

#include "test_theme.moc"
