#pragma once
// The relay's wire records: one JSON object per line of the QUIC stream.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "Decoded.h"
#include "DomainRecords.h"

namespace ostv {

// One controller (desktop client) attached to the same agent, as listed in "controller_list".
struct ControllerInfo {
    std::string id;
    std::string nickname;
    std::string cwd;
    std::optional<std::string> workspacePty;
    bool operator==(const ControllerInfo&) const = default;
};

// The one relay message record. Every field but `type` is optional; absent fields are omitted on
// encode (never null), a missing or null key decodes as absent, unknown keys are ignored, and a key
// of the wrong JSON type (or a fractional number for an integer field) fails the whole message.
struct Message {
    std::string type;
    std::optional<std::string> code;
    std::optional<std::string> data;
    std::optional<std::string> msg;
    std::optional<int64_t> cols;
    std::optional<int64_t> rows;
    std::optional<int64_t> ts;
    std::optional<std::string> protoVer;
    std::optional<std::string> appVer;
    std::optional<std::string> nickname;
    std::optional<std::string> id;
    std::optional<int64_t> limit;
    std::optional<int64_t> current;
    std::optional<std::vector<ControllerInfo>> controllers;
    std::optional<std::string> targetControllerId;
    std::optional<std::string> reason;
    std::optional<std::string> by;
    std::optional<std::string> controllerId;
    std::optional<int64_t> ptyId;
    std::optional<std::string> op;
    std::optional<std::string> path;
    std::optional<std::string> command;
    std::optional<std::string> homeDir;
    std::optional<std::string> os;
    std::optional<double> cpu;
    std::optional<double> mem;
    std::optional<std::string> cwd;
    std::optional<std::string> machineId;
    std::optional<std::string> clientId;

    Message() = default;
    explicit Message(std::string t) : type(std::move(t)) {}
    bool operator==(const Message&) const = default;

    // "latency_ping" with ts = now in whole milliseconds since the Unix epoch.
    static Message latencyPing();

    // Compact one-line UTF-8 JSON, no trailing newline (the transport appends it).
    std::string encode() const;
    static Decoded<Message> decode(std::string_view json);
};

// First probe of every received line: only "type" is read.
struct MessageTypeSniff {
    std::string type;
    static Decoded<MessageTypeSniff> decode(std::string_view json);
};

struct PtyListItem {
    int64_t ptyId = 0;
    std::string cwd;
    std::string state;
    std::string controllerId;
    std::optional<std::string> clientId;
    bool operator==(const PtyListItem&) const = default;
};

// The shape of "PTY_LIST".
struct PtyListEnvelope {
    std::string type;
    std::vector<PtyListItem> ptys;
    std::string encode() const;
    static Decoded<PtyListEnvelope> decode(std::string_view json);
};

// One remote shell as the session layer sees it.
struct PtyInfo {
    int64_t ptyId = 0;
    std::string cwd;
    std::string state;
    std::string controllerId;
    std::string clientId;  // empty when the agent did not say
    bool operator==(const PtyInfo&) const = default;
};
std::vector<PtyInfo> toPtyInfos(const PtyListEnvelope& env);

// The shape of "fs_result".
struct FSResultEnvelope {
    std::string type;
    std::string op;
    std::optional<std::string> path;
    bool success = false;
    std::optional<std::vector<FSFileInfo>> data;
    std::string encode() const;
    static Decoded<FSResultEnvelope> decode(std::string_view json);
};

// Tests and fuzzing: turn the long-string fast path of the decoders off (on by default), so both paths
// can be compared on the same input.
void setLongStringFastPath(bool enabled);

// One received line, parsed once; the typed decoders then read from the parsed value. Equivalent to
// decoding the text with each decoder in turn, without parsing a large line two or three times.
class ReceivedLine {
public:
    static Decoded<ReceivedLine> parse(std::string_view json);
    ReceivedLine(ReceivedLine&&) noexcept;
    ReceivedLine& operator=(ReceivedLine&&) noexcept;
    ~ReceivedLine();

    Decoded<MessageTypeSniff> sniff() const;
    // These consume the parsed value (large strings are moved out): call one of them once.
    Decoded<Message> takeMessage();
    Decoded<PtyListEnvelope> takePtyList();
    Decoded<FSResultEnvelope> takeFsResult();

private:
    ReceivedLine();
    std::unique_ptr<nlohmann::json> value_;
};

}  // namespace ostv
