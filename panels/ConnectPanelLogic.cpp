#include "ConnectPanelLogic.h"

#include <QChar>
#include <QList>

namespace ostv::ConnectPanelLogic {

namespace {
bool isWindows(const std::optional<QString>& agentOS) { return agentOS && *agentOS == QLatin1String("windows"); }
}  // namespace

QString trimmedCode(const QString& typed) { return typed.trimmed(); }

bool isValidPairingCode(const QString& typed) {
    // Counted in code points, so a digit outside the basic plane is one character, not two.
    const QList<uint> chars = trimmedCode(typed).toUcs4();
    if (chars.size() != 6) return false;
    for (uint c : chars)
        if (!QChar::isNumber(char32_t(c))) return false;
    return true;
}

std::optional<QString> validatePathFormat(const QString& typed, const std::optional<QString>& agentOS) {
    const QString path = typed.trimmed();
    if (path.isEmpty()) return QStringLiteral("请输入工作目录的绝对路径");
    if (isWindows(agentOS)) {
        const QList<uint> chars = path.toUcs4();
        const bool ok = chars.size() >= 3 && QChar::isLetter(char32_t(chars[0])) && chars[1] == ':' &&
                        (chars[2] == '\\' || chars[2] == '/');
        if (!ok) return QStringLiteral("请输入 Windows 绝对路径，如 C:\\Users\\user");
        return std::nullopt;
    }
    if (!path.startsWith(QLatin1Char('/'))) return QStringLiteral("请输入绝对路径，如 /home/user");
    return std::nullopt;
}

QString pathPlaceholder(const std::optional<QString>& agentOS) {
    return isWindows(agentOS) ? QStringLiteral("C:\\Users\\user") : QStringLiteral("/home/user");
}

}  // namespace ostv::ConnectPanelLogic
