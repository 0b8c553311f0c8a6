#include "Agent.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QTimer>
#include <QUuid>
#include <algorithm>
#include <chrono>
#include <limits>
#include <mutex>
#include <thread>

#include "LogText.h"
#include "Logger.h"
#include "PtyProcess.h"
#include "relay/ControllerLink.h"

namespace ostv::server {

struct Agent::Seat {
    std::string id;
    std::string nickname;
    std::string clientId;        // empty while unbound
    std::string tookOverClient;  // the client whose seat this one took, if any
    std::string cwd = "~";       // where its last shell was opened
    std::optional<int64_t> lastPty;
    uint64_t joinSeq = 0;
    uint64_t bindSeq = 0;
    int badRequests = 0;
    QPointer<ControllerLink> link;
};

struct Agent::Pty {
    std::string clientId;
    int64_t ptyId = 0;
    std::string cwd;  // the directory it was opened in, absolute
    uint64_t seq = 0;
    std::unique_ptr<PtyProcess> proc;
    std::string backlog;     // output kept while the client has no seat
    bool flowPaused = false;
    std::vector<QPointer<ControllerLink>> inputPaused;
    QElapsedTimer lastInput;  // invalid until the first input
};

namespace {

std::string idText(int64_t id) { return std::to_string(id); }

// Entries of one directory: visible folders, hidden (dot) folders, visible files, hidden files, each
// group by name without regard to case, so a home folder starts with what the user works in. Reads at
// most `cap` entries and stops at `deadline`; either sets *truncated.
std::vector<FSFileInfo> listDirectory(const QString& dirPath, size_t cap, std::chrono::steady_clock::time_point deadline,
                                      bool* truncated) {
    struct Entry {
        QString name;
        FSFileInfo info;
        bool isDir;
    };
    std::vector<Entry> entries;
    *truncated = false;
    QDirIterator it(dirPath, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    while (it.hasNext()) {
        if (entries.size() >= cap || ((entries.size() & 255) == 0 && std::chrono::steady_clock::now() >= deadline)) {
            *truncated = true;
            break;
        }
        it.next();
        const QFileInfo fi = it.fileInfo();
        Entry e;
        e.name = fi.fileName();
        e.isDir = fi.isDir();  // a link counts as what it points to
        e.info.name = e.name.toStdString();
        e.info.path = fi.absoluteFilePath().toStdString();
        e.info.fileType = e.isDir ? "directory" : "file";
        e.info.isSymlink = fi.isSymLink();
        entries.push_back(std::move(e));
    }
    std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
        const auto group = [](const Entry& e) { return (e.isDir ? 0 : 2) + (e.name.startsWith(QLatin1Char('.')) ? 1 : 0); };
        if (group(a) != group(b)) return group(a) < group(b);
        const int c = a.name.compare(b.name, Qt::CaseInsensitive);
        return c != 0 ? c < 0 : a.name < b.name;
    });
    std::vector<FSFileInfo> out;
    out.reserve(entries.size());
    for (Entry& e : entries) out.push_back(std::move(e.info));
    return out;
}

// One listing under way: the worker fills `line`, the event loop sends it unless the time ran out.
struct ListingJob {
    std::mutex mutex;
    bool answered = false;  // the reply (or the time-out's failure) went out
    std::string line;
    QPointer<Agent> agent;  // read on the agent's thread only
    std::string seatId;
};

}  // namespace

Agent::Agent(AgentConfig config, QObject* parent) : QObject(parent), config_(std::move(config)) {
    if (config_.homeDir.isEmpty()) config_.homeDir = QDir::homePath();
    if (config_.shell.isEmpty()) config_.shell = defaultLoginShell();
    if (config_.limit < 1) config_.limit = 1;
    bulkRecheck_.setSingleShot(true);
    bulkRecheck_.setInterval(2);
    connect(&bulkRecheck_, &QTimer::timeout, this, &Agent::recheckFlow);
}

Agent::~Agent() { hangUpAll(); }

void Agent::hangUpAll() {
    for (auto& [key, p] : ptys_) resumeInputWriters(*p);
    ptys_.clear();  // each PtyProcess hangs up its shell and hands it to the reaper
}

