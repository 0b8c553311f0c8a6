#pragma once
// Stand-ins for the relay link and the agent list used by the panel tests.
#include <QObject>
#include <vector>

#include "HostListModel.h"
#include "Message.h"
#include "SessionInterfaces.h"

namespace ostv::test {

// A relay link that records what it is asked to send.
class FakeLink : public QObject, public RelayLink {
public:
    bool connected = true;
    std::vector<Message> sent;

    bool isLinkConnected() const override { return connected; }
    QString agentHomeDir() const override { return {}; }
    void send(const Message& m) override { sent.push_back(m); }
    void closePty(int64_t) override {}
    void setReceivePaused(bool) override {}

    // The "fs_op" list requests sent so far, as their paths.
    std::vector<std::string> listedPaths() const {
        std::vector<std::string> out;
        for (const Message& m : sent)
            if (m.type == "fs_op" && m.op == std::string("list")) out.push_back(m.path.value_or("<none>"));
        return out;
    }
};

// An agent list that answers only when the test says so.
struct ManualFetch {
    std::vector<HostListModel::FetchCompletion> pending;
    int calls = 0;

    HostListModel::FetchFunction function() {
        return [this](HostListModel::FetchCompletion done) {
            ++calls;
            pending.push_back(std::move(done));
        };
    }
    void answer(AgentFetchResult result) {
        auto done = std::move(pending.front());
        pending.erase(pending.begin());
        done(std::move(result));
    }
};

// What a workspace was asked to start.
struct Launch {
    QString title;
    std::optional<QString> command, env;
    QString path;
    bool operator==(const Launch&) const = default;
};

// The part every panel's workspace shares: whether the link is up, and starting a terminal.
template <class Delegate>
class LaunchingWorkspace : public QObject, public Delegate {
public:
    bool connected = true;
    std::vector<Launch> launches;

    bool isConnected() const override { return connected; }
    void allocateAndCreatePty(const QString& title, const std::optional<QString>& command,
                              const std::optional<QString>& env, const QString& path) override {
        launches.push_back({title, command, env, path});
    }
};

// A directory (or, with isDirectory false, a file) named by the last part of its path.
inline DirectoryItem makeItem(const QString& path, bool isDirectory = true) {
    return {.id = QUuid::createUuid(), .name = path.section('/', -1), .path = path, .isDirectory = isDirectory,
            .children = std::nullopt};
}

// An online Linux agent with one user and some load.
inline Host makeHost(const QString& id, const QString& machineId, const QString& agentCode) {
    return {.id = id, .name = "host-" + id, .status = HostStatus::online, .userCount = 1, .cpuLoad = "12%",
            .agentCode = agentCode, .os = "linux", .memLoad = "40%", .machineId = machineId, .hostname = {}};
}

}  // namespace ostv::test
