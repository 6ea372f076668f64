#pragma once

#include <QByteArray>
#include <QString>

/// A new file that grows under another name beside its own, readable by its owner alone, and takes its own when it is
/// whole. One that is not kept goes again.
class GrowingFile
{
public:
    /// A file that is there already stays as it is: an error.
    explicit GrowingFile(const QString &path);
    ~GrowingFile();
    GrowingFile(const GrowingFile &) = delete;
    GrowingFile &operator=(const GrowingFile &) = delete;

    /// Absolute; an empty file at first.
    QString growingPath() const;

    /// Once, when it is whole and closed. False when there is an error.
    bool keep();

    /// Not empty: what went wrong, in a few words.
    const QString &error() const { return m_error; }

private:
    QByteArray m_path;
    QByteArray m_growing; // empty: there is none
    QString m_error;
};
