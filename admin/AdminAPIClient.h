#pragma once
// The one client of the admin server's HTTP interface: sign-in for a bearer token, the warm-up
// request that opens the connection while the login screen is filled in, and the agent list.
#include "DomainRecords.h"

#include <QDateTime>
#include <QList>
#include <QObject>
#include <QString>
#include <functional>
#include <optional>
#include <string_view>
#include <variant>

class QNetworkAccessManager;
class QNetworkReply;
class QNetworkRequest;

namespace ostv {

class SelfSignedTrustDelegate;

enum class AdminAPIErrorKind { invalidURL, loginFailed, unauthorized, decodeFailed, transport };

// A failure of the admin client. description is the user-visible text: fixed for the four own
// kinds, Qt's error text for a transport failure (networkError then holds the
// QNetworkReply::NetworkError value).
struct AdminAPIError {
    AdminAPIErrorKind kind = AdminAPIErrorKind::transport;
    QString description;
    int networkError = 0;

    static AdminAPIError invalidURL();    // "Invalid server URL"
    static AdminAPIError loginFailed();   // "Admin login failed"
    static AdminAPIError unauthorized();  // "Unauthorized (wrong password?)"
    static AdminAPIError decodeFailed();  // "Failed to decode server response"
    static AdminAPIError transport(int networkError, const QString& description);

    // Errors compare by kind (and, for transport failures, by the network error code).
    bool operator==(const AdminAPIError& o) const {
        return kind == o.kind && (kind != AdminAPIErrorKind::transport || networkError == o.networkError);
    }
};

// The outcome of an agent fetch: the hosts (possibly none) or an error.
class AgentFetchResult {
public:
    static AgentFetchResult success(QList<Host> hosts) { return AgentFetchResult(std::move(hosts)); }
    static AgentFetchResult failure(AdminAPIError error) { return AgentFetchResult(std::move(error)); }

    bool ok() const { return std::holds_alternative<QList<Host>>(value_); }
    // The hosts on success; an empty list on failure.
    const QList<Host>& hosts() const;
    // The error on failure; none on success.
    std::optional<AdminAPIError> error() const;

private:
    explicit AgentFetchResult(QList<Host> h) : value_(std::move(h)) {}
    explicit AgentFetchResult(AdminAPIError e) : value_(std::move(e)) {}
    std::variant<QList<Host>, AdminAPIError> value_;
};

// Decoding and conversion of the agent list, exposed for the tests and the host list.
namespace AdminAgents {
// Strict decode of the body of GET /admin/agents, de-duplicated and converted to hosts in the
// server's order. None when the body is not a JSON array of agent objects (one bad element fails
// the whole list). An agent's optional "hostname" (a string when present) becomes Host::hostname,
// on one line; other unknown members are ignored.
std::optional<QList<Host>> decodeHosts(std::string_view body);
// The name shown for an "os" word: "linux" -> "Linux", "darwin" -> "macOS",
// "windows" -> "Windows", anything else as it is, none -> "Unknown".
QString displayName(const std::optional<QString>& os);
}  // namespace AdminAgents

class AdminAPIClient : public QObject {
    Q_OBJECT
public:
    // The process-wide instance, created on first use (from the main thread) and owned by the
    // application object.
    static AdminAPIClient& shared();

    // Separate instances are for tests and measurements; the application uses shared().
    explicit AdminAPIClient(QObject* parent = nullptr);
    ~AdminAPIClient() override;

    // Sends "HEAD /admin/agents" without a token so that the connection to the admin server is open
    // (and kept) before the login. Fire and forget; emits warmUpFinished when the request ends.
    void warmUp();

    // Signs in. The completion runs on the main thread, exactly once while the client exists, after
    // the token and user name are stored: (true, none) on success, (false, user text) on failure.
    void login(const QString& username, const QString& password,
               std::function<void(bool success, std::optional<QString> message)> completion);

    // Lists the agents. Without a token, or once the token is 23 hours old, the completion is called
    // at once (before this returns) with unauthorized and nothing is sent. Otherwise it is called
    // later, on the main thread in this implementation; callers must not rely on the thread and
    // move the result themselves. A 401 answer drops the token.
    void fetchAgents(std::function<void(AgentFetchResult)> completion);

    // The logout reset: no token, expiry in the distant past, empty user name.
    void resetSession();

    QString currentUsername() const { return currentUsername_; }
    bool hasToken() const { return token_.has_value(); }

    // The clock used for the token's expiry (defaults to the system clock); tests inject one.
    void setClock(std::function<QDateTime()> clock);

    // How long a token is used after a successful login.
    static constexpr qint64 tokenLifetimeSeconds = 82800;

signals:
    void warmUpFinished();

private:
    void doFetchAgents(std::function<void(AgentFetchResult)> completion);
    QNetworkAccessManager& session();
    QNetworkReply* send(QNetworkRequest& request, const QByteArray& method, const QByteArray& body,
                        int perRequestTimeoutMs);
    QDateTime now() const;

    std::optional<QString> token_;
    QDateTime tokenExpiry_;
    QString currentUsername_;
    QNetworkAccessManager* session_ = nullptr;  // child of this, created on first use
    SelfSignedTrustDelegate* trustDelegate_ = nullptr;  // child of this
    std::function<QDateTime()> clock_;
};

}  // namespace ostv
