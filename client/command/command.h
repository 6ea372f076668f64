#pragma once

#include <QString>

class BoxPath;
class CommandLine;
class RelayClient;
struct PeerFile;

/// What a command works with.
struct Job {
    const CommandLine &line;
    const PeerFile &peer; // empty for a command that makes it
    BoxPath *path;        // this one and the client: null for a command that needs none
    RelayClient *client;
};

/// A command of nat-peer.
struct Command {
    QString name;
    QString argument; // empty: it has none; in brackets: it may be left out
    QString meaning;
    enum class Needs { Link, PeerFile, Path } needs;
    int (*run)(const Job &job); // gives the exit status
};

/// Each in a file of its own.
namespace command
{
int get(const Job &job);
int serve(const Job &job);
int discover(const Job &job);
int import(const Job &job);
int status(const Job &job);
} // namespace command
