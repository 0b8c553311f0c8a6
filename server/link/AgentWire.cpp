#include "AgentWire.h"

#include <nlohmann/json.hpp>

using nlohmann::json;

namespace ostv::server {

namespace {

void putString(json& j, const char* key, const std::string& v) {
    if (!v.empty()) j[key] = v;
}

struct TypeError {
    std::string key;
};

void getString(const json& j, const char* key, std::string& out) {
    auto it = j.find(key);
    if (it == j.end() || it->is_null()) return;
    if (!it->is_string()) throw TypeError{key};
    out = it->get<std::string>();
}

}  // namespace

std::string AgentWire::encode() const {
    json j = json::object();
    j["type"] = type;
    putString(j, "secret", secret);
    putString(j, "code", code);
    putString(j, "machine_id", machineId);
    putString(j, "os", os);
    putString(j, "hostname", hostname);
    if (limit != 0) j["limit"] = limit;
    if (type == "agent_status") {
        j["cpu"] = cpu;
        j["mem"] = mem;
        json list = json::array();
        for (const ControllerInfo& c : controllers) {
            json e = {{"id", c.id}, {"nickname", c.nickname}, {"cwd", c.cwd}};
            if (c.workspacePty) e["workspace_pty"] = *c.workspacePty;
            list.push_back(std::move(e));
        }
        j["controllers"] = std::move(list);
    }
    putString(j, "reason", reason);
    putString(j, "seat", seat);
    putString(j, "nickname", nickname);
    putString(j, "take_over", takeOver);
    putString(j, "by", by);
    return j.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::optional<AgentWire> AgentWire::decode(std::string_view line, std::string* error) {
    json j = json::parse(line, nullptr, false);
    if (j.is_discarded() || !j.is_object()) {
        if (error) *error = "not a JSON object";
        return std::nullopt;
    }
    AgentWire w;
    try {
        getString(j, "type", w.type);
        if (w.type.empty()) throw TypeError{"type"};
        getString(j, "secret", w.secret);
        getString(j, "code", w.code);
        getString(j, "machine_id", w.machineId);
        getString(j, "os", w.os);
        getString(j, "hostname", w.hostname);
        getString(j, "reason", w.reason);
        getString(j, "seat", w.seat);
        getString(j, "nickname", w.nickname);
        getString(j, "take_over", w.takeOver);
        getString(j, "by", w.by);
        if (auto it = j.find("limit"); it != j.end() && !it->is_null()) {
            if (!it->is_number_integer()) throw TypeError{"limit"};
            w.limit = it->get<int64_t>();
        }
        for (auto [key, out] : {std::pair<const char*, double*>{"cpu", &w.cpu}, {"mem", &w.mem}}) {
            auto it = j.find(key);
            if (it == j.end() || it->is_null()) continue;
            if (!it->is_number()) throw TypeError{key};
            *out = it->get<double>();
        }
        if (auto it = j.find("controllers"); it != j.end() && !it->is_null()) {
            if (!it->is_array()) throw TypeError{"controllers"};
            for (const json& e : *it) {
                if (!e.is_object()) throw TypeError{"controllers"};
                ControllerInfo c;
                getString(e, "id", c.id);
                getString(e, "nickname", c.nickname);
                getString(e, "cwd", c.cwd);
                std::string pty;
                getString(e, "workspace_pty", pty);
                if (!pty.empty()) c.workspacePty = pty;
                w.controllers.push_back(std::move(c));
            }
        }
    } catch (const TypeError& e) {
        if (error) *error = "\"" + e.key + "\" is missing or of the wrong type";
        return std::nullopt;
    }
    return w;
}

}  // namespace ostv::server
