#pragma once
// One agent (controlled machine) of the local server: its controller seats and its shells.
//
// Seats. Up to `limit` controllers sit on an agent at once. Each seat speaks for at most one client
// (the desktop installation, named by the "client_id" of its "CREATE_PTY"); a seat that has not
// said which client it is yet is unbound.
//
// Shells. A shell is keyed by (client id, pty id): pty ids are chosen by each client and start at 1,
// so two clients both have a shell 1. A shell outlives the seat that created it; its output goes to
// every seat bound to its client, and while no such seat exists the last kBacklogBytes are kept and
// replayed to the next seat that binds to the client. The shell keeps running meanwhile.
//
// Which shell a request means ("INPUT", "RESIZE", "EXEC", "CLOSE_PTY" carry only a pty id):
//   1. A bound seat's own client's shell with that id.
//   2. For a bound seat, "INPUT", "RESIZE" and "EXEC" stop there: a seat types only into its own
//      client's shells.
//   3. Otherwise (an unbound seat, or "CLOSE_PTY", which is how a controller ends a session it took
//      over from the list): the shell with that id of the client whose seat this controller took
//      over; else the only running shell with that id among the other clients; when several
//      clients have one, the only one among clients that have no seat at the moment; when several
//      of those have one, the only one whose client last sat under this controller's nickname
//      (the same user coming back after all connections dropped). Anything still ambiguous finds
//      nothing: typing into somebody else's shell is worse than a dropped request.
//   4. An unbound seat that reaches another client's shell through rule 3 with "INPUT", "RESIZE"
//      or "EXEC" binds to that client: this is how a client that paired again (a new seat, no new
//      "CREATE_PTY") gets its shells back after finding them in "PTY_LIST".
// A request for a shell that none of this finds is logged and dropped (it raced with the shell's
// end); "CREATE_PTY" for an id that the client already runs is refused with "PTY_ERROR".
//
// Flow control. A shell is read only while the link of its primary seat (the one that bound to its
// client last) has at most kOutputHighWater bytes queued; it is read again when that link drains.
// Other seats of the same client (normally a dead connection that has not timed out yet) get the
// output only while their own queue is below the mark, so they can never hold the shell up or grow
// without bound. Input works the other way round: a controller whose typing piles up in front of a
// shell that does not read is paused until the shell has taken it.
//
// Typing first. While a client types into one of its shells, its other shells' output is bulk: it is
// read only while the link holds at most kBulkHighWater, so the echo of a key waits behind little of
// it in the link (the shell typed into last keeps the full mark), and at most kBulkBytesPerSlot of it per
// kBulkSlotMs, so that what the client holds ahead of the next echo does not grow faster than it shows
// it. A timer reads the bulk shells again as the link drains below that mark and the next slot begins,
// which the link itself does not report. Off with AgentConfig::typingFirst.
#include <QElapsedTimer>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>
#include <cstdint>
#include <atomic>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Message.h"

namespace ostv::server {

class ControllerLink;
class PtyProcess;

struct AgentConfig {
    int index = 1;
    std::string code;
    std::string machineId;
    std::string os = "linux";
    std::string hostname;  // the name the agent list shows for it; empty: none is listed
    QString homeDir;
    QString shell;
    int limit = 8;
    int maxPtys = 128;  // running shells per agent, all clients together
    bool typingFirst = true;  // false: every shell keeps the full mark, typed into or not
};

class Agent : public QObject {
    Q_OBJECT
public:
    static constexpr size_t kOutputHighWater = 256 * 1024;
    static constexpr size_t kBulkHighWater = 32 * 1024;
    static constexpr int kTypingWindowMs = 2000;  // input this recent makes the client's other shells bulk
    static constexpr int kBulkSlotMs = 20;
    static constexpr size_t kBulkBytesPerSlot = 20 * 1024;  // about 1 MiB/s of bulk output per client
    static constexpr size_t kBacklogBytes = 64 * 1024;
    static constexpr size_t kMaxListing = 20000;  // directory entries in one "fs_result"
    // Directories are listed on worker threads: at most this many at once per agent (one that hangs
    // keeps its place until it returns), each answered within kListingTimeMs (as a failure when the
    // file system has not answered by then).
    static constexpr int kMaxListingsRunning = 4;
    static constexpr int kListingTimeMs = 5000;

