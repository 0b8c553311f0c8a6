#pragma once
// How the relay reaches one agent: a built-in one through direct calls (LocalAgentPort), or one on
// another machine over its connections (RemoteAgent). Both end in the same Agent code; the port only
// carries the relay's calls to it.
//
// A controller is seated with admit(), which answers a key naming the seat for every later call. A
// built-in agent seats it at once; a remote one once its seat connection is up, which onSeated reports
// (never from inside admit()). onSeatEnded reports a seat that could not be made or that the agent
// ended (a takeover by another controller, the agent going away); the relay then closes the
// controller's link.
#include <QObject>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Message.h"

namespace ostv::server {

class Agent;
class ControllerLink;

class AgentPort : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;
    ~AgentPort() override = default;

    virtual bool isRemote() const = 0;
    virtual std::string code() const = 0;
    virtual std::string machineId() const = 0;
    virtual std::string os() const = 0;
    virtual std::string hostname() const = 0;  // empty: not known
    // How log lines name the agent: never by its pairing code, untrusted parts escaped.
    virtual std::string logName() const = 0;
    virtual int limit() const = 0;
    // Seats taken or being set up.
    virtual int controllerCount() const = 0;
    bool isFull() const { return controllerCount() >= limit(); }
    virtual bool hasController(const std::string& controllerId) const = 0;
    virtual std::vector<ControllerInfo> controllers() const = 0;
    // The agent machine's cpu and mem percent.
    virtual std::pair<double, double> load() const = 0;

    // Seats the controller on `link` under `nickname`; when takeOver names a seated controller, that
    // one is pushed out first ("kicked" with `by`) and the new seat may reach its client's shells.
    virtual std::string admit(ControllerLink* link, const std::string& nickname, const std::string& takeOver,
                              const std::string& by) = 0;
    // The controller's link is gone.
    virtual void release(const std::string& key) = 0;
    // One request of a seated controller, decoded and as it came.
    virtual void handle(const std::string& key, const Message& m, std::string_view line) = 0;
    // The controller's link fell below its low watermark.
    virtual void linkDrained(const std::string& key) = 0;

    std::function<void(const std::string& key, const std::string& controllerId)> onSeated;
    std::function<void(const std::string& key, const std::string& why)> onSeatEnded;
};

// A built-in agent, in this process.
class LocalAgentPort : public AgentPort {
    Q_OBJECT
public:
    LocalAgentPort(Agent* agent, std::function<std::pair<double, double>()> load, QObject* parent = nullptr);

    Agent* agent() const { return agent_; }
    bool isRemote() const override { return false; }
    std::string code() const override;
    std::string machineId() const override;
    std::string os() const override;
    std::string hostname() const override;
    std::string logName() const override;
    int limit() const override;
    int controllerCount() const override;
    bool hasController(const std::string& controllerId) const override;
    std::vector<ControllerInfo> controllers() const override;
    std::pair<double, double> load() const override;
    std::string admit(ControllerLink* link, const std::string& nickname, const std::string& takeOver,
                      const std::string& by) override;
    void release(const std::string& key) override;
    void handle(const std::string& key, const Message& m, std::string_view line) override;
    void linkDrained(const std::string& key) override;

private:
    Agent* agent_;
    std::function<std::pair<double, double>()> load_;
};

}  // namespace ostv::server
