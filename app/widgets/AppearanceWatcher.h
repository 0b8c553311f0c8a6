#pragma once
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QObject>
#include <optional>

namespace ostv {

// Keeps the application palette in step with the desktop's light or dark preference. The preference is the
// freedesktop appearance setting ("org.freedesktop.appearance" / "color-scheme"), read once through the
// desktop portal and then followed as the portal announces changes. Without a portal (no session bus, no
// desktop) the platform theme's palette and GTK_THEME decide, once.
class AppearanceWatcher : public QObject {
    Q_OBJECT
public:
    AppearanceWatcher(QDBusConnection bus, bool platformPaletteIsDark, QObject* parent = nullptr);

    // The last preference the portal gave: 0 none, 1 dark, 2 light; none before any valid answer.
    std::optional<uint> colorScheme() const { return colorScheme_; }
    bool wantsDark() const;
    // Sets the application palette of the wanted appearance, when it is not the one already in use.
    void apply();

    static constexpr const char* portalService = "org.freedesktop.portal.Desktop";
    static constexpr const char* portalPath = "/org/freedesktop/portal/desktop";
    static constexpr const char* settingsInterface = "org.freedesktop.portal.Settings";
    static constexpr const char* appearanceNamespace = "org.freedesktop.appearance";
    static constexpr const char* colorSchemeKey = "color-scheme";

    // The portal wraps its values in one or more variants; answers the number inside, none for anything else.
    static std::optional<uint> decodeColorScheme(const QVariant& value);

private Q_SLOTS:
    void settingChanged(const QDBusMessage& message);

private:
    QDBusConnection bus_;
    bool platformDark_;
    std::optional<uint> colorScheme_;
};

}  // namespace ostv
