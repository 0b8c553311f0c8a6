// The received byte stream: split into lines in arbitrary chunks, each line parsed once and decoded
// by type, as the connection manager does; and the long-string fast path compared with the plain one.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "LineSplitter.h"
#include "Message.h"

using namespace ostv;

namespace {

void decodeLine(std::string_view line) {
    auto parsed = ReceivedLine::parse(line);
    if (!parsed) return;
    auto sniff = parsed.value().sniff();
    if (!sniff) return;
    if (sniff->type == "PTY_LIST") {
        auto env = parsed.value().takePtyList();
        if (env) (void)toPtyInfos(env.value());
    } else if (sniff->type == "fs_result") {
        auto env = parsed.value().takeFsResult();
        if (env && env->data)
            for (const auto& f : *env->data) (void)DirectoryItem::fromFileInfo(f);
    } else {
        auto m = parsed.value().takeMessage();
        if (m) {
            // Whatever decodes must encode and decode back to the same record.
            auto back = Message::decode(m->encode());
            if (!back || !(back.value() == m.value())) {
                // Encoding replaces invalid UTF-8, which decoding never lets in: a mismatch is a fault.
                abort();
            }
        }
    }
}

void differential(std::string_view line) {
    setLongStringFastPath(true);
    auto fast = Message::decode(line);
    setLongStringFastPath(false);
    auto plain = Message::decode(line);
    setLongStringFastPath(true);
    if (fast.ok() != plain.ok()) abort();
    if (fast.ok() && !(fast.value() == plain.value())) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    // The first byte chooses the chunk size, so lines are cut at every kind of place.
    const size_t chunk = 1 + data[0] % 97;
    std::string_view stream(reinterpret_cast<const char*>(data) + 1, size - 1);
    LineSplitter splitter;
    for (size_t off = 0; off < stream.size(); off += chunk)
        splitter.feed(stream.substr(off, chunk), [](std::string_view line) {
            decodeLine(line);
            differential(line);
        });
    return 0;
}
