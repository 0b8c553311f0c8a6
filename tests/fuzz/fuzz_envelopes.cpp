// The two envelopes with shapes of their own, and the directory tree's JSON form.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Message.h"

using namespace ostv;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    if (auto list = PtyListEnvelope::decode(text)) {
        auto back = PtyListEnvelope::decode(list->encode());
        if (!back || back->ptys != list->ptys) __builtin_trap();
    }
    if (auto fs = FSResultEnvelope::decode(text)) {
        auto back = FSResultEnvelope::decode(fs->encode());
        if (!back || back->data != fs->data || back->success != fs->success) __builtin_trap();
    }
    if (auto item = DirectoryItem::fromJson(text)) {
        auto back = DirectoryItem::fromJson(item->toJson());
        if (!back || !(*back == *item)) __builtin_trap();
    }
    return 0;
}
