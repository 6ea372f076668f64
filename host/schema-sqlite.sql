-- The box's store in SQLite: sqlite3 box.sqlite < schema-sqlite.sql

CREATE TABLE settings (
    name TEXT NOT NULL PRIMARY KEY,
    value TEXT NOT NULL,
    access_key TEXT NOT NULL DEFAULT '' -- empty: any program on the box may read the value
);

CREATE TABLE nat_traverse (
    id INTEGER NOT NULL PRIMARY KEY AUTOINCREMENT,
    remote_ip TEXT NOT NULL,
    remote_uuid TEXT NOT NULL UNIQUE, -- with braces
    status INTEGER NOT NULL DEFAULT 0, -- 0 disconnected, 1 connected, 2 connect requested, 3 connecting
    udp_port INTEGER NOT NULL DEFAULT 0,
    tcp_port INTEGER NOT NULL DEFAULT 0,
    udp_port_remote INTEGER NOT NULL DEFAULT 0
);

CREATE TABLE peer_names ( -- for people: the relay knows nothing of it
    remote_uuid TEXT NOT NULL PRIMARY KEY,
    name TEXT NOT NULL UNIQUE
);

-- Of these tables. nat-relay-admin upgrade takes an older store along.
PRAGMA user_version = 2;
