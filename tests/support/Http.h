#pragma once
// One HTTP request to a server program's admin API, waited for on the event loop.
#include <QByteArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <gtest/gtest.h>

#include "TestSupport.h"

namespace ostv::test {

struct HttpAnswer {
    int status = 0;
    QByteArray body;
    QJsonDocument json() const { return QJsonDocument::fromJson(body); }
};

inline HttpAnswer http(const QByteArray& verb, const QString& url, const QByteArray& body = {},
                       const QByteArray& bearer = {}) {
    QNetworkAccessManager nam;  // its own, made on the calling thread: in that thread's network namespace
    QNetworkRequest req{QUrl(url)};
    if (!body.isNull()) req.setHeader(QNetworkRequest::ContentTypeHeader, "application/json");
    if (!bearer.isNull()) req.setRawHeader("Authorization", "Bearer " + bearer);
    QNetworkReply* reply = nam.sendCustomRequest(req, verb, body);
    EXPECT_TRUE(waitUntil([&] { return reply->isFinished(); }, 10000)) << verb.toStdString() << " " << url.toStdString();
    return {reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), reply->readAll()};
}

}  // namespace ostv::test
