#pragma once
#include <QColor>

namespace ostv {

// Light or dark appearance, and the calibrated greys the views take from it.
class Theme {
public:
    // True exactly when the application's effective appearance is the dark one.
    static bool isDarkMode();

    static QColor grey(double white, double alpha = 1.0);  // calibrated white level 0..1
    static QColor panelBackground();  // 0.95 light / 0.15 dark
    static QColor border();           // 0.85 light / 0.2 dark (borders and dividers)
    static QColor accent();           // RGB (0, 0.47, 0.83)
    static QColor systemRed();
    static QColor systemGreen();
    static QColor systemOrange();
    static QColor systemBlue();
    static QColor label();            // normal label colour
    static QColor secondaryLabel();
};

}  // namespace ostv
