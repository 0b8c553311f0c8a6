#pragma once
// Small servers for the admin client's tests: a canned HTTP/1.1 responder (optionally over TLS)
// that records what it was sent, and self-signed certificates made on the spot.
#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QMap>
#include <QSslCertificate>
#include <QSslKey>
#include <QTcpServer>
#include <optional>

namespace ostv::test {

struct TestCertificate {
    QSslCertificate certificate;
    QSslKey key;
};

struct CannedAnswer {
    int status = 200;
    QByteArray body;
    QList<QPair<QByteArray, QByteArray>> headers;
    bool stall = false;  // read the request, never answer
};

struct SeenRequest {
    QByteArray method;
    QByteArray path;
    QMap<QByteArray, QByteArray> headers;  // names in lower case
    QByteArray body;
};

class CannedHttpServer : public QTcpServer {
    Q_OBJECT
public:
    // Listens on 127.0.0.1 (any free port); with a certificate and key the connections use TLS.
    bool start(std::optional<TestCertificate> tls = std::nullopt);

    // Answers by path; a path without an entry gets the default answer.
    void answer(const QByteArray& path, CannedAnswer a) { answers_[path] = std::move(a); }
    void answerAll(CannedAnswer a) { default_ = std::move(a); }

    QList<SeenRequest> requests;
    int connections = 0;

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    void serve(QTcpSocket* socket);
    std::optional<TestCertificate> tls_;
    QMap<QByteArray, CannedAnswer> answers_;
    CannedAnswer default_;
};

// A self-signed end-entity certificate for the DNS name hostName, valid from notBefore to notAfter.
TestCertificate makeSelfSignedCertificate(const QString& hostName, const QDateTime& notBefore,
                                          const QDateTime& notAfter);

}  // namespace ostv::test
