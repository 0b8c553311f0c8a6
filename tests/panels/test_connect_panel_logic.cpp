#include <gtest/gtest.h>

#include "ConnectPanelLogic.h"

using namespace ostv::ConnectPanelLogic;

TEST(PairingCode, SixNumericCharactersAfterTrimming) {
    EXPECT_TRUE(isValidPairingCode("123456"));
    EXPECT_TRUE(isValidPairingCode("  123456\t\n"));
    EXPECT_EQ(trimmedCode("  123456 "), "123456");
    EXPECT_TRUE(isValidPairingCode(QString::fromUtf8("１２３４５６")));  // full-width
    EXPECT_TRUE(isValidPairingCode(QString::fromUtf8("٠١٢٣٤٥")));      // Arabic-Indic
    EXPECT_TRUE(isValidPairingCode(QString::fromUtf8("𝟏𝟐𝟑𝟒𝟓𝟔")));      // outside the basic plane: six, not twelve

    EXPECT_FALSE(isValidPairingCode("12345"));
    EXPECT_FALSE(isValidPairingCode("12345a"));
    EXPECT_FALSE(isValidPairingCode("1234567"));
    EXPECT_FALSE(isValidPairingCode("123 456"));
    EXPECT_FALSE(isValidPairingCode(""));
    EXPECT_FALSE(isValidPairingCode("      "));
    EXPECT_FALSE(isValidPairingCode(QString::fromUtf8("𝟏𝟐𝟑")));  // three characters in six UTF-16 units
}

TEST(PathFormat, WindowsAgentsWantADriveLetterColonAndSeparator) {
    const std::optional<QString> win = QStringLiteral("windows");
    const QString winError = QStringLiteral("请输入 Windows 绝对路径，如 C:\\Users\\user");
    EXPECT_FALSE(validatePathFormat("C:\\Users\\me", win));
    EXPECT_FALSE(validatePathFormat("d:/work", win));
    EXPECT_FALSE(validatePathFormat("  E:\\  ", win));
    EXPECT_EQ(validatePathFormat("C:", win), winError);
    EXPECT_EQ(validatePathFormat("C:Users", win), winError);
    EXPECT_EQ(validatePathFormat("/home/me", win), winError);
    EXPECT_EQ(validatePathFormat("1:\\x", win), winError);
    EXPECT_EQ(validatePathFormat("\\\\server\\share", win), winError);
    EXPECT_EQ(validatePathFormat("   ", win), QStringLiteral("请输入工作目录的绝对路径"));
    EXPECT_EQ(pathPlaceholder(win), QStringLiteral("C:\\Users\\user"));
}

TEST(PathFormat, OtherAndUnknownAgentsWantALeadingSlash) {
    const QString posixError = QStringLiteral("请输入绝对路径，如 /home/user");
    for (const std::optional<QString>& os :
         {std::optional<QString>(), std::optional<QString>("linux"), std::optional<QString>("darwin")}) {
        EXPECT_FALSE(validatePathFormat("/home/me", os));
        EXPECT_FALSE(validatePathFormat("  /  ", os));
        EXPECT_EQ(validatePathFormat("~/work", os), posixError);
        EXPECT_EQ(validatePathFormat("C:\\Users", os), posixError);
        EXPECT_EQ(validatePathFormat("work", os), posixError);
        EXPECT_EQ(validatePathFormat("", os), QStringLiteral("请输入工作目录的绝对路径"));
        EXPECT_EQ(pathPlaceholder(os), QStringLiteral("/home/user"));
    }
    // The system word is matched exactly.
    EXPECT_EQ(validatePathFormat("C:\\x", QStringLiteral("Windows")), posixError);
}
