#include "QuicServer.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <QPointer>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <gnutls/crypto.h>
#include <gnutls/x509.h>
#include <netinet/in.h>
#include <unistd.h>

#include "Logger.h"

namespace ostv::server {

namespace {

std::string key(const uint8_t* data, size_t len) { return std::string(reinterpret_cast<const char*>(data), len); }

std::string peerKey(const sockaddr* a, socklen_t len) { return key(reinterpret_cast<const uint8_t*>(a), len); }

QString addressText(const sockaddr* a) {
    char host[INET6_ADDRSTRLEN] = {};
    uint16_t port = 0;
    if (a->sa_family == AF_INET) {
        const auto* in = reinterpret_cast<const sockaddr_in*>(a);
        inet_ntop(AF_INET, &in->sin_addr, host, sizeof host);
        port = ntohs(in->sin_port);
    } else if (a->sa_family == AF_INET6) {
        const auto* in6 = reinterpret_cast<const sockaddr_in6*>(a);
        inet_ntop(AF_INET6, &in6->sin6_addr, host, sizeof host);
        port = ntohs(in6->sin6_port);
    }
    return QString::fromLatin1(host) + QLatin1Char(':') + QString::number(port);
}

std::string hostOf(const sockaddr* a) {
    const QString t = addressText(a);
    return t.left(t.lastIndexOf(QLatin1Char(':'))).toStdString();
}

// Writes `data` to a new file readable by the owner only (replacing an older one).
bool writePrivate(const QString& path, const gnutls_datum_t& data) {
    const QByteArray p = QFile::encodeName(path);
    ::unlink(p.constData());
    const int fd = ::open(p.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    const bool ok = ::write(fd, data.data, data.size) == static_cast<ssize_t>(data.size);
    return ::close(fd) == 0 && ok;
}

}  // namespace

// ---- connection ----

QuicConnection::QuicConnection(QuicServer* server) : LineConnection(server), server_(server) {
    timer_.setSingleShot(true);
    timer_.setTimerType(Qt::PreciseTimer);
    connect(&timer_, &QTimer::timeout, this, [this] {
        if (engine_) engine_->onTimer();
    });
}

void QuicConnection::sendLine(std::string_view line) {
    if (closed_ || !engine_) return;
    std::string bytes;
    bytes.reserve(line.size() + 1);
    bytes.append(line).push_back('\n');
    engine_->send(std::move(bytes));
}

void QuicConnection::endStream(std::string_view lastBytes) {
    if (closed_ || !engine_) return;
    engine_->endStream(std::string(lastBytes));
}

void QuicConnection::close(uint64_t appErrorCode) {
    if (closed_ || !engine_) return;
    engine_->close(appErrorCode, "closed by the server");
}

void QuicConnection::setReadPaused(bool paused) {
    if (engine_) engine_->setReadPaused(paused);
}

bool QuicConnection::markAuthenticated() {
    if (authenticated_) return true;
    if (closed_ || server_->authenticated_ >= server_->maxAuthenticated) return false;
    auto it = server_->perSource_.find(sourceKey_);
    if (it != server_->perSource_.end() && --it->second == 0) server_->perSource_.erase(it);
    authenticated_ = true;
    ++server_->authenticated_;
    return true;
}

void QuicConnection::deliver(const char* data, size_t len) {
    std::string_view chunk(data, len);
    // A line longer than the limit is dropped whole: its bytes are skipped until the next line feed.
    // Fed one line at a time: a handler may close (and so end) this connection.
    QPointer<QuicConnection> self(this);
    while (!chunk.empty()) {
        const size_t nl = chunk.find('\n');
        const size_t upTo = nl == std::string_view::npos ? chunk.size() : nl + 1;
        const size_t droppedBefore = splitter_.droppedLines();
        splitter_.feed(chunk.substr(0, upTo), [&](std::string_view line) {
            if (self && onLine && !closed_) onLine(line);
        });
        if (!self) return;
        if (splitter_.droppedLines() != droppedBefore && ++droppedLogged_ <= 3)
            Logger::error("Dropped a line of more than " + std::to_string(splitter_.maxLine()) + " bytes from " +
                          peerAddress_.toStdString());
        chunk.remove_prefix(upTo);
    }
}

void QuicConnection::finish(const QString& why) {
    if (closed_) return;
    closed_ = true;
    timer_.stop();
    server_->forget(this);
    if (announced_ && onClosed) onClosed(why);
    deleteLater();
}

// ---- server ----

QuicServer::QuicServer(QObject* parent) : QObject(parent) {
    notBefore_ = QDateTime::currentDateTimeUtc().addDays(-1);
    notAfter_ = QDateTime::currentDateTimeUtc().addYears(1);
}

QuicServer::~QuicServer() {
    for (auto& [k, c] : byPeer_)
        if (c && c->engine_ && !c->engine_->isClosed()) c->engine_->close(0, "server stopping");
    if (fd_ >= 0) ::close(fd_);
    if (credentials_) gnutls_certificate_free_credentials(credentials_);
}

void QuicServer::setCertificateOptions(const QString& commonName, const QDateTime& notBefore, const QDateTime& notAfter) {
    certOptionsSet_ = true;
    certName_ = commonName;
    notBefore_ = notBefore;
    notAfter_ = notAfter;
}

bool QuicServer::makeCredentials() {
    gnutls_x509_privkey_t key = nullptr;
    gnutls_x509_crt_t crt = nullptr;
    bool ok = gnutls_x509_privkey_init(&key) == 0 &&
              gnutls_x509_privkey_generate(key, GNUTLS_PK_ECDSA, GNUTLS_CURVE_TO_BITS(GNUTLS_ECC_CURVE_SECP256R1), 0) == 0 &&
              gnutls_x509_crt_init(&crt) == 0;
    if (ok) {
        unsigned char serial[16];
        gnutls_rnd(GNUTLS_RND_NONCE, serial, sizeof serial);
        serial[0] &= 0x7f;
        const QByteArray cn = certName_.toUtf8();
        ok = gnutls_x509_crt_set_version(crt, 3) == 0 && gnutls_x509_crt_set_serial(crt, serial, sizeof serial) == 0 &&
             gnutls_x509_crt_set_activation_time(crt, notBefore_.toSecsSinceEpoch()) == 0 &&
             gnutls_x509_crt_set_expiration_time(crt, notAfter_.toSecsSinceEpoch()) == 0 &&
             gnutls_x509_crt_set_dn_by_oid(crt, GNUTLS_OID_X520_COMMON_NAME, 0, cn.constData(), cn.size()) == 0 &&
             gnutls_x509_crt_set_subject_alt_name(crt, GNUTLS_SAN_DNSNAME, cn.constData(), cn.size(), GNUTLS_FSAN_SET) == 0 &&
             gnutls_x509_crt_set_key(crt, key) == 0 &&
             gnutls_x509_crt_sign2(crt, crt, key, GNUTLS_DIG_SHA256, 0) == 0 &&
             gnutls_certificate_allocate_credentials(&credentials_) == 0 &&
             gnutls_certificate_set_x509_key(credentials_, &crt, 1, key) == 0;
    }
    if (ok && !stateDir_.isEmpty() && !certOptionsSet_) {
        gnutls_datum_t crtPem{}, keyPem{};
        const bool saved = gnutls_x509_crt_export2(crt, GNUTLS_X509_FMT_PEM, &crtPem) == 0 &&
                           gnutls_x509_privkey_export2(key, GNUTLS_X509_FMT_PEM, &keyPem) == 0 &&
                           writePrivate(stateDir_ + QStringLiteral("/relay-key.pem"), keyPem) &&
                           writePrivate(stateDir_ + QStringLiteral("/relay-cert.pem"), crtPem);
        gnutls_free(crtPem.data);
        gnutls_free(keyPem.data);
        if (saved)
            Logger::info("relay: new certificate and key kept in " + stateDir_.toStdString());
        else
            Logger::error("relay: cannot keep the certificate in " + stateDir_.toStdString() +
                          "; a new one is made on the next start");
    }
    if (crt) gnutls_x509_crt_deinit(crt);
    if (key) gnutls_x509_privkey_deinit(key);
    if (!ok) error_ = QStringLiteral("cannot make the server certificate");
    return ok;
}

bool QuicServer::loadOrMakeCredentials() {
    if (stateDir_.isEmpty() || certOptionsSet_) return makeCredentials();
    const QByteArray dir = QFile::encodeName(stateDir_);
    if (!QDir().mkpath(stateDir_)) {
        error_ = QStringLiteral("cannot create the state folder ") + stateDir_;
        return false;
    }
    ::chmod(dir.constData(), 0700);
    const QString certPath = stateDir_ + QStringLiteral("/relay-cert.pem");
    const QString keyPath = stateDir_ + QStringLiteral("/relay-key.pem");
    if (QFileInfo::exists(certPath) && QFileInfo::exists(keyPath)) {
        if ((QFileInfo(keyPath).permissions() & (QFile::ReadGroup | QFile::ReadOther | QFile::WriteOther)) != 0) {
            error_ = QStringLiteral("%1 may be read by other users; chmod 600 it").arg(keyPath);
            return false;
        }
        if (gnutls_certificate_allocate_credentials(&credentials_) == 0 &&
            gnutls_certificate_set_x509_key_file(credentials_, QFile::encodeName(certPath).constData(),
                                                 QFile::encodeName(keyPath).constData(), GNUTLS_X509_FMT_PEM) == 0)
            return true;
        if (credentials_) gnutls_certificate_free_credentials(credentials_);
        credentials_ = nullptr;
        error_ = QStringLiteral("cannot load the relay's certificate from ") + stateDir_;
        return false;
    }
    return makeCredentials();
}

void QuicServer::refuseLogged(const std::string& why) {
    const int64_t now = QDateTime::currentMSecsSinceEpoch();
    if (lastRefusalLogMs_ < 0 || now - lastRefusalLogMs_ >= 60000) {
        Logger::connection("relay: new connection dropped: " + why +
                           (refusedSinceLog_ ? " (" + std::to_string(refusedSinceLog_) + " more since the last line)"
                                             : std::string()));
        lastRefusalLogMs_ = now;
        refusedSinceLog_ = 0;
    } else {
        ++refusedSinceLog_;
    }
}

bool QuicServer::sendRetry(const sockaddr* peer, socklen_t peerLen, const ngtcp2_pkt_hd& hd) {
    ngtcp2_cid scid{};
    scid.datalen = 18;
    gnutls_rnd(GNUTLS_RND_NONCE, scid.data, scid.datalen);
    uint8_t token[NGTCP2_CRYPTO_MAX_RETRY_TOKENLEN];
    const ngtcp2_ssize tokenLen = ngtcp2_crypto_generate_retry_token(
        token, retrySecret_, sizeof retrySecret_, hd.version, peer, peerLen, &scid, &hd.dcid, quicTimestamp());
    if (tokenLen < 0) return false;
    uint8_t out[1280];
    const ngtcp2_ssize n = ngtcp2_crypto_write_retry(out, sizeof out, hd.version, &hd.scid, &scid, &hd.dcid, token,
                                                     static_cast<size_t>(tokenLen));
    if (n < 0) return false;
    sendTo(peer, peerLen, out, static_cast<size_t>(n));
    ++retriesSent_;
    return true;
}

bool QuicServer::listen(const QHostAddress& address, quint16 port) {
    if (!credentials_ && !loadOrMakeCredentials()) return false;
    gnutls_rnd(GNUTLS_RND_KEY, retrySecret_, sizeof retrySecret_);
    sockaddr_storage addr{};
    socklen_t len = 0;
    if (address.protocol() == QAbstractSocket::IPv6Protocol) {
        auto* in6 = reinterpret_cast<sockaddr_in6*>(&addr);
        in6->sin6_family = AF_INET6;
        in6->sin6_port = htons(port);
        const Q_IPV6ADDR a = address.toIPv6Address();
        std::memcpy(&in6->sin6_addr, &a, 16);
        len = sizeof(sockaddr_in6);
    } else {
        auto* in = reinterpret_cast<sockaddr_in*>(&addr);
        in->sin_family = AF_INET;
        in->sin_port = htons(port);
        in->sin_addr.s_addr = htonl(address.toIPv4Address());
        len = sizeof(sockaddr_in);
    }
    fd_ = ::socket(addr.ss_family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&addr), len) != 0) {
        error_ = QStringLiteral("cannot listen on UDP %1 port %2: %3").arg(address.toString()).arg(port).arg(std::strerror(errno));
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
        return false;
    }
    const int size = 8 * 1024 * 1024;
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    setsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    localLen_ = sizeof local_;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&local_), &localLen_);
    port_ = ntohs(local_.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&local_)->sin6_port
                                               : reinterpret_cast<sockaddr_in*>(&local_)->sin_port);
    notifier_ = new QSocketNotifier(fd_, QSocketNotifier::Read, this);
    connect(notifier_, &QSocketNotifier::activated, this, &QuicServer::readAll);
    return true;
}

