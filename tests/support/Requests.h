#pragma once
// Requests a controller sends, as the tests write them, and what it makes of the lines it receives.
#include <QByteArray>
#include <cstdint>
#include <string>
#include <vector>

#include "Message.h"

namespace ostv::test {

inline Message pairing(const std::string& code, const std::string& nickname) {
    Message m("pair");
    m.code = code;
    m.nickname = nickname;
    m.protoVer = "2.0.0";
    m.appVer = "2.1.0";
    return m;
}

inline Message takeover(const std::string& controllerId) {
    Message m("takeover");
    m.targetControllerId = controllerId;
    return m;
}

inline Message ping(int64_t ts) {
    Message m("latency_ping");
    m.ts = ts;
    return m;
}

inline Message create(int64_t ptyId, const std::string& clientId, const std::string& cwd = "~") {
    Message m("CREATE_PTY");
    m.ptyId = ptyId;
    m.cols = 80;
    m.rows = 24;
    m.cwd = cwd;
    m.clientId = clientId;
    return m;
}

inline Message input(int64_t ptyId, const std::string& data) {
    Message m("INPUT");
    m.ptyId = ptyId;
    m.data = data;
    return m;
}

inline Message withPty(const std::string& type, int64_t ptyId) {
    Message m(type);
    m.ptyId = ptyId;
    return m;
}

// The messages among `lines` from index `from` on (only those of `type` unless it is empty).
inline std::vector<Message> decodedLines(const std::vector<std::string>& lines, const std::string& type, size_t from) {
    std::vector<Message> out;
    for (size_t i = from; i < lines.size(); ++i)
        if (auto d = Message::decode(lines[i]); d && (type.empty() || d->type == type)) out.push_back(d.value());
    return out;
}

// All output of the shell `ptyId` among `lines` from index `from` on, decoded.
inline std::string ptyOutput(const std::vector<std::string>& lines, int64_t ptyId, size_t from) {
    std::string out;
    for (const Message& m : decodedLines(lines, "PTY_DATA", from))
        if (m.ptyId == ptyId && m.data) out += QByteArray::fromBase64(QByteArray::fromStdString(*m.data)).toStdString();
    return out;
}

}  // namespace ostv::test
