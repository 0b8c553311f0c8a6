#pragma once
#include <QString>

namespace ostv {

// The local user's login name ("/usr/bin/whoami", trimmed); $USER when that cannot run.
QString localLoginName();

}  // namespace ostv
