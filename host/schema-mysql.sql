-- The box's store in MariaDB: mariadb < schema-mysql.sql

CREATE DATABASE box CHARACTER SET utf8mb4 COLLATE utf8mb4_bin;

CREATE TABLE box.settings (
    name VARCHAR(190) NOT NULL PRIMARY KEY,
    value TEXT NOT NULL,
    access_key VARCHAR(190) NOT NULL DEFAULT '' -- empty: any program on the box may read the value
) COMMENT = 'version 2'; -- of all tables. nat-relay-admin upgrade takes an older store along

CREATE TABLE box.nat_traverse (
    id INTEGER NOT NULL PRIMARY KEY AUTO_INCREMENT,
    remote_ip VARCHAR(64) NOT NULL,
    remote_uuid VARCHAR(64) NOT NULL UNIQUE, -- with braces
    status INTEGER NOT NULL DEFAULT 0, -- 0 disconnected, 1 connected, 2 connect requested, 3 connecting
    udp_port INTEGER NOT NULL DEFAULT 0,
    tcp_port INTEGER NOT NULL DEFAULT 0,
    udp_port_remote INTEGER NOT NULL DEFAULT 0
);

CREATE TABLE box.peer_names ( -- for people: the relay knows nothing of it
    remote_uuid VARCHAR(64) NOT NULL PRIMARY KEY,
    name VARCHAR(190) NOT NULL UNIQUE
) CHARACTER SET utf8mb4 COLLATE utf8mb4_bin;
