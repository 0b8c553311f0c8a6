#pragma once
// The checks of the connect panel, without its widgets: the pairing code and the working-directory
// path as the user typed them.
#include <QString>
#include <optional>

namespace ostv::ConnectPanelLogic {

// The code with the white space around it removed.
QString trimmedCode(const QString& typed);

// Exactly six characters after trimming, each one a Unicode numeric character (full-width and other
// scripts' digits count, not only 0-9).
bool isValidPairingCode(const QString& typed);

// Error text for a working directory that is not absolute for the agent's system, none when it is.
// "windows" wants a drive letter, a colon and a backslash or slash; any other or unknown system a
// leading slash.
std::optional<QString> validatePathFormat(const QString& typed, const std::optional<QString>& agentOS);

// The path field's placeholder once the agent's system is known (or unknown).
QString pathPlaceholder(const std::optional<QString>& agentOS);

}  // namespace ostv::ConnectPanelLogic