bool Agent::hasController(const std::string& id) const {
    return std::any_of(seats_.begin(), seats_.end(), [&](const auto& s) { return s->id == id; });
}

std::vector<ControllerInfo> Agent::controllers() const {
    std::vector<ControllerInfo> out;
    for (const auto& s : seats_) {
        ControllerInfo c;
        c.id = s->id;
        c.nickname = s->nickname;
        c.cwd = s->cwd;
        if (s->lastPty && ptys_.count({s->clientId, *s->lastPty})) c.workspacePty = idText(*s->lastPty);
        out.push_back(std::move(c));
    }
    return out;
}

size_t Agent::ptyCount() const { return ptys_.size(); }

Agent::Seat* Agent::seat(const std::string& id) {
    for (auto& s : seats_)
        if (s->id == id) return s.get();
    return nullptr;
}

void Agent::sendLine(Seat& s, const std::string& line) {
    if (s.link) s.link->sendLine(line);
}

void Agent::send(Seat& s, const Message& m) { sendLine(s, m.encode()); }

void Agent::broadcast(const Message& m, const std::string& exceptId) {
    const std::string line = m.encode();
    for (auto& s : seats_)
        if (s->id != exceptId) sendLine(*s, line);
}

void Agent::sendError(Seat& s, const std::string& text) {
    // A controller that keeps sending the same mistake does not get to flood the log.
    ++s.badRequests;
    if (s.badRequests <= 10 || s.badRequests % 1000 == 0)
        Logger::error(logName() + " controller " + s.id + ": bad request #" +
                      std::to_string(s.badRequests) + ": " + logSafe(text, 200));
    Message m("error");
    m.msg = text;
    send(s, m);
}

void Agent::sendPtyError(Seat& s, int64_t ptyId, const std::string& reason) {
    Logger::session(logName() + " pty " + idText(ptyId) + " error: " + logSafe(reason, 200));
    Message m("PTY_ERROR");
    m.ptyId = ptyId;
    m.reason = reason;
    send(s, m);
}

std::string Agent::admit(ControllerLink* link, const std::string& nickname, const std::string& tookOverClient) {
    auto s = std::make_unique<Seat>();
    s->id = QUuid::createUuid().toString(QUuid::WithoutBraces).toStdString();
    s->nickname = nickname;
    s->tookOverClient = tookOverClient;
    s->joinSeq = nextSeq_++;
    s->link = link;
    Seat& seat = *s;
    seats_.push_back(std::move(s));

    Message paired("paired");
    paired.id = seat.id;
    paired.homeDir = config_.homeDir.toStdString();
    paired.os = config_.os;
    paired.machineId = config_.machineId;
    send(seat, paired);

    Message joined("controller_joined");
    joined.id = seat.id;
    joined.nickname = nickname;
    broadcast(joined, seat.id);
    Logger::connection(logName() + ": controller " + seat.id + " (\"" + logSafe(nickname) + "\") joined, " +
                       std::to_string(seats_.size()) + "/" + std::to_string(config_.limit));
    return seat.id;
}

bool Agent::kick(const std::string& controllerId, const std::string& by, std::string* clientId) {
    auto it = std::find_if(seats_.begin(), seats_.end(), [&](const auto& s) { return s->id == controllerId; });
    if (it == seats_.end()) return false;
    std::unique_ptr<Seat> s = std::move(*it);
    seats_.erase(it);
    if (clientId) *clientId = s->clientId;

    Message kicked("kicked");
    kicked.reason = "控制席位已被其他控制端接管";
    kicked.by = by;
    send(*s, kicked);
    if (s->link) s->link->close();
    Logger::connection(logName() + ": controller " + s->id + " kicked by \"" + logSafe(by) + "\"");

    Message left("controller_left");
    left.id = s->id;
    broadcast(left, {});
    forgetClientIfIdle(s->clientId);
    recheckFlow();
    return true;
}

