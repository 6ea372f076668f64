// Writes what a peer is handed. It holds the key, so it is never readable by others, not even for a moment.

#include "handover/output.h"

#include <QFile>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

Output::Output(const QString &path) : m_name(path.isEmpty() ? QStringLiteral("standard output") : path)
{
    if (path.isEmpty())
        return;
    const QByteArray name = QFile::encodeName(path);
    m_descriptor = open(name.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (m_descriptor < 0 && errno == EEXIST)
        m_error = QStringLiteral("%1 exists already and stays as it is; name a new file").arg(path);
    else if (m_descriptor < 0)
        fail();
    else
        m_path = name;
}

Output::~Output()
{
    if (m_descriptor != STDOUT_FILENO && m_descriptor >= 0)
        close(m_descriptor);
    if (!m_path.isEmpty())
        unlink(m_path.constData());
}

bool Output::write(const QByteArray &text)
{
    int written = 0;
    while (m_error.isEmpty() && written < text.size()) {
        const ssize_t step =
            ::write(m_descriptor, text.constData() + written, static_cast<size_t>(text.size() - written));
        if (step < 0 && errno != EINTR)
            fail();
        else if (step > 0)
            written += static_cast<int>(step);
    }
    if (m_error.isEmpty() && !m_path.isEmpty() &&
        (fsync(m_descriptor) != 0 || close(std::exchange(m_descriptor, -1)) != 0))
        fail();
    if (m_error.isEmpty())
        m_path.clear();
    return m_error.isEmpty();
}

void Output::fail()
{
    m_error = QStringLiteral("cannot write %1: %2").arg(m_name, QString::fromLocal8Bit(std::strerror(errno)));
}
