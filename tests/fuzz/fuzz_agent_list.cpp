// The admin server's agent list: strict decoding, de-duplication and conversion to hosts.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include <QCoreApplication>

#include "AdminAPIClient.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto hosts = ostv::AdminAgents::decodeHosts(std::string_view(reinterpret_cast<const char*>(data), size));
    if (hosts) {
        // Every surviving host has an id, and ids of hosts made from a machine id or a code are unique.
        for (const auto& h : *hosts)
            if (h.id.isEmpty()) __builtin_trap();
    }
    return 0;
}