void QuicServer::sendTo(const sockaddr* peer, socklen_t len, const uint8_t* data, size_t n) {
    ::sendto(fd_, data, n, MSG_DONTWAIT, peer, len);
}

void QuicServer::forget(QuicConnection* c) {
    for (const std::string& cid : c->cids_) byCid_.erase(cid);
    if (byPeer_.erase(peerKey(reinterpret_cast<const sockaddr*>(&c->peer_), c->peerLen_)) == 0) return;
    if (c->authenticated_) {
        --authenticated_;
        c->authenticated_ = false;
        return;
    }
    auto it = perSource_.find(c->sourceKey_);
    if (it != perSource_.end() && --it->second == 0) perSource_.erase(it);
}

void QuicServer::readAll() {
    static thread_local uint8_t buf[65536];
    // Each connection answers what it received in this round once, at the end.
    std::vector<QPointer<QuicConnection>> touched;
    for (int i = 0; i < 512; ++i) {
        sockaddr_storage peer{};
        socklen_t peerLen = sizeof peer;
        const ssize_t n = ::recvfrom(fd_, buf, sizeof buf, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&peer), &peerLen);
        if (n < 0) break;
        const size_t len = static_cast<size_t>(n);

        ngtcp2_version_cid vc{};
        if (ngtcp2_pkt_decode_version_cid(&vc, buf, len, 18) != 0) continue;
        QuicConnection* conn = nullptr;
        if (auto it = byCid_.find(key(vc.dcid, vc.dcidlen)); it != byCid_.end()) conn = it->second;
        if (!conn)
            if (auto it = byPeer_.find(peerKey(reinterpret_cast<sockaddr*>(&peer), peerLen)); it != byPeer_.end())
                conn = it->second;
        if (!conn) {
            ngtcp2_pkt_hd hd{};
            if (ngtcp2_accept(&hd, buf, len) != 0) continue;  // not a new connection's Initial: drop
            const auto* from = reinterpret_cast<const sockaddr*>(&peer);
            const std::string source = hostOf(from);
            if (byPeer_.size() - authenticated_ >= maxConnections) {
                refuseLogged("at the cap of " + std::to_string(maxConnections) + " connections");
                continue;
            }
            if (auto it = perSource_.find(source); it != perSource_.end() && it->second >= maxPerAddress) {
                refuseLogged(std::to_string(maxPerAddress) + " connections from " + source + " already");
                continue;
            }
            ngtcp2_cid originalDcid{};
            bool retried = false;
            if (hd.token.len > 0 && hd.token.base[0] == NGTCP2_CRYPTO_TOKEN_MAGIC_RETRY) {
                if (ngtcp2_crypto_verify_retry_token(&originalDcid, hd.token.base, hd.token.len, retrySecret_,
                                                     sizeof retrySecret_, hd.version, from, peerLen, &hd.dcid,
                                                     10 * NGTCP2_SECONDS, quicTimestamp()) != 0) {
                    refuseLogged("a Retry token that does not check out from " + source);
                    continue;
                }
                retried = true;
            } else {
                size_t handshaking = 0;
                for (const auto& [k, other] : byPeer_)
                    if (other && !other->announced_) ++handshaking;
                if (handshaking >= retryAbove) {
                    sendRetry(from, peerLen, hd);
                    continue;
                }
            }
            auto* c = new QuicConnection(this);
            c->sourceKey_ = source;
            c->splitter_.setMaxLine(maxLineBytes);
            std::memcpy(&c->peer_, &peer, peerLen);
            c->peerLen_ = peerLen;
            c->peerAddress_ = addressText(reinterpret_cast<sockaddr*>(&peer));
            QPointer<QuicConnection> guard(c);
            QuicEngine::Hooks h;
            h.sendDatagram = [this, c](const uint8_t* d, size_t m) {
                sendTo(reinterpret_cast<const sockaddr*>(&c->peer_), c->peerLen_, d, m);
            };
            h.streamData = [c](const char* d, size_t m) { c->deliver(d, m); };
            h.established = [this, c] {
                c->serverName_ = QString::fromStdString(c->engine_->serverName());
                c->announced_ = true;
                if (onConnection) onConnection(c);
            };
            h.closed = [c](const std::string& why, bool) {
                // Defer: the engine is still on the stack here.
                QMetaObject::invokeMethod(c, [c, w = QString::fromStdString(why)] { c->finish(w); }, Qt::QueuedConnection);
            };
            h.drained = [c] {
                if (c->onDrained) c->onDrained();
            };
            h.armTimer = [c](int64_t ms) {
                if (ms < 0) c->timer_.stop();
                else c->timer_.start(static_cast<int>(std::min<int64_t>(ms, 24 * 3600 * 1000)));
            };
            h.newConnectionId = [this, c](const ngtcp2_cid& cid) {
                c->cids_.push_back(key(cid.data, cid.datalen));
                byCid_[c->cids_.back()] = c;
            };
            c->engine_ = std::make_unique<QuicEngine>(std::move(h));
            c->engine_->alpns = {kRelayAlpn, kAgentAlpn};
            c->engine_->lowWatermark = QuicConnection::lowWatermark();
            // The client keeps using its first destination id until it learns ours: route it here too.
            c->cids_.push_back(key(hd.dcid.data, hd.dcid.datalen));
            byCid_[c->cids_.back()] = c;
            byPeer_[peerKey(reinterpret_cast<sockaddr*>(&peer), peerLen)] = c;
            ++perSource_[source];
            std::string error;
            if (!c->engine_->startServer(reinterpret_cast<sockaddr*>(&local_), localLen_, reinterpret_cast<sockaddr*>(&peer),
                                         peerLen, hd, credentials_, error, maxUdpPayloadSize,
                                         retried ? &originalDcid : nullptr)) {
                Logger::error("QUIC accept from " + c->peerAddress_.toStdString() + " failed: " + error);
                forget(c);
                c->deleteLater();
                continue;
            }
            conn = c;
        }
        if (std::find(touched.begin(), touched.end(), conn) == touched.end()) {
            conn->engine_->beginReceiveBatch();
            touched.emplace_back(conn);
        }
        conn->engine_->receivePacket(buf, len);
    }
    for (const auto& c : touched)
        if (c && c->engine_) c->engine_->endReceiveBatch();
}

}  // namespace ostv::server
