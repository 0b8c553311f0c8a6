#pragma once
// The relay's side of an agent on another machine: its own connection (registration, load, requests
// for seats) and one seat connection per seated controller, whose lines pass between the controller's
// link and the agent unchanged. Flow control holds end to end: a controller that does not read stops
// the reading of its seat connection (so the agent stops reading that shell), and a seat connection
// the agent does not drain stops the reading of its controller's link.
#include <QPointer>
#include <QTimer>
#include <map>
#include <memory>
#include <string>

#include "AgentWire.h"
#include "relay/AgentPort.h"

namespace ostv::server {

class ControllerLink;

class RemoteAgent : public AgentPort {
    Q_OBJECT
public:
    static constexpr size_t kHighWater = 256 * 1024;
    static constexpr int kSeatTimeoutMs = 10000;

    // `control` is the agent's own connection; the caller keeps listening on it and hands statuses in.
    // `serial` numbers the agent among those that registered with this relay, for the log.
    RemoteAgent(const AgentWire& hello, ControllerLink* control, int serial = 0, QObject* parent = nullptr);
    ~RemoteAgent() override;

    ControllerLink* control() const { return control_; }
    QString address() const;
    void applyStatus(const AgentWire& status);
    // Whether a seat with this key is waiting for its connection.
    bool awaitsSeat(const std::string& key) const;
    // The agent's seat connection for `key` has come (its "seat_hello" read).
    void attachSeat(const std::string& key, ControllerLink* connection);
    // Ends every seat (the agent has gone or been replaced); nothing is reported for them.
    void closeAll();

    bool isRemote() const override { return true; }
    std::string code() const override { return hello_.code; }
    std::string machineId() const override { return hello_.machineId; }
    std::string os() const override { return hello_.os; }
    std::string hostname() const override { return hello_.hostname; }
    std::string logName() const override { return logName_; }
    int limit() const override { return static_cast<int>(hello_.limit); }
    int controllerCount() const override { return static_cast<int>(seats_.size()); }
    bool hasController(const std::string& controllerId) const override;
    std::vector<ControllerInfo> controllers() const override;
    std::pair<double, double> load() const override { return {cpu_, mem_}; }
    std::string admit(ControllerLink* link, const std::string& nickname, const std::string& takeOver,
                      const std::string& by) override;
    void release(const std::string& key) override;
    void handle(const std::string& key, const Message& m, std::string_view line) override;
    void linkDrained(const std::string& key) override;

private:
    struct Seat {
        std::string key;
        std::string nickname;
        std::string controllerId;  // from the agent's "paired"
        uint64_t order = 0;
        QPointer<ControllerLink> controller;
        QPointer<ControllerLink> connection;
        bool controllerPaused = false;  // its requests wait for the seat connection to drain
        bool connectionPaused = false;  // the agent's output waits for the controller to read
        std::unique_ptr<QTimer> timeout;
    };

    void endSeat(const std::string& key, const std::string& why);
    static void dropTimer(Seat& s);
    void fromAgent(Seat& s, std::string_view line);

    AgentWire hello_;
    std::string logName_;
    QPointer<ControllerLink> control_;
    double cpu_ = 0;
    double mem_ = 0;
    std::vector<ControllerInfo> reported_;
    std::map<std::string, std::unique_ptr<Seat>> seats_;
    uint64_t nextOrder_ = 1;
};

}  // namespace ostv::server
