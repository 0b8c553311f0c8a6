#include "AdminHttpApi.h"

#include "LogText.h"
#include "Logger.h"

#include <QHttpServer>
#include <QHttpServerRequest>
#include <QHttpServerResponse>
#include <QRandomGenerator>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

#include <nlohmann/json.hpp>

#include <array>
#include <unordered_map>

namespace ostv::server {

namespace {

using Clock = std::chrono::steady_clock;
using Status = QHttpServerResponse::StatusCode;

QHttpServerResponse jsonResponse(const nlohmann::json& body, Status status) {
    return QHttpServerResponse(QByteArrayLiteral("application/json"),
                               QByteArray::fromStdString(body.dump()), status);
}

QHttpServerResponse errorResponse(const char* text, Status status) {
    return jsonResponse(nlohmann::json{{"error", text}}, status);
}

// Compares without an early exit, so the time taken says nothing about where the texts differ.
bool sameSecret(const QByteArray& a, const QByteArray& b) {
    unsigned char diff = a.size() == b.size() ? 0 : 1;
    const qsizetype n = std::min(a.size(), b.size());
    for (qsizetype i = 0; i < n; ++i) diff |= static_cast<unsigned char>(a[i] ^ b[i]);
    return diff == 0;
}

std::string newToken() {
    std::array<quint32, 8> words;  // 32 bytes
    QRandomGenerator::system()->fillRange(words.data(), words.size());
    const QByteArray raw(reinterpret_cast<const char*>(words.data()), sizeof(words));
    return raw.toHex().toStdString();
}

// The admin listener: every accepted socket is counted and watched before the HTTP server sees it.
class GuardedTcpServer : public QTcpServer {
public:
    AdminLimits limits;

    int count() const { return static_cast<int>(conns_.size()); }

protected:
    void incomingConnection(qintptr fd) override {
        auto* socket = new QTcpSocket(this);
        if (!socket->setSocketDescriptor(fd)) {
            delete socket;
            return;
        }
        const QString peer = socket->peerAddress().toString();
        int fromPeer = 0;
        for (const Conn& c : conns_)
            if (c.peer == peer) ++fromPeer;
        if (fromPeer >= limits.maxPerAddress) return refuse(socket, "from " + peer.toStdString() + " (per address)");
        if (count() >= limits.maxConnections && !evictIdlest()) return refuse(socket, "(in total)");

        conns_.push_back(Conn{socket, peer, 0, Clock::now()});
        auto* idle = new QTimer(socket);
        idle->setSingleShot(true);
        idle->start(limits.idleTimeout);
        auto* whole = new QTimer(socket);
        whole->setSingleShot(true);
        connect(idle, &QTimer::timeout, socket, [socket] { socket->abort(); });
        connect(whole, &QTimer::timeout, socket, [socket] {
            Logger::info("admin API: a request took too long to arrive; connection closed");
            socket->abort();
        });
        // Connected before the HTTP server's own handler, so these run first and see what is new.
        connect(socket, &QTcpSocket::readyRead, socket, [this, socket, idle, whole] {
            Conn* c = find(socket);
            if (!c) return;
            if (c->requestBytes == 0) whole->start(limits.requestTimeout);
            c->requestBytes += socket->bytesAvailable();
            c->lastActive = Clock::now();
            idle->start(limits.idleTimeout);
            if (c->requestBytes > limits.maxRequestBytes) {
                Logger::info("admin API: a request of more than " + std::to_string(limits.maxRequestBytes) +
                             " bytes; connection closed");
                socket->abort();
            }
        });
        connect(socket, &QTcpSocket::bytesWritten, socket, [this, socket, idle, whole] {
            if (Conn* c = find(socket)) {
                c->requestBytes = 0;
                c->lastActive = Clock::now();
            }
            whole->stop();
            idle->start(limits.idleTimeout);
        });
        connect(socket, &QObject::destroyed, this, [this, socket] {
            std::erase_if(conns_, [socket](const Conn& c) { return c.socket == socket; });
        });
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        addPendingConnection(socket);
    }

private:
    struct Conn {
        QTcpSocket* socket;
        QString peer;
        qint64 requestBytes;
        Clock::time_point lastActive;
    };
    std::vector<Conn> conns_;
    Clock::time_point lastRefusalLog_{};
    int refusedSinceLog_ = 0;

