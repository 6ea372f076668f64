#pragma once

#include "handover/endpoint.h"

#include <QByteArray>
#include <QString>

/// What a peer is handed: who it is and which box it talks to. An INI file with the sections
///   [peer] uuid
///   [box]  uuid, address (host:port; may be missing), key and iv (32 hexadecimal digits each)
///   [introduction] server (host:port), token and key (64 hexadecimal digits each); missing where the box has joined no
///                  rendezvous server
/// All values are kept as they are written there. The same as one link, for a person to send or to photograph:
///   nat-peer:1?peer=UUID&box=UUID&address=...&server=...#key=...&iv=...&token=...&call=...
/// 1 is its version; UUIDs are without braces, what is missing in the file is missing here, and what a later version
/// adds is skipped. The secrets stand behind the #, which whoever is asked for a link's page is never told.
struct PeerFile {
    /// What the box's values are called where they come from, for a message about one of them.
    struct Names {
        QString uuid;
        QString key;
        QString iv;
    };

    QString error; // not empty: one line that says what is wrong and what would be right
    QString uuid;
    QString boxUuid;
    QString address; // empty: the box is to be found by other ways
    QString key;
    QString iv;
    QString server;  // all three or none: where the box can be called,
    QString token;   // what calls are signed with
    QString callKey; // and sealed with

    static PeerFile read(const QString &path);
    static PeerFile ofLink(const QString &text);

    /// Empty text, or the first value that is wrong, in one line that shows no key.
    QString check(const Names &names) const;
    /// Where the box is; the host is empty when the address is.
    Endpoint box() const;
    /// Where the rendezvous server is; the host is empty when there is none.
    Endpoint rendezvous() const;

    QByteArray toIni() const;
    /// Sections as objects.
    QByteArray toJson() const;
    /// Without the end of its line.
    QByteArray toLink() const;
};
