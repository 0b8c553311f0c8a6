#pragma once
// The relay: takes controller links, pairs them with an agent by the six-digit code and passes their
// requests on.
//
// Agents are built-in ones (given at construction) or ones on other machines that come and go
// (addAgent, removeAgent); the relay reaches both through an AgentPort.
//
// A link starts unpaired. "pair" with a known code seats it on that agent ("paired"), or, when the
// agent is full, answers "controller_list" and waits for "takeover" naming the seat to take. An
// unknown code is answered with "error" and the link is closed. "latency_ping" is answered in any
// state. Lines that do not decode, lines that are too long and requests that make no sense in the
// link's state are answered with "error" and otherwise ignored; the link stays up. A link that has
// not paired within the pairing time is closed.
//
// Until it is seated a link may send only short lines (kUnpairedLineBytes). Failed pairing attempts
// are limited per source address and over all addresses (AttemptLimiter): a refused attempt gets
// "error" and its link is closed, whatever code it carries. A link that does not read its replies has
// its requests held (up to kHeldLines / kHeldBytes, beyond which it is closed) until it has caught up.
#include <QObject>
#include <QPointer>
#include <QString>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "AttemptLimiter.h"
#include "Message.h"

class QTimer;

namespace ostv::server {

class Agent;
class AgentPort;
class ControllerLink;
class LocalAgentPort;

class Relay : public QObject {
    Q_OBJECT
public:
    static constexpr size_t kMaxLineBytes = 16 * 1024 * 1024;
    static constexpr size_t kUnpairedLineBytes = 4096;
    static constexpr size_t kHeldLines = 1024;
    static constexpr size_t kHeldBytes = 4 * 1024 * 1024;

    // load answers this machine's cpu and mem percent for "latency_pong" (the built-in agents' load).
    Relay(std::vector<Agent*> agents, std::function<std::pair<double, double>()> load, QObject* parent = nullptr);
    ~Relay() override;

    // Takes over a new link (it is deleted once closed).
    void accept(ControllerLink* link);
    // Closes every link (the program is stopping).
    void closeAll();

    void setPairTimeoutMs(int ms) { pairTimeoutMs_ = ms; }
    void setPairingPolicy(const AttemptLimiter::Policy& policy) { pairing_ = AttemptLimiter(policy); }
    size_t linkCount() const { return peers_.size(); }
    AgentPort* agentByCode(const std::string& code) const;
    // Every agent, built-in ones first, then the others in the order they came.
    const std::vector<AgentPort*>& agents() const { return agents_; }
    // An agent on another machine joins (its code must be free) or goes: the controllers seated on
    // it, or about to be, get "error" with `why` and their links are closed.
    void addAgent(AgentPort* agent);
    void removeAgent(AgentPort* agent, const std::string& why);

private:
    struct Peer;

    void onLine(Peer& p, std::string_view line);
    void receive(ControllerLink* link, std::string_view line);
    std::string agentLabel(const AgentPort* a) const;
    void onClosed(Peer& p, const QString& why);
    void onPair(Peer& p, const Message& m);
    void onTakeover(Peer& p, const Message& m);
    void seat(Peer& p, AgentPort* agent, const std::string& takeOver);
    void watch(AgentPort* agent);
    Peer* peerOfSeat(AgentPort* agent, const std::string& key);
    void sendError(Peer& p, const std::string& text);
    void send(Peer& p, const Message& m);
    Peer* peerOfController(const std::string& controllerId);
    Peer* findPeer(ControllerLink* link);
    void drop(Peer& p);

    std::vector<std::unique_ptr<LocalAgentPort>> localPorts_;
    std::vector<AgentPort*> agents_;
    std::function<std::pair<double, double>()> load_;
    std::vector<std::unique_ptr<Peer>> peers_;
    int pairTimeoutMs_ = 10000;
    AttemptLimiter pairing_;
};

// A TLS server name as the log shows it: a pairing code in it is masked, anything else escaped.
std::string serverNameForLog(const std::string& sni);

}  // namespace ostv::server