    explicit Agent(AgentConfig config, QObject* parent = nullptr);
    ~Agent() override;

    const AgentConfig& config() const { return config_; }
    // How log lines name this agent ("agent 2"): by its number, never by its pairing code.
    std::string logName() const { return "agent " + std::to_string(config_.index); }
    int controllerCount() const { return static_cast<int>(seats_.size()); }
    bool isFull() const { return controllerCount() >= config_.limit; }
    bool hasController(const std::string& id) const;
    // The seated controllers in the order they joined, as "controller_list" lists them.
    std::vector<ControllerInfo> controllers() const;
    size_t ptyCount() const;

    // Seats a controller: "paired" to it, "controller_joined" to the seats already there. When it
    // took over a seat, tookOverClient names the client that seat spoke for. Answers the new id.
    std::string admit(ControllerLink* link, const std::string& nickname, const std::string& tookOverClient = {});
    // Pushes a seated controller out: "kicked" with `by` to it, its link closed, "controller_left" to
    // the others. False when no such seat exists; else *clientId is the client it spoke for.
    bool kick(const std::string& controllerId, const std::string& by, std::string* clientId = nullptr);
    // A seated controller's link is gone: its seat is freed and the others hear "controller_left".
    void release(const std::string& controllerId);
    // One decoded request of a seated controller.
    void handle(const std::string& controllerId, const Message& m);
    // The link of a seated controller fell below its low watermark.
    void linkDrained(const std::string& controllerId);
    // Hangs up every shell (the program is stopping).
    void hangUpAll();

    // "~", "~/..." and relative paths against the home directory, "." is the home directory.
    QString expandPath(const std::string& path) const;

private:
    struct Seat;
    struct Pty;
    using PtyKey = std::pair<std::string, int64_t>;

    Seat* seat(const std::string& id);
    void send(Seat& s, const Message& m);
    void sendLine(Seat& s, const std::string& line);
    void broadcast(const Message& m, const std::string& exceptId);
    void sendError(Seat& s, const std::string& text);
    void sendPtyError(Seat& s, int64_t ptyId, const std::string& reason);
    void bind(Seat& s, const std::string& clientId);

    Pty* ownPty(const Seat& s, int64_t ptyId);
    Pty* foreignPty(const Seat& s, int64_t ptyId);
    Pty* resolveForUse(Seat& s, int64_t ptyId);
    bool clientHasSeat(const std::string& clientId) const;
    void forgetClientIfIdle(const std::string& clientId);
    std::string controllerOf(const std::string& clientId) const;
    std::vector<Seat*> seatsOf(const std::string& clientId);
    Seat* primarySeat(const std::string& clientId);

    void onCreatePty(Seat& s, const Message& m);
    void onListPty(Seat& s);
    void onFsOp(Seat& s, const Message& m);
    void onPtyOutput(Pty& p, std::string_view bytes);
    void onPtyExit(const PtyKey& key);
    void closePty(const PtyKey& key, const std::string& byControllerId);
    void deliverOutput(Pty& p, std::string_view bytes);
    void flushBacklogs(Seat& s);
    void recheckFlow();
    size_t highWaterFor(const Pty& p) const;
    bool bulkBudgetLeft(const std::string& clientId);
    void resumeInputWriters(Pty& p);
    std::unique_ptr<Pty> takePty(const PtyKey& key);

    AgentConfig config_;
    std::vector<std::unique_ptr<Seat>> seats_;
    std::map<PtyKey, std::unique_ptr<Pty>> ptys_;
    std::map<std::string, std::string> lastControllerOfClient_;
    std::map<std::string, std::string> lastNicknameOfClient_;
    uint64_t nextSeq_ = 1;
    QTimer bulkRecheck_;
    struct BulkBudget {
        QElapsedTimer slot;
        size_t used = 0;
    };
    std::map<std::string, BulkBudget> bulkBudget_;  // per client
    std::shared_ptr<std::atomic<int>> listingsRunning_ = std::make_shared<std::atomic<int>>(0);
};

}  // namespace ostv::server