    Conn* find(QTcpSocket* s) {
        for (Conn& c : conns_)
            if (c.socket == s) return &c;
        return nullptr;
    }

    // The connection idle the longest, with no request under way, makes room for a new one.
    bool evictIdlest() {
        Conn* idlest = nullptr;
        for (Conn& c : conns_)
            if (c.requestBytes == 0 && (!idlest || c.lastActive < idlest->lastActive)) idlest = &c;
        if (!idlest) return false;
        QTcpSocket* s = idlest->socket;
        std::erase_if(conns_, [s](const Conn& c) { return c.socket == s; });
        s->abort();
        s->deleteLater();
        return true;
    }

    void refuse(QTcpSocket* socket, const std::string& why) {
        socket->abort();
        socket->deleteLater();
        const auto now = Clock::now();
        if (now - lastRefusalLog_ >= std::chrono::seconds(60)) {
            Logger::info("admin API: connection refused " + why + ", at the cap" +
                         (refusedSinceLog_ ? " (" + std::to_string(refusedSinceLog_) + " more since the last line)"
                                           : std::string()));
            lastRefusalLog_ = now;
            refusedSinceLog_ = 0;
        } else {
            ++refusedSinceLog_;
        }
    }
};

}  // namespace

std::optional<LoginRequest> parseLoginBody(std::string_view text, std::string* why) {
    const nlohmann::json body = nlohmann::json::parse(text.begin(), text.end(), nullptr, false);
    if (body.is_discarded() || !body.is_object()) {
        *why = "body must be a JSON object";
        return std::nullopt;
    }
    const auto u = body.find("username");
    const auto p = body.find("password");
    if (u == body.end() || p == body.end() || !u->is_string() || !p->is_string()) {
        *why = "username and password must be strings";
        return std::nullopt;
    }
    return LoginRequest{u->get<std::string>(), p->get<std::string>()};
}

std::string bearerToken(std::string_view header) {
    auto trim = [](std::string_view s) {
        while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
        while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
        return s;
    };
    header = trim(header);
    constexpr std::string_view prefix = "Bearer ";
    if (header.substr(0, prefix.size()) != prefix) return {};
    return std::string(trim(header.substr(prefix.size())));
}

struct AdminHttpApi::Impl {
    QHttpServer http;
    GuardedTcpServer* listener = nullptr;
    AttemptLimiter logins;
    quint16 port = 0;
    QByteArray user;
    QByteArray password;
    std::function<std::vector<AgentSummary>()> agentSource;
    std::chrono::seconds tokenLifetime{24 * 3600};
    std::unordered_map<std::string, Clock::time_point> tokens;  // token -> expiry

    void dropExpiredTokens() {
        const auto now = Clock::now();
        std::erase_if(tokens, [now](const auto& entry) { return entry.second <= now; });
    }

    bool authorised(const QHttpServerRequest& request) {
        const QByteArray header = request.value("Authorization");
        const std::string token = bearerToken(std::string_view(header.constData(), static_cast<size_t>(header.size())));
        if (token.empty()) return false;
        const auto it = tokens.find(token);
        if (it == tokens.end()) return false;
        if (it->second <= Clock::now()) {
            tokens.erase(it);
            return false;
        }
        return true;
    }

    QHttpServerResponse login(const QHttpServerRequest& request) {
        const QHostAddress from = request.remoteAddress();
        if (const auto allowed = logins.check(from); !allowed) {
            if (allowed.log)
                Logger::info("admin login from " + AttemptLimiter::sourceKey(from) + " refused for " +
                             std::to_string(allowed.retryAfter.count() / 1000 + 1) + " s: " +
                             (allowed.verdict == AttemptLimiter::Verdict::busy ? "too many failed sign-ins overall"
                                                                               : "too many failed sign-ins") +
                             (allowed.refusedSinceLog ? " (" + std::to_string(allowed.refusedSinceLog) +
                                                            " refused since the last line)"
                                                      : std::string()));
            QHttpServerResponse r = errorResponse("too many attempts", Status::TooManyRequests);
            r.setHeader(QByteArrayLiteral("Retry-After"),
                        QByteArray::number(static_cast<qint64>(allowed.retryAfter.count() / 1000 + 1)));
            return r;
        }
        const QByteArray raw = request.body();
        std::string why;
        const auto given = parseLoginBody(std::string_view(raw.constData(), static_cast<size_t>(raw.size())), &why);
        if (!given) return errorResponse(why.c_str(), Status::BadRequest);

        const QByteArray givenUser = QByteArray::fromStdString(given->username);
        const QByteArray givenPassword = QByteArray::fromStdString(given->password);
        // Both comparisons always run, so a wrong user name and a wrong password take the same time.
        const bool userOk = sameSecret(givenUser, user);
        const bool passwordOk = sameSecret(givenPassword, password);
        if (user.isEmpty() || password.isEmpty() || !userOk || !passwordOk) {
            logins.failed(from);
            Logger::info("admin login refused for user \"" + logSafe(given->username) + "\" from " +
                         AttemptLimiter::sourceKey(from));
            return errorResponse("invalid credentials", Status::Ok);
        }

        logins.succeeded(from);
        dropExpiredTokens();
        std::string token = newToken();
        tokens.emplace(token, Clock::now() + tokenLifetime);
        Logger::info("admin login for user \"" + logSafe(given->username) + "\"");
        return jsonResponse(nlohmann::json{{"token", token}, {"username", given->username}, {"role", "admin"}},
                            Status::Ok);
    }

