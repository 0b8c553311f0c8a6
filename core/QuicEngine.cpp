#include "QuicEngine.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <netinet/in.h>

#include <gnutls/crypto.h>
#include <ngtcp2/ngtcp2_crypto_gnutls.h>

namespace ostv {

namespace {

constexpr const char kPriority[] =
    "NORMAL:-VERS-ALL:+VERS-TLS1.3:-CIPHER-ALL:+AES-128-GCM:+AES-256-GCM:+CHACHA20-POLY1305:+AES-128-CCM:"
    "-GROUP-ALL:+GROUP-SECP256R1:+GROUP-X25519:+GROUP-SECP384R1:+GROUP-SECP521R1:%DISABLE_TLS13_COMPAT_MODE";
constexpr size_t kMaxDatagram = NGTCP2_DEFAULT_MAX_RECV_UDP_PAYLOAD_SIZE;  // the largest UDP payload
constexpr size_t kLoopbackDatagram = 16384;
constexpr size_t kServerCidLen = 18;

QuicEngine* self(void* userData) { return static_cast<QuicEngine*>(userData); }

void randomBytes(uint8_t* dest, size_t len, const ngtcp2_rand_ctx*) { (void)gnutls_rnd(GNUTLS_RND_RANDOM, dest, len); }

int recvStreamData(ngtcp2_conn*, uint32_t flags, int64_t streamId, uint64_t, const uint8_t* data, size_t len,
                   void* userData, void*) {
    return self(userData)->onStreamData(streamId, flags, data, len);
}
int ackedStreamData(ngtcp2_conn*, int64_t streamId, uint64_t offset, uint64_t len, void* userData, void*) {
    return self(userData)->onAcked(streamId, offset, len);
}
int streamOpen(ngtcp2_conn*, int64_t streamId, void* userData) { return self(userData)->onStreamOpen(streamId); }
int handshakeCompleted(ngtcp2_conn*, void* userData) { return self(userData)->onHandshakeCompleted(); }
int newConnectionId(ngtcp2_conn*, ngtcp2_cid* cid, uint8_t* token, size_t cidlen, void* userData) {
    return self(userData)->onNewConnectionId(cid, token, cidlen);
}
ngtcp2_conn* connOf(ngtcp2_crypto_conn_ref* ref) { return static_cast<QuicEngine*>(ref->user_data)->conn(); }

bool isLoopback(const sockaddr* a) {
    if (a->sa_family == AF_INET)
        return (ntohl(reinterpret_cast<const sockaddr_in*>(a)->sin_addr.s_addr) >> 24) == 127;
    if (a->sa_family == AF_INET6) {
        const auto* in6 = reinterpret_cast<const sockaddr_in6*>(a);
        return IN6_IS_ADDR_LOOPBACK(&in6->sin6_addr);
    }
    return false;
}

// What the client may be sent ahead of what it has read. Terminal output is only read as fast as the
// page writes it (tens of MB/s at most), so the open window is what that rate needs, even over a distant
// link. While the terminal view is behind (narrowed), everything in flight lands in its queue in front
// of the next keystroke's echo, so the window is small then.
constexpr uint64_t kClientOpenWindow = 1024 * 1024;
constexpr uint64_t kClientNarrowWindow = 64 * 1024;
// The connection's credit stays this far ahead of the stream's: the library announces an increase only
// once it exceeds half its own window, so the connection never holds back what the stream allows.
constexpr uint64_t kClientConnectionSlack = 128 * 1024;

void commonSettings(ngtcp2_settings& s, const sockaddr* remote) {
    ngtcp2_settings_default(&s);
    s.initial_ts = quicTimestamp();
    s.max_window = 24 * 1024 * 1024;
    s.max_stream_window = 16 * 1024 * 1024;
    s.handshake_timeout = 10 * NGTCP2_SECONDS;
    if (isLoopback(remote)) {
        // Loopback carries large datagrams without fragmentation: fewer packets, far less work per byte.
        // The size follows what the peer advertises (max_udp_payload_size) rather than a probed path
        // MTU; the handshake itself still goes in standard-sized datagrams (datagramLimit).
        s.max_tx_udp_payload_size = kLoopbackDatagram;
        s.no_tx_udp_payload_size_shaping = 1;
    }
    // Real paths keep the library's defaults: datagrams start at 1200 bytes and grow as its path-MTU
    // discovery (on unless switched off) confirms larger ones.
}

void commonParams(ngtcp2_transport_params& p) {
    ngtcp2_transport_params_default(&p);
    p.max_udp_payload_size = kMaxDatagram;  // what we take in one datagram: the receive buffers hold it
    p.initial_max_stream_data_bidi_local = 4 * 1024 * 1024;
    p.initial_max_stream_data_bidi_remote = 4 * 1024 * 1024;
    p.initial_max_data = 8 * 1024 * 1024;
    p.max_idle_timeout = 15 * NGTCP2_SECONDS;
}

ngtcp2_callbacks commonCallbacks() {
    ngtcp2_callbacks cb{};
    cb.recv_crypto_data = ngtcp2_crypto_recv_crypto_data_cb;
    cb.encrypt = ngtcp2_crypto_encrypt_cb;
    cb.decrypt = ngtcp2_crypto_decrypt_cb;
    cb.hp_mask = ngtcp2_crypto_hp_mask_cb;
    cb.recv_stream_data = recvStreamData;
    cb.acked_stream_data_offset = ackedStreamData;
    cb.stream_open = streamOpen;
    cb.handshake_completed = handshakeCompleted;
    cb.rand = randomBytes;
    cb.get_new_connection_id = newConnectionId;
    cb.update_key = ngtcp2_crypto_update_key_cb;
    cb.delete_crypto_aead_ctx = ngtcp2_crypto_delete_crypto_aead_ctx_cb;
    cb.delete_crypto_cipher_ctx = ngtcp2_crypto_delete_crypto_cipher_ctx_cb;
    cb.get_path_challenge_data = ngtcp2_crypto_get_path_challenge_data_cb;
    cb.version_negotiation = ngtcp2_crypto_version_negotiation_cb;
    return cb;
}

}  // namespace

uint64_t quicTimestamp() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * NGTCP2_SECONDS + static_cast<uint64_t>(ts.tv_nsec);
}

