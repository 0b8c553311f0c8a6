#include "AgentClient.h"

#include <QRandomGenerator>
#include <algorithm>
#include <cmath>

#include "LogText.h"
#include "Logger.h"
#include "relay/QuicControllerLink.h"

namespace ostv::server {

AgentClient::AgentClient(AgentClientOptions options, std::function<std::pair<double, double>()> load, QObject* parent)
    : QObject(parent), options_(std::move(options)), load_(std::move(load)), agent_(options_.agent) {
    retryTimer_.setSingleShot(true);
    connect(&retryTimer_, &QTimer::timeout, this, &AgentClient::dial);
    statusTimer_.setInterval(kStatusIntervalMs);
    connect(&statusTimer_, &QTimer::timeout, this, &AgentClient::sendStatus);
}

AgentClient::~AgentClient() { stop(); }

int AgentClient::retryDelayMs(int failures, double jitter) {
    const double base = std::min<double>(kMaxRetryMs, kFirstRetryMs * std::pow(2.0, std::clamp(failures, 0, 16)));
    return static_cast<int>(std::min<double>(kMaxRetryMs, base * jitter));
}

void AgentClient::start() {
    stopped_ = false;
    dial();
}

void AgentClient::stop() {
    if (stopped_) return;
    stopped_ = true;
    retryTimer_.stop();
    statusTimer_.stop();
    // Every seated controller hears why its connection ends (the relay passes the line on).
    Message stopping("error");
    stopping.msg = "智能体已停止";
    for (auto& l : seats_)
        if (l) l->sendLine(stopping.encode());
    closeSeats();
    agent_.hangUpAll();
    if (control_) {
        control_->onClosed = nullptr;
        control_->close();
    }
}

void AgentClient::dial() {
    if (stopped_ || refused_) return;
    std::string error;
    const std::vector<DialAddress> addresses = resolveHost(options_.host, options_.port, &error);
    if (addresses.empty()) return lost(error);
    address_ = addresses[addressIndex_++ % addresses.size()];
    if (control_) control_->deleteLater();
    auto* c = new QuicClient(this);
    control_ = c;
    c->onEstablished = [this, c] {
        AgentWire hello("agent_hello");
        hello.secret = options_.secret;
        hello.code = agent_.config().code;
        hello.machineId = agent_.config().machineId;
        hello.os = agent_.config().os;
        hello.hostname = options_.hostname;
        hello.limit = agent_.config().limit;
        c->sendLine(hello.encode());
    };
    c->onLine = [this](std::string_view line) { onControlLine(line); };
    c->onClosed = [this, c](const QString& why) {
        if (c != control_) return;
        lost(why.toStdString());
    };
    if (!c->dial(address_, "agent-" + agent_.config().code, &error)) lost(error);
}

void AgentClient::lost(const std::string& why) {
    if (stopped_ || refused_) return;
    const bool wasRegistered = registered_;
    registered_ = false;
    statusTimer_.stop();
    // The relay's end of every seat is gone with it; the shells stay.
    closeSeats();
    if (wasRegistered) failures_ = 0;
    const double jitter = 0.8 + 0.4 * QRandomGenerator::global()->generateDouble();
    const int delay = retryDelayMs(failures_++, jitter);
    Logger::connection("agent: relay " + logSafe(options_.host) + " " + (wasRegistered ? "went away" : "not reached") +
                       " (" + logSafe(why, 200) + "); dialling again in " +
                       std::to_string(delay) + " ms");
    if (onDisconnected) onDisconnected(why, delay);
    retryTimer_.start(delay);
}

void AgentClient::onControlLine(std::string_view line) {
    std::string error;
    auto w = AgentWire::decode(line, &error);
    if (!w) {
        Logger::error("agent: bad line from the relay: " + error);
        return;
    }
    if (w->type == "agent_welcome") {
        registered_ = true;
        failures_ = 0;
        Logger::connection("agent: registered with the relay " + logSafe(options_.host));
        sendStatus();
        statusTimer_.start();
        if (onRegistered) onRegistered();
    } else if (w->type == "agent_refused" || w->type == "agent_replaced") {
        refused_ = true;
        registered_ = false;
        retryTimer_.stop();
        statusTimer_.stop();
        const std::string why =
            (w->type == "agent_refused" ? "refused by the relay: " : "replaced: ") + logSafe(w->reason, 200);
        Logger::error("agent: " + why);
        if (onRefused) onRefused(why);
    } else if (w->type == "open_seat") {
        openSeat(*w);
    }
}

void AgentClient::openSeat(const AgentWire& request) {
    if (request.seat.empty()) return;
    auto* c = new QuicClient(this);
    dialling_.emplace_back(c);
    const AgentWire req = request;
    c->onClosed = [this, c](const QString& why) {
        Logger::error("agent: seat connection failed: " + logSafe(why.toStdString(), 200));
        std::erase(dialling_, QPointer<QuicClient>(c));
        c->deleteLater();
    };
    c->onEstablished = [this, c, req] {
        std::erase(dialling_, QPointer<QuicClient>(c));
        AgentWire hello("seat_hello");
        hello.seat = req.seat;
        c->sendLine(hello.encode());
        auto* link = new QuicControllerLink(c, this);
        c->setParent(link);
        seats_.emplace_back(link);
        std::string client;
        if (!req.takeOver.empty()) agent_.kick(req.takeOver, req.by, &client);
        const std::string id = agent_.admit(link, req.nickname.empty() ? "未命名" : req.nickname, client);
        link->onLine = [this, id](std::string_view line) {
            auto m = Message::decode(line);
            if (!m) {
                Logger::error("agent: undecodable line from controller " + id + ": " + logSafe(m.error(), 120));
                return;
            }
            agent_.handle(id, m.value());
        };
        link->onDrained = [this, id] { agent_.linkDrained(id); };
        link->onClosed = [this, id, link](const QString&) {
            std::erase(seats_, QPointer<QuicControllerLink>(link));
            agent_.release(id);
            link->deleteLater();
            sendStatus();
        };
        sendStatus();
    };
    std::string error;
    if (!c->dial(address_, "agent-" + agent_.config().code, &error)) {
        Logger::error("agent: cannot open a seat connection: " + logSafe(error, 200));
        std::erase(dialling_, QPointer<QuicClient>(c));
        c->deleteLater();
    }
}

void AgentClient::sendStatus() {
    if (!registered_ || !control_) return;
    AgentWire s("agent_status");
    auto [cpu, mem] = load_ ? load_() : std::pair<double, double>{0, 0};
    s.cpu = cpu;
    s.mem = mem;
    s.controllers = agent_.controllers();
    control_->sendLine(s.encode());
}

void AgentClient::closeSeats() {
    for (auto& c : dialling_)
        if (c) {
            c->onEstablished = nullptr;
            c->onClosed = nullptr;
            c->close();
            c->deleteLater();
        }
    dialling_.clear();
    // Closing reports back through each link's onClosed (from the event loop), which frees the seat.
    auto seats = seats_;
    for (auto& l : seats)
        if (l) l->close();
}

}  // namespace ostv::server
