#pragma once
// Forwards UDP between one client and a server on loopback, on a thread of its own: it can drop each
// datagram with a given chance and hold every other one back for a given delay, in both directions, and
// it notes the size of every datagram it receives from either side.
#include <QtGlobal>
#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <queue>
#include <random>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace ostv::test {

class UdpForwarder {
public:
    explicit UdpForwarder(quint16 serverPort, double loss = 0.0, std::chrono::milliseconds delay = {})
        : loss_(loss), delay_(delay) {
        front_ = ::socket(AF_INET, SOCK_DGRAM, 0);
        back_ = ::socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ok_ = ::bind(front_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
        socklen_t len = sizeof a;
        ok_ = ok_ && ::getsockname(front_, reinterpret_cast<sockaddr*>(&a), &len) == 0;
        port_ = ntohs(a.sin_port);
        a.sin_port = htons(serverPort);
        ok_ = ok_ && ::connect(back_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
        if (ok_) thread_ = std::thread([this] { run(); });
    }
    ~UdpForwarder() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        ::close(front_);
        ::close(back_);
    }
    UdpForwarder(const UdpForwarder&) = delete;
    UdpForwarder& operator=(const UdpForwarder&) = delete;

    bool ok() const { return ok_; }
    quint16 port() const { return port_; }  // where the client sends
    uint64_t dropped() const { return dropped_; }
    uint64_t passed() const { return passed_; }
    // Sizes of the datagrams received so far, in order: from the client, from the server.
    std::vector<size_t> sizesFromClient() const { std::lock_guard l(m_); return fromClient_; }
    std::vector<size_t> sizesFromServer() const { std::lock_guard l(m_); return fromServer_; }

private:
    using Clock = std::chrono::steady_clock;
    struct Datagram {
        Clock::time_point due;
        bool toServer;
        std::string bytes;
        bool operator>(const Datagram& o) const { return due > o.due; }
    };
    void run() {
        std::mt19937 rng(20);
        std::bernoulli_distribution drop(loss_);
        std::priority_queue<Datagram, std::vector<Datagram>, std::greater<>> queue;
        sockaddr_in client{};
        bool haveClient = false;
        static thread_local char buf[65536];
        while (!stop_) {
            using std::chrono::milliseconds;
            const milliseconds dueIn = queue.empty() ? milliseconds(20)
                                                     : std::chrono::duration_cast<milliseconds>(queue.top().due - Clock::now());
            pollfd fds[2] = {{front_, POLLIN, 0}, {back_, POLLIN, 0}};
            ::poll(fds, 2, static_cast<int>(std::clamp<long>(dueIn.count(), 0, 20)));
            for (int i = 0; i < 2; ++i) {
                if (!(fds[i].revents & POLLIN)) continue;
                sockaddr_in from{};
                socklen_t fromLen = sizeof from;
                const ssize_t n = ::recvfrom(fds[i].fd, buf, sizeof buf, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &fromLen);
                if (n <= 0) continue;
                {
                    std::lock_guard l(m_);
                    (i == 0 ? fromClient_ : fromServer_).push_back(static_cast<size_t>(n));
                }
                if (i == 0) {
                    client = from;
                    haveClient = true;
                }
                if (loss_ > 0 && drop(rng)) {
                    ++dropped_;
                    continue;
                }
                queue.push({Clock::now() + delay_, i == 0, std::string(buf, static_cast<size_t>(n))});
            }
            while (!queue.empty() && queue.top().due <= Clock::now()) {
                const Datagram& d = queue.top();
                if (d.toServer)
                    ::send(back_, d.bytes.data(), d.bytes.size(), 0);
                else if (haveClient)
                    ::sendto(front_, d.bytes.data(), d.bytes.size(), 0, reinterpret_cast<const sockaddr*>(&client),
                             sizeof client);
                ++passed_;
                queue.pop();
            }
        }
    }

    double loss_;
    std::chrono::milliseconds delay_;
    int front_ = -1;
    int back_ = -1;
    bool ok_ = false;
    quint16 port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<uint64_t> dropped_{0};
    std::atomic<uint64_t> passed_{0};
    mutable std::mutex m_;
    std::vector<size_t> fromClient_, fromServer_;
    std::thread thread_;
};

}  // namespace ostv::test