void Agent::release(const std::string& controllerId) {
    auto it = std::find_if(seats_.begin(), seats_.end(), [&](const auto& s) { return s->id == controllerId; });
    if (it == seats_.end()) return;
    std::unique_ptr<Seat> s = std::move(*it);
    seats_.erase(it);
    // The client's other seat, if any, now answers for its shells.
    if (!s->clientId.empty()) {
        if (Seat* other = primarySeat(s->clientId)) lastControllerOfClient_[s->clientId] = other->id;
    }
    for (auto& [key, p] : ptys_)
        std::erase_if(p->inputPaused, [&](const QPointer<ControllerLink>& l) { return !l || l == s->link; });
    Logger::connection(logName() + ": controller " + s->id + " left, " +
                       std::to_string(seats_.size()) + "/" + std::to_string(config_.limit));
    Message left("controller_left");
    left.id = s->id;
    broadcast(left, {});
    forgetClientIfIdle(s->clientId);
    recheckFlow();
}

void Agent::linkDrained(const std::string&) { recheckFlow(); }

QString Agent::expandPath(const std::string& path) const {
    QString p = QString::fromStdString(path);
    if (p.isEmpty() || p == "." || p == "~") return config_.homeDir;
    if (p.startsWith("~/")) return QDir::cleanPath(config_.homeDir + "/" + p.mid(2));
    if (QDir::isRelativePath(p)) return QDir::cleanPath(config_.homeDir + "/" + p);
    return QDir::cleanPath(p);
}

// ---- binding and lookup ----

void Agent::bind(Seat& s, const std::string& clientId) {
    if (s.clientId == clientId) return;
    const std::string previous = s.clientId;
    if (!previous.empty())
        Logger::connection(logName() + ": controller " + s.id + " now speaks for client " + logSafe(clientId) +
                           " instead of " + logSafe(previous));
    s.clientId = clientId;
    if (!previous.empty()) forgetClientIfIdle(previous);
    s.bindSeq = nextSeq_++;
    lastControllerOfClient_[clientId] = s.id;
    lastNicknameOfClient_[clientId] = s.nickname;
    flushBacklogs(s);
    recheckFlow();
}

bool Agent::clientHasSeat(const std::string& clientId) const {
    return std::any_of(seats_.begin(), seats_.end(), [&](const auto& s) { return s->clientId == clientId; });
}

// What is remembered about a client (its last controller and nickname) is kept while it has a seat
// or a shell, so that a controller can make up client ids without making this grow.
void Agent::forgetClientIfIdle(const std::string& clientId) {
    if (clientId.empty() || clientHasSeat(clientId)) return;
    for (const auto& [key, p] : ptys_)
        if (key.first == clientId) return;
    lastControllerOfClient_.erase(clientId);
    lastNicknameOfClient_.erase(clientId);
    bulkBudget_.erase(clientId);
}

std::vector<Agent::Seat*> Agent::seatsOf(const std::string& clientId) {
    std::vector<Seat*> out;
    for (auto& s : seats_)
        if (!clientId.empty() && s->clientId == clientId && s->link) out.push_back(s.get());
    return out;
}

Agent::Seat* Agent::primarySeat(const std::string& clientId) {
    Seat* best = nullptr;
    for (Seat* s : seatsOf(clientId))
        if (!best || s->bindSeq > best->bindSeq) best = s;
    return best;
}

std::string Agent::controllerOf(const std::string& clientId) const {
    auto it = lastControllerOfClient_.find(clientId);
    return it == lastControllerOfClient_.end() ? std::string() : it->second;
}

Agent::Pty* Agent::ownPty(const Seat& s, int64_t ptyId) {
    if (s.clientId.empty()) return nullptr;
    auto it = ptys_.find({s.clientId, ptyId});
    return it == ptys_.end() ? nullptr : it->second.get();
}

