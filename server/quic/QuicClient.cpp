#include "QuicClient.h"

#include <QPointer>
#include <QVariant>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include "Logger.h"

namespace ostv::server {

std::vector<DialAddress> resolveHost(const std::string& host, uint16_t port, std::string* error) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* res = nullptr;
    const std::string service = std::to_string(port);
    std::vector<DialAddress> out;
    const int rv = getaddrinfo(host.c_str(), service.c_str(), &hints, &res);
    if (rv != 0) {
        if (error) *error = "cannot resolve " + host + ": " + gai_strerror(rv);
        return out;
    }
    for (addrinfo* ai = res; ai; ai = ai->ai_next) {
        if (ai->ai_addrlen > sizeof(sockaddr_storage)) continue;
        DialAddress a;
        std::memcpy(&a.addr, ai->ai_addr, ai->ai_addrlen);
        a.len = ai->ai_addrlen;
        out.push_back(a);
    }
    freeaddrinfo(res);
    if (out.empty() && error) *error = "no usable address for " + host;
    return out;
}

namespace {

QString addressText(const sockaddr_storage& a) {
    char host[INET6_ADDRSTRLEN] = {};
    uint16_t port = 0;
    if (a.ss_family == AF_INET) {
        const auto* in = reinterpret_cast<const sockaddr_in*>(&a);
        inet_ntop(AF_INET, &in->sin_addr, host, sizeof host);
        port = ntohs(in->sin_port);
        return QString::fromLatin1(host) + QLatin1Char(':') + QString::number(port);
    }
    const auto* in6 = reinterpret_cast<const sockaddr_in6*>(&a);
    inet_ntop(AF_INET6, &in6->sin6_addr, host, sizeof host);
    port = ntohs(in6->sin6_port);
    return QLatin1Char('[') + QString::fromLatin1(host) + QStringLiteral("]:") + QString::number(port);
}

}  // namespace

QuicClient::QuicClient(QObject* parent) : LineConnection(parent) {
    timer_.setSingleShot(true);
    timer_.setTimerType(Qt::PreciseTimer);
    connect(&timer_, &QTimer::timeout, this, [this] {
        if (engine_ && !closed_) engine_->onTimer();
    });
}

QuicClient::~QuicClient() {
    if (engine_ && !engine_->isClosed()) {
        engine_->close(0, "closed");
    }
    if (fd_ >= 0) ::close(fd_);
}

