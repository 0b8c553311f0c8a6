#include "SelfSignedTrustDelegate.h"

#include "Logger.h"

#include <QAuthenticator>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSslConfiguration>

#include <gnutls/gnutls.h>
#include <gnutls/x509.h>

#include <memory>
#include <type_traits>
#include <vector>

namespace ostv {

namespace {

// Marks a reply whose connection was already evaluated (errors first, then the handshake end).
const char* const kEvaluatedProperty = "ostv.trustEvaluated";

struct CertDeleter {
    void operator()(gnutls_x509_crt_t c) const { gnutls_x509_crt_deinit(c); }
};
using Cert = std::unique_ptr<std::remove_pointer_t<gnutls_x509_crt_t>, CertDeleter>;

// Reads one certificate; on failure answers none and sets why.
Cert importCertificate(const QSslCertificate& certificate, QString& why) {
    const QByteArray der = certificate.toDer();
    gnutls_x509_crt_t raw = nullptr;
    if (int rc = gnutls_x509_crt_init(&raw); rc < 0) {
        why = QString::fromUtf8(gnutls_strerror(rc));
        return nullptr;
    }
    Cert cert(raw);
    const gnutls_datum_t datum{reinterpret_cast<unsigned char*>(const_cast<char*>(der.constData())),
                               static_cast<unsigned>(der.size())};
    if (int rc = gnutls_x509_crt_import(cert.get(), &datum, GNUTLS_X509_FMT_DER); rc < 0) {
        why = QStringLiteral("unreadable certificate: ") + QString::fromUtf8(gnutls_strerror(rc));
        return nullptr;
    }
    return cert;
}

}  // namespace

SelfSignedTrustDelegate::SelfSignedTrustDelegate(QObject* parent) : QObject(parent) {}

void SelfSignedTrustDelegate::attach(QNetworkAccessManager* manager) {
    // A chain Qt does not trust reaches us per reply, as errors to ignore; a chain Qt trusts only
    // shows as the end of the handshake of a new connection. Either way each new TLS connection is
    // evaluated and logged once.
    connect(manager, &QNetworkAccessManager::sslErrors, this,
            [this](QNetworkReply* reply, const QList<QSslError>& errors) { handleServerTrust(reply, "task", &errors); });
    connect(manager, &QNetworkAccessManager::encrypted, this, [this](QNetworkReply* reply) {
        if (!reply->property(kEvaluatedProperty).toBool()) handleServerTrust(reply, "session", nullptr);
    });
    connect(manager, &QNetworkAccessManager::authenticationRequired, this,
            &SelfSignedTrustDelegate::handleAuthentication);
}

void SelfSignedTrustDelegate::handleServerTrust(QNetworkReply* reply, const char* level,
                                                const QList<QSslError>* errors) {
    reply->setProperty(kEvaluatedProperty, true);
    Logger::tls(std::string(level) + " challenge: ServerTrust host=" + reply->url().host().toStdString());

    QList<QSslCertificate> chain = reply->sslConfiguration().peerCertificateChain();
    if (chain.isEmpty() && errors) {
        for (const QSslError& e : *errors)
            if (!e.certificate().isNull() && !chain.contains(e.certificate())) chain.push_back(e.certificate());
    }
    const Evaluation result = evaluate(chain);
    if (result.ok) Logger::tls("✅ trust eval: ok=true err=none");
    else Logger::tls("⚠️ trust eval: ok=false err=" + result.error.toStdString());

    // Accepted whatever the evaluation said.
    if (errors) reply->ignoreSslErrors();
}

void SelfSignedTrustDelegate::handleAuthentication(QNetworkReply* reply, QAuthenticator*) {
    // Not a server-trust challenge: default handling, i.e. no credential is given and the request
    // ends with the server's answer.
    Logger::tls("task challenge: HTTP host=" + reply->url().host().toStdString());
}

SelfSignedTrustDelegate::Evaluation SelfSignedTrustDelegate::evaluate(const QList<QSslCertificate>& chain) {
    if (chain.isEmpty()) return {false, QStringLiteral("the server presented no certificate")};

    QString why;
    std::vector<Cert> certs;
    std::vector<gnutls_x509_crt_t> raw;
    for (const QSslCertificate& c : chain) {
        Cert cert = importCertificate(c, why);
        if (!cert) return {false, why};
        raw.push_back(cert.get());
        certs.push_back(std::move(cert));
    }
    // The presented leaf vouches for itself: it is the one anchor, the system store is not used.
    Cert anchor = importCertificate(chain.front(), why);
    if (!anchor) return {false, why};

    gnutls_x509_trust_list_t list = nullptr;
    if (int rc = gnutls_x509_trust_list_init(&list, 0); rc < 0) return {false, QString::fromUtf8(gnutls_strerror(rc))};
    gnutls_x509_crt_t anchorRaw = anchor.get();
    if (gnutls_x509_trust_list_add_cas(list, &anchorRaw, 1, 0) == 1) {
        anchor.release();  // owned by the list from here on
    }

    unsigned status = 0;
    // No host name and no purpose: only the chain itself is checked.
    const int rc = gnutls_x509_trust_list_verify_crt2(list, raw.data(), static_cast<unsigned>(raw.size()), nullptr, 0,
                                                      0, &status, nullptr);
    gnutls_x509_trust_list_deinit(list, 1);
    if (rc < 0) return {false, QString::fromUtf8(gnutls_strerror(rc))};
    if (status == 0) return {true, QString()};

    gnutls_datum_t text{nullptr, 0};
    QString message = QStringLiteral("certificate not trusted");
    if (gnutls_certificate_verification_status_print(status, GNUTLS_CRT_X509, &text, 0) >= 0) {
        message = QString::fromUtf8(reinterpret_cast<const char*>(text.data), static_cast<qsizetype>(text.size));
        gnutls_free(text.data);
    }
    return {false, message.trimmed()};
}

}  // namespace ostv
