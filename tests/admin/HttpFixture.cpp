#include "HttpFixture.h"

#include <QSslSocket>
#include <QTcpSocket>
#include <gnutls/gnutls.h>
#include <gnutls/x509.h>
#include <stdexcept>

namespace ostv::test {

bool CannedHttpServer::start(std::optional<TestCertificate> tls) {
    tls_ = std::move(tls);
    return listen(QHostAddress::LocalHost, 0);
}

void CannedHttpServer::incomingConnection(qintptr descriptor) {
    ++connections;
    auto* socket = new QSslSocket(this);  // plain TCP until encryption starts
    socket->setSocketDescriptor(descriptor);
    if (tls_) {
        socket->setLocalCertificate(tls_->certificate);
        socket->setPrivateKey(tls_->key);
        socket->setPeerVerifyMode(QSslSocket::VerifyNone);
        socket->startServerEncryption();
    }
    connect(socket, &QTcpSocket::readyRead, this, [this, socket] { serve(socket); });
    connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
}

// Serves every complete request in the socket's buffer; the connection stays open (keep-alive).
void CannedHttpServer::serve(QTcpSocket* socket) {
    QByteArray buffer = socket->property("buffer").toByteArray() + socket->readAll();
    for (;;) {
        const qsizetype headerEnd = buffer.indexOf("\r\n\r\n");
        if (headerEnd < 0) break;
        SeenRequest r;
        const QList<QByteArray> lines = buffer.left(headerEnd).split('\n');
        const QList<QByteArray> first = lines.value(0).trimmed().split(' ');
        r.method = first.value(0);
        r.path = first.value(1);
        for (qsizetype i = 1; i < lines.size(); ++i) {
            const qsizetype colon = lines[i].indexOf(':');
            if (colon > 0) r.headers[lines[i].left(colon).trimmed().toLower()] = lines[i].mid(colon + 1).trimmed();
        }
        const qsizetype length = r.headers.value("content-length", "0").toLongLong();
        if (buffer.size() < headerEnd + 4 + length) break;
        r.body = buffer.mid(headerEnd + 4, length);
        buffer.remove(0, headerEnd + 4 + length);
        requests.push_back(r);

        const CannedAnswer a = answers_.value(r.path, default_);
        if (a.stall) continue;
        QByteArray out = "HTTP/1.1 " + QByteArray::number(a.status) + " Canned\r\n";
        for (const auto& [name, value] : a.headers) out += name + ": " + value + "\r\n";
        out += "Content-Length: " + QByteArray::number(a.body.size()) + "\r\n\r\n";
        if (r.method != "HEAD") out += a.body;
        socket->write(out);
    }
    socket->setProperty("buffer", buffer);
}

TestCertificate makeSelfSignedCertificate(const QString& hostName, const QDateTime& notBefore,
                                          const QDateTime& notAfter) {
    gnutls_x509_privkey_t key = nullptr;
    gnutls_x509_crt_t crt = nullptr;
    const QByteArray name = hostName.toUtf8();
    const unsigned char serial[] = {0x01, 0x23, 0x45, 0x67};
    gnutls_datum_t certPem{}, keyPem{};
    const bool ok =
        gnutls_x509_privkey_init(&key) == 0 &&
        gnutls_x509_privkey_generate(key, GNUTLS_PK_ECDSA, GNUTLS_CURVE_TO_BITS(GNUTLS_ECC_CURVE_SECP256R1), 0) == 0 &&
        gnutls_x509_crt_init(&crt) == 0 && gnutls_x509_crt_set_version(crt, 3) == 0 &&
        gnutls_x509_crt_set_serial(crt, serial, sizeof serial) == 0 &&
        gnutls_x509_crt_set_dn_by_oid(crt, GNUTLS_OID_X520_COMMON_NAME, 0, name.constData(), name.size()) == 0 &&
        gnutls_x509_crt_set_subject_alt_name(crt, GNUTLS_SAN_DNSNAME, name.constData(), name.size(), GNUTLS_FSAN_SET) == 0 &&
        gnutls_x509_crt_set_activation_time(crt, notBefore.toSecsSinceEpoch()) == 0 &&
        gnutls_x509_crt_set_expiration_time(crt, notAfter.toSecsSinceEpoch()) == 0 &&
        gnutls_x509_crt_set_basic_constraints(crt, 0, -1) == 0 &&
        gnutls_x509_crt_set_key_usage(crt, GNUTLS_KEY_DIGITAL_SIGNATURE) == 0 &&
        gnutls_x509_crt_set_key_purpose_oid(crt, GNUTLS_KP_TLS_WWW_SERVER, 0) == 0 &&
        gnutls_x509_crt_set_key(crt, key) == 0 && gnutls_x509_crt_sign2(crt, crt, key, GNUTLS_DIG_SHA256, 0) == 0 &&
        gnutls_x509_crt_export2(crt, GNUTLS_X509_FMT_PEM, &certPem) == 0 &&
        gnutls_x509_privkey_export2(key, GNUTLS_X509_FMT_PEM, &keyPem) == 0;
    if (crt) gnutls_x509_crt_deinit(crt);
    if (key) gnutls_x509_privkey_deinit(key);
    auto take = [](gnutls_datum_t& d) {
        QByteArray out(reinterpret_cast<const char*>(d.data), static_cast<qsizetype>(d.size));
        gnutls_free(d.data);
        return out;
    };
    TestCertificate out{QSslCertificate(take(certPem), QSsl::Pem), QSslKey(take(keyPem), QSsl::Ec, QSsl::Pem)};
    if (!ok) throw std::runtime_error("cannot make a test certificate");
    return out;
}

}  // namespace ostv::test
