#pragma once
// The local server's admin HTTP interface: sign-in for a bearer token and the list of registered
// agents.
//
//   POST /admin/login   {"username","password"}  -> 200 {"token","username","role":"admin"}
//                                                   200 {"error":"invalid credentials"} (no token)
//                                                   400 when the body is not an object of two strings
//   GET  /admin/agents  Authorization: Bearer <t> -> 200 [{"code","machine_id","controller_count",
//                                                          "os","cpu","mem","hostname"?}, ...]
//                                                   401 when the token is missing, wrong or expired
//   HEAD /admin/agents                           -> 401 without a token (the client's warm-up)
//
// Failed sign-ins are limited per source address and over all addresses (AttemptLimiter): a refused
// attempt is answered 429 {"error":"too many attempts"} with "Retry-After", without looking at the
// password. Connections are capped (in total and per address; at the total cap the one idle longest
// makes room), closed after an idle time, and a request that grows past its byte cap or takes too long
// to arrive ends its connection.
//
// Everything runs on the thread that owns the object (normally the main thread).
#include <QHostAddress>
#include <QObject>
#include <QString>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "AttemptLimiter.h"

namespace ostv::server {

// One agent as the admin interface lists it.
struct AgentSummary {
    std::string code;
    std::string machineId;
    std::string os;
    int controllerCount = 0;
    double cpu = 0;
    double mem = 0;
    std::string hostname;  // left out of the list when empty
};

// The user name and password of a sign-in body ({"username","password"}, both strings; other keys
// are ignored), or nothing with *why set to the reason for the 400 answer.
struct LoginRequest {
    std::string username;
    std::string password;
};
std::optional<LoginRequest> parseLoginBody(std::string_view body, std::string* why);

// The token of an "Authorization" header value "Bearer <token>" (blanks around it dropped), empty when
// the value has another form.
std::string bearerToken(std::string_view header);

struct AdminLimits {
    int maxConnections = 256;
    int maxPerAddress = 32;
    std::chrono::milliseconds idleTimeout{60000};
    std::chrono::milliseconds requestTimeout{10000};  // from a request's first byte to its last
    qint64 maxRequestBytes = 64 * 1024;              // head and body of one request
};

class AdminHttpApi : public QObject {
    Q_OBJECT
public:
    explicit AdminHttpApi(QObject* parent = nullptr);
    ~AdminHttpApi() override;

    // Starts listening; port 0 picks any free port. False (with a log line) when the port is taken.
    bool listen(const QHostAddress& address, quint16 port);
    // The port actually listened on, 0 before a successful listen().
    quint16 port() const;

    // The one account that may sign in. Changing it does not revoke tokens already handed out.
    void setCredentials(const QString& user, const QString& password);
    // Asked at every agent-list request; without a source the list is empty.
    void setAgentSource(std::function<std::vector<AgentSummary>()> source);
    // How long a token stays valid after sign-in (24 h unless changed).
    void setTokenLifetime(std::chrono::seconds lifetime);

    void setLimits(const AdminLimits& limits);
    void setLoginPolicy(const AttemptLimiter::Policy& policy);
    // Open connections (tests and benchmarks).
    int connectionCount() const;

    // Forgets every token handed out so far (later agent requests with them get 401).
    void revokeAllTokens();

private:
    struct Impl;
    std::unique_ptr<Impl> d_;
};

}  // namespace ostv::server
