#pragma once
// What a relay and an agent on another machine say to each other (ALPN "ostvarren-agent"): one JSON
// object per line, like the controllers' protocol, on two kinds of connection, both dialled by the
// agent.
//
// The agent's own connection:
//   agent -> relay  {"type":"agent_hello","secret","code","machine_id","os","hostname","limit"}
//   relay -> agent  {"type":"agent_welcome"}, or {"type":"agent_refused","reason"} and the close
//   agent -> relay  {"type":"agent_status","cpu","mem","controllers":[{"id","nickname","cwd",
//                    "workspace_pty"}]}   every few seconds and after every change of seats
//   relay -> agent  {"type":"open_seat","seat","nickname","take_over","by"}   a controller pairs:
//                    the agent dials a seat connection for it ("take_over": the seat it replaces)
//   relay -> agent  {"type":"agent_replaced","reason"}   a newer start of the same agent took over
// A seat connection, one per seated controller:
//   agent -> relay  {"type":"seat_hello","seat"}   then the controllers' protocol, line for line,
//                   starting with the agent's "paired"; closing it ends the seat.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Message.h"

namespace ostv::server {

struct AgentWire {
    std::string type;
    std::string secret;
    std::string code;
    std::string machineId;
    std::string os;
    std::string hostname;
    int64_t limit = 0;
    double cpu = 0;
    double mem = 0;
    std::vector<ControllerInfo> controllers;
    std::string reason;
    std::string seat;
    std::string nickname;
    std::string takeOver;
    std::string by;

    AgentWire() = default;
    explicit AgentWire(std::string t) : type(std::move(t)) {}

    // Empty fields are left out.
    std::string encode() const;
    // Nothing (with *error) when the line is not a JSON object with a string "type", or a known key
    // has the wrong type; unknown keys are ignored.
    static std::optional<AgentWire> decode(std::string_view line, std::string* error);
};

}  // namespace ostv::server
