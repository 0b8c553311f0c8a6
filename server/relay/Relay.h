#pragma once
// The relay: takes controller links, pairs them with an agent by the six-digit code and passes their
// requests on.
//
// A link starts unpaired. "pair" with a known code seats it on that agent ("paired"), or, when the
// agent is full, answers "controller_list" and waits for "takeover" naming the seat to take. An
// unknown code is answered with "error" and the link is closed. "latency_ping" is answered in any
// state. Lines that do not decode, lines that are too long and requests that make no sense in the
// link's state are answered with "error" and otherwise ignored; the link stays up. A link that has
// not paired within the pairing time is closed.
#include <QObject>
#include <QPointer>
#include <QString>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Message.h"

class QTimer;

namespace ostv::server {

class Agent;
class ControllerLink;

class Relay : public QObject {
    Q_OBJECT
public:
    static constexpr size_t kMaxLineBytes = 16 * 1024 * 1024;

    // load answers the machine's cpu and mem percent for "latency_pong".
    Relay(std::vector<Agent*> agents, std::function<std::pair<double, double>()> load, QObject* parent = nullptr);
    ~Relay() override;

    // Takes over a new link (it is deleted once closed).
    void accept(ControllerLink* link);
    // Closes every link (the program is stopping).
    void closeAll();

    void setPairTimeoutMs(int ms) { pairTimeoutMs_ = ms; }
    size_t linkCount() const { return peers_.size(); }
    Agent* agentByCode(const std::string& code) const;

private:
    struct Peer;

    void onLine(Peer& p, std::string_view line);
    void onClosed(Peer& p, const QString& why);
    void onPair(Peer& p, const Message& m);
    void onTakeover(Peer& p, const Message& m);
    void seat(Peer& p, Agent* agent, const std::string& tookOverClient);
    void sendError(Peer& p, const std::string& text);
    void send(Peer& p, const Message& m);
    Peer* peerOfController(const std::string& controllerId);
    Peer* findPeer(ControllerLink* link);
    void drop(Peer& p);

    std::vector<Agent*> agents_;
    std::function<std::pair<double, double>()> load_;
    std::vector<std::unique_ptr<Peer>> peers_;
    int pairTimeoutMs_ = 60000;
};

}  // namespace ostv::server
