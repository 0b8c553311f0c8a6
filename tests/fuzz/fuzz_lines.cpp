// The received byte stream: split into lines in arbitrary chunks, each line parsed once and decoded
// by type, as the connection manager does; and the long-string fast path compared with the plain one.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "ClientDecoding.h"
#include "LineSplitter.h"
#include "Message.h"

using namespace ostv;

namespace {

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
            (void)fuzz::decodeAsTheClient(line);
            differential(line);
        });
    return 0;
}
