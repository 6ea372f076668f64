#pragma once

#include <QFile>
#include <QProcess>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

/// A MariaDB server of the test's own on port 3307, with the box's tables and a user "box" with password "p@ss:word".
struct Mariadb {
    Mariadb()
    {
        QProcess install;
        install.start("mariadb-install-db", options + QStringList{"--auth-root-authentication-method=normal", "--skip-test-db"});
        if (!install.waitForFinished(120000) || install.exitCode() != 0)
            qFatal("mariadb-install-db: %s", install.readAll().constData());
        root = QSqlDatabase::addDatabase("QMYSQL", "root");
        root.setUserName("root");
        root.setConnectOptions("UNIX_SOCKET=" + socket());
        start();
        QFile schema(SOURCE_DIR "/host/schema-mysql.sql");
        if (!schema.open(QIODevice::ReadOnly))
            qFatal("no schema");
        const QList<QByteArray> statements = schema.readAll().split(';').mid(0, 4);
        for (const QByteArray &statement : statements)
            sql(statement);
        for (const char *host : {"127.0.0.1", "localhost"})
            sql(QByteArray("GRANT ALL ON box.* TO 'box'@'") + host + "' IDENTIFIED BY 'p@ss:word'");
    }
    ~Mariadb() { stop(); }
    void start()
    {
        server.start("mariadbd", options + QStringList{"--port=3307", "--bind-address=127.0.0.1", "--socket=" + socket()});
        if (!QTest::qWaitFor([this] { return root.open(); }, 60000))
            qFatal("mariadbd: %s", server.readAllStandardError().constData());
    }
    void stop()
    {
        root.close();
        server.kill(); // as a crash would
        server.waitForFinished();
    }
    void hang() const { ::kill(pid_t(server.processId()), SIGSTOP); }
    void goOn() const { ::kill(pid_t(server.processId()), SIGCONT); }
    void sql(const QByteArray &text) const
    {
        QSqlQuery query(root);
        if (!query.exec(QString::fromUtf8(text)))
            qFatal("%s: %s", text.constData(), qPrintable(query.lastError().text()));
    }
    QString socket() const { return folder.filePath("db.sock"); }

    QTemporaryDir folder;
    const QStringList options{"--no-defaults", "--user=root", "--datadir=" + folder.filePath("data")};
    QProcess server;
    QSqlDatabase root;
};
