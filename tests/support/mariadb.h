#pragma once

#include <QProcess>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QTest>

/// A MariaDB server of the test's own in a temporary folder, with the box's tables and a user "box" whose password
/// is "p@ss:word".
class Mariadb
{
public:
    Mariadb()
    {
        QProcess install;
        install.start(QStringLiteral("mariadb-install-db"), options() + QStringList{"--auth-root-authentication-method=normal", "--skip-test-db"});
        if (!install.waitForFinished(120000) || install.exitCode() != 0)
            qFatal("mariadb-install-db: %s", install.readAll().constData());
        start();
        QFile schema(QStringLiteral(SOURCE_DIR "/host/schema-mysql.sql"));
        if (!schema.open(QIODevice::ReadOnly))
            qFatal("no schema");
        for (const QByteArray &statement : schema.readAll().split(';').mid(0, 3))
            sql(QString::fromUtf8(statement));
        for (const char *host : {"127.0.0.1", "localhost"})
            sql(QStringLiteral("GRANT ALL ON box.* TO 'box'@'%1' IDENTIFIED BY 'p@ss:word'").arg(QLatin1String(host)));
    }
    ~Mariadb() { stop(); }

    void start()
    {
        m_server.start(QStringLiteral("mariadbd"), options() + QStringList{"--port=3307", "--bind-address=127.0.0.1", "--socket=" + socket(), "--innodb-buffer-pool-size=8M"});
        if (!m_server.waitForStarted())
            qFatal("no mariadbd");
        if (!QTest::qWaitFor([this] { return root().isOpen() || root().open(); }, 60000))
            qFatal("mariadbd: %s %s", qPrintable(root().lastError().text()), m_server.readAllStandardError().constData());
    }
    void stop()
    {
        root().close();
        m_server.kill(); // as a crash would
        m_server.waitForFinished();
    }
    void sql(const QString &text)
    {
        QSqlQuery query(root());
        if (!query.exec(text))
            qFatal("%s: %s", qPrintable(text), qPrintable(query.lastError().text()));
    }
    QString socket() const { return m_folder.filePath(QStringLiteral("db.sock")); }

private:
    QStringList options() const { return {"--no-defaults", "--user=root", "--datadir=" + m_folder.filePath(QStringLiteral("data"))}; }
    QSqlDatabase root() const
    {
        if (QSqlDatabase::contains(QStringLiteral("root")))
            return QSqlDatabase::database(QStringLiteral("root"), false);
        QSqlDatabase database = QSqlDatabase::addDatabase(QStringLiteral("QMYSQL"), QStringLiteral("root"));
        database.setUserName(QStringLiteral("root"));
        database.setConnectOptions("UNIX_SOCKET=" + socket());
        return database;
    }

    QTemporaryDir m_folder;
    QProcess m_server;
};
