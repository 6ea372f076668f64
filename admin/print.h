#pragma once

#include <QByteArray>
#include <QJsonDocument>
#include <QList>
#include <QString>
#include <QStringList>

/// Writes to standard output; empty text, or what went wrong.
QString print(const QByteArray &text);

/// Rows in columns as wide as their longest text, without what might drive a terminal.
QByteArray toTable(const QList<QStringList> &rows);

/// RFC 8259; what might drive a terminal is escaped.
QByteArray toJson(const QJsonDocument &document);
