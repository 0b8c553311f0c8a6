#include "AgentHub.h"

#include <QRegularExpression>
#include <QTimer>
#include <algorithm>

#include "LogText.h"
#include "Logger.h"
#include "RemoteAgent.h"
#include "program/ServerOptions.h"
#include "relay/ControllerLink.h"
#include "relay/Relay.h"

namespace ostv::server {

namespace {

// Closes a link that nothing listens to any more; it deletes itself once closed.
void hangUp(ControllerLink* link) {
    link->onLine = nullptr;
    link->onDrained = nullptr;
    link->onClosed = [link](const QString&) { link->deleteLater(); };
    link->close();
}

}  // namespace

bool sameSecret(const std::string& a, const std::string& b) {
    unsigned char diff = a.size() == b.size() ? 0 : 1;
    const size_t n = std::max(a.size(), b.size());
    for (size_t i = 0; i < n; ++i) {
        const unsigned char x = i < a.size() ? static_cast<unsigned char>(a[i]) : 0;
        const unsigned char y = i < b.size() ? static_cast<unsigned char>(b[i]) : 0;
        diff |= static_cast<unsigned char>(x ^ y);
    }
    return diff == 0 && !a.empty();
}

AgentHub::AgentHub(Relay* relay, std::string secret, QObject* parent)
    : QObject(parent), relay_(relay), secret_(std::move(secret)) {}

AgentHub::~AgentHub() { closeAll(); }

void AgentHub::accept(ControllerLink* link) {
    link->setLineLimit(Relay::kUnpairedLineBytes);
    link->onLine = [this, link](std::string_view line) { onFirstLine(link, line); };
    link->onClosed = [link](const QString&) { link->deleteLater(); };
    auto* timer = new QTimer(link);
    timer->setSingleShot(true);
    connect(timer, &QTimer::timeout, link, [link] {
        Logger::connection("relay: agent connection from " + link->peerAddress().toStdString() + " said nothing; closed");
        hangUp(link);
    });
    timer->start(helloTimeoutMs_);
}

void AgentHub::onFirstLine(ControllerLink* link, std::string_view line) {
    for (QTimer* t : link->findChildren<QTimer*>(Qt::FindDirectChildrenOnly)) t->stop();
    std::string error;
    auto w = AgentWire::decode(line, &error);
    if (!w) return refuse(link, "bad first line: " + error);
    if (w->type == "seat_hello") {
        for (auto& a : agents_)
            if (a->awaitsSeat(w->seat)) {
                link->onLine = nullptr;
                link->onClosed = nullptr;
                link->setLineLimit(Relay::kMaxLineBytes);
                link->markAuthenticated();
                a->attachSeat(w->seat, link);
                return;
            }
        Logger::connection("relay: seat connection from " + link->peerAddress().toStdString() + " for no known seat");
        return hangUp(link);
    }
    if (w->type == "agent_hello") return onHello(link, *w);
    refuse(link, "unexpected \"" + logSafe(w->type, 32) + "\"");
}

void AgentHub::refuse(ControllerLink* link, const std::string& reason) {
    Logger::error("relay: agent from " + link->peerAddress().toStdString() + " refused: " + reason);
    AgentWire r("agent_refused");
    r.reason = reason;
    link->sendLine(r.encode());
    hangUp(link);
}

void AgentHub::onHello(ControllerLink* link, const AgentWire& hello) {
    if (!sameSecret(hello.secret, secret_)) return refuse(link, "wrong agent secret");
    static const QRegularExpression sixDigits(QStringLiteral("^[0-9]{6}$"));
    if (!sixDigits.match(QString::fromStdString(hello.code)).hasMatch())
        return refuse(link, "the pairing code must be six digits");
    if (hello.machineId.empty() || hello.machineId.size() > 128) return refuse(link, "no usable machine_id");
    AgentWire h = hello;
    if (h.limit < 1 || h.limit > kMaxLimit) h.limit = 8;
    if (h.os.empty()) h.os = "linux";
    h.os = h.os.substr(0, 32);
    // The name the host list shows, held to the rules of the programs' --name; else none is listed.
    h.hostname = checkedHostName(QString::fromStdString(h.hostname)).value_or(QString()).toStdString();

    if (AgentPort* holder = relay_->agentByCode(h.code)) {
        auto it = std::find_if(agents_.begin(), agents_.end(), [&](const auto& a) { return a.get() == holder; });
        if (it == agents_.end() || holder->machineId() != h.machineId)
            return refuse(link, "the pairing code is already taken by another agent");
        RemoteAgent* old = it->get();
        Logger::connection("relay: " + old->logName() + " started again from " + link->peerAddress().toStdString() +
                           "; the connection from " + old->address().toStdString() + " is let go");
        if (old->control()) {
            AgentWire r("agent_replaced");
            r.reason = "a newer start of this agent registered from " + link->peerAddress().toStdString();
            old->control()->sendLine(r.encode());
        }
        unregister(old, "智能体已重新启动");
    }

    auto agent = std::make_unique<RemoteAgent>(h, link, ++registrations_);
    RemoteAgent* a = agent.get();
    agents_.push_back(std::move(agent));
    link->onLine = [a](std::string_view line) {
        auto w = AgentWire::decode(line, nullptr);
        if (w && w->type == "agent_status") a->applyStatus(*w);
    };
    link->onClosed = [this, a, link](const QString& why) {
        // Copied first: letting the agent go replaces this very handler.
        AgentHub* self = this;
        RemoteAgent* agent = a;
        link->deleteLater();
        Logger::connection("relay: " + agent->logName() + " went away" +
                           (why.isEmpty() ? "" : ": " + logSafe(why.toStdString(), 200)));
        self->unregister(agent, "智能体已断开连接");
    };
    link->setLineLimit(Relay::kMaxLineBytes);
    link->markAuthenticated();
    relay_->addAgent(a);
    link->sendLine(AgentWire("agent_welcome").encode());
    Logger::connection("relay: " + a->logName() + " registered from " + link->peerAddress().toStdString() +
                       " (machine \"" + logSafe(h.machineId, 128) + "\", " + logSafe(h.os, 32) + ", up to " +
                       std::to_string(h.limit) + " controllers)");
}

void AgentHub::unregister(RemoteAgent* agent, const std::string& why) {
    auto it = std::find_if(agents_.begin(), agents_.end(), [&](const auto& a) { return a.get() == agent; });
    if (it == agents_.end()) return;
    std::unique_ptr<RemoteAgent> gone = std::move(*it);
    agents_.erase(it);
    relay_->removeAgent(gone.get(), why);
    gone->closeAll();
    if (ControllerLink* c = gone->control()) hangUp(c);
    gone.release()->deleteLater();
}

void AgentHub::closeAll() {
    while (!agents_.empty()) unregister(agents_.back().get(), "中继已停止");
}

}  // namespace ostv::server
