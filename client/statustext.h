#pragma once

#include <QByteArray>
#include <QJsonObject>

/// What a person reads of a status: lines for a terminal, and a page for a browser, which needs no scripts and asks for
/// itself anew.
namespace statustext
{
QByteArray plain(const QJsonObject &status);
QByteArray page(const QJsonObject &status);
} // namespace statustext
