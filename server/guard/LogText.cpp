#include "LogText.h"

#include <QString>
#include <cstdio>

namespace ostv::server {

std::string logSafe(std::string_view untrusted, size_t maxChars) {
    const QString text = QString::fromUtf8(untrusted.data(), static_cast<qsizetype>(untrusted.size()));
    std::string out;
    size_t chars = 0;
    for (auto it = text.cbegin(); it != text.cend(); ++it) {
        if (chars >= maxChars) {
            out += "...";
            break;
        }
        char32_t cp = it->unicode();
        if (it->isHighSurrogate() && it + 1 != text.cend() && (it + 1)->isLowSurrogate()) {
            cp = QChar::surrogateToUcs4(*it, *(it + 1));
            ++it;
        }
        char buf[16];
        if (cp == '\\' || cp == '"') {
            out += '\\';
            out += static_cast<char>(cp);
        } else if (cp < 0x80 && cp >= 0x20 && cp != 0x7f) {
            out += static_cast<char>(cp);
        } else if (cp < 0x100 && (cp < 0x20 || cp >= 0x7f) && cp < 0xa0) {
            std::snprintf(buf, sizeof buf, "\\x%02x", static_cast<unsigned>(cp));
            out += buf;
        } else if (!QChar::isPrint(cp)) {
            std::snprintf(buf, sizeof buf, "\\u{%04x}", static_cast<unsigned>(cp));
            out += buf;
        } else {
            out += QString::fromUcs4(&cp, 1).toStdString();
        }
        ++chars;
    }
    return out;
}

}  // namespace ostv::server
