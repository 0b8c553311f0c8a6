#pragma once
#include <cstddef>
#include <limits>
#include <string>
#include <string_view>

namespace ostv {

// Splits a received byte stream into lines at 0x0A. Fed chunk by chunk; complete non-empty lines go to
// the callback in order, the bytes after the last line feed stay buffered for the next chunk.
// A line longer than the limit is dropped whole (its bytes are skipped up to the next line feed), so
// a peer that never ends a line cannot make the buffer grow without bound.
class LineSplitter {
public:
    explicit LineSplitter(size_t maxLine = std::numeric_limits<size_t>::max()) : maxLine_(maxLine) {}

    template <class F>
    void feed(std::string_view chunk, F&& onLine) {
        while (!chunk.empty()) {
            const size_t nl = chunk.find('\n');
            if (discarding_) {
                if (nl == std::string_view::npos) return;
                discarding_ = false;
                chunk.remove_prefix(nl + 1);
                continue;
            }
            const size_t length = nl == std::string_view::npos ? chunk.size() : nl;
            if (length > maxLine_ || buffer_.size() > maxLine_ - length) {
                ++dropped_;
                buffer_.clear();
                buffer_.shrink_to_fit();
                discarding_ = nl == std::string_view::npos;
                chunk.remove_prefix(nl == std::string_view::npos ? chunk.size() : nl + 1);
                continue;
            }
            if (nl == std::string_view::npos) {
                buffer_.append(chunk);
                return;
            }
            if (buffer_.empty()) {
                if (nl > 0) onLine(chunk.substr(0, nl));
            } else {
                buffer_.append(chunk.substr(0, nl));
                std::string line;
                line.swap(buffer_);
                if (!line.empty()) onLine(std::string_view(line));
            }
            chunk.remove_prefix(nl + 1);
        }
    }
    size_t buffered() const { return buffer_.size(); }
    size_t droppedLines() const { return dropped_; }  // over-long lines dropped so far
    size_t maxLine() const { return maxLine_; }
    void setMaxLine(size_t maxLine) { maxLine_ = maxLine; }
    void clear() {
        buffer_.clear();
        discarding_ = false;
    }

private:
    size_t maxLine_;
    std::string buffer_;
    bool discarding_ = false;
    size_t dropped_ = 0;
};

}  // namespace ostv