QuicEngine::QuicEngine(Hooks hooks) : hooks_(std::move(hooks)) {
    connRef_.get_conn = connOf;
    connRef_.user_data = this;
}

QuicEngine::~QuicEngine() {
    if (conn_) ngtcp2_conn_del(conn_);
    if (tls_) gnutls_deinit(tls_);
    if (ownCredentials_) gnutls_certificate_free_credentials(ownCredentials_);
}

bool QuicEngine::setupTls(bool server, const std::string& serverName, gnutls_certificate_credentials_t credentials,
                          std::string& error) {
    int rv = gnutls_init(&tls_, (server ? GNUTLS_SERVER : GNUTLS_CLIENT) | GNUTLS_ENABLE_EARLY_DATA |
                                    GNUTLS_NO_END_OF_EARLY_DATA);
    if (rv == 0) rv = gnutls_priority_set_direct(tls_, kPriority, nullptr);
    if (rv != 0) {
        error = std::string("TLS set-up failed: ") + gnutls_strerror(rv);
        return false;
    }
    if ((server ? ngtcp2_crypto_gnutls_configure_server_session(tls_)
                : ngtcp2_crypto_gnutls_configure_client_session(tls_)) != 0) {
        error = "TLS set-up for QUIC failed";
        return false;
    }
    gnutls_session_set_ptr(tls_, &connRef_);
    if (!server) {
        // Every certificate is accepted, self-signed or not, for any name: the relay is trusted by address.
        gnutls_certificate_allocate_credentials(&ownCredentials_);
        gnutls_certificate_set_verify_function(ownCredentials_, [](gnutls_session_t) { return 0; });
        credentials = ownCredentials_;
    }
    rv = gnutls_credentials_set(tls_, GNUTLS_CRD_CERTIFICATE, credentials);
    if (rv != 0) {
        error = std::string("TLS credentials: ") + gnutls_strerror(rv);
        return false;
    }
    std::vector<gnutls_datum_t> alpn;
    for (const std::string& a : alpns)
        alpn.push_back({reinterpret_cast<unsigned char*>(const_cast<char*>(a.data())), static_cast<unsigned>(a.size())});
    gnutls_alpn_set_protocols(tls_, alpn.data(), static_cast<unsigned>(alpn.size()), GNUTLS_ALPN_MANDATORY);
    if (!server && !serverName.empty())
        gnutls_server_name_set(tls_, GNUTLS_NAME_DNS, serverName.data(), serverName.size());
    ngtcp2_conn_set_tls_native_handle(conn_, tls_);
    return true;
}

