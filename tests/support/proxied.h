#pragma once

#include "tests/support/programs.h"

/// nat-peer as a proxy for clients that the test plays.
struct Proxied : Programs {
    Process proxy;

    void startProxy(const QStringList &words = {})
    {
        proxy.reset(new QProcess);
        startPeer(proxy.get(), words + QStringList{"serve"});
        QVERIFY(isListening(8080));
    }
    /// A client that has sent these bytes.
    static std::unique_ptr<QTcpSocket> ask(const QByteArray &bytes, quint16 port = 8080)
    {
        auto client = std::make_unique<QTcpSocket>();
        client->connectToHost(QHostAddress(QHostAddress::LocalHost), port);
        client->waitForConnected();
        client->write(bytes);
        client->flush();
        return client;
    }
    static std::unique_ptr<QTcpSocket> get(const QByteArray &target)
    {
        return ask("GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1:8080\r\nConnection: close\r\n\r\n");
    }
    /// All it gets until the proxy closes the connection.
    static QByteArray answer(const std::unique_ptr<QTcpSocket> &client)
    {
        const bool isClosed = QTest::qWaitFor([&] { return client->state() == QAbstractSocket::UnconnectedState; }, 120000);
        return isClosed ? client->readAll() : QByteArray("(does not end)");
    }
    static QByteArray body(const QByteArray &response) { return response.mid(response.indexOf("\r\n\r\n") + 4); }
    /// What the web server is asked next; answers what does not hold the wanted.
    static QByteArray request(WebServer &web, const QByteArray &wanted = QByteArray())
    {
        QByteArray bytes;
        const auto isAsked = [&] {
            bytes += web.takeRequest();
            const bool isWhole = bytes.contains("\r\n\r\n");
            if (isWhole && !bytes.contains(wanted))
                web.answer("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"), bytes.clear();
            return isWhole && !bytes.isEmpty();
        };
        return QTest::qWaitFor(isAsked, 15000) ? bytes : QByteArray();
    }
};
