#pragma once
// Text from the network (nicknames, server names, paths, message types) on its way into a log line:
// control and format characters (terminal escapes, bidirectional overrides, line breaks) are written
// as \xNN or \u{NNNN}, and the text is cut after `maxChars` characters ("..." marks the cut).
#include <string>
#include <string_view>

namespace ostv::server {

std::string logSafe(std::string_view untrusted, size_t maxChars = 64);

}  // namespace ostv::server
