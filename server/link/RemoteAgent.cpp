#include "RemoteAgent.h"

#include <QUuid>
#include <algorithm>

#include "LogText.h"
#include "Logger.h"
#include "relay/ControllerLink.h"

namespace ostv::server {

namespace {

// Closes a seat connection that nothing listens to any more; it deletes itself once closed.
void hangUp(ControllerLink* c) {
    c->onLine = nullptr;
    c->onDrained = nullptr;
    c->onClosed = [c](const QString&) { c->deleteLater(); };
    c->close();
}

}  // namespace

RemoteAgent::RemoteAgent(const AgentWire& hello, ControllerLink* control, int serial, QObject* parent)
    : AgentPort(parent), hello_(hello), control_(control) {
    hello_.secret.clear();
    logName_ = "remote agent " + std::to_string(serial);
    if (!hello_.hostname.empty()) logName_ += " (\"" + logSafe(hello_.hostname) + "\")";
}

RemoteAgent::~RemoteAgent() { closeAll(); }

QString RemoteAgent::address() const { return control_ ? control_->peerAddress() : QString(); }

void RemoteAgent::applyStatus(const AgentWire& status) {
    cpu_ = status.cpu;
    mem_ = status.mem;
    reported_ = status.controllers;
}

bool RemoteAgent::awaitsSeat(const std::string& key) const {
    auto it = seats_.find(key);
    return it != seats_.end() && !it->second->connection;
}

bool RemoteAgent::hasController(const std::string& controllerId) const {
    return std::any_of(seats_.begin(), seats_.end(),
                       [&](const auto& kv) { return !controllerId.empty() && kv.second->controllerId == controllerId; });
}

std::vector<ControllerInfo> RemoteAgent::controllers() const {
    std::vector<const Seat*> seated;
    for (const auto& [key, s] : seats_)
        if (!s->controllerId.empty()) seated.push_back(s.get());
    std::sort(seated.begin(), seated.end(), [](const Seat* a, const Seat* b) { return a->order < b->order; });
    std::vector<ControllerInfo> out;
    for (const Seat* s : seated) {
        auto it = std::find_if(reported_.begin(), reported_.end(), [&](const auto& c) { return c.id == s->controllerId; });
        if (it != reported_.end()) {
            out.push_back(*it);
        } else {
            ControllerInfo c;
            c.id = s->controllerId;
            c.nickname = s->nickname;
            c.cwd = "~";
            out.push_back(std::move(c));
        }
    }
    return out;
}

std::string RemoteAgent::admit(ControllerLink* link, const std::string& nickname, const std::string& takeOver,
                               const std::string& by) {
    auto s = std::make_unique<Seat>();
    s->key = QUuid::createUuid().toString(QUuid::Id128).toStdString() +
             QUuid::createUuid().toString(QUuid::Id128).toStdString();
    s->nickname = nickname;
    s->order = nextOrder_++;
    s->controller = link;
    const std::string key = s->key;
    s->timeout = std::make_unique<QTimer>();
    s->timeout->setSingleShot(true);
    QObject::connect(s->timeout.get(), &QTimer::timeout, this, [this, key] {
        Logger::error("relay: " + logName_ + " did not open a seat in time");
        endSeat(key, "智能体没有响应");
    });
    s->timeout->start(kSeatTimeoutMs);
    seats_.emplace(key, std::move(s));

    AgentWire open("open_seat");
    open.seat = key;
    open.nickname = nickname;
    open.takeOver = takeOver;
    open.by = by;
    if (control_) control_->sendLine(open.encode());
    else QTimer::singleShot(0, this, [this, key] { endSeat(key, "智能体已断开连接"); });
    return key;
}

void RemoteAgent::attachSeat(const std::string& key, ControllerLink* connection) {
    auto it = seats_.find(key);
    if (it == seats_.end() || it->second->connection) {
        connection->close();
        return;
    }
    Seat& s = *it->second;
    dropTimer(s);
    s.connection = connection;
    connection->onLine = [this, key](std::string_view line) {
        auto i = seats_.find(key);
        if (i != seats_.end()) fromAgent(*i->second, line);
    };
    connection->onDrained = [this, key] {
        auto i = seats_.find(key);
        if (i == seats_.end()) return;
        Seat& t = *i->second;
        if (t.controllerPaused && t.connection && t.connection->pendingBytes() <= kHighWater) {
            t.controllerPaused = false;
            if (t.controller) t.controller->setReadPaused(false);
        }
    };
    connection->onClosed = [this, key, connection](const QString&) {
        // Copied first: ending the seat may replace this very handler.
        RemoteAgent* self = this;
        const std::string k = key;
        ControllerLink* c = connection;
        c->deleteLater();
        auto i = self->seats_.find(k);
        if (i == self->seats_.end() || i->second->connection != c) return;
        i->second->connection = nullptr;  // closed already: nothing to hang up
        self->endSeat(k, i->second->controllerId.empty() ? "智能体拒绝了该控制端" : "");
    };
}

void RemoteAgent::fromAgent(Seat& s, std::string_view line) {
    if (s.controllerId.empty()) {
        // The agent answers a new seat with "paired", which names the controller.
        auto m = Message::decode(line);
        if (m && m->type == "paired" && m->id && !m->id->empty()) {
            s.controllerId = *m->id;
            if (onSeated) onSeated(s.key, s.controllerId);
        }
    }
    if (!s.controller) return;
    s.controller->sendLine(line);
    if (!s.connectionPaused && s.controller && s.controller->pendingBytes() > kHighWater && s.connection) {
        s.connectionPaused = true;
        s.connection->setReadPaused(true);
    }
}

void RemoteAgent::handle(const std::string& key, const Message&, std::string_view line) {
    auto it = seats_.find(key);
    if (it == seats_.end() || !it->second->connection) return;
    Seat& s = *it->second;
    s.connection->sendLine(line);
    if (!s.controllerPaused && s.connection->pendingBytes() > kHighWater && s.controller) {
        s.controllerPaused = true;
        s.controller->setReadPaused(true);
    }
}

void RemoteAgent::linkDrained(const std::string& key) {
    auto it = seats_.find(key);
    if (it == seats_.end()) return;
    Seat& s = *it->second;
    if (s.connectionPaused && s.controller && s.controller->pendingBytes() <= kHighWater) {
        s.connectionPaused = false;
        if (s.connection) s.connection->setReadPaused(false);
    }
}

void RemoteAgent::release(const std::string& key) {
    auto it = seats_.find(key);
    if (it == seats_.end()) return;
    std::unique_ptr<Seat> s = std::move(it->second);
    seats_.erase(it);
    dropTimer(*s);
    // The agent frees the seat when its connection ends.
    if (s->connection) {
        hangUp(s->connection);
    }
}

void RemoteAgent::dropTimer(Seat& s) {
    // May be called from the timer's own signal: it goes from the event loop.
    if (!s.timeout) return;
    s.timeout->stop();
    s.timeout.release()->deleteLater();
}

void RemoteAgent::endSeat(const std::string& keyRef, const std::string& why) {
    const std::string key = keyRef;  // the caller's copy may go with the seat
    auto it = seats_.find(key);
    if (it == seats_.end()) return;
    std::unique_ptr<Seat> s = std::move(it->second);
    seats_.erase(it);
    dropTimer(*s);
    if (s->connection) {
        hangUp(s->connection);
    }
    if (onSeatEnded) onSeatEnded(key, why);
}

void RemoteAgent::closeAll() {
    auto seats = std::move(seats_);
    seats_.clear();
    for (auto& [key, s] : seats) {
        dropTimer(*s);
        if (s->connection) {
            hangUp(s->connection);
        }
    }
}

}  // namespace ostv::server
