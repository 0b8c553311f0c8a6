#pragma once
// A received line decoded as the connection manager does it: parsed once, sniffed for its type and taken
// as that shape (and, as the client goes on, listed shells and folders converted). Whatever decodes as a
// message must encode and decode back to the same record: a mismatch aborts.
#include <cstdlib>
#include <string_view>

#include "Message.h"

namespace ostv::fuzz {

// Whether the line decodes.
inline bool decodeAsTheClient(std::string_view line) {
    auto parsed = ReceivedLine::parse(line);
    if (!parsed) return false;
    auto sniff = parsed.value().sniff();
    if (!sniff) return false;
    if (sniff->type == "PTY_LIST") {
        auto env = parsed.value().takePtyList();
        if (env) (void)toPtyInfos(env.value());
        return env.ok();
    }
    if (sniff->type == "fs_result") {
        auto env = parsed.value().takeFsResult();
        if (env && env->data)
            for (const auto& f : *env->data) (void)DirectoryItem::fromFileInfo(f);
        return env.ok();
    }
    auto m = parsed.value().takeMessage();
    if (!m) return false;
    // Encoding replaces invalid UTF-8, which decoding never lets in: a mismatch is a fault.
    auto back = Message::decode(m->encode());
    if (!back || !(back.value() == m.value())) std::abort();
    return true;
}

}  // namespace ostv::fuzz
