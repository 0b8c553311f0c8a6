#include "QUICTransport.h"

#include <QSocketNotifier>
#include <QTimer>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "Logger.h"
#include "MainThread.h"
#include "QuicEngine.h"

namespace ostv {

QString QUICTransportState::description() const {
    switch (kind) {
        case Kind::setup: return QStringLiteral("setup");
        case Kind::waiting: return QStringLiteral("waiting(%1)").arg(error);
        case Kind::preparing: return QStringLiteral("preparing");
        case Kind::ready: return QStringLiteral("ready");
        case Kind::failed: return QStringLiteral("failed(%1)").arg(error);
        case Kind::cancelled: return QStringLiteral("cancelled");
    }
    return {};
}

QString QUICTransportError::description() const {
    switch (kind) {
        case Kind::connectionFailed: return QStringLiteral("连接失败: ") + underlying;
        case Kind::sendFailed: return QStringLiteral("发送失败: ") + underlying;
        case Kind::notConnected: return QStringLiteral("未连接到服务器");
        case Kind::invalidState: return QStringLiteral("无效的连接状态");
        case Kind::cancelled: return QStringLiteral("连接已取消");
    }
    return {};
}

// Lives on the transport thread: the UDP socket, its notifier, the expiry timer and the QUIC engine.
class QuicClientWorker : public QObject {
public:
    explicit QuicClientWorker(QUICTransport* t) : transport_(t) {}
    ~QuicClientWorker() override {
        if (fd_ >= 0) ::close(fd_);
    }

    void start() {
        transport_->setState({QUICTransportState::Kind::preparing, {}});
        Logger::connection("State: preparing");
        std::string error;
        if (!resolve(error) || !dial(error)) failed(QString::fromStdString(error));
    }

    void send(std::string data, std::function<void(std::optional<QUICTransportError>)> completion) {
        if (!engine_ || !engine_->isEstablished() || engine_->isClosed()) {
            if (completion) completion(QUICTransportError{QUICTransportError::Kind::notConnected, {}});
            return;
        }
        engine_->send(std::move(data));
        if (completion) completion(std::nullopt);
    }

    void applyReadPause() {
        if (!engine_) return;
        engine_->setReadNarrowed(transport_->readNarrowWanted_.load());
        engine_->setReadPaused(transport_->readPauseWanted_.load());
    }

    void shutdown() {
        silent_ = true;
        if (engine_ && !engine_->isClosed()) engine_->close(0, "client disconnected");
        if (notifier_) notifier_->setEnabled(false);
        timer_.stop();
    }

private:
    QuicEngine::Hooks hooks() {
        QuicEngine::Hooks h;
        h.sendDatagram = [this](const uint8_t* d, size_t n) {
            if (::send(fd_, d, n, MSG_DONTWAIT) < 0 && errno == ECONNREFUSED) refused_ = true;
        };
        h.streamData = [this](const char* d, size_t n) {
            if (silent_ || transport_->isCancelled_) return;
            // Hand the bytes over in chunks of at most 64 KiB.
            for (size_t off = 0; off < n; off += 65536) {
                if (auto* del = transport_->delegate_.get())
                    del->quicTransportDidReceiveData(transport_, std::string_view(d + off, std::min<size_t>(65536, n - off)));
            }
        };
        h.established = [this] {
            transport_->ready_ = true;
            transport_->setState({QUICTransportState::Kind::ready, {}});
            Logger::connection("State: ready - QUIC connected");
        };
        h.closed = [this](const std::string& why, bool) {
            transport_->ready_ = false;
            if (silent_) return;
            const QString reason = QString::fromStdString(why);
            if (transport_->state().kind == QUICTransportState::Kind::ready) {
                Logger::connection("Receive error: " + why);
                report({QUICTransportError::Kind::connectionFailed, reason});
                transport_->setState({QUICTransportState::Kind::failed, reason});
                Logger::connection("State: failed - " + why);
            } else {
                failed(reason);
            }
        };
        h.armTimer = [this](int64_t ms) {
            if (ms < 0) timer_.stop();
            else timer_.start(static_cast<int>(std::min<int64_t>(ms, 24 * 3600 * 1000)));
        };
        return h;
    }

    void report(const QUICTransportError& e) {
        if (silent_ || transport_->isCancelled_) return;
        if (auto* del = transport_->delegate_.get()) del->quicTransportDidEncounterError(transport_, e);
    }