Agent::Pty* Agent::foreignPty(const Seat& s, int64_t ptyId) {
    if (!s.tookOverClient.empty() && s.tookOverClient != s.clientId) {
        auto it = ptys_.find({s.tookOverClient, ptyId});
        if (it != ptys_.end()) return it->second.get();
    }
    std::vector<Pty*> candidates;
    for (auto& [key, p] : ptys_)
        if (key.second == ptyId && key.first != s.clientId) candidates.push_back(p.get());
    if (candidates.size() == 1) return candidates.front();
    std::vector<Pty*> orphans;
    for (Pty* p : candidates)
        if (!clientHasSeat(p->clientId)) orphans.push_back(p);
    if (orphans.size() == 1) return orphans.front();
    Pty* sameUser = nullptr;
    for (Pty* p : orphans) {
        auto it = lastNicknameOfClient_.find(p->clientId);
        if (it == lastNicknameOfClient_.end() || it->second != s.nickname) continue;
        if (sameUser) return nullptr;  // still ambiguous
        sameUser = p;
    }
    return sameUser;
}

Agent::Pty* Agent::resolveForUse(Seat& s, int64_t ptyId) {
    if (Pty* p = ownPty(s, ptyId)) return p;
    if (!s.clientId.empty()) return nullptr;
    Pty* p = foreignPty(s, ptyId);
    if (p) {
        Logger::connection(logName() + ": controller " + s.id + " re-attached to client " + logSafe(p->clientId) +
                           " through pty " + idText(ptyId));
        bind(s, p->clientId);
    }
    return p;
}

// ---- requests ----

void Agent::handle(const std::string& controllerId, const Message& m) {
    Seat* sp = seat(controllerId);
    if (!sp) return;
    Seat& s = *sp;
    const std::string& t = m.type;

    if (t == "LIST_PTY") return onListPty(s);
    if (t == "fs_op") return onFsOp(s, m);
    if (t == "CREATE_PTY") return onCreatePty(s, m);

    if (t == "INPUT" || t == "RESIZE" || t == "EXEC" || t == "CLOSE_PTY") {
        if (!m.ptyId) return sendError(s, t + " 缺少 pty_id");
        if (t == "RESIZE" && (!m.cols || !m.rows)) return sendError(s, "RESIZE 缺少 cols 或 rows");
        if (t == "EXEC" && !m.command) return sendError(s, "EXEC 缺少 command");

        if (t == "CLOSE_PTY") {
            Pty* p = ownPty(s, *m.ptyId);
            if (!p) p = foreignPty(s, *m.ptyId);
            if (!p) {
                Logger::session(logName() + ": CLOSE_PTY for unknown pty " + idText(*m.ptyId) +
                                " from " + s.id);
                return;
            }
            return closePty({p->clientId, p->ptyId}, s.id);
        }

        Pty* p = resolveForUse(s, *m.ptyId);
        if (!p) {
            Logger::session(logName() + ": " + t + " for unknown pty " + idText(*m.ptyId) + " from " +
                            s.id + " dropped");
            return;
        }
        if (t == "RESIZE") {
            p->proc->resize(static_cast<int>(std::clamp<int64_t>(*m.cols, 0, 100000)),
                            static_cast<int>(std::clamp<int64_t>(*m.rows, 0, 100000)));
            return;
        }
        if (t == "INPUT") {
            if (!m.data || m.data->empty()) return;
            p->lastInput.start();
            p->proc->write(*m.data);
        } else {
            p->proc->write(*m.command + "\r");
        }
        if (p->proc->inputCongested() && s.link &&
            std::find(p->inputPaused.begin(), p->inputPaused.end(), s.link) == p->inputPaused.end()) {
            s.link->setReadPaused(true);
            p->inputPaused.emplace_back(s.link);
        }
        return;
    }
    Logger::info(logName() + ": ignoring \"" + logSafe(t) + "\" from " + s.id);
}

