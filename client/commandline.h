#pragma once

#include "client/command/command.h"
#include "client/path/boxpath.h"

#include <QCommandLineParser>
#include <QList>
#include <QString>
#include <QStringList>

/// What nat-peer is told: a command with its argument, the options, and how each number may be.
class CommandLine
{
public:
    /// `commands` must outlive the command line.
    explicit CommandLine(const QList<Command> &commands);

    /// Prints the help and ends the program where that is asked for. Else the error, or empty text.
    QString read(const QStringList &arguments);

    /// Only once read() has found no error.
    const Command &command() const { return *find(); }
    /// The command's; null text when there is none.
    QString argument() const { return m_parser.positionalArguments().value(1); }
    bool isSet(const char *name) const { return m_parser.isSet(QString::fromLatin1(name)); }
    QString text(const char *name) const { return m_parser.value(QString::fromLatin1(name)); }
    int number(const char *name) const { return text(name).toInt(); }
    BoxPath::Options pathOptions(const PeerFile &peer) const;

private:
    void addNumber(const char *name, const char *meaning, const char *unit, int value);
    QString checkNumber(const char *name, int least, int most) const;
    QString checkCommand() const;
    const Command *find() const;
    QString usage() const;

    const QList<Command> &m_commands;
    QCommandLineParser m_parser;
};
