// The admin server's agent list: strict decoding, de-duplication and conversion to hosts.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>

#include <QCoreApplication>

#include "AdminAPIClient.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto hosts = ostv::AdminAgents::decodeHosts(std::string_view(reinterpret_cast<const char*>(data), size));
    if (hosts) {
        // Every surviving host has an id, and no two share one (duplicates were merged, keyless agents
        // got fresh ids).
        std::unordered_set<std::string> ids;
        for (const auto& h : *hosts) {
            if (h.id.isEmpty()) __builtin_trap();
            if (!ids.insert(h.id.toStdString()).second) __builtin_trap();
            // A host name is shown on one line: no line breaks, tabs or blanks at either end.
            if (h.hostname != h.hostname.simplified()) __builtin_trap();
        }
    }
    return 0;
}
