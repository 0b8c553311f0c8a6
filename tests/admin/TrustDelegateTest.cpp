// Certificate trust of the admin client's session: any TLS server is accepted, the evaluation with
// the server's own leaf as the only anchor shapes the log line.
#include "HttpFixture.h"
#include "SelfSignedTrustDelegate.h"
#include "TestSupport.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <gtest/gtest.h>
#include <memory>

using namespace ostv;
using ostv::test::CannedAnswer;
using ostv::test::CannedHttpServer;
using ostv::test::StdoutCapture;
using ostv::test::waitUntil;

namespace {

// Any certificate is accepted: one for another host name is trusted, an expired one gets a warning.
TEST(SelfSignedTrust, AnotherHostNameIsTrustedAnExpiredCertificateAcceptedWithAWarningAndChainsEvaluated) {
    const QDateTime now = QDateTime::currentDateTimeUtc();
    for (const bool expired : {false, true}) {
        const auto cert = expired ? test::makeSelfSignedCertificate("127.0.0.1", now.addDays(-60), now.addDays(-1))
                                  : test::makeSelfSignedCertificate("not-this-host.example", now.addDays(-1), now.addDays(30));
        StdoutCapture log;
        CannedHttpServer server;
        ASSERT_TRUE(server.start(cert));
        server.answerAll(CannedAnswer{200, "secure hello", {}, false});
        QNetworkAccessManager nam;
        SelfSignedTrustDelegate delegate;
        delegate.attach(&nam);
        const QUrl url(QStringLiteral("https://127.0.0.1:%1/").arg(server.serverPort()));
        std::unique_ptr<QNetworkReply> reply(nam.get(QNetworkRequest(url)));
        ASSERT_TRUE(waitUntil([&] { return reply->isFinished(); }));
        EXPECT_EQ(reply->error(), QNetworkReply::NoError);
        EXPECT_EQ(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 200);
        EXPECT_EQ(reply->readAll(), "secure hello");
        const std::string text = log.text();
        EXPECT_NE(text.find("[TLS] task challenge: ServerTrust host=127.0.0.1\n"), std::string::npos) << text;
        // One evaluation per connection, even though Qt reports both the errors and the handshake's end.
        EXPECT_EQ(text.find("trust eval"), text.rfind("trust eval")) << text;
        if (!expired) {
            EXPECT_NE(text.find("[TLS] ✅ trust eval: ok=true err=none\n"), std::string::npos) << text;
            continue;
        }
        const auto at = text.find("[TLS] ⚠️ trust eval: ok=false err=");
        ASSERT_NE(at, std::string::npos) << text;
        EXPECT_NE(text.substr(at, text.find('\n', at) - at).find("expired"), std::string::npos) << text;
    }

    // The evaluation of chains behind that log line.
    const auto valid = test::makeSelfSignedCertificate("a.example", now.addDays(-1), now.addDays(1));
    const auto other = test::makeSelfSignedCertificate("b.example", now.addDays(-1), now.addDays(1));
    const auto future = test::makeSelfSignedCertificate("c.example", now.addDays(10), now.addDays(20));

    EXPECT_TRUE(SelfSignedTrustDelegate::evaluate({valid.certificate}).ok);
    // The leaf is the anchor: whatever follows it in the chain does not matter.
    EXPECT_TRUE(SelfSignedTrustDelegate::evaluate({valid.certificate, other.certificate}).ok);

    // Not yet valid, or no certificate at all: refused, with a reason.
    for (const QList<QSslCertificate>& chain : {QList{future.certificate}, QList<QSslCertificate>{}}) {
        const auto refused = SelfSignedTrustDelegate::evaluate(chain);
        EXPECT_FALSE(refused.ok);
        EXPECT_FALSE(refused.error.isEmpty());
    }
}

}  // namespace
