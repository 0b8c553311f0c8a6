#pragma once
// The local server's admin HTTP interface: sign-in for a bearer token and the list of registered
// agents.
//
//   POST /admin/login   {"username","password"}  -> 200 {"token","username","role":"admin"}
//                                                   200 {"error":"invalid credentials"} (no token)
//                                                   400 when the body is not an object of two strings
//   GET  /admin/agents  Authorization: Bearer <t> -> 200 [{"code","machine_id","controller_count",
//                                                          "os","cpu","mem"}, ...]
//                                                   401 when the token is missing, wrong or expired
//   HEAD /admin/agents                           -> 401 without a token (the client's warm-up)
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

namespace ostv::server {

// One agent as the admin interface lists it.
struct AgentSummary {
    std::string code;
    std::string machineId;
    std::string os;
    int controllerCount = 0;
    double cpu = 0;
    double mem = 0;
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

    // Forgets every token handed out so far (later agent requests with them get 401).
    void revokeAllTokens();

private:
    struct Impl;
    std::unique_ptr<Impl> d_;
};

}  // namespace ostv::server