void Agent::onCreatePty(Seat& s, const Message& m) {
    if (!m.ptyId) return sendError(s, "CREATE_PTY 缺少 pty_id");
    const int64_t ptyId = *m.ptyId;
    if (ptyId <= 0) return sendPtyError(s, ptyId, "无效的会话编号");
    // A request without a client id stands for this seat alone.
    bind(s, m.clientId && !m.clientId->empty() ? *m.clientId : s.id);
    const PtyKey key{s.clientId, ptyId};
    if (ptys_.count(key)) return sendPtyError(s, ptyId, "会话编号 " + idText(ptyId) + " 已在使用");
    if (ptys_.size() >= static_cast<size_t>(config_.maxPtys))
        return sendPtyError(s, ptyId, "会话数量已达上限 (" + std::to_string(config_.maxPtys) + ")");

    const std::string requested = m.cwd.value_or("~");
    PtyProcess::Options o;
    o.shell = config_.shell;
    o.cwd = expandPath(requested);
    o.cols = static_cast<int>(std::clamp<int64_t>(m.cols.value_or(80), 0, 100000));
    o.rows = static_cast<int>(std::clamp<int64_t>(m.rows.value_or(24), 0, 100000));
    QString error;
    std::unique_ptr<PtyProcess> proc = PtyProcess::start(o, &error);
    if (!proc) return sendPtyError(s, ptyId, error.toStdString());

    auto p = std::make_unique<Pty>();
    p->clientId = s.clientId;
    p->ptyId = ptyId;
    p->cwd = o.cwd.toStdString();
    p->seq = nextSeq_++;
    p->proc = std::move(proc);
    Pty* raw = p.get();
    raw->proc->onOutput = [this, raw](std::string_view bytes) { onPtyOutput(*raw, bytes); };
    raw->proc->onExit = [this, key] { onPtyExit(key); };
    raw->proc->onInputDrained = [this, raw] { resumeInputWriters(*raw); };
    ptys_.emplace(key, std::move(p));
    s.cwd = requested;
    s.lastPty = ptyId;
    Logger::session(logName() + ": pty " + idText(ptyId) + " of client " + logSafe(s.clientId) + " started in " +
                    logSafe(raw->cwd, 200) + " (pid " + std::to_string(raw->proc->pid()) + ")");
}

void Agent::onListPty(Seat& s) {
    std::vector<const Pty*> running;
    for (const auto& [key, p] : ptys_)
        if (!p->proc->hasExited()) running.push_back(p.get());
    std::sort(running.begin(), running.end(), [](const Pty* a, const Pty* b) { return a->seq < b->seq; });
    PtyListEnvelope env;
    env.type = "PTY_LIST";
    for (const Pty* p : running) {
        PtyListItem item;
        item.ptyId = p->ptyId;
        item.cwd = p->cwd;
        item.state = "running";
        item.controllerId = controllerOf(p->clientId);
        item.clientId = p->clientId;
        env.ptys.push_back(std::move(item));
    }
    sendLine(s, env.encode());
}

void Agent::onFsOp(Seat& s, const Message& m) {
    FSResultEnvelope r;
    r.type = "fs_result";
    r.op = m.op.value_or("");
    r.path = m.path.value_or(".");
    r.success = false;
    if (r.op != "list") {
        Logger::info(logName() + ": unsupported fs_op \"" + logSafe(r.op) + "\"");
        return sendLine(s, r.encode());
    }
    if (listingsRunning_->load() >= kMaxListingsRunning) {
        Logger::info(logName() + ": " + std::to_string(kMaxListingsRunning) +
                     " listings still running; one more refused");
        return sendLine(s, r.encode());
    }
    // Everything that touches the file system runs on the worker: a hung mount blocks it, not the loop.
    auto job = std::make_shared<ListingJob>();
    job->agent = this;
    job->seatId = s.id;
    const QString dir = expandPath(*r.path);
    const int index = config_.index;
    auto running = listingsRunning_;
    ++*running;
    auto deliver = [job] {
        std::string line;
        {
            std::lock_guard lock(job->mutex);
            if (job->answered) return;
            job->answered = true;
            line = std::move(job->line);
        }
        if (Agent* a = job->agent.data())
            if (Seat* seat = a->seat(job->seatId)) a->sendLine(*seat, line);
    };
    auto* timer = new QTimer(this);
    timer->setSingleShot(true);
    connect(timer, &QTimer::timeout, this, [job, r, dir, index, timer]() mutable {
        timer->deleteLater();
        {
            std::lock_guard lock(job->mutex);
            if (job->answered) return;
            job->answered = true;
        }
        Logger::info("agent " + std::to_string(index) + ": listing of \"" + logSafe(dir.toStdString(), 200) +
                     "\" did not answer within " + std::to_string(kListingTimeMs) + " ms");
        if (Agent* a = job->agent.data())
            if (Seat* seat = a->seat(job->seatId)) a->sendLine(*seat, r.encode());
    });
    timer->start(kListingTimeMs);
    std::thread([job, r, dir, index, running, deliver]() mutable {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kListingTimeMs * 2 / 5);
        const QFileInfo fi(dir);
        if (fi.isDir() && fi.isReadable()) {
            bool truncated = false;
            r.data = listDirectory(dir, kMaxListing, deadline, &truncated);
            r.success = true;
            if (truncated)
                Logger::info("agent " + std::to_string(index) + ": listing of \"" + logSafe(dir.toStdString(), 200) +
                             "\" cut at " + std::to_string(r.data->size()) + " entries");
        }
        {
            std::lock_guard lock(job->mutex);
            job->line = r.encode();
        }
        --*running;
        if (QCoreApplication* app = QCoreApplication::instance())
            QMetaObject::invokeMethod(app, deliver, Qt::QueuedConnection);
    }).detach();
}

