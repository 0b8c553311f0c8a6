#include <gtest/gtest.h>

#include "ConnectPanelLogic.h"

using namespace ostv::ConnectPanelLogic;

TEST(ConnectPanelLogic, ACodeIsSixNumericCharactersAndAPathIsAbsoluteAsTheAgentsSystemWritesIt) {
    const std::pair<const char*, bool> codes[] = {
        {"123456", true}, {"  123456\t\n", true}, {"１２３４５６", true},  // full-width
        {"٠١٢٣٤٥", true},                                             // Arabic-Indic
        {"𝟏𝟐𝟑𝟒𝟓𝟔", true},  // outside the basic plane: six characters, not twelve
        {"𝟏𝟐𝟑", false},     // three characters in six UTF-16 units
        {"12345", false}, {"12345a", false}, {"1234567", false}, {"123 456", false}, {"", false}, {"      ", false}};
    for (const auto& [code, valid] : codes) EXPECT_EQ(isValidPairingCode(QString::fromUtf8(code)), valid) << code;

    const QString win = QStringLiteral("请输入 Windows 绝对路径，如 C:\\Users\\user");
    const QString posix = QStringLiteral("请输入绝对路径，如 /home/user");
    const QString empty = QStringLiteral("请输入工作目录的绝对路径");
    const struct {
        const char* os;  // null: the agent did not say
        const char* path;
        std::optional<QString> error;
    } cases[] = {
        {"windows", "C:\\Users\\me", {}}, {"windows", "d:/work", {}}, {"windows", "  E:\\  ", {}},
        {"windows", "C:", win}, {"windows", "C:Users", win}, {"windows", "/home/me", win}, {"windows", "1:\\x", win},
        {"windows", "\\\\server\\share", win}, {"windows", "   ", empty},
        {nullptr, "/home/me", {}}, {"linux", "  /  ", {}}, {"darwin", "~/work", posix}, {nullptr, "C:\\Users", posix},
        {"linux", "work", posix}, {"darwin", "", empty},
        {"Windows", "C:\\x", posix},  // the system word is matched exactly
    };
    for (const auto& c : cases) {
        const std::optional<QString> os = c.os ? std::optional<QString>(c.os) : std::nullopt;
        EXPECT_EQ(validatePathFormat(c.path, os), c.error) << (c.os ? c.os : "-") << " " << c.path;
    }
    EXPECT_EQ(pathPlaceholder(std::nullopt), QStringLiteral("/home/user"));
}
