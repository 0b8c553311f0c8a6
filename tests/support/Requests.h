#pragma once
// Requests a controller sends, as the tests write them.
#include <cstdint>
#include <string>

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

}  // namespace ostv::test