bool QuicClient::dial(const DialAddress& to, const std::string& serverName, std::string* error, const QHostAddress& from) {
    serverName_ = QString::fromStdString(serverName);
    peerAddress_ = addressText(to.addr);
    QHostAddress source = from;
    for (const QObject* o = parent(); source.isNull() && o; o = o->parent())
        if (const QVariant v = o->property(kSourceAddressProperty); v.isValid()) source = QHostAddress(v.toString());
    fd_ = ::socket(to.addr.ss_family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd_ < 0) {
        if (error) *error = "cannot open a UDP socket to " + peerAddress_.toStdString() + ": " + std::strerror(errno);
        return false;
    }
    if (!source.isNull()) {
        sockaddr_storage local{};
        socklen_t localLen = 0;
        if (to.addr.ss_family == AF_INET && source.protocol() == QAbstractSocket::IPv4Protocol) {
            auto* in = reinterpret_cast<sockaddr_in*>(&local);
            in->sin_family = AF_INET;
            in->sin_addr.s_addr = htonl(source.toIPv4Address());
            localLen = sizeof *in;
        } else if (to.addr.ss_family == AF_INET6 && source.protocol() == QAbstractSocket::IPv6Protocol) {
            auto* in6 = reinterpret_cast<sockaddr_in6*>(&local);
            in6->sin6_family = AF_INET6;
            const Q_IPV6ADDR a = source.toIPv6Address();
            std::memcpy(&in6->sin6_addr, &a, sizeof a);
            localLen = sizeof *in6;
        }
        if (localLen == 0 || ::bind(fd_, reinterpret_cast<const sockaddr*>(&local), localLen) != 0) {
            if (error)
                *error = "cannot dial " + peerAddress_.toStdString() + " from " + source.toString().toStdString() + ": " +
                         (localLen == 0 ? std::string("not the same address family") : std::string(std::strerror(errno)));
            return false;
        }
    }
    if (::connect(fd_, reinterpret_cast<const sockaddr*>(&to.addr), to.len) != 0) {
        if (error) *error = "cannot open a UDP socket to " + peerAddress_.toStdString() + ": " + std::strerror(errno);
        return false;
    }
    const int size = 4 * 1024 * 1024;
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    setsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    notifier_ = new QSocketNotifier(fd_, QSocketNotifier::Read, this);
    connect(notifier_, &QSocketNotifier::activated, this, [this] { readAll(); });

    QuicEngine::Hooks h;
    h.sendDatagram = [this](const uint8_t* d, size_t n) { (void)::send(fd_, d, n, MSG_DONTWAIT); };
    h.streamData = [this](const char* d, size_t n) {
        QPointer<QuicClient> self(this);
        splitter_.feed(std::string_view(d, n), [&](std::string_view line) {
            if (self && !closed_ && onLine) onLine(line);
        });
    };
    h.established = [this] {
        if (onEstablished) onEstablished();
    };
    h.closed = [this](const std::string& why, bool) {
        // Defer: the engine is still on the stack here.
        QMetaObject::invokeMethod(this, [this, w = QString::fromStdString(why)] { finish(w); }, Qt::QueuedConnection);
    };
    h.drained = [this] {
        if (!closed_ && onDrained) onDrained();
    };
    h.armTimer = [this](int64_t ms) {
        if (ms < 0) timer_.stop();
        else timer_.start(static_cast<int>(std::min<int64_t>(ms, 24 * 3600 * 1000)));
    };
    engine_ = std::make_unique<QuicEngine>(std::move(h));
    engine_->alpns = {alpn};
    engine_->keepAliveMs = kKeepAliveMs;
    sockaddr_storage local{};
    socklen_t localLen = sizeof local;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&local), &localLen);
    std::string why;
    if (!engine_->startClient(reinterpret_cast<sockaddr*>(&local), localLen, reinterpret_cast<const sockaddr*>(&to.addr),
                              to.len, serverName, why) &&
        !engine_->isClosed()) {
        if (error) *error = why;
        return false;
    }
    return true;
}

void QuicClient::readAll() {
    static thread_local uint8_t buf[65536];
    for (int i = 0; i < 256 && engine_ && !engine_->isClosed(); ++i) {
        const ssize_t n = ::recv(fd_, buf, sizeof buf, MSG_DONTWAIT);
        if (n < 0) {
            if (errno == ECONNREFUSED) refused_ = true;
            break;
        }
        engine_->receivePacket(buf, static_cast<size_t>(n));
    }
    if (refused_ && engine_ && !engine_->isClosed()) {
        refused_ = false;
        // Nothing listens there (any more): the relay is not running.
        engine_->close(0, "connection refused: the relay is not running");
    }
}

void QuicClient::sendLine(std::string_view line) {
    if (closed_ || !engine_ || engine_->isClosed()) return;
    std::string bytes;
    bytes.reserve(line.size() + 1);
    bytes.append(line).push_back('\n');
    engine_->send(std::move(bytes));
}

void QuicClient::close(uint64_t appErrorCode) {
    if (closed_ || !engine_ || engine_->isClosed()) return;
    engine_->close(appErrorCode, "closed by the agent");
}

void QuicClient::setReadPaused(bool paused) {
    if (engine_ && !closed_) engine_->setReadPaused(paused);
}

void QuicClient::finish(const QString& why) {
    if (closed_) return;
    closed_ = true;
    timer_.stop();
    if (notifier_) notifier_->setEnabled(false);
    if (onClosed) onClosed(why);
}

}  // namespace ostv::server
