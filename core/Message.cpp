#include "Message.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

namespace ostv {

using nlohmann::json;

namespace {

// Strict field readers: a key that is missing or null is absent; a key of the wrong JSON type throws
// DecodeError, which fails the whole record.
struct DecodeError {
    std::string what;
};

const json* find(const json& obj, const char* key) {
    auto it = obj.find(key);
    if (it == obj.end() || it->is_null()) return nullptr;
    return &*it;
}

[[noreturn]] void wrongType(const char* key, const char* expected) {
    throw DecodeError{std::string("key \"") + key + "\": expected " + expected};
}

void readOpt(const json& obj, const char* key, std::optional<std::string>& out) {
    if (const json* v = find(obj, key)) {
        if (!v->is_string()) wrongType(key, "string");
        // The decoders own the parsed value and read each key once, so the text can be moved out.
        out = std::move(const_cast<json*>(v)->get_ref<std::string&>());
    }
}

int64_t asInt64(const json& v, const char* key) {
    if (v.is_number_unsigned()) {
        auto u = v.get<uint64_t>();
        if (u > static_cast<uint64_t>(INT64_MAX)) wrongType(key, "signed 64-bit integer");
        return static_cast<int64_t>(u);
    }
    if (v.is_number_integer()) return v.get<int64_t>();
    wrongType(key, "integer");
}

void readOpt(const json& obj, const char* key, std::optional<int64_t>& out) {
    if (const json* v = find(obj, key)) out = asInt64(*v, key);
}

void readOpt(const json& obj, const char* key, std::optional<double>& out) {
    if (const json* v = find(obj, key)) {
        if (!v->is_number()) wrongType(key, "number");
        out = v->get<double>();
    }
}

std::string readReqString(const json& obj, const char* key) {
    const json* v = find(obj, key);
    if (!v) throw DecodeError{std::string("missing key \"") + key + "\""};
    if (!v->is_string()) wrongType(key, "string");
    return std::move(const_cast<json*>(v)->get_ref<std::string&>());
}

std::string readReqStringCopy(const json& obj, const char* key) {
    const json* v = find(obj, key);
    if (!v) throw DecodeError{std::string("missing key \"") + key + "\""};
    if (!v->is_string()) wrongType(key, "string");
    return v->get_ref<const std::string&>();
}

bool readReqBool(const json& obj, const char* key) {
    const json* v = find(obj, key);
    if (!v) throw DecodeError{std::string("missing key \"") + key + "\""};
    if (!v->is_boolean()) wrongType(key, "boolean");
    return v->get<bool>();
}

int64_t readReqInt(const json& obj, const char* key) {
    const json* v = find(obj, key);
    if (!v) throw DecodeError{std::string("missing key \"") + key + "\""};
    return asInt64(*v, key);
}

const json& requireObject(const json& j, const char* what) {
    if (!j.is_object()) throw DecodeError{std::string(what) + ": expected a JSON object"};
    return j;
}

const json& requireArray(const json& j, const char* key) {
    if (!j.is_array()) wrongType(key, "array");
    return j;
}

ControllerInfo decodeController(const json& j) {
    requireObject(j, "controller");
    ControllerInfo c;
    c.id = readReqString(j, "id");
    c.nickname = readReqString(j, "nickname");
    c.cwd = readReqString(j, "cwd");
    readOpt(j, "workspace_pty", c.workspacePty);
    return c;
}

FSFileInfo decodeFileInfo(const json& j) {
    requireObject(j, "file entry");
    FSFileInfo f;
    f.name = readReqString(j, "name");
    f.path = readReqString(j, "path");
    f.fileType = readReqString(j, "type");
    f.isSymlink = readReqBool(j, "is_symlink");
    return f;
}

template <class T, class F>
Decoded<T> fromValue(const json& j, F&& body) {
    try {
        return Decoded<T>::success(body(j));
    } catch (const DecodeError& e) {
        return Decoded<T>::failure(e.what);
    } catch (const json::exception& e) {
        return Decoded<T>::failure(e.what());
    }
}

// Large string values (base64 terminal output) dominate the received bytes, and the JSON lexer handles
// strings a character at a time. A long value made only of printable ASCII without escapes is taken out
// of the text before parsing, left as a short marker, and put back into the parsed value afterwards.
// Such a string is valid JSON exactly as it stands, so strictness is unchanged; everything else, the
// structure and every type, is still checked by the JSON parser.
//
// A marker must never be mistaken for text the sender wrote. Its first character is U+0001: the parser
// refuses that character raw inside a string, so the only way a sender can produce it is the escape
// "\u0001" (its four digits have no letters, so it has no other spelling). Lines holding that escape
// anywhere take the plain path. On top of that, the markers found after parsing must be exactly the
// ones that were cut, each once; anything else parses the original text plainly.
constexpr size_t kLongString = 512;
constexpr std::string_view kMarkerEscape = "\\u0001";              // how a sender would write U+0001
constexpr std::string_view kMarkerPrefix = "\\u0001\\u0002#";   // text of a marker as it stands in JSON

bool plainPrintableAscii(const char* p, size_t n) {
    unsigned bad = 0;
    for (size_t i = 0; i < n; ++i) {
        const auto c = static_cast<unsigned char>(p[i]);
        bad |= static_cast<unsigned>(c < 0x20) | static_cast<unsigned>(c > 0x7e);
    }
    return bad == 0;
}

// End (index of the closing quote) of the string whose opening quote is at `open`, or npos.
size_t stringEnd(std::string_view t, size_t open, bool& hasEscape) {
    size_t p = open + 1;
    hasEscape = false;
    for (;;) {
        const void* q = std::memchr(t.data() + p, '"', t.size() - p);
        if (!q) return std::string_view::npos;
        const size_t quote = static_cast<const char*>(q) - t.data();
        const void* bs = std::memchr(t.data() + p, '\\', quote - p);
        if (!bs) return quote;
        hasEscape = true;
        p = static_cast<size_t>(static_cast<const char*>(bs) - t.data()) + 2;  // skip the escaped character
        if (p > t.size()) return std::string_view::npos;
    }
}

// Puts the cut values back; false when a marker is malformed, unknown or seen twice, or one is missing.
bool restoreLongStrings(json& j, std::vector<std::string>& longs, std::vector<bool>& used, size_t& restored) {
    if (j.is_object() || j.is_array()) {
        for (auto& v : j)
            if (!restoreLongStrings(v, longs, used, restored)) return false;
    } else if (j.is_string()) {
        auto& s = j.get_ref<std::string&>();
        if (s.empty() || s[0] != '\x01') return true;
        if (s.size() < 4 || s[1] != '\x02' || s[2] != '#') return false;
        size_t index = 0;
        for (size_t i = 3; i < s.size(); ++i) {
            if (s[i] < '0' || s[i] > '9' || i - 3 > 9) return false;
            index = index * 10 + static_cast<size_t>(s[i] - '0');
        }
        if (index >= longs.size() || used[index]) return false;
        used[index] = true;
        ++restored;
        s = std::move(longs[index]);
    }
    return true;
}

std::atomic<bool> g_fastPath{true};

Decoded<json> parseJson(std::string_view text) {
    std::vector<std::string> longs;
    std::string compact;
    // Markers must not collide with text the sender wrote: lines that could spell one take the plain path.
    const bool mayCut = g_fastPath.load(std::memory_order_relaxed) && text.size() >= kLongString &&
                        text.find(kMarkerEscape) == std::string_view::npos;
    if (mayCut) {
        size_t copied = 0, pos = 0;
        for (;;) {
            const void* q = std::memchr(text.data() + pos, '"', text.size() - pos);
            if (!q) break;
            const size_t open = static_cast<const char*>(q) - text.data();
            bool escaped = false;
            const size_t close = stringEnd(text, open, escaped);
            if (close == std::string_view::npos) break;  // unterminated: the parser reports it
            pos = close + 1;
            const size_t len = close - open - 1;
            if (len < kLongString || escaped || !plainPrintableAscii(text.data() + open + 1, len)) continue;
            size_t after = pos;
            while (after < text.size() && (text[after] == ' ' || text[after] == '\t' || text[after] == '\n' ||
                                           text[after] == '\r'))
                ++after;
            if (after < text.size() && text[after] == ':') continue;  // a key: leave it to the parser
            compact.append(text.data() + copied, open + 1 - copied);
            compact.append(kMarkerPrefix).append(std::to_string(longs.size()));
            longs.emplace_back(text.data() + open + 1, len);
            copied = close;
        }
        if (!longs.empty()) compact.append(text.data() + copied, text.size() - copied);
    }
    const std::string_view source = longs.empty() ? text : std::string_view(compact);
    json j = json::parse(source.data(), source.data() + source.size(), nullptr, /*allow_exceptions=*/false);
    if (j.is_discarded()) return Decoded<json>::failure("invalid JSON");
    if (!longs.empty()) {
        std::vector<bool> used(longs.size(), false);
        size_t restored = 0;
        if (!restoreLongStrings(j, longs, used, restored) || restored != longs.size()) {
            j = json::parse(text.data(), text.data() + text.size(), nullptr, /*allow_exceptions=*/false);
            if (j.is_discarded()) return Decoded<json>::failure("invalid JSON");
        }
    }
    return Decoded<json>::success(std::move(j));
}

template <class T, class F>
Decoded<T> parseWith(std::string_view text, F&& body) {
    auto parsed = parseJson(text);
    if (!parsed) return Decoded<T>::failure(parsed.error());
    return fromValue<T>(parsed.value(), std::forward<F>(body));
}

Message decodeMessageBody(const json& j);
PtyListEnvelope decodePtyListBody(const json& j);
FSResultEnvelope decodeFsResultBody(const json& j);
MessageTypeSniff decodeSniffBody(const json& j) {
    requireObject(j, "message");
    return MessageTypeSniff{readReqStringCopy(j, "type")};
}

template <class T>
void put(json& j, const char* key, const std::optional<T>& v) {
    if (v) j[key] = *v;
}

std::string dump(const json& j) {
    // Compact, and invalid UTF-8 inside strings is replaced rather than thrown: encoding never fails
    // because of text we were handed.
    return j.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace

void setLongStringFastPath(bool enabled) { g_fastPath.store(enabled, std::memory_order_relaxed); }

Message Message::latencyPing() {
    Message m("latency_ping");
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const double seconds = std::chrono::duration<double>(now).count();
    m.ts = static_cast<int64_t>(seconds * 1000.0);
    return m;
}

std::string Message::encode() const {
    json j = json::object();
    j["type"] = type;
    put(j, "code", code);
    put(j, "data", data);
    put(j, "msg", msg);
    put(j, "cols", cols);
    put(j, "rows", rows);
    put(j, "ts", ts);
    put(j, "proto_ver", protoVer);
    put(j, "app_ver", appVer);
    put(j, "nickname", nickname);
    put(j, "id", id);
    put(j, "limit", limit);
    put(j, "current", current);
    if (controllers) {
        json arr = json::array();
        for (const auto& c : *controllers) {
            json o = {{"id", c.id}, {"nickname", c.nickname}, {"cwd", c.cwd}};
            put(o, "workspace_pty", c.workspacePty);
            arr.push_back(std::move(o));
        }
        j["controllers"] = std::move(arr);
    }
    put(j, "target_controller_id", targetControllerId);
    put(j, "reason", reason);
    put(j, "by", by);
    put(j, "controller_id", controllerId);
    put(j, "pty_id", ptyId);
    put(j, "op", op);
    put(j, "path", path);
    put(j, "command", command);
    put(j, "home_dir", homeDir);
    put(j, "os", os);
    put(j, "cpu", cpu);
    put(j, "mem", mem);
    put(j, "cwd", cwd);
    put(j, "machine_id", machineId);
    put(j, "client_id", clientId);
    return dump(j);
}

namespace {
Message decodeMessageBody(const json& j) {
        requireObject(j, "message");
        Message m;
        m.type = readReqString(j, "type");
        readOpt(j, "code", m.code);
        readOpt(j, "data", m.data);
        readOpt(j, "msg", m.msg);
        readOpt(j, "cols", m.cols);
        readOpt(j, "rows", m.rows);
        readOpt(j, "ts", m.ts);
        readOpt(j, "proto_ver", m.protoVer);
        readOpt(j, "app_ver", m.appVer);
        readOpt(j, "nickname", m.nickname);
        readOpt(j, "id", m.id);
        readOpt(j, "limit", m.limit);
        readOpt(j, "current", m.current);
        if (const json* v = find(j, "controllers")) {
            std::vector<ControllerInfo> list;
            for (const auto& c : requireArray(*v, "controllers")) list.push_back(decodeController(c));
            m.controllers = std::move(list);
        }
        readOpt(j, "target_controller_id", m.targetControllerId);
        readOpt(j, "reason", m.reason);
        readOpt(j, "by", m.by);
        readOpt(j, "controller_id", m.controllerId);
        readOpt(j, "pty_id", m.ptyId);
        readOpt(j, "op", m.op);
        readOpt(j, "path", m.path);
        readOpt(j, "command", m.command);
        readOpt(j, "home_dir", m.homeDir);
        readOpt(j, "os", m.os);
        readOpt(j, "cpu", m.cpu);
        readOpt(j, "mem", m.mem);
        readOpt(j, "cwd", m.cwd);
        readOpt(j, "machine_id", m.machineId);
        readOpt(j, "client_id", m.clientId);
        return m;
}
}  // namespace

Decoded<Message> Message::decode(std::string_view text) { return parseWith<Message>(text, decodeMessageBody); }

Decoded<MessageTypeSniff> MessageTypeSniff::decode(std::string_view text) {
    return parseWith<MessageTypeSniff>(text, decodeSniffBody);
}

std::string PtyListEnvelope::encode() const {
    json arr = json::array();
    for (const auto& p : ptys) {
        json o = {{"pty_id", p.ptyId}, {"cwd", p.cwd}, {"state", p.state}, {"controller_id", p.controllerId}};
        put(o, "client_id", p.clientId);
        arr.push_back(std::move(o));
    }
    return dump(json{{"type", type}, {"ptys", std::move(arr)}});
}

namespace {
PtyListEnvelope decodePtyListBody(const json& j) {
        requireObject(j, "PTY_LIST");
        PtyListEnvelope env;
        env.type = readReqString(j, "type");
        const json* ptys = find(j, "ptys");
        if (!ptys) throw DecodeError{"missing key \"ptys\""};
        for (const auto& item : requireArray(*ptys, "ptys")) {
            requireObject(item, "pty");
            PtyListItem p;
            p.ptyId = readReqInt(item, "pty_id");
            p.cwd = readReqString(item, "cwd");
            p.state = readReqString(item, "state");
            p.controllerId = readReqString(item, "controller_id");
            readOpt(item, "client_id", p.clientId);
            env.ptys.push_back(std::move(p));
        }
        return env;
}
}  // namespace

Decoded<PtyListEnvelope> PtyListEnvelope::decode(std::string_view text) {
    return parseWith<PtyListEnvelope>(text, decodePtyListBody);
}

std::vector<PtyInfo> toPtyInfos(const PtyListEnvelope& env) {
    std::vector<PtyInfo> out;
    out.reserve(env.ptys.size());
    for (const auto& p : env.ptys)
        out.push_back(PtyInfo{p.ptyId, p.cwd, p.state, p.controllerId, p.clientId.value_or(std::string())});
    return out;
}

std::string FSResultEnvelope::encode() const {
    json j = {{"type", type}, {"op", op}, {"success", success}};
    put(j, "path", path);
    if (data) {
        json arr = json::array();
        for (const auto& f : *data)
            arr.push_back({{"name", f.name}, {"path", f.path}, {"type", f.fileType}, {"is_symlink", f.isSymlink}});
        j["data"] = std::move(arr);
    }
    return dump(j);
}

namespace {
FSResultEnvelope decodeFsResultBody(const json& j) {
        requireObject(j, "fs_result");
        FSResultEnvelope env;
        env.type = readReqString(j, "type");
        env.op = readReqString(j, "op");
        readOpt(j, "path", env.path);
        env.success = readReqBool(j, "success");
        if (const json* v = find(j, "data")) {
            std::vector<FSFileInfo> list;
            for (const auto& f : requireArray(*v, "data")) list.push_back(decodeFileInfo(f));
            env.data = std::move(list);
        }
        return env;
}
}  // namespace

Decoded<FSResultEnvelope> FSResultEnvelope::decode(std::string_view text) {
    return parseWith<FSResultEnvelope>(text, decodeFsResultBody);
}

ReceivedLine::ReceivedLine() = default;
ReceivedLine::ReceivedLine(ReceivedLine&&) noexcept = default;
ReceivedLine& ReceivedLine::operator=(ReceivedLine&&) noexcept = default;
ReceivedLine::~ReceivedLine() = default;

Decoded<ReceivedLine> ReceivedLine::parse(std::string_view text) {
    auto parsed = parseJson(text);
    if (!parsed) return Decoded<ReceivedLine>::failure(parsed.error());
    ReceivedLine line;
    line.value_ = std::make_unique<json>(std::move(parsed).value());
    return Decoded<ReceivedLine>::success(std::move(line));
}

Decoded<MessageTypeSniff> ReceivedLine::sniff() const { return fromValue<MessageTypeSniff>(*value_, decodeSniffBody); }
Decoded<Message> ReceivedLine::takeMessage() { return fromValue<Message>(*value_, decodeMessageBody); }
Decoded<PtyListEnvelope> ReceivedLine::takePtyList() { return fromValue<PtyListEnvelope>(*value_, decodePtyListBody); }
Decoded<FSResultEnvelope> ReceivedLine::takeFsResult() { return fromValue<FSResultEnvelope>(*value_, decodeFsResultBody); }

}  // namespace ostv