// ---- shells ----

void Agent::onPtyOutput(Pty& p, std::string_view bytes) {
    deliverOutput(p, bytes);
    Seat* primary = primarySeat(p.clientId);
    if (!primary) return;
    const size_t mark = highWaterFor(p);
    const bool bulk = mark < kOutputHighWater;
    if (bulk) {
        bulkBudgetLeft(p.clientId);  // starts a new slot when the last one is over
        bulkBudget_[p.clientId].used += bytes.size();
    }
    if (primary->link->pendingBytes() > mark || (bulk && !bulkBudgetLeft(p.clientId))) {
        p.flowPaused = true;
        p.proc->setReadEnabled(false);
        if (bulk && !bulkRecheck_.isActive()) bulkRecheck_.start();
    }
}

// Bulk output of a client is also held to kBulkBytesPerSlot per kBulkSlotMs: a client reads its link as
// fast as it comes, so the mark alone does not keep a flood from filling what the client holds ahead
// of the next echo.
bool Agent::bulkBudgetLeft(const std::string& clientId) {
    BulkBudget& b = bulkBudget_[clientId];
    if (!b.slot.isValid()) {
        b.slot.start();
        b.used = 0;
    } else if (const qint64 elapsed = b.slot.elapsed(); elapsed >= kBulkSlotMs) {
        // A slot ends with its last read, which may take it over the budget: the excess is paid from
        // the slots that follow, so that the rate holds whatever the size of a read.
        const size_t earned = static_cast<size_t>(elapsed / kBulkSlotMs) * kBulkBytesPerSlot;
        b.used = b.used > earned ? b.used - earned : 0;
        b.slot.start();
    }
    return b.used < kBulkBytesPerSlot;
}

// The full mark, unless another shell of the same client was typed into lately, and after this one
// (a command started in one tab, then typing in another): then this one is bulk.
size_t Agent::highWaterFor(const Pty& p) const {
    if (!config_.typingFirst) return kOutputHighWater;
    const qint64 mine = p.lastInput.isValid() ? p.lastInput.elapsed() : std::numeric_limits<qint64>::max();
    for (const auto& [key, other] : ptys_) {
        if (other.get() == &p || key.first != p.clientId || !other->lastInput.isValid()) continue;
        const qint64 since = other->lastInput.elapsed();
        if (since < kTypingWindowMs && since < mine) return kBulkHighWater;
    }
    return kOutputHighWater;
}

