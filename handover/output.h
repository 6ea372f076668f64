#pragma once

#include <QByteArray>
#include <QString>

#include <unistd.h>

/// Where a result goes: standard output, or a new file that only its owner may read. A file that did not get its whole
/// text is removed again.
class Output
{
public:
    /// Empty path: standard output. Makes the file at once, unless one is there already.
    explicit Output(const QString &path = QString());
    ~Output();
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    /// Once, when error() is empty: the whole text, safe on its medium; false when it could not be written.
    bool write(const QByteArray &text);

    /// Not empty: what went wrong, in one line.
    const QString &error() const { return m_error; }

private:
    void fail();

    QByteArray m_path; // of a file that is not yet whole
    QString m_name;    // for messages
    int m_descriptor = STDOUT_FILENO;
    QString m_error;
};