    void failed(const QString& why) {
        if (silent_) return;
        silent_ = true;  // one failure report, then nothing more from this attempt
        transport_->setState({QUICTransportState::Kind::failed, why});
        Logger::connection("State: failed - " + why.toStdString());
        if (!transport_->isCancelled_) {
            if (auto* del = transport_->delegate_.get())
                del->quicTransportDidEncounterError(transport_, {QUICTransportError::Kind::connectionFailed, why});
        }
        if (notifier_) notifier_->setEnabled(false);
        timer_.stop();
    }

    // Every address the relay's name resolves to, in the resolver's order of preference.
    bool resolve(std::string& error) {
        addrinfo hints{};
        hints.ai_family = AF_UNSPEC;
        hints.ai_socktype = SOCK_DGRAM;
        addrinfo* res = nullptr;
        const std::string host = transport_->host_.toStdString();
        const std::string port = std::to_string(transport_->port_);
        const int rv = getaddrinfo(host.c_str(), port.c_str(), &hints, &res);
        if (rv != 0) {
            error = std::string("cannot resolve ") + host + ": " + gai_strerror(rv);
            return false;
        }
        for (addrinfo* ai = res; ai; ai = ai->ai_next) {
            if (ai->ai_addrlen > sizeof(sockaddr_storage)) continue;
            Candidate c;
            std::memcpy(&c.addr, ai->ai_addr, ai->ai_addrlen);
            c.len = ai->ai_addrlen;
            candidates_.push_back(c);
        }
        freeaddrinfo(res);
        if (candidates_.empty()) {
            error = "no usable address for " + host;
            return false;
        }
        return true;
    }