void Agent::deliverOutput(Pty& p, std::string_view bytes) {
    std::vector<Seat*> targets = seatsOf(p.clientId);
    if (targets.empty()) {
        p.backlog.append(bytes);
        if (p.backlog.size() > kBacklogBytes) p.backlog.erase(0, p.backlog.size() - kBacklogBytes);
        return;
    }
    Message m("PTY_DATA");
    m.ptyId = p.ptyId;
    const QByteArray raw = QByteArray::fromRawData(bytes.data(), static_cast<qsizetype>(bytes.size()));
    m.data = raw.toBase64().toStdString();
    const std::string line = m.encode();
    Seat* primary = primarySeat(p.clientId);
    for (Seat* s : targets) {
        if (s != primary && s->link->pendingBytes() > kOutputHighWater) continue;  // a stale second seat
        s->link->sendLine(line);
    }
}

void Agent::flushBacklogs(Seat& s) {
    for (auto& [key, p] : ptys_) {
        if (key.first != s.clientId || p->backlog.empty()) continue;
        std::string backlog;
        backlog.swap(p->backlog);
        for (size_t off = 0; off < backlog.size(); off += PtyProcess::kReadChunk)
            deliverOutput(*p, std::string_view(backlog).substr(off, PtyProcess::kReadChunk));
    }
}

void Agent::recheckFlow() {
    bool bulkWaits = false;
    for (auto& [key, p] : ptys_) {
        if (!p->flowPaused) continue;
        Seat* primary = primarySeat(p->clientId);
        const size_t mark = highWaterFor(*p);
        if (!primary || (primary->link->pendingBytes() <= mark &&
                         (mark == kOutputHighWater || bulkBudgetLeft(p->clientId)))) {
            p->flowPaused = false;
            p->proc->setReadEnabled(true);
        } else if (mark < kOutputHighWater) {
            bulkWaits = true;
        }
    }
    if (bulkWaits && !bulkRecheck_.isActive()) bulkRecheck_.start();
}

void Agent::resumeInputWriters(Pty& p) {
    auto links = std::move(p.inputPaused);
    p.inputPaused.clear();
    for (auto& l : links) {
        if (!l) continue;
        // The link may still be waiting for another shell.
        bool stillBlocked = false;
        for (auto& [key, other] : ptys_)
            if (other.get() != &p && std::count(other->inputPaused.begin(), other->inputPaused.end(), l))
                stillBlocked = true;
        if (!stillBlocked) l->setReadPaused(false);
    }
}

std::unique_ptr<Agent::Pty> Agent::takePty(const PtyKey& key) {
    auto it = ptys_.find(key);
    if (it == ptys_.end()) return nullptr;
    std::unique_ptr<Pty> p = std::move(it->second);
    ptys_.erase(it);
    resumeInputWriters(*p);
    for (auto& s : seats_)
        if (s->clientId == key.first && s->lastPty == key.second) s->lastPty.reset();
    forgetClientIfIdle(key.first);
    return p;
}

// The shell object may be the one calling us (its exit or output callback), so it is destroyed from
// the event loop, not here.
static void disposeLater(std::unique_ptr<PtyProcess> proc) {
    if (!proc) return;
    proc->onOutput = nullptr;
    proc->onExit = nullptr;
    proc->onInputDrained = nullptr;
    proc.release()->deleteLater();
}

void Agent::onPtyExit(const PtyKey& key) {
    std::unique_ptr<Pty> p = takePty(key);
    if (!p) return;
    Logger::session(logName() + ": pty " + idText(key.second) + " of client " + logSafe(key.first) + " ended");
    Message m("PTY_EXIT");
    m.ptyId = key.second;
    const std::string line = m.encode();
    for (Seat* s : seatsOf(key.first)) s->link->sendLine(line);
    disposeLater(std::move(p->proc));
}

void Agent::closePty(const PtyKey& key, const std::string& byControllerId) {
    std::unique_ptr<Pty> p = takePty(key);
    if (!p) return;
    Logger::session(logName() + ": pty " + idText(key.second) + " of client " + logSafe(key.first) +
                    " closed by " + byControllerId);
    // The client's other seats see the session end (for them it was taken over).
    Message m("PTY_EXIT");
    m.ptyId = key.second;
    const std::string line = m.encode();
    for (Seat* s : seatsOf(key.first))
        if (s->id != byControllerId) s->link->sendLine(line);
    disposeLater(std::move(p->proc));  // hangs up and reaps
}

}  // namespace ostv::server
