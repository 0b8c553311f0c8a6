#pragma once
// Lets the admin client talk to a server with a self-signed certificate. Every TLS server is
// accepted; the presented chain is evaluated only for the log, with the server's own leaf
// certificate as the one trust anchor and no host-name comparison.
#include <QList>
#include <QObject>
#include <QSslCertificate>
#include <QSslError>
#include <QString>

class QAuthenticator;
class QNetworkAccessManager;
class QNetworkReply;

namespace ostv {

class SelfSignedTrustDelegate : public QObject {
    Q_OBJECT
public:
    explicit SelfSignedTrustDelegate(QObject* parent = nullptr);

    // Answers the manager's TLS events (and hands its HTTP authentication requests to the default
    // handling, i.e. no credential). The delegate keeps no state of its own.
    void attach(QNetworkAccessManager* manager);

    struct Evaluation {
        bool ok = false;
        QString error;  // empty when ok
    };
    // Checks that the chain holds together, from its first certificate up, when the first
    // certificate is the only trusted anchor: validity dates and signatures count, host names
    // and the system's trust store do not.
    static Evaluation evaluate(const QList<QSslCertificate>& chain);

private:
    // The connection of reply met TLS: log, evaluate, accept.
    void handleServerTrust(QNetworkReply* reply, const char* level, const QList<QSslError>* errors);
    void handleAuthentication(QNetworkReply* reply, QAuthenticator* authenticator);
};

}  // namespace ostv
