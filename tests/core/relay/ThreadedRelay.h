#pragma once
// A QUIC listener on a thread of its own, the way the relay is another process: the main thread can stall
// (a slow UI) without stalling the relay. Everything handed to the relay runs on its thread.
#include <QHostAddress>
#include <QObject>
#include <QPointer>
#include <QThread>
#include <atomic>
#include <ctime>
#include <functional>
#include <string>
#include <string_view>

#include "QuicServer.h"

namespace ostv::test {

class ThreadedRelay {
public:
    // Called on the relay thread for every line of the newest connection; may answer through the connection.
    using LineHandler = std::function<void(server::QuicConnection*, std::string_view)>;

    explicit ThreadedRelay(LineHandler onLine = {}) : onLine_(std::move(onLine)) {
        thread_.setObjectName(QStringLiteral("test-relay"));
        thread_.start();
        context_.moveToThread(&thread_);
        run([this] {
            server_ = new server::QuicServer;
            server_->onConnection = [this](server::QuicConnection* c) {
                conn_ = c;
                c->onLine = [this, c](std::string_view line) {
                    ++linesIn_;
                    if (onLine_) onLine_(c, line);
                };
                connected_ = true;
            };
            listening_ = server_->listen(QHostAddress::LocalHost, 0);
            port_ = server_->port();
        });
    }

    ~ThreadedRelay() {
        run([this] { delete server_; });
        thread_.quit();
        thread_.wait();
    }

    ThreadedRelay(const ThreadedRelay&) = delete;
    ThreadedRelay& operator=(const ThreadedRelay&) = delete;

    bool isListening() const { return listening_; }
    quint16 port() const { return port_; }
    bool hasConnection() const { return connected_; }
    size_t linesIn() const { return linesIn_; }

    // Runs fn on the relay thread and waits for it.
    void run(const std::function<void()>& fn) {
        QMetaObject::invokeMethod(&context_, fn, Qt::BlockingQueuedConnection);
    }

    // Sends `count` lines made by makeLine(i) to the newest connection as fast as the link takes them,
    // keeping at most about `highMark` bytes queued (more whenever the connection reports it drained).
    void flood(size_t count, std::function<std::string(size_t)> makeLine, size_t highMark = 2 * 1024 * 1024) {
        run([this, count, makeLine = std::move(makeLine), highMark] {
            server::QuicConnection* c = conn_;
            if (!c) return;
            floodNext_ = 0;
            floodDone_ = count == 0;
            auto pump = [this, c, count, makeLine, highMark] {
                while (floodNext_ < count && c->pendingBytes() < highMark) {
                    c->sendLine(makeLine(floodNext_));
                    ++floodNext_;
                }
                floodQueued_ = floodNext_;
                if (floodNext_ == count) floodDone_ = true;
            };
            c->onDrained = pump;
            pump();
        });
    }
    size_t floodQueued() const { return floodQueued_; }
    bool floodQueuedAll() const { return floodDone_; }

    // Bytes the newest connection has queued or sent and not yet had acknowledged.
    size_t pendingBytes() {
        size_t n = 0;
        run([&] { n = conn_ ? conn_->pendingBytes() : 0; });
        return n;
    }

    // CPU time the relay thread has used so far, in seconds.
    double threadCpuSeconds() {
        double s = 0;
        run([&] {
            timespec ts{};
            clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
            s = static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
        });
        return s;
    }

private:
    QThread thread_;
    QObject context_;
    LineHandler onLine_;
    server::QuicServer* server_ = nullptr;  // relay thread
    QPointer<server::QuicConnection> conn_;  // relay thread
    std::atomic<bool> listening_{false};
    std::atomic<quint16> port_{0};
    std::atomic<bool> connected_{false};
    std::atomic<size_t> linesIn_{0};
    size_t floodNext_ = 0;  // relay thread
    std::atomic<size_t> floodQueued_{0};
    std::atomic<bool> floodDone_{false};
};

}  // namespace ostv::test
