#include "AdminAPIClient.h"

#include "Logger.h"
#include "MainThread.h"
#include "SelfSignedTrustDelegate.h"
#include "ServerConfig.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QNetworkAccessManager>
#include <QNetworkCookie>
#include <QNetworkCookieJar>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QStringDecoder>
#include <QTimer>
#include <QUrl>
#include <QUuid>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <limits>
#include <unordered_set>

// Threading. The network access manager lives on the main thread, and so do the response
// handlers: Qt already runs the sockets and the HTTP protocol on its own internal thread and hands
// the finished reply over through the event loop, so the main thread only sees short, finished
// answers (a few hundred bytes of JSON). This keeps the session fields single-threaded: the login
// handler writes token, user name and expiry and only then posts the completion to the main
// thread, so the caller always reads the fields after they were written. The agent fetch's
// completion is therefore also called on the main thread, which satisfies callers that move it
// there themselves.

namespace ostv {

namespace {

constexpr int kWarmUpTimeoutMs = 5000;
constexpr int kRequestTimeoutMs = 10000;
// Session-wide limits: no progress for 8 s, or 10 s for the whole transfer, ends a request.
constexpr int kSessionIdleTimeoutMs = 8000;
constexpr int kSessionWholeTransferMs = 10000;

const char* const kDeadlineProperty = "ostv.deadlinePassed";

// A cookie jar that keeps nothing and offers nothing.
class NoCookieJar : public QNetworkCookieJar {
public:
    using QNetworkCookieJar::QNetworkCookieJar;
    QList<QNetworkCookie> cookiesForUrl(const QUrl&) const override { return {}; }
    bool setCookiesFromUrl(const QList<QNetworkCookie>&, const QUrl&) override { return false; }
};

// Seconds since the epoch, for the "t0=" field of the log.
double absoluteSeconds() { return static_cast<double>(QDateTime::currentMSecsSinceEpoch()) / 1000.0; }

std::string formatMs(const QElapsedTimer& t) {
    return QString::asprintf("%.0f", static_cast<double>(t.nsecsElapsed()) / 1e6).toStdString();
}

// The URL for a path below the admin base URL, or none when the text does not make an HTTP URL
// with a host (for instance an empty or malformed server address).
std::optional<QUrl> adminUrl(const QString& text) {
    const QUrl url(text, QUrl::StrictMode);
    if (!url.isValid() || url.host().isEmpty() || url.scheme() != QLatin1String("http")) return std::nullopt;
    return url;
}

std::optional<QString> utf8Text(const QByteArray& bytes) {
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = decoder(bytes);
    if (decoder.hasError()) return std::nullopt;
    return text;
}

// The first n characters (code points, never half a surrogate pair).
QString firstCharacters(const QString& text, qsizetype n) {
    qsizetype end = 0;
    for (qsizetype count = 0; end < text.size() && count < n; ++count)
        end += (text.at(end).isHighSurrogate() && end + 1 < text.size()) ? 2 : 1;
    return text.left(end);
}

// The failure a reply ended with when it got no HTTP answer at all.
struct TransportFailure {
    int code;
    QString description;
};

std::optional<TransportFailure> transportFailure(QNetworkReply* reply) {
    if (reply->error() == QNetworkReply::NoError) return std::nullopt;
    if (reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid()) return std::nullopt;
    // This client never cancels a reply it still listens to: a cancelled reply ran out of time,
    // either without progress (Qt's transfer time-out) or past the whole-transfer deadline.
    if (reply->error() == QNetworkReply::OperationCanceledError || reply->property(kDeadlineProperty).toBool())
        return TransportFailure{QNetworkReply::TimeoutError, QStringLiteral("Request timed out")};
    return TransportFailure{static_cast<int>(reply->error()), reply->errorString()};
}

// Strict field readers: absent and null are "none", a value of another type is a decoding failure.
struct DecodeError {};

std::optional<std::string> optionalString(const nlohmann::json& object, const char* key) {
    const auto it = object.find(key);
    if (it == object.end() || it->is_null()) return std::nullopt;
    if (!it->is_string()) throw DecodeError{};
    return it->get<std::string>();
}

std::optional<double> optionalNumber(const nlohmann::json& object, const char* key) {
    const auto it = object.find(key);
    if (it == object.end() || it->is_null()) return std::nullopt;
    if (!it->is_number()) throw DecodeError{};
    return it->get<double>();
}

int requiredInt(const nlohmann::json& object, const char* key) {
    const auto it = object.find(key);
    if (it == object.end()) throw DecodeError{};
    if (it->is_number_unsigned()) {
        const auto v = it->get<std::uint64_t>();
        if (v > static_cast<std::uint64_t>(std::numeric_limits<int>::max())) throw DecodeError{};
        return static_cast<int>(v);
    }
    if (it->is_number_integer()) {
        const auto v = it->get<std::int64_t>();
        if (v < std::numeric_limits<int>::min() || v > std::numeric_limits<int>::max()) throw DecodeError{};
        return static_cast<int>(v);
    }
    throw DecodeError{};
}

struct LoginAPIResponse {
    std::string token;
    std::optional<std::string> username;
    std::optional<std::string> role;
};

std::optional<LoginAPIResponse> decodeLogin(const QByteArray& body) {
    const auto json = nlohmann::json::parse(body.constBegin(), body.constEnd(), nullptr, false);
    if (json.is_discarded() || !json.is_object()) return std::nullopt;
    try {
        auto token = optionalString(json, "token");
        if (!token) return std::nullopt;
        return LoginAPIResponse{std::move(*token), optionalString(json, "username"), optionalString(json, "role")};
    } catch (const DecodeError&) {
        return std::nullopt;
    }
}

struct AgentAPIResponse {
    std::optional<std::string> code;
    std::optional<std::string> machineId;
    int controllerCount = 0;
    std::optional<std::string> os;
    std::optional<double> cpu;
    std::optional<double> mem;
    std::optional<std::string> hostname;
};

QString newUuidText() { return QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper(); }

std::optional<QString> toQString(const std::optional<std::string>& s) {
    if (!s) return std::nullopt;
    return QString::fromStdString(*s);
}

}  // namespace

// ---- AdminAPIError / AgentFetchResult ----

AdminAPIError AdminAPIError::invalidURL() {
    return {AdminAPIErrorKind::invalidURL, QStringLiteral("Invalid server URL"), 0};
}
AdminAPIError AdminAPIError::loginFailed() {
    return {AdminAPIErrorKind::loginFailed, QStringLiteral("Admin login failed"), 0};
}
AdminAPIError AdminAPIError::unauthorized() {
    return {AdminAPIErrorKind::unauthorized, QStringLiteral("Unauthorized (wrong password?)"), 0};
}
AdminAPIError AdminAPIError::decodeFailed() {
    return {AdminAPIErrorKind::decodeFailed, QStringLiteral("Failed to decode server response"), 0};
}
AdminAPIError AdminAPIError::transport(int networkError, const QString& description) {
    return {AdminAPIErrorKind::transport, description, networkError};
}

const QList<Host>& AgentFetchResult::hosts() const {
    static const QList<Host> none;
    if (const auto* h = std::get_if<QList<Host>>(&value_)) return *h;
    return none;
}

std::optional<AdminAPIError> AgentFetchResult::error() const {
    if (const auto* e = std::get_if<AdminAPIError>(&value_)) return *e;
    return std::nullopt;
}

// ---- agent list decoding ----

QString AdminAgents::displayName(const std::optional<QString>& os) {
    if (!os) return QStringLiteral("Unknown");
    if (*os == QLatin1String("linux")) return QStringLiteral("Linux");
    if (*os == QLatin1String("darwin")) return QStringLiteral("macOS");
    if (*os == QLatin1String("windows")) return QStringLiteral("Windows");
    return *os;
}

std::optional<QList<Host>> AdminAgents::decodeHosts(std::string_view body) {
    const auto json = nlohmann::json::parse(body.begin(), body.end(), nullptr, false);
    if (json.is_discarded() || !json.is_array()) return std::nullopt;

    std::vector<AgentAPIResponse> agents;
    agents.reserve(json.size());
    try {
        for (const auto& element : json) {
            if (!element.is_object()) return std::nullopt;
            AgentAPIResponse a;
            a.code = optionalString(element, "code");
            a.machineId = optionalString(element, "machine_id");
            a.controllerCount = requiredInt(element, "controller_count");
            a.os = optionalString(element, "os");
            a.cpu = optionalNumber(element, "cpu");
            a.mem = optionalNumber(element, "mem");
            a.hostname = optionalString(element, "hostname");
            agents.push_back(std::move(a));
        }
    } catch (const DecodeError&) {
        return std::nullopt;
    }

    // Of several elements with the same key the last one wins; survivors keep the server's order.
    // An element with neither machine id nor code gets a fresh key and is never a duplicate; an empty
    // string counts as none (a host without a key could be neither selected nor told apart).
    std::vector<std::pair<const AgentAPIResponse*, QString>> kept;
    std::unordered_set<std::string> seen;
    for (auto it = agents.rbegin(); it != agents.rend(); ++it) {
        const bool hasMachineId = it->machineId && !it->machineId->empty();
        const bool hasCode = it->code && !it->code->empty();
        QString key;
        if (hasMachineId) key = QString::fromStdString(*it->machineId);
        else if (hasCode) key = QString::fromStdString(*it->code);
        else key = newUuidText();
        const bool fresh = !hasMachineId && !hasCode;
        if (!fresh && !seen.insert(key.toStdString()).second) continue;
        kept.emplace_back(&*it, key);
    }
    std::reverse(kept.begin(), kept.end());

    QList<Host> hosts;
    hosts.reserve(static_cast<qsizetype>(kept.size()));
    for (const auto& [a, key] : kept) {
        Host h;
        h.id = key;  // machine id, else code, else the fresh UUID
        h.name = displayName(toQString(a->os));
        h.status = HostStatus::online;
        h.userCount = a->controllerCount;
        h.cpuLoad = (a->cpu && *a->cpu > 0) ? QString::asprintf("%.0f%%", *a->cpu) : QStringLiteral("-");
        h.isSelected = false;
        h.agentCode = toQString(a->code).value_or(QString());
        h.os = toQString(a->os).value_or(QString());
        h.memLoad = (a->mem && *a->mem > 0) ? QString::asprintf("%.0f%%", *a->mem) : QString();
        h.machineId = toQString(a->machineId).value_or(QString());
        h.hostname = toQString(a->hostname).value_or(QString()).simplified();  // one line, blank = none
        hosts.push_back(std::move(h));
    }
    return hosts;
}

// ---- AdminAPIClient ----

AdminAPIClient& AdminAPIClient::shared() {
    static QPointer<AdminAPIClient> instance;
    if (!instance) instance = new AdminAPIClient(QCoreApplication::instance());
    return *instance;
}

AdminAPIClient::AdminAPIClient(QObject* parent)
    : QObject(parent),
      tokenExpiry_(QDate(1, 1, 1), QTime(0, 0), Qt::UTC),
      trustDelegate_(new SelfSignedTrustDelegate(this)) {}

// The manager is a child object: it goes (and takes its replies with it) only after this object's
// connections are gone, so no handler ever runs on a client being destroyed.
AdminAPIClient::~AdminAPIClient() = default;

void AdminAPIClient::setClock(std::function<QDateTime()> clock) { clock_ = std::move(clock); }

QDateTime AdminAPIClient::now() const { return clock_ ? clock_() : QDateTime::currentDateTimeUtc(); }

void AdminAPIClient::resetSession() {
    token_.reset();
    tokenExpiry_ = QDateTime(QDate(1, 1, 1), QTime(0, 0), Qt::UTC);
    currentUsername_.clear();
}

QNetworkAccessManager& AdminAPIClient::session() {
    if (!session_) {
        session_ = new QNetworkAccessManager(this);
        session_->setCookieJar(new NoCookieJar(session_));
        session_->setCache(nullptr);
        session_->setRedirectPolicy(QNetworkRequest::NoLessSafeRedirectPolicy);
        trustDelegate_->attach(session_);
    }
    return *session_;
}

QNetworkReply* AdminAPIClient::send(QNetworkRequest& request, const QByteArray& method, const QByteArray& body,
                                    int perRequestTimeoutMs) {
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    request.setAttribute(QNetworkRequest::CookieLoadControlAttribute, QNetworkRequest::Manual);
    request.setAttribute(QNetworkRequest::CookieSaveControlAttribute, QNetworkRequest::Manual);
    request.setAttribute(QNetworkRequest::Http2AllowedAttribute, false);
    // Qt's transfer time-out counts time without progress: the request's own limit, never more
    // than the session's idle limit.
    request.setTransferTimeout(std::min(perRequestTimeoutMs, kSessionIdleTimeoutMs));

    // Qt knows that a HEAD answer has no body only when the request is made with head().
    QNetworkReply* reply = nullptr;
    if (method == "HEAD") reply = session().head(request);
    else if (method == "GET") reply = session().get(request);
    else if (method == "POST") reply = session().post(request, body);
    else reply = session().sendCustomRequest(request, method, body);
    // The whole transfer, however steady, ends after the session's total limit.
    auto* deadline = new QTimer(reply);
    deadline->setSingleShot(true);
    QObject::connect(deadline, &QTimer::timeout, reply, [reply] {
        if (reply->isFinished()) return;
        reply->setProperty(kDeadlineProperty, true);
        reply->abort();
    });
    deadline->start(kSessionWholeTransferMs);
    return reply;
}

void AdminAPIClient::warmUp() {
    const auto url = adminUrl(ServerConfig::adminBaseURL() + QStringLiteral("/admin/agents"));
    if (!url) return;
    QElapsedTimer t0;
    t0.start();
    QNetworkRequest request(*url);
    QNetworkReply* reply = send(request, QByteArrayLiteral("HEAD"), QByteArray(), kWarmUpTimeoutMs);
    connect(reply, &QNetworkReply::finished, this, [this, reply, t0] {
        reply->deleteLater();
        Logger::login("warmUp done " + formatMs(t0) + "ms (TCP now cached)");
        emit warmUpFinished();
    });
}

void AdminAPIClient::login(const QString& username, const QString& password,
                           std::function<void(bool, std::optional<QString>)> completion) {
    const QString text = ServerConfig::adminBaseURL() + QStringLiteral("/admin/login");
    const auto url = adminUrl(text);
    if (!url) {
        Logger::login("❌ invalid URL: " + text.toStdString());
        postToMain(this, [completion] { completion(false, QStringLiteral("服务器地址无效")); });
        return;
    }

    QElapsedTimer t0;
    t0.start();
    Logger::login("→ POST " + url->toString().toStdString() + "  user=" + username.toStdString() +
                  "  t0=" + QString::asprintf("%.3f", absoluteSeconds()).toStdString());

    QNetworkRequest request(*url);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    const nlohmann::json body{{"username", username.toStdString()}, {"password", password.toStdString()}};
    QNetworkReply* reply = send(request, QByteArrayLiteral("POST"), QByteArray::fromStdString(body.dump()),
                                kRequestTimeoutMs);

    // The context object makes the handler hold the client weakly: once the client is gone the
    // connection is too, and the completion is not called.
    connect(reply, &QNetworkReply::finished, this, [this, reply, t0, username, completion] {
        reply->deleteLater();
        const std::string ms = formatMs(t0);
        auto finish = [this, completion](bool ok, std::optional<QString> message) {
            postToMain(this, [completion, ok, message] { completion(ok, message); });
        };

        if (const auto failure = transportFailure(reply)) {
            Logger::login("❌ " + ms + "ms  network error: domain=QNetworkReply code=" + std::to_string(failure->code) +
                          " " + failure->description.toStdString());
            finish(false, failure->description);
            return;
        }

        const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        const QByteArray data = reply->readAll();
        Logger::login("← " + ms + "ms  HTTP " + std::to_string(status));
        if (status != 200) {
            const auto text = data.isEmpty() ? std::nullopt : utf8Text(data);
            Logger::login("❌ body: " + (text ? text->toStdString() : std::string("(nil)")));
            finish(false, QStringLiteral("登录失败 (HTTP %1)").arg(status));
            return;
        }
        if (data.isEmpty()) {
            Logger::login("❌ " + ms + "ms  data is nil");
            finish(false, QStringLiteral("无响应数据"));
            return;
        }
        const auto text = utf8Text(data);
        Logger::login("← body: " + (text ? firstCharacters(*text, 200).toStdString() : std::string("(not utf8)")));

        const auto decoded = decodeLogin(data);
        if (!decoded) {
            // The server answers a wrong password with 200 and a body without a token.
            Logger::login("❌ JSON decode failed");
            finish(false, QStringLiteral("用户名或密码错误"));
            return;
        }
        token_ = QString::fromStdString(decoded->token);
        currentUsername_ = decoded->username ? QString::fromStdString(*decoded->username) : username;
        tokenExpiry_ = now().addSecs(tokenLifetimeSeconds);
        Logger::login("✅ " + ms + "ms  logged in as " + currentUsername_.toStdString());
        finish(true, std::nullopt);
    });
}

void AdminAPIClient::fetchAgents(std::function<void(AgentFetchResult)> completion) {
    const QDateTime current = now();
    if (token_ && current.isValid() && current < tokenExpiry_) {
        doFetchAgents(std::move(completion));
        return;
    }
    completion(AgentFetchResult::failure(AdminAPIError::unauthorized()));
}

void AdminAPIClient::doFetchAgents(std::function<void(AgentFetchResult)> completion) {
    const auto url = adminUrl(ServerConfig::adminBaseURL() + QStringLiteral("/admin/agents"));
    if (!token_ || !url) {
        completion(AgentFetchResult::failure(AdminAPIError::invalidURL()));
        return;
    }
    QNetworkRequest request(*url);
    request.setRawHeader(QByteArrayLiteral("Authorization"), "Bearer " + token_->toUtf8());
    QNetworkReply* reply = send(request, QByteArrayLiteral("GET"), QByteArray(), kRequestTimeoutMs);

    connect(reply, &QNetworkReply::finished, this, [this, reply, completion] {
        reply->deleteLater();
        if (const auto failure = transportFailure(reply)) {
            completion(AgentFetchResult::failure(AdminAPIError::transport(failure->code, failure->description)));
            return;
        }
        if (reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() == 401) {
            token_.reset();
            completion(AgentFetchResult::failure(AdminAPIError::unauthorized()));
            return;
        }
        const QByteArray data = reply->readAll();
        auto hosts = AdminAgents::decodeHosts(std::string_view(data.constData(), static_cast<size_t>(data.size())));
        if (data.isEmpty() || !hosts) {
            completion(AgentFetchResult::failure(AdminAPIError::decodeFailed()));
            return;
        }
        completion(AgentFetchResult::success(std::move(*hosts)));
    });
}

}  // namespace ostv
