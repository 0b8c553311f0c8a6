#pragma once
// The agent program's side of the relay link: dials the relay, registers, and for every controller the
// relay seats opens a seat connection whose lines go to the one Agent of this program, exactly as a
// built-in agent's controllers' lines do. When the relay goes away it dials again with backoff; the
// shells live on meanwhile (their seats end, their output is kept for the controllers' return).
#include <QObject>
#include <QPointer>
#include <QTimer>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "AgentWire.h"
#include "agent/Agent.h"
#include "quic/QuicClient.h"

namespace ostv::server {

class QuicControllerLink;

struct AgentClientOptions {
    std::string host;
    uint16_t port = 9090;
    std::string secret;
    std::string hostname;
    AgentConfig agent;
};

class AgentClient : public QObject {
    Q_OBJECT
public:
    static constexpr int kFirstRetryMs = 1000;
    static constexpr int kMaxRetryMs = 30000;
    static constexpr int kStatusIntervalMs = 2000;

    AgentClient(AgentClientOptions options, std::function<std::pair<double, double>()> load, QObject* parent = nullptr);
    ~AgentClient() override;

    void start();
    // Hangs up every shell and closes every connection (the program is stopping).
    void stop();

    Agent& agent() { return agent_; }
    bool isRegistered() const { return registered_; }

    // The wait before dial attempt number `failures` + 1: 1 s doubling up to 30 s, times `jitter`
    // (0.8 to 1.2 in use), never above 30 s.
    static int retryDelayMs(int failures, double jitter);

    std::function<void()> onRegistered;
    // The relay went away (or could not be reached); the next attempt follows after `retryMs`.
    std::function<void(const std::string& why, int retryMs)> onDisconnected;
    // The relay refused this agent, or a newer start of it took over: the program should end.
    std::function<void(const std::string& why)> onRefused;

private:
    void dial();
    void lost(const std::string& why);
    void onControlLine(std::string_view line);
    void openSeat(const AgentWire& request);
    void sendStatus();
    void closeSeats();

    AgentClientOptions options_;
    std::function<std::pair<double, double>()> load_;
    Agent agent_;
    QPointer<QuicClient> control_;
    DialAddress address_;
    size_t addressIndex_ = 0;
    int failures_ = 0;
    bool registered_ = false;
    bool stopped_ = false;
    bool refused_ = false;
    QTimer retryTimer_;
    QTimer statusTimer_;
    std::vector<QPointer<QuicClient>> dialling_;
    std::vector<QPointer<QuicControllerLink>> seats_;
};

}  // namespace ostv::server
