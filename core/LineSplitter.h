#pragma once
#include <string>
#include <string_view>

namespace ostv {

// Splits a received byte stream into lines at 0x0A. Fed chunk by chunk; complete non-empty lines go to
// the callback in order, the bytes after the last line feed stay buffered for the next chunk.
class LineSplitter {
public:
    template <class F>
    void feed(std::string_view chunk, F&& onLine) {
        size_t start = 0;
        for (;;) {
            size_t nl = chunk.find('\n', start);
            if (nl == std::string_view::npos) break;
            if (buffer_.empty()) {
                if (nl > start) onLine(chunk.substr(start, nl - start));
            } else {
                buffer_.append(chunk.substr(start, nl - start));
                std::string line;
                line.swap(buffer_);
                if (!line.empty()) onLine(std::string_view(line));
            }
            start = nl + 1;
        }
        if (start < chunk.size()) buffer_.append(chunk.substr(start));
    }
    size_t buffered() const { return buffer_.size(); }
    void clear() { buffer_.clear(); }

private:
    std::string buffer_;
};

}  // namespace ostv
