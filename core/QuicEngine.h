#pragma once
// One QUIC connection carrying one bidirectional stream, on ngtcp2 with GnuTLS. Shared by the client
// transport and the local server's listener: it turns datagrams into stream bytes and back, keeps sent
// bytes until the peer acknowledges them, and holds back flow-control credit while reading is paused.
// Not thread-safe: every call happens on the thread that owns the engine.
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <vector>
#include <sys/socket.h>

#include <gnutls/gnutls.h>
#include <ngtcp2/ngtcp2.h>
#include <ngtcp2/ngtcp2_crypto.h>

namespace ostv {

inline constexpr const char* kRelayAlpn = "ostvarren-ctrl";
// What agents on other machines speak to the relay with.
inline constexpr const char* kAgentAlpn = "ostvarren-agent";

uint64_t quicTimestamp();  // monotonic nanoseconds, ngtcp2's clock

class QuicEngine {
public:
    struct Hooks {
        std::function<void(const uint8_t*, size_t)> sendDatagram;
        std::function<void(const char*, size_t)> streamData;       // bytes received on the stream
        // Handshake done and the stream usable: at once on a client; on a server once the client's stream
        // has opened too (the client speaks first), before its first bytes are delivered.
        std::function<void()> established;
        std::function<void(const std::string& why, bool byPeer)> closed;  // once; the engine is dead after
        std::function<void()> drained;                               // pendingBytes() fell under the low mark
        std::function<void(int64_t delayMs)> armTimer;               // -1: no timer needed
        std::function<void(const ngtcp2_cid&)> newConnectionId;      // server: route this id here too
    };

    explicit QuicEngine(Hooks hooks);
    ~QuicEngine();
    QuicEngine(const QuicEngine&) = delete;
    QuicEngine& operator=(const QuicEngine&) = delete;

    // Client: opens the handshake to `remote` with the given TLS server name (empty: none).
    bool startClient(const sockaddr* local, socklen_t localLen, const sockaddr* remote, socklen_t remoteLen,
                     const std::string& serverName, std::string& error);
    // Server: accepts the connection whose first packet header is `hd`, with the given credentials; tells
    // the client it may send datagrams of up to `maxUdpPayloadSize` bytes. After a Retry,
    // `retryOriginalDcid` is the destination id of the client's first Initial (from the validated token,
    // which `hd` carries).
    bool startServer(const sockaddr* local, socklen_t localLen, const sockaddr* remote, socklen_t remoteLen,
                     const ngtcp2_pkt_hd& hd, gnutls_certificate_credentials_t credentials, std::string& error,
                     uint64_t maxUdpPayloadSize = NGTCP2_DEFAULT_MAX_RECV_UDP_PAYLOAD_SIZE,
                     const ngtcp2_cid* retryOriginalDcid = nullptr);

    void receivePacket(const uint8_t* data, size_t len);
    // Packets read in one go are answered together: between these two calls a received packet writes
    // nothing, and the end writes what all of them call for (one acknowledgement for many packets
    // instead of one for every other).
    void beginReceiveBatch() { batching_ = true; }
    void endReceiveBatch() {
        batching_ = false;
        flush();
    }
    void onTimer();
    // Queues bytes on the stream (kept until acknowledged) and sends as flow control allows.
    void send(std::string bytes);
    // Queues lastBytes and ends the stream after them (they go out with the FIN, in one frame when they
    // fit); nothing can be sent after it.
    void endStream(std::string lastBytes = {});
    // Bytes queued or sent but not yet acknowledged by the peer.
    size_t pendingBytes() const { return static_cast<size_t>(queuedEnd_ - ackedOffset_); }
    size_t lowWatermark = 256 * 1024;
    // While paused, consumed bytes are not given back as flow-control credit, so the peer stops sending.
    void setReadPaused(bool paused);
    // Client: while narrowed the peer gets credit for a small window only (the reader is behind and
    // wants little in flight), else for the full one. A server keeps one window.
    void setReadNarrowed(bool narrowed);
    // An orderly CONNECTION_CLOSE with the application error code; `closed` follows.
    void close(uint64_t appErrorCode = 0, const std::string& reason = {});

    // The protocols offered (client: normally one) or accepted (server); set before start.
    std::vector<std::string> alpns{kRelayAlpn};
    // Client: a PING goes out after this long without traffic (0: none), well inside the idle time-out.
    // Before pairing, and while the user reads the takeover chooser, nothing else is sent either way,
    // so the default keeps such a link alive. Set before start.
    uint64_t keepAliveMs = 5000;
    // The protocol agreed in the handshake, empty before.
    std::string selectedAlpn() const;

    bool isEstablished() const { return established_; }
    bool isClosed() const { return closed_; }
    std::string serverName() const { return serverName_; }  // what the client asked for (server side)
    ngtcp2_conn* conn() const { return conn_; }

    // ngtcp2 callbacks (public for the C trampolines only).
    int onStreamData(int64_t streamId, uint32_t flags, const uint8_t* data, size_t len);
    int onAcked(int64_t streamId, uint64_t offset, uint64_t len);
    int onStreamOpen(int64_t streamId);
    int onHandshakeCompleted();
    int onNewConnectionId(ngtcp2_cid* cid, uint8_t* token, size_t cidlen);

private:
    bool setupTls(bool server, const std::string& serverName, gnutls_certificate_credentials_t credentials,
                  std::string& error);
    void flush();
    size_t datagramLimit() const;  // the largest datagram that may be written now
    void fail(const std::string& why, bool byPeer);
    void armTimer();

    Hooks hooks_;
    ngtcp2_conn* conn_ = nullptr;
    gnutls_session_t tls_ = nullptr;
    gnutls_certificate_credentials_t ownCredentials_ = nullptr;
    ngtcp2_crypto_conn_ref connRef_{};
    sockaddr_storage local_{};
    socklen_t localLen_ = 0;
    sockaddr_storage remote_{};
    socklen_t remoteLen_ = 0;
    bool server_ = false;
    bool established_ = false;
    bool closed_ = false;
    void maybeAnnounce();
    void finishCallbacks();

    // True while ngtcp2 is calling back into this engine: writing then would re-enter ngtcp2, so sends
    // and closes asked for by the hooks wait until the call returns.
    bool inCallback_ = false;
    bool batching_ = false;
    bool announced_ = false;
    bool closeRequested_ = false;
    uint64_t requestedCode_ = 0;
    std::string requestedReason_;
    int64_t streamId_ = -1;
    std::string serverName_;

    // Send buffer: bytes from ackedOffset_ to queuedEnd_, in chunks; sentOffset_ marks what ngtcp2 has.
    std::deque<std::string> chunks_;
    uint64_t chunksStart_ = 0;  // stream offset of chunks_.front()
    uint64_t ackedOffset_ = 0;
    uint64_t sentOffset_ = 0;
    uint64_t queuedEnd_ = 0;
    bool finWanted_ = false;  // the stream ends at queuedEnd_
    bool finSent_ = false;
    bool wasAboveLowMark_ = false;

    void topUpCredit();
    bool readPaused_ = false;
    bool readNarrowed_ = false;
    // Receive credit on the stream: the peer may send up to rxGranted_; it is kept at rxConsumed_ plus the
    // window in force (set by startClient / startServer).
    uint64_t rxConsumed_ = 0;
    uint64_t rxGranted_ = 0;
    uint64_t rxOpenWindow_ = 0;
    uint64_t rxNarrowWindow_ = 0;
};

}  // namespace ostv
