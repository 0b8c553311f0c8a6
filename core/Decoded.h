#pragma once
#include <optional>
#include <string>
#include <utility>

namespace ostv {

// The result of a strict decode: either a whole record or an error text, never a partial record.
template <class T>
class Decoded {
public:
    static Decoded success(T v) { Decoded d; d.value_ = std::move(v); return d; }
    static Decoded failure(std::string why) { Decoded d; d.error_ = std::move(why); return d; }

    bool ok() const { return value_.has_value(); }
    explicit operator bool() const { return ok(); }
    const T& value() const& { return *value_; }
    T& value() & { return *value_; }
    T&& value() && { return std::move(*value_); }
    const T* operator->() const { return &*value_; }
    const std::string& error() const { return error_; }

private:
    std::optional<T> value_;
    std::string error_;
};

}  // namespace ostv
