#include "store/growingfile.h"

#include <QFile>
#include <QFileInfo>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{
QString systemError()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

/// Whether the file is on its medium, not only on its way there.
bool isSafe(const QByteArray &path)
{
    const int descriptor = open(path.constData(), O_RDONLY | O_CLOEXEC);
    const bool isDone = descriptor >= 0 && fsync(descriptor) == 0;
    const int reason = errno;
    if (descriptor >= 0)
        close(descriptor);
    errno = reason;
    return isDone;
}
} // namespace

GrowingFile::GrowingFile(const QString &path) : m_path(QFile::encodeName(QFileInfo(path).absoluteFilePath()))
{
    struct stat status = {};
    if (lstat(m_path.constData(), &status) == 0) {
        m_error = QStringLiteral("it exists already");
        return;
    }
    QByteArray growing = m_path + ".XXXXXX";
    const int descriptor = mkstemp(growing.data());
    if (descriptor < 0) {
        m_error = systemError();
        return;
    }
    close(descriptor);
    m_growing = growing;
}

GrowingFile::~GrowingFile()
{
    if (!m_growing.isEmpty())
        unlink(m_growing.constData());
}

QString GrowingFile::growingPath() const
{
    return QFile::decodeName(m_growing);
}

bool GrowingFile::keep()
{
    if (!isSafe(m_growing) ||
        renameat2(AT_FDCWD, m_growing.constData(), AT_FDCWD, m_path.constData(), RENAME_NOREPLACE) != 0) {
        m_error = systemError();
        return false;
    }
    m_growing.clear();
    return true;
}
