#include "Theme.h"

#include <QGuiApplication>
#include <QPalette>
#include <QStyleHints>

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

}  // namespace ostv