bool QuicEngine::startClient(const sockaddr* local, socklen_t localLen, const sockaddr* remote, socklen_t remoteLen,
                             const std::string& serverName, std::string& error) {
    std::memcpy(&local_, local, localLen);
    localLen_ = localLen;
    std::memcpy(&remote_, remote, remoteLen);
    remoteLen_ = remoteLen;
    ngtcp2_cid dcid{}, scid{};
    dcid.datalen = NGTCP2_MIN_INITIAL_DCIDLEN;
    scid.datalen = 8;
    (void)gnutls_rnd(GNUTLS_RND_RANDOM, dcid.data, dcid.datalen);
    (void)gnutls_rnd(GNUTLS_RND_RANDOM, scid.data, scid.datalen);
    ngtcp2_callbacks cb = commonCallbacks();
    cb.client_initial = ngtcp2_crypto_client_initial_cb;
    cb.recv_retry = ngtcp2_crypto_recv_retry_cb;
    ngtcp2_settings settings;
    commonSettings(settings, remote);
    ngtcp2_transport_params params;
    commonParams(params);
    // The library's own window is the narrow one and never grows by itself: it sets the step in which
    // credit goes out (an update leaves once it exceeds half of it). The open window is credit granted
    // on top (topUpCredit).
    params.initial_max_stream_data_bidi_local = kClientNarrowWindow;
    params.initial_max_data = kClientNarrowWindow + kClientConnectionSlack;
    settings.max_stream_window = kClientNarrowWindow;
    settings.max_window = kClientNarrowWindow + kClientConnectionSlack;
    rxGranted_ = params.initial_max_stream_data_bidi_local;
    rxOpenWindow_ = kClientOpenWindow;
    rxNarrowWindow_ = kClientNarrowWindow;
    params.initial_max_streams_bidi = 0;
    params.initial_max_streams_uni = 0;
    ngtcp2_path path{{reinterpret_cast<sockaddr*>(&local_), localLen_}, {reinterpret_cast<sockaddr*>(&remote_), remoteLen_}, nullptr};
    const int rv = ngtcp2_conn_client_new(&conn_, &dcid, &scid, &path, NGTCP2_PROTO_VER_V1, &cb, &settings, &params,
                                          nullptr, this);
    if (rv != 0) {
        error = std::string("QUIC set-up failed: ") + ngtcp2_strerror(rv);
        return false;
    }
    if (keepAliveMs > 0) ngtcp2_conn_set_keep_alive_timeout(conn_, keepAliveMs * NGTCP2_MILLISECONDS);
    if (!setupTls(false, serverName, nullptr, error)) return false;
    flush();
    return !closed_;
}

