#include "AdminHttpApi.h"

#include "Logger.h"

#include <QHttpServer>
#include <QHttpServerRequest>
#include <QHttpServerResponse>
#include <QRandomGenerator>
#include <QTcpServer>

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
        const QByteArray raw = request.body();
        std::string why;
        const auto given = parseLoginBody(std::string_view(raw.constData(), static_cast<size_t>(raw.size())), &why);
        if (!given) return errorResponse(why.c_str(), Status::BadRequest);

        const QByteArray givenUser = QByteArray::fromStdString(given->username);
        const QByteArray givenPassword = QByteArray::fromStdString(given->password);
        // Both comparisons always run, so a wrong user name and a wrong password take the same time.
        const bool userOk = sameSecret(givenUser, user);
        const bool passwordOk = sameSecret(givenPassword, password);
        if (user.isEmpty() || !userOk || !passwordOk) {
            Logger::info("admin login refused for user " + givenUser.toStdString());
            return errorResponse("invalid credentials", Status::Ok);
        }

        dropExpiredTokens();
        std::string token = newToken();
        tokens.emplace(token, Clock::now() + tokenLifetime);
        Logger::info("admin login for user " + givenUser.toStdString());
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
                list.push_back({{"code", a.code},
                                {"machine_id", a.machineId},
                                {"controller_count", a.controllerCount},
                                {"os", a.os},
                                {"cpu", a.cpu},
                                {"mem", a.mem}});
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
    const quint16 bound = d_->http.listen(address, port);
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

void AdminHttpApi::setTokenLifetime(std::chrono::seconds lifetime) { d_->tokenLifetime = lifetime; }

void AdminHttpApi::revokeAllTokens() { d_->tokens.clear(); }

}  // namespace ostv::server
