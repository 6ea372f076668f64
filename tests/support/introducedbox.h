#pragma once

// clazy:excludeall=non-pod-global-static

#include "tests/support/caller.h"
#include "tests/support/programs.h"

#include <csignal>

enum Item : char { BoxNonce = 1, OwnAddress, RelayedAddress, BurstWanted, SeenAddress, Verdict = 9, NoDatagrams = 11, OpenWay = 13 };
const QByteArray welcome(1, '\1');
const QByteArray staleNonce(1, '\2');
const QByteArray unknownPeer(1, '\3');
const QByteArray busy(1, '\4');
const QByteArray burstWanted = item(BurstWanted, QByteArray());
const QByteArray noDatagrams = item(NoDatagrams, QByteArray());
const QByteArray noCookie(8, '\0');

/// A box that has joined, with agent, relay and rendezvous server as they are run.
struct IntroducedBox : Programs {
    void begin()
    {
        Programs::begin();
        box->set({{"nat_introduction_server", "192.0.2.1:7000"},
                  {"nat_introduction_token", tokenOfBox().toHex()},
                  {"nat_introduction_key", boxCallKey.toHex()}});
    }
    void end()
    {
        agent.reset();
        server.reset();
        Programs::end();
    }
    bool awaitAgent(const QByteArray &text, int time = 10000)
    {
        return QTest::qWaitFor([&] { return agentLog += agent->readAllStandardError(), agentLog.contains(text); }, time);
    }
    void startAgent()
    {
        agentLog.clear();
        agent.reset(new QProcess);
        agent->start(BUILD_DIR "/nat-relay-agent", QStringList());
    }
    void hangUp() const { ::kill(static_cast<pid_t>(agent->processId()), SIGHUP); }
    void startServer(const QByteArray &more = QByteArray())
    {
        server.reset();
        server.reset(new QProcess);
        write("rendezvous.conf", "host=192.0.2.1\nsecret=" + serverSecret.toHex() + '\n' + more);
        server->start(BUILD_DIR "/nat-rendezvousd", {"--config", path("rendezvous.conf"), "--metrics", "", "--listen", "192.0.2.1:7000",
                                                     "--listen", "127.0.0.1:7000", "serve"});
        QVERIFY(QTest::qWaitFor([this] { return server->readAllStandardError().contains("ready"); }, 10000));
    }
    /// Address, ports and status of the row.
    QByteArray row(const QByteArray &uuid) const
    {
        return box
            ->sql("SELECT remote_ip || ' ' || udp_port || ' ' || udp_port_remote || ' ' || status FROM nat_traverse "
                  "WHERE remote_uuid = '" +
                  uuid + "'")
            .toByteArray();
    }
    /// The file of a peer that has been added since the box has joined.
    QByteArray introduced(const QByteArray &uuid) const
    {
        return QByteArray(config).replace(peerUuid, uuid).replace("address=127.0.0.1:5000\n", "") +
               "[introduction]\nserver=192.0.2.1:7000\ntoken=" + hkdf(tokenOfBox(), "peer" + bytesOfUuid(uuid)).toHex() +
               "\nkey=" + hkdf(boxCallKey, "call" + bytesOfUuid(uuid)).toHex() + '\n';
    }

    Process agent;
    Process server;
    QByteArray agentLog;
};
