#pragma once
#include <QByteArray>
#include <QColor>
#include <QEvent>
#include <QPalette>
#include <optional>

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

    // The application palette of each appearance, made for the Fusion style: the same greys on every desktop.
    static QPalette palette(bool dark);

    // Which appearance the desktop asks for. The freedesktop appearance setting decides when it states a
    // preference (1 dark, 2 light); otherwise a dark palette from the platform theme or a ":dark" GTK theme.
    static bool prefersDark(std::optional<uint> colorScheme, bool platformPaletteIsDark, const QByteArray& gtkTheme);

    // Sets the Fusion style and the palette the desktop asks for, and follows later changes of the desktop's
    // appearance. Called once by the application after the QApplication exists.
    static void install();

    // Whether a widget's changeEvent means its colours may have changed. When the application palette
    // changes, widgets receive PaletteChange (ApplicationPaletteChange reaches only some), so both count.
    static bool isPaletteChange(const QEvent* e) {
        return e->type() == QEvent::PaletteChange || e->type() == QEvent::ApplicationPaletteChange;
    }
};

}  // namespace ostv
