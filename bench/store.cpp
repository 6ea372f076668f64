// The store: the table of peers read and merged, and status writes, against the same statements through the engine's
// own interface.

#include "bench/relaybox.h"

#include <sqlite3.h>

namespace
{
/// The same file, opened as the relay opens it.
class Engine
{
public:
    explicit Engine(const RelayBox &box)
    {
        const QByteArray attach = "ATTACH DATABASE '" + box.folder.filePath("box.sqlite").toUtf8() + "' AS box";
        if (sqlite3_open(":memory:", &m_engine) != SQLITE_OK)
            qFatal("no engine");
        for (const char *sql : {attach.constData(), "PRAGMA box.journal_mode = WAL", "PRAGMA box.synchronous = NORMAL"})
            if (sqlite3_exec(m_engine, sql, nullptr, nullptr, nullptr) != SQLITE_OK)
                qFatal("%s", sqlite3_errmsg(m_engine));
        m_select = prepare("SELECT id, remote_ip, remote_uuid, status, udp_port, tcp_port, udp_port_remote "
                           "FROM `box`.`nat_traverse`");
        m_update = prepare("UPDATE `box`.`nat_traverse` SET status = ? WHERE remote_uuid = ?;");
    }
    ~Engine()
    {
        sqlite3_finalize(m_select);
        sqlite3_finalize(m_update);
        sqlite3_close(m_engine);
    }
    Engine(const Engine &) = delete;
    Engine &operator=(const Engine &) = delete;

    void read()
    {
        while (sqlite3_step(m_select) == SQLITE_ROW)
            for (int column = 0; column < 7; column++)
                benchmark::DoNotOptimize(sqlite3_column_text16(m_select, column));
        sqlite3_reset(m_select);
    }
    void write(const QString &peer)
    {
        sqlite3_bind_text16(m_update, 1, u"0", -1, SQLITE_STATIC);
        sqlite3_bind_text16(m_update, 2, peer.utf16(), peer.size() * 2, SQLITE_STATIC);
        if (sqlite3_step(m_update) != SQLITE_DONE)
            qFatal("%s", sqlite3_errmsg(m_engine));
        sqlite3_reset(m_update);
    }

private:
    sqlite3_stmt *prepare(const char *sql)
    {
        sqlite3_stmt *statement = nullptr;
        if (sqlite3_prepare_v2(m_engine, sql, -1, &statement, nullptr) != SQLITE_OK)
            qFatal("%s", sqlite3_errmsg(m_engine));
        return statement;
    }
    sqlite3 *m_engine = nullptr;
    sqlite3_stmt *m_select = nullptr;
    sqlite3_stmt *m_update = nullptr;
};

void reading(benchmark::State &state)
{
    RelayBox box(static_cast<int>(state.range(0)));
    Engine engine(box);
    const auto measured = figures::compare(
        state, [&] { return figures::timed([&] { box.loadClients(); }); },
        [&] { return figures::timed([&] { engine.read(); }); });
    if (state.range(0) == 10000)
        figures::within(2, QStringLiteral("reading 10,000 peers and merging them"),
                        QStringLiteral("the same statement through the C interface"), figures::milliseconds, measured);
    figures::grows(QStringLiteral("read and merge"), QStringLiteral("peers"), state.range(0), measured.figure);
}
FIGURE(reading, 30)->RangeMultiplier(10)->Range(10, 10000);

void writing(benchmark::State &state)
{
    constexpr int peers = 1000;
    const RelayBox box(peers);
    Engine engine(box);
    const QStringList uuids = box.relay->remoteClients.keys();
    const auto figure = [&] { // all time out in one turn
        for (auto &peer : box.relay->remoteClients) {
            peer.status = static_cast<quint8>(ConnectionStatus::Connected);
            peer.lastSeen = ago(61000);
        }
        return figures::timed([&] { box.relay->attendPeers(); });
    };
    const auto limit = [&] {
        return figures::timed([&] {
            for (const QString &uuid : uuids)
                engine.write(uuid);
        });
    };
    figures::within(2, QStringLiteral("1,000 status writes in one turn"),
                    QStringLiteral("the same statements through the C interface"), figures::milliseconds,
                    figures::compare(state, figure, limit));
}
FIGURE(writing, 15);

void oneWrite(benchmark::State &state)
{
    const RelayBox box(static_cast<int>(state.range(0)));
    Engine engine(box);
    const QString uuid = QString::fromLatin1(uuidOfPeer(0));
    const auto measured = figures::compare(
        state,
        [&] { return figures::timed([&] { box.relay->setConnectionStatus(ConnectionStatus::Disconnected, uuid); }); },
        [&] { return figures::timed([&] { engine.write(uuid); }); });
    figures::grows(QStringLiteral("one status write"), QStringLiteral("peers"), state.range(0), measured.figure);
}
FIGURE(oneWrite, 100)->RangeMultiplier(10)->Range(10, 10000);
} // namespace
