#include "AgentPort.h"

#include "agent/Agent.h"

namespace ostv::server {

LocalAgentPort::LocalAgentPort(Agent* agent, std::function<std::pair<double, double>()> load, QObject* parent)
    : AgentPort(parent), agent_(agent), load_(std::move(load)) {}

std::string LocalAgentPort::code() const { return agent_->config().code; }
std::string LocalAgentPort::machineId() const { return agent_->config().machineId; }
std::string LocalAgentPort::os() const { return agent_->config().os; }
std::string LocalAgentPort::hostname() const { return agent_->config().hostname; }
std::string LocalAgentPort::logName() const { return agent_->logName(); }
int LocalAgentPort::limit() const { return agent_->config().limit; }
int LocalAgentPort::controllerCount() const { return agent_->controllerCount(); }
bool LocalAgentPort::hasController(const std::string& id) const { return agent_->hasController(id); }
std::vector<ControllerInfo> LocalAgentPort::controllers() const { return agent_->controllers(); }
std::pair<double, double> LocalAgentPort::load() const { return load_ ? load_() : std::pair<double, double>{0, 0}; }

std::string LocalAgentPort::admit(ControllerLink* link, const std::string& nickname, const std::string& takeOver,
                                  const std::string& by) {
    std::string client;
    if (!takeOver.empty()) agent_->kick(takeOver, by, &client);
    return agent_->admit(link, nickname, client);
}

void LocalAgentPort::release(const std::string& key) { agent_->release(key); }
void LocalAgentPort::handle(const std::string& key, const Message& m, std::string_view) { agent_->handle(key, m); }
void LocalAgentPort::linkDrained(const std::string& key) { agent_->linkDrained(key); }

}  // namespace ostv::server
