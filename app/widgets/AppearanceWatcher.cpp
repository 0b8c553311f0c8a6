#include "AppearanceWatcher.h"

#include <QApplication>
#include <QDBusMessage>

#include "Logger.h"
#include "Theme.h"

namespace ostv {

namespace {
// How long the start waits for the portal's answer before it goes on with the platform's palette.
constexpr int kReadTimeoutMs = 300;
}  // namespace

AppearanceWatcher::AppearanceWatcher(QDBusConnection bus, bool platformPaletteIsDark, QObject* parent)
    : QObject(parent), bus_(std::move(bus)), platformDark_(platformPaletteIsDark) {
    if (!bus_.isConnected()) return;
    // The slot takes the whole message and checks its arguments itself: a portal that sends something
    // else than (namespace, key, value) is ignored, not trusted.
    bus_.connect(QString::fromLatin1(portalService), QString::fromLatin1(portalPath),
                 QString::fromLatin1(settingsInterface), QStringLiteral("SettingChanged"), this,
                 SLOT(settingChanged(QDBusMessage)));
    QDBusMessage read = QDBusMessage::createMethodCall(QString::fromLatin1(portalService), QString::fromLatin1(portalPath),
                                                       QString::fromLatin1(settingsInterface), QStringLiteral("Read"));
    read << QString::fromLatin1(appearanceNamespace) << QString::fromLatin1(colorSchemeKey);
    const QDBusMessage reply = bus_.call(read, QDBus::Block, kReadTimeoutMs);
    if (reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty())
        colorScheme_ = decodeColorScheme(reply.arguments().constFirst());
}

std::optional<uint> AppearanceWatcher::decodeColorScheme(const QVariant& value) {
    QVariant v = value;
    for (int depth = 0; depth < 4 && v.metaType() == QMetaType::fromType<QDBusVariant>(); ++depth)
        v = qvariant_cast<QDBusVariant>(v).variant();
    // The setting is an unsigned 32-bit number; anything else (a string, a signed or wider number) is not it.
    if (v.metaType() != QMetaType::fromType<uint>()) return std::nullopt;
    const uint scheme = v.toUInt();
    return scheme <= 2 ? std::optional<uint>(scheme) : std::nullopt;
}

bool AppearanceWatcher::wantsDark() const {
    return Theme::prefersDark(colorScheme_, platformDark_, qgetenv("GTK_THEME"));
}

void AppearanceWatcher::apply() {
    if (!qobject_cast<QApplication*>(QCoreApplication::instance())) return;
    const bool dark = wantsDark();
    const QPalette wanted = Theme::palette(dark);
    if (QApplication::palette() == wanted) return;
    QApplication::setPalette(wanted);  // every view re-applies its greys on the palette change
}

void AppearanceWatcher::settingChanged(const QDBusMessage& message) {
    const QList<QVariant> args = message.arguments();
    if (args.size() != 3 || args[0].metaType() != QMetaType::fromType<QString>() ||
        args[1].metaType() != QMetaType::fromType<QString>())
        return;
    if (args[0].toString() != QLatin1String(appearanceNamespace) || args[1].toString() != QLatin1String(colorSchemeKey))
        return;
    const auto scheme = decodeColorScheme(args[2]);
    if (!scheme) {
        Logger::error("appearance: ignoring a color-scheme value that is not 0, 1 or 2");
        return;
    }
    colorScheme_ = scheme;
    apply();
}

}  // namespace ostv
