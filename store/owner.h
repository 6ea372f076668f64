#pragma once

#include <QString>

#include <sys/types.h>

#include <vector>

struct StoreUrl;

/// From here on root works on a store in a file as the owner of that file, or of its folder where there is no file yet:
/// whatever it makes there, the store's log included, is that user's, and the relay can write it. Nothing changes for
/// anybody else, and for a store in a server. Returns empty text, or one line that says what went wrong.
QString workAsOwner(const StoreUrl &store);

/// While there is one, the program is again who called it: for files of the caller's, which the owner of the store may
/// not be able to read or write.
class AsCaller
{
public:
    AsCaller();
    ~AsCaller();
    AsCaller(const AsCaller &) = delete;
    AsCaller &operator=(const AsCaller &) = delete;

private:
    const uid_t m_owner;
    const gid_t m_group;
    std::vector<gid_t> m_groups;
};
