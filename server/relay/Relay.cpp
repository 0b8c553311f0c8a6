#include "Relay.h"

#include <QHostAddress>
#include <QTimer>
#include <algorithm>
#include <deque>

#include "AgentPort.h"
#include "ControllerLink.h"
#include "LogText.h"
#include "Logger.h"
#include "agent/Agent.h"

namespace ostv::server {

namespace {

// A peer that does not read its replies must not make them pile up here: past this much queued, its
// requests are not read until it has caught up. Shell output alone stays far below this, so a
// working controller is never held back by it.
constexpr size_t kReplyBacklogLimit = 8 * 1024 * 1024;

// Bad lines logged per link before the log only counts them.
constexpr int kBadLinesLogged = 10;

bool needsSeat(const std::string& t) {
    return t == "LIST_PTY" || t == "CREATE_PTY" || t == "INPUT" || t == "RESIZE" || t == "EXEC" ||
           t == "CLOSE_PTY" || t == "fs_op";
}

// "192.0.2.7:4433" or "::1:4433": the address without its port.
QHostAddress sourceOf(const QString& peerAddress) {
    return QHostAddress(peerAddress.left(peerAddress.lastIndexOf(QLatin1Char(':'))));
}

}  // namespace

std::string serverNameForLog(const std::string& sni) {
    // "ctrl-123456" and "agent-123456" carry a pairing code: only their shape is logged.
    for (const char* prefix : {"ctrl-", "agent-"}) {
        const std::string p(prefix);
        if (sni.rfind(p, 0) == 0) return p + std::string(std::min<size_t>(sni.size() - p.size(), 16), '*');
    }
    return logSafe(sni);
}

struct Relay::Peer {
    enum class State { unpaired, selecting, seating, seated, closing };
    QPointer<ControllerLink> link;
    State state = State::unpaired;
    AgentPort* agent = nullptr;  // selecting, seating or seated
    std::string seatKey;         // seating or seated
    std::string controllerId;    // seated
    std::string nickname;
    std::string label;           // for the log
    int badLines = 0;
    bool pausedForReplies = false;
    std::deque<std::string> held;  // requests received while paused, in order
    size_t heldBytes = 0;
};

Relay::Relay(std::vector<Agent*> agents, std::function<std::pair<double, double>()> load, QObject* parent)
    : QObject(parent), load_(std::move(load)) {
    for (Agent* a : agents) {
        localPorts_.push_back(std::make_unique<LocalAgentPort>(a, load_));
        agents_.push_back(localPorts_.back().get());
        watch(agents_.back());
    }
}

Relay::~Relay() {
    for (auto& p : peers_) {
        if (!p->link) continue;
        p->link->onLine = nullptr;
        p->link->onDrained = nullptr;
        p->link->onClosed = nullptr;
        delete p->link.data();
    }
}

AgentPort* Relay::agentByCode(const std::string& code) const {
    for (AgentPort* a : agents_)
        if (a->code() == code) return a;
    return nullptr;
}

void Relay::watch(AgentPort* agent) {
    agent->onSeated = [this, agent](const std::string& key, const std::string& controllerId) {
        Peer* p = peerOfSeat(agent, key);
        if (!p || p->state != Peer::State::seating) return;
        p->controllerId = controllerId;
        p->state = Peer::State::seated;
    };
    agent->onSeatEnded = [this, agent](const std::string& key, const std::string& why) {
        Peer* p = peerOfSeat(agent, key);
        if (!p) return;
        if (p->state == Peer::State::seating && !why.empty()) sendError(*p, why);
        Logger::connection("relay: " + agentLabel(agent) + " ended the seat of " + p->label +
                           (why.empty() ? "" : ": " + why));
        p->state = Peer::State::closing;
        p->agent = nullptr;
        if (p->link) p->link->close();
    };
}

void Relay::addAgent(AgentPort* agent) {
    agents_.push_back(agent);
    watch(agent);
}

void Relay::removeAgent(AgentPort* agent, const std::string& why) {
    auto it = std::find(agents_.begin(), agents_.end(), agent);
    if (it == agents_.end()) return;
    agents_.erase(it);
    agent->onSeated = nullptr;
    agent->onSeatEnded = nullptr;
    std::vector<QPointer<ControllerLink>> links;
    for (auto& p : peers_) {
        if (p->agent != agent) continue;
        if (p->state != Peer::State::closing) sendError(*p, why);
        p->state = Peer::State::closing;
        p->agent = nullptr;
        links.emplace_back(p->link);
    }
    for (auto& l : links)
        if (l) l->close();
}

Relay::Peer* Relay::peerOfSeat(AgentPort* agent, const std::string& key) {
    for (auto& q : peers_)
        if (q->agent == agent && q->seatKey == key &&
            (q->state == Peer::State::seating || q->state == Peer::State::seated))
            return q.get();
    return nullptr;
}

void Relay::accept(ControllerLink* link) {
    auto peer = std::make_unique<Peer>();
    peer->link = link;
    peer->label = logSafe(link->peerAddress().toStdString());
    Peer* p = peer.get();
    peers_.push_back(std::move(peer));
    Logger::connection("relay: link from " + p->label + " (server name \"" +
                       serverNameForLog(link->serverName().toStdString()) + "\")");
    link->setLineLimit(kUnpairedLineBytes);

    // The callbacks find their peer through the link, so that a link whose peer is gone does nothing.
    auto find = [this](ControllerLink* l) { return findPeer(l); };
    link->onLine = [this, link](std::string_view line) { receive(link, line); };
    link->onDrained = [this, find, link] {
        Peer* q = find(link);
        if (!q) return;
        if (q->pausedForReplies && link->pendingBytes() <= kReplyBacklogLimit) {
            q->pausedForReplies = false;
            link->setReadPaused(false);
            // What arrived while paused goes first, in order, until the link is paused again.
            QPointer<ControllerLink> guard(link);
            while (guard && (q = find(link)) && !q->pausedForReplies && !q->held.empty()) {
                std::string line = std::move(q->held.front());
                q->held.pop_front();
                q->heldBytes -= line.size();
                onLine(*q, line);
            }
            if (!guard || !(q = find(link))) return;
        }
        if (q->state == Peer::State::seated) q->agent->linkDrained(q->seatKey);
    };
    link->onClosed = [this, find, link](const QString& why) {
        if (Peer* q = find(link)) onClosed(*q, why);
    };
    // A child of the link, so that it goes with the link instead of waiting out its time.
    auto* pairTimer = new QTimer(link);
    pairTimer->setSingleShot(true);
    QObject::connect(pairTimer, &QTimer::timeout, link, [this, find, link] {
        Peer* q = find(link);
        if (!q || q->state != Peer::State::unpaired) return;
        sendError(*q, "配对超时");
        q->state = Peer::State::closing;
        link->close();
    });
    pairTimer->start(pairTimeoutMs_);
}

void Relay::closeAll() {
    // close() may report the link closed at once, which drops its peer: collect first.
    std::vector<QPointer<ControllerLink>> links;
    for (auto& p : peers_) {
        if ((p->state == Peer::State::seated || p->state == Peer::State::seating) && p->agent)
            p->agent->release(p->seatKey);
        p->state = Peer::State::closing;
        links.emplace_back(p->link);
    }
    for (auto& l : links)
        if (l) l->close();
}

std::string Relay::agentLabel(const AgentPort* a) const { return a ? a->logName() : std::string("no agent"); }

// A line from a link: handled now, or held while its peer is not reading its replies.
void Relay::receive(ControllerLink* link, std::string_view line) {
    Peer* q = findPeer(link);
    if (!q) return;
    if (!q->pausedForReplies || q->state == Peer::State::closing) return onLine(*q, line);
    if (q->held.size() >= kHeldLines || q->heldBytes + line.size() > kHeldBytes) {
        Logger::connection("relay: " + q->label + " keeps sending without reading its replies; closing it");
        q->held.clear();
        q->heldBytes = 0;
        if ((q->state == Peer::State::seated || q->state == Peer::State::seating) && q->agent) q->agent->release(q->seatKey);
        q->state = Peer::State::closing;
        link->close();
        return;
    }
    q->heldBytes += line.size();
    q->held.emplace_back(line);
}

Relay::Peer* Relay::findPeer(ControllerLink* link) {
    for (auto& q : peers_)
        if (q->link == link) return q.get();
    return nullptr;
}

void Relay::send(Peer& p, const Message& m) {
    if (p.link) p.link->sendLine(m.encode());
}

void Relay::sendError(Peer& p, const std::string& text) {
    Message m("error");
    m.msg = text;
    send(p, m);
}

Relay::Peer* Relay::peerOfController(const std::string& controllerId) {
    for (auto& q : peers_)
        if (q->state == Peer::State::seated && q->controllerId == controllerId) return q.get();
    return nullptr;
}

void Relay::onLine(Peer& p, std::string_view line) {
    if (p.state == Peer::State::closing) return;
    QPointer<ControllerLink> link = p.link;

    auto reject = [&](const std::string& why, const std::string& reply) {
        ++p.badLines;
        if (p.badLines <= kBadLinesLogged || p.badLines % 1000 == 0)
            Logger::error("relay: bad line #" + std::to_string(p.badLines) + " from " + p.label + ": " + why);
        if (!reply.empty()) sendError(p, reply);
    };

    const size_t limit = p.state == Peer::State::seated ? kMaxLineBytes : kUnpairedLineBytes;
    if (line.size() > limit) {
        reject("line of " + std::to_string(line.size()) + " bytes", "消息过长，已忽略");
    } else if (auto d = Message::decode(line); !d) {
        reject(logSafe(d.error(), 120), "无法解析的消息: " + d.error());
    } else {
        const Message& m = d.value();
        const std::string& t = m.type;
        if (t == "latency_ping") {
            if (!m.ts) {
                reject("latency_ping without ts", "latency_ping 缺少 ts");
            } else {
                Message pong("latency_pong");
                pong.ts = m.ts;
                // The load of the agent the link is paired with, else this machine's.
                const bool paired = p.state == Peer::State::seated && p.agent;
                auto [cpu, mem] = paired ? p.agent->load() : load_ ? load_() : std::pair<double, double>{0, 0};
                pong.cpu = cpu;
                pong.mem = mem;
                send(p, pong);
            }
        } else if (t == "pair") {
            onPair(p, m);
        } else if (t == "takeover") {
            onTakeover(p, m);
        } else if (needsSeat(t)) {
            if (p.state == Peer::State::seated)
                p.agent->handle(p.seatKey, m, line);
            else
                reject("\"" + logSafe(t) + "\" before pairing", "尚未配对");
        } else {
            reject("unknown type \"" + logSafe(t) + "\"", {});
        }
    }

    // Handling may have closed the link and dropped its peer.
    Peer* q = link ? findPeer(link) : nullptr;
    if (q && !q->pausedForReplies && q->state != Peer::State::closing && link->pendingBytes() > kReplyBacklogLimit) {
        Logger::connection("relay: " + q->label + " is not reading its replies; pausing its requests");
        q->pausedForReplies = true;
        link->setReadPaused(true);
    }
}

void Relay::onPair(Peer& p, const Message& m) {
    if (p.state == Peer::State::seated || p.state == Peer::State::seating) return sendError(p, "已配对");
    const QHostAddress source = p.link ? sourceOf(p.link->peerAddress()) : QHostAddress();
    if (const auto allowed = pairing_.check(source); !allowed) {
        if (allowed.log)
            Logger::connection("relay: pairing from " + AttemptLimiter::sourceKey(source) + " refused for " +
                               std::to_string(allowed.retryAfter.count() / 1000 + 1) + " s: " +
                               (allowed.verdict == AttemptLimiter::Verdict::busy ? "too many wrong codes overall"
                                                                                 : "too many wrong codes") +
                               (allowed.refusedSinceLog ? " (" + std::to_string(allowed.refusedSinceLog) +
                                                              " refused since the last line)"
                                                        : std::string()));
        sendError(p, "配对尝试过多，请稍后再试");
        p.state = Peer::State::closing;
        if (p.link) p.link->close();
        return;
    }
    std::string code = m.code.value_or("");
    const std::string sni = p.link ? p.link->serverName().toStdString() : std::string();
    if (code.empty() && sni.rfind("ctrl-", 0) == 0) code = sni.substr(5);
    p.nickname = m.nickname.value_or("");
    if (p.nickname.empty()) p.nickname = "未命名";

    AgentPort* agent = agentByCode(code);
    if (!sni.empty() && sni != "ctrl-" + code)
        Logger::connection("relay: " + p.label + " pairs with " + agentLabel(agent) + " under server name \"" +
                           serverNameForLog(sni) + "\"");
    if (!agent) {
        pairing_.failed(source);
        Logger::connection("relay: " + p.label + " tried a wrong code");
        sendError(p, "配对码无效");
        p.state = Peer::State::closing;
        if (p.link) p.link->close();
        return;
    }
    if (agent->isFull()) {
        p.state = Peer::State::selecting;
        p.agent = agent;
        Message list("controller_list");
        list.controllers = agent->controllers();
        list.limit = agent->limit();
        list.current = agent->controllerCount();
        Logger::connection("relay: " + agentLabel(agent) + " is full; " + p.label + " may take over a seat");
        return send(p, list);
    }
    seat(p, agent, {});
}

void Relay::onTakeover(Peer& p, const Message& m) {
    if (p.state == Peer::State::seated || p.state == Peer::State::seating) return sendError(p, "已配对");
    if (p.state != Peer::State::selecting) return sendError(p, "尚未配对");
    if (!m.targetControllerId || m.targetControllerId->empty())
        return sendError(p, "takeover 缺少 target_controller_id");
    AgentPort* agent = p.agent;
    const std::string& target = *m.targetControllerId;
    if (agent->hasController(target)) {
        // A built-in agent's kick closes the victim's link, which may report back at once: marked
        // first. A remote agent's victim hears "kicked" through its seat, which then ends.
        if (!agent->isRemote())
            if (Peer* victim = peerOfController(target)) {
                victim->state = Peer::State::closing;
                victim->agent = nullptr;
            }
        return seat(p, agent, target);
    }
    // The chosen controller has gone meanwhile: a free seat is as good, else choose again.
    if (!agent->isFull()) return seat(p, agent, {});
    sendError(p, "该控制端已不在线");
    Message list("controller_list");
    list.controllers = agent->controllers();
    list.limit = agent->limit();
    list.current = agent->controllerCount();
    send(p, list);
}

void Relay::seat(Peer& p, AgentPort* agent, const std::string& takeOver) {
    p.agent = agent;
    p.state = Peer::State::seating;
    p.seatKey = agent->admit(p.link, p.nickname, takeOver, p.nickname);
    if (!agent->isRemote() && p.state == Peer::State::seating) {
        p.controllerId = p.seatKey;
        p.state = Peer::State::seated;
    }
    if (p.link) p.link->setLineLimit(kMaxLineBytes);
}

void Relay::onClosed(Peer& p, const QString& why) {
    Logger::connection("relay: link from " + p.label + " closed" +
                       (why.isEmpty() ? "" : ": " + logSafe(why.toStdString(), 200)));
    if ((p.state == Peer::State::seated || p.state == Peer::State::seating) && p.agent) p.agent->release(p.seatKey);
    drop(p);
}

void Relay::drop(Peer& p) {
    auto it = std::find_if(peers_.begin(), peers_.end(), [&](const auto& q) { return q.get() == &p; });
    if (it == peers_.end()) return;
    std::unique_ptr<Peer> gone = std::move(*it);
    peers_.erase(it);
    if (gone->link) gone->link->deleteLater();
}

}  // namespace ostv::server
