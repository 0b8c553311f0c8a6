#include "Relay.h"

#include <QTimer>
#include <algorithm>

#include "ControllerLink.h"
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

}  // namespace

struct Relay::Peer {
    enum class State { unpaired, selecting, seated, closing };
    QPointer<ControllerLink> link;
    State state = State::unpaired;
    Agent* agent = nullptr;      // selecting or seated
    std::string controllerId;    // seated
    std::string nickname;
    std::string label;           // for the log
    int badLines = 0;
    bool pausedForReplies = false;
};

Relay::Relay(std::vector<Agent*> agents, std::function<std::pair<double, double>()> load, QObject* parent)
    : QObject(parent), agents_(std::move(agents)), load_(std::move(load)) {}

Relay::~Relay() {
    for (auto& p : peers_) {
        if (!p->link) continue;
        p->link->onLine = nullptr;
        p->link->onDrained = nullptr;
        p->link->onClosed = nullptr;
        delete p->link.data();
    }
}

Agent* Relay::agentByCode(const std::string& code) const {
    for (Agent* a : agents_)
        if (a->config().code == code) return a;
    return nullptr;
}

void Relay::accept(ControllerLink* link) {
    auto peer = std::make_unique<Peer>();
    peer->link = link;
    peer->label = link->peerAddress().toStdString();
    Peer* p = peer.get();
    peers_.push_back(std::move(peer));
    Logger::connection("relay: link from " + p->label + " (server name \"" + link->serverName().toStdString() + "\")");

    // The callbacks find their peer through the link, so that a link whose peer is gone does nothing.
    auto find = [this](ControllerLink* l) { return findPeer(l); };
    link->onLine = [this, find, link](std::string_view line) {
        if (Peer* q = find(link)) onLine(*q, line);
    };
    link->onDrained = [find, link] {
        Peer* q = find(link);
        if (!q) return;
        if (q->pausedForReplies && link->pendingBytes() <= kReplyBacklogLimit) {
            q->pausedForReplies = false;
            link->setReadPaused(false);
        }
        if (q->state == Peer::State::seated) q->agent->linkDrained(q->controllerId);
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
        if (p->state == Peer::State::seated) p->agent->release(p->controllerId);
        p->state = Peer::State::closing;
        links.emplace_back(p->link);
    }
    for (auto& l : links)
        if (l) l->close();
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

    if (line.size() > kMaxLineBytes) {
        reject("line of " + std::to_string(line.size()) + " bytes", "消息过长，已忽略");
    } else if (auto d = Message::decode(line); !d) {
        reject(d.error(), "无法解析的消息: " + d.error());
    } else {
        const Message& m = d.value();
        const std::string& t = m.type;
        if (t == "latency_ping") {
            if (!m.ts) {
                reject("latency_ping without ts", "latency_ping 缺少 ts");
            } else {
                Message pong("latency_pong");
                pong.ts = m.ts;
                auto [cpu, mem] = load_ ? load_() : std::pair<double, double>{0, 0};
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
                p.agent->handle(p.controllerId, m);
            else
                reject("\"" + t + "\" before pairing", "尚未配对");
        } else {
            reject("unknown type \"" + t + "\"", {});
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
    if (p.state == Peer::State::seated) return sendError(p, "已配对");
    std::string code = m.code.value_or("");
    const std::string sni = p.link ? p.link->serverName().toStdString() : std::string();
    if (code.empty() && sni.rfind("ctrl-", 0) == 0) code = sni.substr(5);
    if (!sni.empty() && sni != "ctrl-" + code)
        Logger::connection("relay: " + p.label + " pairs with code " + code + " under server name " + sni);
    p.nickname = m.nickname.value_or("");
    if (p.nickname.empty()) p.nickname = "未命名";

    Agent* agent = agentByCode(code);
    if (!agent) {
        Logger::connection("relay: " + p.label + " tried unknown code \"" + code + "\"");
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
        list.limit = agent->config().limit;
        list.current = agent->controllerCount();
        Logger::connection("relay: agent " + code + " is full; " + p.label + " may take over a seat");
        return send(p, list);
    }
    seat(p, agent, {});
}

void Relay::onTakeover(Peer& p, const Message& m) {
    if (p.state == Peer::State::seated) return sendError(p, "已配对");
    if (p.state != Peer::State::selecting) return sendError(p, "尚未配对");
    if (!m.targetControllerId || m.targetControllerId->empty())
        return sendError(p, "takeover 缺少 target_controller_id");
    Agent* agent = p.agent;
    const std::string& target = *m.targetControllerId;
    if (agent->hasController(target)) {
        // Marked first: the kick closes its link, which may report back at once.
        if (Peer* victim = peerOfController(target)) {
            victim->state = Peer::State::closing;
            victim->agent = nullptr;
        }
        std::string client;
        agent->kick(target, p.nickname, &client);
        return seat(p, agent, client);
    }
    // The chosen controller has gone meanwhile: a free seat is as good, else choose again.
    if (!agent->isFull()) return seat(p, agent, {});
    sendError(p, "该控制端已不在线");
    Message list("controller_list");
    list.controllers = agent->controllers();
    list.limit = agent->config().limit;
    list.current = agent->controllerCount();
    send(p, list);
}

void Relay::seat(Peer& p, Agent* agent, const std::string& tookOverClient) {
    p.agent = agent;
    p.controllerId = agent->admit(p.link, p.nickname, tookOverClient);
    p.state = Peer::State::seated;
}

void Relay::onClosed(Peer& p, const QString& why) {
    Logger::connection("relay: link from " + p.label + " closed" + (why.isEmpty() ? "" : ": " + why.toStdString()));
    if (p.state == Peer::State::seated) p.agent->release(p.controllerId);
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
