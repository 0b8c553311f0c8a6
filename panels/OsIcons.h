#pragma once
// The small operating-system glyphs of the host list, drawn in code so that they stay sharp at any
// scale and follow the light and dark appearance.
#include <QPixmap>
#include <QString>
#include <optional>

namespace ostv::OsIcons {

// "os_linux", "os_apple", "os_windows"; any other name (or none) gives the generic computer glyph.
// size is in device-independent pixels; the pixmap carries devicePixelRatio.
QPixmap pixmap(const std::optional<QString>& name, int size, bool dark, qreal devicePixelRatio = 1.0);

}  // namespace ostv::OsIcons