bool QuicEngine::startServer(const sockaddr* local, socklen_t localLen, const sockaddr* remote, socklen_t remoteLen,
                             const ngtcp2_pkt_hd& hd, gnutls_certificate_credentials_t credentials, std::string& error,
                             uint64_t maxUdpPayloadSize, const ngtcp2_cid* retryOriginalDcid) {
    server_ = true;
    std::memcpy(&local_, local, localLen);
    localLen_ = localLen;
    std::memcpy(&remote_, remote, remoteLen);
    remoteLen_ = remoteLen;
    ngtcp2_cid scid{};
    scid.datalen = kServerCidLen;
    (void)gnutls_rnd(GNUTLS_RND_RANDOM, scid.data, scid.datalen);
    ngtcp2_callbacks cb = commonCallbacks();
    cb.recv_client_initial = ngtcp2_crypto_recv_client_initial_cb;
    ngtcp2_settings settings;
    commonSettings(settings, remote);
    ngtcp2_transport_params params;
    commonParams(params);
    params.initial_max_streams_bidi = 4;
    // One window: each byte read is given back (the library may widen it by itself).
    rxGranted_ = rxOpenWindow_ = rxNarrowWindow_ = params.initial_max_stream_data_bidi_remote;
    params.initial_max_streams_uni = 0;
    params.max_idle_timeout = 30 * NGTCP2_SECONDS;
    params.max_udp_payload_size = std::clamp<uint64_t>(maxUdpPayloadSize, NGTCP2_MAX_UDP_PAYLOAD_SIZE, kMaxDatagram);
    params.original_dcid = hd.dcid;
    if (retryOriginalDcid) {
        params.original_dcid = *retryOriginalDcid;
        params.retry_scid = hd.dcid;
        params.retry_scid_present = 1;
        settings.token = hd.token;
    }
    ngtcp2_path path{{reinterpret_cast<sockaddr*>(&local_), localLen_}, {reinterpret_cast<sockaddr*>(&remote_), remoteLen_}, nullptr};
    const int rv = ngtcp2_conn_server_new(&conn_, &hd.scid, &scid, &path, hd.version, &cb, &settings, &params, nullptr, this);
    if (rv != 0) {
        error = std::string("QUIC accept failed: ") + ngtcp2_strerror(rv);
        return false;
    }
    if (hooks_.newConnectionId) hooks_.newConnectionId(scid);
    return setupTls(true, {}, credentials, error);
}

std::string QuicEngine::selectedAlpn() const {
    gnutls_datum_t p{};
    if (!tls_ || gnutls_alpn_get_selected_protocol(tls_, &p) != 0) return {};
    return std::string(reinterpret_cast<const char*>(p.data), p.size);
}

void QuicEngine::receivePacket(const uint8_t* data, size_t len) {
    if (closed_) return;
    ngtcp2_path path{{reinterpret_cast<sockaddr*>(&local_), localLen_}, {reinterpret_cast<sockaddr*>(&remote_), remoteLen_}, nullptr};
    ngtcp2_pkt_info pi{};
    inCallback_ = true;
    const int rv = ngtcp2_conn_read_pkt(conn_, &path, &pi, data, len, quicTimestamp());
    inCallback_ = false;
    if (closed_) return;
    if (rv != 0) {
        if (rv == NGTCP2_ERR_DRAINING) {
            // A plain close says nothing more; an error the peer gave is worth a line in the log.
            ngtcp2_connection_close_error peer;
            ngtcp2_conn_get_connection_close_error(conn_, &peer);
            std::string why = "connection closed by peer";
            std::string detail;
            if (peer.error_code != 0) {
                const bool transport = peer.type == NGTCP2_CONNECTION_CLOSE_ERROR_CODE_TYPE_TRANSPORT;
                detail = std::string(transport ? "transport" : "application") + " error " + std::to_string(peer.error_code);
            }
            if (peer.reasonlen != 0) {
                if (!detail.empty()) detail += ": ";
                detail.append(reinterpret_cast<const char*>(peer.reason), std::min<size_t>(peer.reasonlen, 200));
            }
            if (!detail.empty()) why += " (" + detail + ")";
            fail(why, true);
        } else if (rv == NGTCP2_ERR_DROP_CONN) {
            fail("connection dropped", true);
        } else {
            ngtcp2_connection_close_error ccerr;
            ngtcp2_connection_close_error_default(&ccerr);
            if (rv == NGTCP2_ERR_CRYPTO)
                ngtcp2_connection_close_error_set_transport_error_tls_alert(&ccerr, ngtcp2_conn_get_tls_alert(conn_), nullptr, 0);
            else
                ngtcp2_connection_close_error_set_transport_error_liberr(&ccerr, rv, nullptr, 0);
            uint8_t buf[NGTCP2_MAX_UDP_PAYLOAD_SIZE];
            ngtcp2_pkt_info cpi{};
            const ngtcp2_ssize n = ngtcp2_conn_write_connection_close(conn_, nullptr, &cpi, buf, sizeof buf, &ccerr, quicTimestamp());
            if (n > 0 && hooks_.sendDatagram) hooks_.sendDatagram(buf, static_cast<size_t>(n));
            fail(std::string("QUIC error: ") + ngtcp2_strerror(rv), false);
        }
        return;
    }
    finishCallbacks();
}