    // Opens a UDP socket to the current candidate address and starts the handshake over it.
    bool dial(std::string& error) {
        closeSocket();
        const Candidate& c = candidates_[candidate_];
        fd_ = ::socket(c.addr.ss_family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (fd_ < 0 || ::connect(fd_, reinterpret_cast<const sockaddr*>(&c.addr), c.len) != 0) {
            error = std::string("cannot open a UDP socket to ") + transport_->host_.toStdString() + ": " + std::strerror(errno);
            return false;
        }
        const int size = 4 * 1024 * 1024;
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        setsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
        notifier_ = new QSocketNotifier(fd_, QSocketNotifier::Read, this);
        QObject::connect(notifier_, &QSocketNotifier::activated, this, [this] { readAll(); });
        if (!timerReady_) {
            timerReady_ = true;
            timer_.setSingleShot(true);
            timer_.setTimerType(Qt::PreciseTimer);
            QObject::connect(&timer_, &QTimer::timeout, this, [this] {
                if (engine_) engine_->onTimer();
            });
        }
        engine_ = std::make_unique<QuicEngine>(hooks());
        applyReadPause();
        sockaddr_storage local{};
        socklen_t localLen = sizeof local;
        getsockname(fd_, reinterpret_cast<sockaddr*>(&local), &localLen);
        const std::string sni = transport_->sni_ ? transport_->sni_->toStdString() : std::string();
        if (!engine_->startClient(reinterpret_cast<sockaddr*>(&local), localLen, reinterpret_cast<const sockaddr*>(&c.addr),
                                  c.len, sni, error) && !engine_->isClosed())
            return false;
        return true;
    }

    void closeSocket() {
        if (notifier_) {
            // May be inside this notifier's own signal: it goes once control is back in the loop.
            notifier_->setEnabled(false);
            notifier_->deleteLater();
            notifier_ = nullptr;
        }
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

    void readAll() {
        static thread_local uint8_t buf[65536];
        if (engine_) engine_->beginReceiveBatch();
        for (int i = 0; i < 256 && engine_ && !engine_->isClosed(); ++i) {
            const ssize_t n = ::recv(fd_, buf, sizeof buf, MSG_DONTWAIT);
            if (n < 0) {
                if (errno == ECONNREFUSED) refused_ = true;
                break;
            }
            engine_->receivePacket(buf, static_cast<size_t>(n));
        }
        if (engine_) engine_->endReceiveBatch();
        if (refused_ && engine_ && !engine_->isClosed()) {
            refused_ = false;
            if (engine_->isEstablished()) {
                // Nobody listens there any more: the relay went away.
                engine_->close(0, "Connection refused: the relay is not running");
            } else if (candidate_ + 1 < candidates_.size()) {
                // Nothing listens at this address (say ::1 for "localhost"): try the next one.
                ++candidate_;
                std::string error;
                if (!dial(error)) failed(QString::fromStdString(error));
            } else if (transport_->state().kind != QUICTransportState::Kind::waiting) {
                transport_->setState({QUICTransportState::Kind::waiting, QStringLiteral("Connection refused")});
                Logger::connection("State: waiting - Connection refused");
            }
        }
    }

    QUICTransport* transport_;
    struct Candidate {
        sockaddr_storage addr{};
        socklen_t len = 0;
    };
    std::vector<Candidate> candidates_;
    size_t candidate_ = 0;
    bool timerReady_ = false;
    int fd_ = -1;
    QSocketNotifier* notifier_ = nullptr;
    QTimer timer_{this};
    std::unique_ptr<QuicEngine> engine_;
    bool silent_ = false;
    bool refused_ = false;
};

QUICTransport::QUICTransport(const QString& host, quint16 port, std::optional<QString> sni)
    : host_(host), port_(port), sni_(std::move(sni)) {}

QUICTransport::~QUICTransport() {
    isCancelled_ = true;
    stopWorker();
}

QString QUICTransport::endpointText() const { return host_ + QLatin1Char(':') + QString::number(port_); }

QUICTransportState QUICTransport::state() const {
    std::lock_guard lock(stateMutex_);
    return state_;
}

void QUICTransport::setState(const QUICTransportState& s) {
    {
        std::lock_guard lock(stateMutex_);
        if (state_ == s) return;
        state_ = s;
    }
    if (isCancelled_) return;
    // State changes reach the delegate on the main thread, only while this transport exists.
    QPointer<QUICTransport> self(this);
    postToMain([self, s] {
        if (!self || self->isCancelled_) return;
        if (auto* d = self->delegate_.get()) d->quicTransportDidChangeState(self, s);
    });
}

void QUICTransport::stopWorker() {
    if (!thread_) return;
    QuicClientWorker* worker = worker_;
    QMetaObject::invokeMethod(worker, [worker] { worker->shutdown(); }, Qt::BlockingQueuedConnection);
    QMetaObject::invokeMethod(worker, [worker] { delete worker; }, Qt::BlockingQueuedConnection);
    worker_ = nullptr;
    thread_->quit();
    thread_->wait();
    delete thread_;
    thread_ = nullptr;
}

void QUICTransport::connect() {
    stopWorker();
    isCancelled_ = false;
    ready_ = false;
    thread_ = new QThread;
    thread_->setObjectName(QStringLiteral("com.ostvarren.quic"));
    worker_ = new QuicClientWorker(this);
    worker_->moveToThread(thread_);
    thread_->start(QThread::HighPriority);
    QuicClientWorker* worker = worker_;
    QMetaObject::invokeMethod(worker, [worker] { worker->start(); }, Qt::QueuedConnection);
    Logger::connection(("QUIC connecting to " + endpointText() + ", SNI: " + (sni_ ? *sni_ : QStringLiteral("none")))
                           .toStdString());
}

void QUICTransport::send(std::string data, std::function<void(std::optional<QUICTransportError>)> completion) {
    if (!worker_ || !ready_) {
        if (completion) completion(QUICTransportError{QUICTransportError::Kind::notConnected, {}});
        return;
    }
    data.push_back('\n');
    QuicClientWorker* worker = worker_;
    QMetaObject::invokeMethod(worker, [worker, d = std::move(data), c = std::move(completion)]() mutable {
        worker->send(std::move(d), [c](std::optional<QUICTransportError> e) {
            if (e) Logger::connection(("Send error: " + e->description()).toStdString());
            if (c) c(e);
        });
    }, Qt::QueuedConnection);
}

void QUICTransport::disconnect() {
    isCancelled_ = true;
    stopWorker();
    Logger::connection("QUIC disconnected");
}

void QUICTransport::setReadPaused(bool paused) {
    readPauseWanted_ = paused;
    applyReadState();
}

void QUICTransport::setReadNarrowed(bool narrowed) {
    readNarrowWanted_ = narrowed;
    applyReadState();
}

void QUICTransport::applyReadState() {
    QuicClientWorker* worker = worker_;
    if (!worker) return;  // connect() applies it to the engine it makes
    if (QThread::currentThread() == thread_)
        worker->applyReadPause();
    else
        QMetaObject::invokeMethod(worker, [worker] { worker->applyReadPause(); }, Qt::QueuedConnection);
}

}  // namespace ostv
