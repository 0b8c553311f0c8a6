#pragma once
// A controller for tests against the server program: the client's own QUIC transport to the relay and
// every line that came back, with the requests the tests make.
#include <atomic>
#include <cstdlib>
#include <gtest/gtest.h>
#include <mutex>
#include <optional>
#include <sys/types.h>
#include <string>
#include <vector>

#include "LineSplitter.h"
#include "LocalServer.h"
#include "Message.h"
#include "QUICTransport.h"
#include "Requests.h"
#include "TestSupport.h"

namespace ostv::test {

// One controller: a QUIC transport to the relay and every line it has received.
class Controller : public QObject, public QUICTransportDelegate {
public:
    Controller(const LocalServer& server, const QString& code) : Controller(server.host(), server.quicPort(), code) {}
    Controller(const QString& host, quint16 port, const QString& code)
        : transport_(host, port, QStringLiteral("ctrl-") + code) {
        transport_.setDelegate(this);
    }

    bool connect() {
        transport_.connect();
        return waitUntil([&] { return kind_ == QUICTransportState::Kind::ready || kind_ == QUICTransportState::Kind::failed; },
                         15000) &&
               kind_ == QUICTransportState::Kind::ready;
    }
    void startConnecting() { transport_.connect(); }
    void disconnect() { transport_.disconnect(); }
    // True once the server has closed the connection (the transport reports a failure).
    bool waitClosedByServer(int ms = 10000) {
        return waitUntil([&] { return kind_ == QUICTransportState::Kind::failed; }, ms);
    }
    bool isReady() const { return kind_ == QUICTransportState::Kind::ready; }

    void send(const Message& m) { sendRaw(m.encode()); }
    void sendRaw(std::string line) { transport_.send(std::move(line)); }

    size_t mark() {
        std::lock_guard l(mutex_);
        return lines_.size();
    }
    std::vector<std::string> lines(size_t from = 0) {
        std::lock_guard l(mutex_);
        return from < lines_.size() ? std::vector<std::string>(lines_.begin() + static_cast<long>(from), lines_.end())
                                    : std::vector<std::string>{};
    }
    std::vector<Message> received(const std::string& type, size_t from = 0) { return decodedLines(lines(from), type, 0); }
    // The raw text of the first line of `type` from `from` on.
    std::optional<std::string> waitLine(const std::string& type, size_t from = 0, int ms = 8000) {
        std::optional<std::string> found;
        waitUntil([&] {
            for (const std::string& line : lines(from))
                if (auto s = MessageTypeSniff::decode(line); s && s->type == type && !found) found = line;
            return found.has_value();
        }, ms);
        return found;
    }
    std::optional<Message> waitFor(const std::string& type, size_t from = 0, int ms = 8000) {
        auto line = waitLine(type, from, ms);
        if (!line) return std::nullopt;
        auto d = Message::decode(*line);
        EXPECT_TRUE(d.ok()) << *line;
        return d ? std::optional<Message>(d.value()) : std::nullopt;
    }
    std::string output(int64_t ptyId, size_t from = 0) { return ptyOutput(lines(from), ptyId, 0); }
    bool waitOutput(int64_t ptyId, const std::string& needle, size_t from = 0, int ms = 10000) {
        return waitUntil([&] { return output(ptyId, from).find(needle) != std::string::npos; }, ms);
    }
    // Lines that were no JSON object; the bytes of shell output received; false: shell output is counted
    // but not kept (a flooding shell would fill the memory).
    std::atomic<int> undecodable{0};
    std::atomic<size_t> ptyDataBytes{0};
    std::atomic<bool> keepPtyData{true};

    // The process id that `command`, typed into the shell of `ptyId`, prints as "pid=N end" (0 if none);
    // by default the shell's own. The quotes keep the typed line apart from the answer.
    pid_t printedPid(int64_t ptyId, const std::string& command = "echo pi''d=$$ en''d") {
        const size_t from = mark();
        send(input(ptyId, command + "\r"));
        if (!waitOutput(ptyId, " end", from)) return 0;
        const std::string out = output(ptyId, from);
        const size_t at = out.rfind("pid=", out.find(" end"));
        return at == std::string::npos ? 0 : static_cast<pid_t>(std::atol(out.c_str() + at + 4));
    }

    // Pairs and answers the controller id (empty when not paired).
    std::string pair(const std::string& code, const std::string& nickname) {
        const size_t from = mark();
        send(pairing(code, nickname));
        auto paired = waitFor("paired", from);
        return paired ? paired->id.value_or("") : std::string();
    }

    std::vector<PtyListItem> listPtys() {
        const size_t from = mark();
        send(Message("LIST_PTY"));
        auto line = waitLine("PTY_LIST", from);
        EXPECT_TRUE(line.has_value()) << "no PTY_LIST";
        if (!line) return {};
        auto env = PtyListEnvelope::decode(*line);
        EXPECT_TRUE(env.ok()) << *line;
        return env ? env->ptys : std::vector<PtyListItem>{};
    }

    void quicTransportDidChangeState(QUICTransport*, const QUICTransportState& s) override { kind_ = s.kind; }
    void quicTransportDidReceiveData(QUICTransport*, std::string_view chunk) override {
        std::lock_guard l(mutex_);
        splitter_.feed(chunk, [&](std::string_view line) {
            const auto sniff = MessageTypeSniff::decode(line);
            if (!sniff) ++undecodable;
            if (sniff && sniff->type == "PTY_DATA") {
                ptyDataBytes += line.size();
                if (!keepPtyData) return;
            }
            lines_.emplace_back(line);
        });
    }
    void quicTransportDidEncounterError(QUICTransport*, const QUICTransportError&) override {}

private:
    QUICTransportState::Kind kind_ = QUICTransportState::Kind::setup;
    std::mutex mutex_;
    LineSplitter splitter_;
    std::vector<std::string> lines_;
    // Last, so that it goes first: its thread delivers data into the members above until it has stopped.
    QUICTransport transport_;
};

}  // namespace ostv::test