void QuicEngine::finishCallbacks() {
    if (closeRequested_) {
        closeRequested_ = false;
        close(requestedCode_, requestedReason_);
        return;
    }
    if (!batching_) flush();
}

void QuicEngine::onTimer() {
    if (closed_) return;
    const int rv = ngtcp2_conn_handle_expiry(conn_, quicTimestamp());
    if (rv != 0) {
        fail(rv == NGTCP2_ERR_IDLE_CLOSE ? "idle timeout: the peer stopped answering"
                                         : std::string("QUIC error: ") + ngtcp2_strerror(rv),
             false);
        return;
    }
    flush();
}

void QuicEngine::send(std::string bytes) {
    if (closed_ || finWanted_ || bytes.empty()) return;
    queuedEnd_ += bytes.size();
    chunks_.push_back(std::move(bytes));
    if (pendingBytes() >= lowWatermark) wasAboveLowMark_ = true;
    if (established_ && !inCallback_) flush();
}

void QuicEngine::endStream(std::string lastBytes) {
    if (closed_ || finWanted_) return;
    if (!lastBytes.empty()) {
        queuedEnd_ += lastBytes.size();
        chunks_.push_back(std::move(lastBytes));
    }
    finWanted_ = true;
    if (established_ && !inCallback_) flush();
}

void QuicEngine::setReadPaused(bool paused) {
    if (readPaused_ == paused) return;
    readPaused_ = paused;
    if (!paused) topUpCredit();
}

void QuicEngine::setReadNarrowed(bool narrowed) {
    if (readNarrowed_ == narrowed) return;
    readNarrowed_ = narrowed;
    if (!narrowed) topUpCredit();  // narrowing takes back nothing: it only stops the next grants
}

// Grants the peer credit up to what was consumed plus the window in force: none while paused. Credit
// given is never taken back, so after a pause or while narrowed the peer has at most that window in
// flight, not whatever accumulated meanwhile.
void QuicEngine::topUpCredit() {
    if (readPaused_ || !conn_ || closed_ || streamId_ < 0) return;
    const uint64_t want = rxConsumed_ + (readNarrowed_ ? rxNarrowWindow_ : rxOpenWindow_);
    if (want <= rxGranted_) return;
    const uint64_t more = want - rxGranted_;
    rxGranted_ = want;
    ngtcp2_conn_extend_max_stream_offset(conn_, streamId_, more);
    ngtcp2_conn_extend_max_offset(conn_, more);
    if (!inCallback_) flush();  // tell the peer at once
}

void QuicEngine::close(uint64_t appErrorCode, const std::string& reason) {
    if (closed_ || !conn_) return;
    if (inCallback_) {
        closeRequested_ = true;
        requestedCode_ = appErrorCode;
        requestedReason_ = reason;
        return;
    }
    if (!ngtcp2_conn_is_in_closing_period(conn_) && !ngtcp2_conn_is_in_draining_period(conn_)) {
        ngtcp2_connection_close_error ccerr;
        ngtcp2_connection_close_error_default(&ccerr);
        ngtcp2_connection_close_error_set_application_error(&ccerr, appErrorCode,
                                                             reinterpret_cast<const uint8_t*>(reason.data()), reason.size());
        uint8_t buf[NGTCP2_MAX_UDP_PAYLOAD_SIZE];
        ngtcp2_pkt_info pi{};
        const ngtcp2_ssize n = ngtcp2_conn_write_connection_close(conn_, nullptr, &pi, buf, sizeof buf, &ccerr, quicTimestamp());
        if (n > 0 && hooks_.sendDatagram) hooks_.sendDatagram(buf, static_cast<size_t>(n));
    }
    fail(reason.empty() ? "closed" : reason, false);
}

