#include "Theme.h"

#include <QApplication>
#include <QPalette>
#include <QStyleFactory>

#include "AppearanceWatcher.h"

namespace ostv {

bool Theme::isDarkMode() {
    // The application's effective appearance: a dark window background means the dark appearance.
    if (!qobject_cast<QGuiApplication*>(QCoreApplication::instance())) return false;
    const QColor window = QGuiApplication::palette().color(QPalette::Window);
    return window.lightnessF() < 0.5;
}

QColor Theme::grey(double white, double alpha) { return QColor::fromRgbF(white, white, white, alpha); }
QColor Theme::panelBackground() { return grey(isDarkMode() ? 0.15 : 0.95); }
QColor Theme::border() { return grey(isDarkMode() ? 0.2 : 0.85); }
QColor Theme::accent() { return QColor::fromRgbF(0.0, 0.47, 0.83); }
QColor Theme::systemRed() { return isDarkMode() ? QColor(255, 69, 58) : QColor(255, 59, 48); }
QColor Theme::systemGreen() { return isDarkMode() ? QColor(50, 215, 75) : QColor(40, 167, 69); }
QColor Theme::systemOrange() { return isDarkMode() ? QColor(255, 159, 10) : QColor(255, 149, 0); }
QColor Theme::systemBlue() { return isDarkMode() ? QColor(10, 132, 255) : QColor(0, 122, 255); }
QColor Theme::label() { return isDarkMode() ? grey(0.9) : grey(0.1); }
QColor Theme::secondaryLabel() { return isDarkMode() ? grey(0.62) : grey(0.45); }

QPalette Theme::palette(bool dark) {
    struct Levels {
        double window, text, base, alternateBase, button, light, midlight, mid, darkShade, shadow, placeholder,
            disabledText, tooltip;
    };
    // Dark fields sit a little lighter than the window around them, so that their edges stay visible.
    const Levels l = dark ? Levels{0.17, 0.9, 0.22, 0.2, 0.25, 0.36, 0.3, 0.2, 0.1, 0.0, 0.5, 0.42, 0.24}
                          : Levels{0.94, 0.1, 1.0, 0.965, 0.96, 1.0, 0.9, 0.74, 0.6, 0.3, 0.6, 0.62, 1.0};
    QPalette p;
    const auto set = [&p](QPalette::ColorRole role, const QColor& c) { p.setColor(QPalette::All, role, c); };
    set(QPalette::Window, grey(l.window));
    set(QPalette::WindowText, grey(l.text));
    set(QPalette::Base, grey(l.base));
    set(QPalette::AlternateBase, grey(l.alternateBase));
    set(QPalette::ToolTipBase, grey(l.tooltip));
    set(QPalette::ToolTipText, grey(l.text));
    set(QPalette::PlaceholderText, grey(l.placeholder));
    set(QPalette::Text, grey(l.text));
    set(QPalette::Button, grey(l.button));
    set(QPalette::ButtonText, grey(l.text));
    set(QPalette::BrightText, dark ? QColor(255, 69, 58) : QColor(255, 59, 48));
    set(QPalette::Light, grey(l.light));
    set(QPalette::Midlight, grey(l.midlight));
    set(QPalette::Mid, grey(l.mid));
    set(QPalette::Dark, grey(l.darkShade));
    set(QPalette::Shadow, grey(l.shadow));
    set(QPalette::Highlight, accent());
    set(QPalette::HighlightedText, Qt::white);
    set(QPalette::Link, dark ? QColor(10, 132, 255) : accent());
    set(QPalette::LinkVisited, dark ? QColor(10, 132, 255) : accent());
    for (QPalette::ColorRole role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
        p.setColor(QPalette::Disabled, role, grey(l.disabledText));
    p.setColor(QPalette::Disabled, QPalette::Highlight, grey(dark ? 0.35 : 0.75));
    return p;
}

bool Theme::prefersDark(std::optional<uint> colorScheme, bool platformPaletteIsDark, const QByteArray& gtkTheme) {
    if (colorScheme == 1u) return true;
    if (colorScheme == 2u) return false;
    return platformPaletteIsDark || gtkTheme.trimmed().toLower().endsWith(":dark");
}

void Theme::install() {
    auto* app = qobject_cast<QApplication*>(QCoreApplication::instance());
    if (!app) return;
    // What the platform theme offers before the application's own palette replaces it (a KDE colour
    // scheme, for one, arrives this way).
    const bool platformDark = QGuiApplication::palette().color(QPalette::Window).lightnessF() < 0.5;
    if (QStyle* fusion = QStyleFactory::create(QStringLiteral("Fusion"))) QApplication::setStyle(fusion);
    auto* watcher = new AppearanceWatcher(QDBusConnection::sessionBus(), platformDark, app);
    watcher->apply();
}

}  // namespace ostv
