#pragma once
// Where agents on other machines register with the relay: every connection with ALPN
// "ostvarren-agent" comes here. Its first line says what it is: an agent's own connection
// ("agent_hello", checked against the shared secret; the agent is then paired with like a built-in
// one) or a seat connection ("seat_hello" with the key of a seat the relay asked for).
//
// A code that another agent holds is refused, except by a newer start of the same agent (same code and
// machine id), which takes over: the older one is told so and let go.
//
// Until a connection has said who it is, it may send only short lines (the relay's unpaired limit) and
// must do so within kHelloTimeoutMs; once it has, its line limit is the full one and its transport no
// longer counts it among the unknown peers of its address.
#include <QObject>
#include <QPointer>
#include <memory>
#include <string>
#include <vector>

#include "AgentWire.h"

namespace ostv::server {

class ControllerLink;
class RemoteAgent;
class Relay;

class AgentHub : public QObject {
    Q_OBJECT
public:
    static constexpr int kHelloTimeoutMs = 10000;
    static constexpr int kMaxLimit = 64;

    AgentHub(Relay* relay, std::string secret, QObject* parent = nullptr);
    ~AgentHub() override;

    // Takes over a new connection (deleted once closed).
    void accept(ControllerLink* link);
    const std::vector<std::unique_ptr<RemoteAgent>>& agents() const { return agents_; }
    void setHelloTimeoutMs(int ms) { helloTimeoutMs_ = ms; }
    // Lets every agent go (the program is stopping, or the relay is).
    void closeAll();

private:
    void onFirstLine(ControllerLink* link, std::string_view line);
    void onHello(ControllerLink* link, const AgentWire& hello);
    void refuse(ControllerLink* link, const std::string& reason);
    void unregister(RemoteAgent* agent, const std::string& why);

    Relay* relay_;
    std::string secret_;
    std::vector<std::unique_ptr<RemoteAgent>> agents_;
    int helloTimeoutMs_ = kHelloTimeoutMs;
    int registrations_ = 0;
};

// Compares two secrets in a time that does not depend on where they differ.
bool sameSecret(const std::string& a, const std::string& b);

}  // namespace ostv::server
