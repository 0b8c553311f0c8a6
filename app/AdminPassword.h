#pragma once
#include <QString>
#include <optional>

namespace ostv {

// The admin password is kept in the keychain (account "adminPassword"), not in the plain settings file.
// A value left in the settings file by an older version is moved into the keychain on first read.
namespace AdminPassword {
inline constexpr const char* service = "com.ostvarren.admin";
inline constexpr const char* account = "adminPassword";

std::optional<QString> read();        // none when never stored; an empty string when stored empty
void write(const QString& password);  // an empty string is stored as empty
}  // namespace AdminPassword

}  // namespace ostv