void QuicEngine::fail(const std::string& why, bool byPeer) {
    if (closed_) return;
    closed_ = true;
    if (hooks_.armTimer) hooks_.armTimer(-1);
    if (hooks_.closed) hooks_.closed(why, byPeer);
}

int QuicEngine::onStreamData(int64_t streamId, uint32_t flags, const uint8_t* data, size_t len) {
    if (streamId != streamId_) {
        if (streamId_ < 0 && server_) streamId_ = streamId;  // the client's stream, first data on it
        else return 0;                                       // any other stream is ignored
    }
    maybeAnnounce();
    if (closed_ || closeRequested_) return 0;
    if (len > 0 && hooks_.streamData) hooks_.streamData(reinterpret_cast<const char*>(data), len);
    if (closed_) return 0;
    if (flags & NGTCP2_STREAM_DATA_FLAG_FIN) {
        // The one stream is the whole link: once the peer has ended it (its last bytes delivered above),
        // nothing more can come, so the connection goes as if the peer had closed it.
        close(0, "the peer ended the stream");
        return 0;
    }
    rxConsumed_ += len;
    topUpCredit();
    return 0;
}

int QuicEngine::onAcked(int64_t streamId, uint64_t offset, uint64_t len) {
    if (streamId != streamId_) return 0;
    const uint64_t end = offset + len;
    if (end > ackedOffset_) ackedOffset_ = end;
    while (!chunks_.empty() && chunksStart_ + chunks_.front().size() <= ackedOffset_) {
        chunksStart_ += chunks_.front().size();
        chunks_.pop_front();
    }
    if (wasAboveLowMark_ && pendingBytes() < lowWatermark) {
        wasAboveLowMark_ = false;
        if (hooks_.drained) hooks_.drained();
    }
    return 0;
}

int QuicEngine::onStreamOpen(int64_t streamId) {
    if (server_ && streamId_ < 0) {
        streamId_ = streamId;
        maybeAnnounce();
    }
    return 0;
}

void QuicEngine::maybeAnnounce() {
    if (announced_ || !established_ || streamId_ < 0 || closed_) return;
    announced_ = true;
    if (hooks_.established) hooks_.established();
}

int QuicEngine::onHandshakeCompleted() {
    if (server_) {
        char name[256];
        size_t len = sizeof name - 1;
        unsigned type = 0;
        if (gnutls_server_name_get(tls_, name, &len, &type, 0) == 0 && type == GNUTLS_NAME_DNS)
            serverName_.assign(name, len);
    } else {
        int64_t id = -1;
        if (ngtcp2_conn_open_bidi_stream(conn_, &id, nullptr) != 0) return NGTCP2_ERR_CALLBACK_FAILURE;
        streamId_ = id;
        topUpCredit();  // the open window on top of the initial (narrow) one
    }
    established_ = true;
    maybeAnnounce();
    return 0;
}

int QuicEngine::onNewConnectionId(ngtcp2_cid* cid, uint8_t* token, size_t cidlen) {
    if (gnutls_rnd(GNUTLS_RND_RANDOM, cid->data, cidlen) != 0) return NGTCP2_ERR_CALLBACK_FAILURE;
    cid->datalen = cidlen;
    if (gnutls_rnd(GNUTLS_RND_RANDOM, token, NGTCP2_STATELESS_RESET_TOKENLEN) != 0) return NGTCP2_ERR_CALLBACK_FAILURE;
    if (hooks_.newConnectionId) hooks_.newConnectionId(*cid);
    return 0;
}

