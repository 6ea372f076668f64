// A store that root has touched must go on being the relay's, who is another user.

#include "store/owner.h"

#include <QFile>
#include <QFileInfo>

#include <storeurl.h>

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace
{
std::vector<gid_t> currentGroups()
{
    std::vector<gid_t> groups(static_cast<std::size_t>(getgroups(0, nullptr)));
    getgroups(static_cast<int>(groups.size()), groups.data());
    return groups;
}

/// The groups first when rights are given up, and last when they come back: only root may change them.
bool become(uid_t user, gid_t group, const std::vector<gid_t> &groups)
{
    if (user == 0)
        return seteuid(user) == 0 && setegid(group) == 0 && setgroups(groups.size(), groups.data()) == 0;
    return setgroups(groups.size(), groups.data()) == 0 && setegid(group) == 0 && seteuid(user) == 0;
}

/// The first one is that of new files; at least that of this file.
std::vector<gid_t> groupsOfOwner(const struct stat &file)
{
    constexpr int mostGroups = 1024;
    const passwd *entry = getpwuid(file.st_uid);
    if (entry == nullptr)
        return {file.st_gid};
    int count = mostGroups;
    std::vector<gid_t> groups(mostGroups);
    getgrouplist(entry->pw_name, entry->pw_gid, groups.data(), &count);
    groups.resize(static_cast<std::size_t>(qBound(1, count, mostGroups)));
    return groups;
}

std::vector<gid_t> &callersGroups()
{
    static std::vector<gid_t> groups;
    return groups;
}
} // namespace

QString workAsOwner(const StoreUrl &store)
{
    struct stat status = {};
    if (geteuid() != 0 || store.path.isEmpty())
        return QString();
    const QString folder = QFileInfo(store.path).absolutePath();
    if (stat(QFile::encodeName(store.path).constData(), &status) != 0 &&
        stat(QFile::encodeName(folder).constData(), &status) != 0)
        return QString(); // whoever uses the store says so
    if (status.st_uid == 0)
        return QString();
    callersGroups() = currentGroups();
    const auto groups = groupsOfOwner(status);
    if (become(status.st_uid, groups.front(), groups))
        return QString();
    return QStringLiteral("cannot work as the owner of %1: %2; run this as the user that nat-relayd runs as")
        .arg(store.shown, QString::fromLocal8Bit(std::strerror(errno)));
}

AsCaller::AsCaller() : m_owner(geteuid()), m_group(getegid())
{
    if (m_owner == getuid())
        return;
    m_groups = currentGroups();
    if (!become(getuid(), getgid(), callersGroups()))
        qFatal("cannot return to the user that called: %s", std::strerror(errno));
}

AsCaller::~AsCaller()
{
    if (m_owner != getuid() && !become(m_owner, m_group, m_groups))
        qFatal("cannot go on as the owner of the store: %s", std::strerror(errno));
}
