// The catalogue of version 1.0, with the node that the tests sign on with.
#pragma once

constexpr const char* schema1 = R"(
    PRAGMA journal_mode = WAL;
    CREATE TABLE node (id INTEGER PRIMARY KEY, name BLOB NOT NULL UNIQUE, secret BLOB NOT NULL);
    CREATE TABLE filespace (
        id INTEGER PRIMARY KEY AUTOINCREMENT, node INTEGER NOT NULL, name BLOB NOT NULL, type BLOB NOT NULL,
        info BLOB NOT NULL, occupancy INTEGER NOT NULL, capacity INTEGER NOT NULL, UNIQUE (node, name));
    CREATE TABLE access (
        fs INTEGER NOT NULL, hl BLOB NOT NULL, ll BLOB NOT NULL, object_type INTEGER NOT NULL,
        access_type INTEGER NOT NULL, node BLOB NOT NULL, owner BLOB NOT NULL,
        PRIMARY KEY (fs, hl, ll, object_type, access_type, node, owner)) WITHOUT ROWID;
    CREATE TABLE version (
        fs INTEGER NOT NULL, hl BLOB NOT NULL, ll BLOB NOT NULL, type INTEGER NOT NULL, id INTEGER NOT NULL UNIQUE,
        stored INTEGER NOT NULL, ended INTEGER, class BLOB NOT NULL, copy_group INTEGER NOT NULL,
        owner BLOB NOT NULL, estimate INTEGER NOT NULL, bytes INTEGER NOT NULL, info BLOB NOT NULL,
        PRIMARY KEY (fs, hl, ll, type, id)) WITHOUT ROWID;
    CREATE TABLE counter (next_id INTEGER NOT NULL);
    CREATE TABLE garbage (id INTEGER PRIMARY KEY);
    PRAGMA user_version = 1;
    INSERT INTO node VALUES (1, CAST('NODE' AS BLOB), CAST(
        '$6$DssqdbxVlVzeWjfJ$ZxIz4T1ubYL6OFVlB77fJNnLHR3Z3P2yPJJEuI5Is1jSrYN.4XuC8QP3nf6TJE0APdqYV2WkJS4RkF2NwvmDC/'
        AS BLOB));
)";