size_t QuicEngine::datagramLimit() const {
    // Until the handshake is done the peer's limit is not known for sure: standard-sized datagrams, which
    // every QUIC endpoint takes (a client's Initial is padded to this size). After it, never more than
    // the peer advertised.
    if (!ngtcp2_conn_get_handshake_completed(conn_)) return NGTCP2_MAX_UDP_PAYLOAD_SIZE;
    size_t limit = kMaxDatagram;
    if (const ngtcp2_transport_params* peer = ngtcp2_conn_get_remote_transport_params(conn_);
        peer && peer->max_udp_payload_size >= NGTCP2_MAX_UDP_PAYLOAD_SIZE)
        limit = static_cast<size_t>(std::min<uint64_t>(limit, peer->max_udp_payload_size));
    return limit;
}

void QuicEngine::flush() {
    if (closed_ || !conn_) return;
    static thread_local uint8_t buf[kMaxDatagram];
    const size_t destlen = datagramLimit();
    bool streamBlocked = false;
    ngtcp2_path_storage ps;
    ngtcp2_path_storage_zero(&ps);
    for (int guard = 0; guard < 4096; ++guard) {
        ngtcp2_vec vec[16];
        size_t nvec = 0;
        int64_t sid = -1;
        const bool finDue = finWanted_ && !finSent_;
        if (established_ && streamId_ >= 0 && !streamBlocked && (sentOffset_ < queuedEnd_ || finDue)) {
            // Walk the chunks from the first byte ngtcp2 does not have yet.
            uint64_t pos = chunksStart_;
            for (const std::string& c : chunks_) {
                const uint64_t end = pos + c.size();
                if (end > sentOffset_ && nvec < 16) {
                    const uint64_t skip = sentOffset_ > pos ? sentOffset_ - pos : 0;
                    vec[nvec].base = reinterpret_cast<uint8_t*>(const_cast<char*>(c.data())) + skip;
                    vec[nvec].len = static_cast<size_t>(c.size() - skip);
                    ++nvec;
                }
                pos = end;
            }
            sid = streamId_;
        }
        ngtcp2_ssize accepted = -1;
        ngtcp2_pkt_info pi{};
        uint32_t flags = nvec ? NGTCP2_WRITE_STREAM_FLAG_MORE : NGTCP2_WRITE_STREAM_FLAG_NONE;
        uint64_t offered = 0;
        for (size_t i = 0; i < nvec; ++i) offered += vec[i].len;
        const bool withFin = sid >= 0 && finDue && sentOffset_ + offered == queuedEnd_;  // the last bytes
        if (withFin) flags |= NGTCP2_WRITE_STREAM_FLAG_FIN;
        const ngtcp2_ssize n = ngtcp2_conn_writev_stream(conn_, &ps.path, &pi, buf, destlen, &accepted, flags, sid,
                                                         nvec ? vec : nullptr, nvec, quicTimestamp());
        if (accepted > 0) sentOffset_ += static_cast<uint64_t>(accepted);
        if (withFin && accepted >= 0 && sentOffset_ == queuedEnd_) finSent_ = true;
        if (n < 0) {
            if (n == NGTCP2_ERR_WRITE_MORE) continue;
            if (n == NGTCP2_ERR_STREAM_DATA_BLOCKED || n == NGTCP2_ERR_STREAM_SHUT_WR) {
                streamBlocked = true;
                continue;
            }
            fail(std::string("QUIC write failed: ") + ngtcp2_strerror(static_cast<int>(n)), false);
            return;
        }
        if (n == 0) break;
        if (hooks_.sendDatagram) hooks_.sendDatagram(buf, static_cast<size_t>(n));
    }
    armTimer();
}

void QuicEngine::armTimer() {
    if (!hooks_.armTimer || closed_) return;
    const ngtcp2_tstamp expiry = ngtcp2_conn_get_expiry(conn_);
    if (expiry == UINT64_MAX) {
        hooks_.armTimer(-1);
        return;
    }
    const uint64_t now = quicTimestamp();
    // Rounded down: an expiry microseconds away (pacing, acknowledgement delay) is handled on the next
    // turn of the event loop instead of a whole millisecond later. Early calls do nothing harmful.
    hooks_.armTimer(expiry <= now ? 0 : static_cast<int64_t>((expiry - now) / 1000000));
}

}  // namespace ostv