    QHttpServerResponse agents(const QHttpServerRequest& request) {
        const bool head = request.method() == QHttpServerRequest::Method::Head;
        if (!authorised(request)) {
            // A HEAD answer carries no body (the warm-up keeps its connection for the next request).
            return head ? QHttpServerResponse(Status::Unauthorized) : errorResponse("unauthorized", Status::Unauthorized);
        }
        if (head) return QHttpServerResponse(Status::Ok);

        nlohmann::json list = nlohmann::json::array();
        if (agentSource) {
            for (const AgentSummary& a : agentSource()) {
                nlohmann::json agent = {{"code", a.code},
                                        {"machine_id", a.machineId},
                                        {"controller_count", a.controllerCount},
                                        {"os", a.os},
                                        {"cpu", a.cpu},
                                        {"mem", a.mem}};
                if (!a.hostname.empty()) agent["hostname"] = a.hostname;
                list.push_back(std::move(agent));
            }
        }
        return jsonResponse(list, Status::Ok);
    }
};

AdminHttpApi::AdminHttpApi(QObject* parent) : QObject(parent), d_(std::make_unique<Impl>()) {
    d_->http.route(QStringLiteral("/admin/login"), QHttpServerRequest::Method::Post,
                   [this](const QHttpServerRequest& request) { return d_->login(request); });
    d_->http.route(QStringLiteral("/admin/agents"),
                   QHttpServerRequest::Method::Get | QHttpServerRequest::Method::Head,
                   [this](const QHttpServerRequest& request) { return d_->agents(request); });
}

AdminHttpApi::~AdminHttpApi() = default;

bool AdminHttpApi::listen(const QHostAddress& address, quint16 port) {
    if (!d_->listener) d_->listener = new GuardedTcpServer();
    d_->listener->setParent(this);
    const quint16 bound = d_->listener->listen(address, port) ? d_->listener->serverPort() : 0;
    if (bound != 0) d_->http.bind(d_->listener);
    if (bound == 0) {
        Logger::error("admin API cannot listen on " + address.toString().toStdString() + ":" + std::to_string(port));
        return false;
    }
    d_->port = bound;
    Logger::info("admin API listening on " + address.toString().toStdString() + ":" + std::to_string(bound));
    return true;
}

quint16 AdminHttpApi::port() const { return d_->port; }

void AdminHttpApi::setCredentials(const QString& user, const QString& password) {
    d_->user = user.toUtf8();
    d_->password = password.toUtf8();
}

void AdminHttpApi::setAgentSource(std::function<std::vector<AgentSummary>()> source) {
    d_->agentSource = std::move(source);
}

void AdminHttpApi::setLimits(const AdminLimits& limits) {
    if (!d_->listener) d_->listener = new GuardedTcpServer();
    d_->listener->setParent(this);
    d_->listener->limits = limits;
}

void AdminHttpApi::setLoginPolicy(const AttemptLimiter::Policy& policy) { d_->logins = AttemptLimiter(policy); }

int AdminHttpApi::connectionCount() const { return d_->listener ? d_->listener->count() : 0; }

void AdminHttpApi::setTokenLifetime(std::chrono::seconds lifetime) { d_->tokenLifetime = lifetime; }

void AdminHttpApi::revokeAllTokens() { d_->tokens.clear(); }

}  // namespace ostv::server
