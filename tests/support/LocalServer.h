#pragma once
// Starts the project's own server program (the binary named by OSTV_SERVER_BIN) for a test: waits
// for its "ready" line, reads the ports and pairing codes it prints, keeps draining its output, and
// stops it with SIGTERM when asked or when destroyed. A stopped server can be started again on the
// same ports with the same codes (for tests of a server that goes away and comes back). The agent
// program (OSTV_AGENT_BIN) is driven the same way: it prints its code and "ready" alike.
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>
#include <sys/types.h>

namespace ostv::test {

class LocalServer {
public:
    struct Agent {
        QString code;
        QString machineId;
        QString os;
        QString hostname;
    };

    // Extra arguments for the program; unless they say otherwise the ports are "--quic-port 0
    // --admin-port 0" (any free port). Nothing is started yet.
    enum class Program { server, agent };
    explicit LocalServer(QStringList args = {}, Program program = Program::server);
    ~LocalServer();
    LocalServer(const LocalServer&) = delete;
    LocalServer& operator=(const LocalServer&) = delete;

    // Sets (or overrides) one variable of the program's environment for every later start, e.g. HOME
    // for a private home folder; the rest is inherited from the test.
    void setEnv(const QString& name, const QString& value) { env_.insert(name, value); }
    // A command that runs the program, e.g. {"/usr/sbin/ip", "netns", "exec", "name"} (it must exec
    // the program in its own process, so that pid() stays the program's).
    void setLauncher(QStringList launcher) { launcher_ = std::move(launcher); }

    // Starts the program and waits for "ready". The first start uses the given ports; every later
    // start uses the ports and codes of the first. False with errorString() on failure.
    bool start(int timeoutMs = 20000);
    // SIGTERM, then SIGKILL if it has not ended within timeoutMs. Answers the exit status as
    // waitpid reports it, or -1 when nothing was running.
    int stop(int timeoutMs = 5000);
    bool restart(int timeoutMs = 20000);
    // Only the relay goes away (its controllers' connections end) or comes back on the same port; the
    // agents and their shells live on. Each waits for the program to say it happened.
    bool stopRelay(int timeoutMs = 5000);
    bool startRelay(int timeoutMs = 5000);
    bool isRunning() const;
    pid_t pid() const { return pid_; }
    // How many processes the server program has started and that still exist (its direct children:
    // the agents' shells).
    int childCount() const;

    QString host() const { return host_; }
    quint16 quicPort() const { return quicPort_; }
    quint16 adminPort() const { return adminPort_; }
    QString adminUrl() const;  // "http://host:port"
    const std::vector<Agent>& agents() const { return agents_; }
    QString code(int agent = 0) const;
    QString errorString() const { return error_; }

    // What the program has written (the last 512 KiB to 1 MiB of it), both streams interleaved.
    std::string output() const;
    // A position in everything the program has written so far, for waitForOutput.
    size_t outputMark() const;
    // Waits until the output written after `from` (an earlier outputMark()) contains `needle`.
    bool waitForOutput(const std::string& needle, int timeoutMs = 5000, size_t from = 0);
    // How many lines written so far contain `needle`, counted as they arrive (output() keeps only the last
    // part of a long run). Counting starts with the first call for that needle.
    int countLines(const std::string& needle);

private:
    void readerLoop(int fd);
    void parseLine(const std::string& line);
    void joinReader();

    QStringList args_;
    QStringList restartArgs_;
    Program program_ = Program::server;
    QStringList launcher_;
    QProcessEnvironment env_;
    bool started_ = false;
    pid_t pid_ = -1;
    QString host_;
    quint16 quicPort_ = 0;
    quint16 adminPort_ = 0;
    std::vector<Agent> agents_;
    QString error_;

    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::string output_;
    size_t dropped_ = 0;  // bytes cut from the front of output_
    std::string partial_;
    std::vector<std::pair<std::string, int>> counted_;
    bool ready_ = false;
    bool eof_ = false;
    std::thread reader_;
};

}  // namespace ostv::test
