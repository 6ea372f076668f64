#include "client/tell.h"

#include <cstdio>

void tell(const QString &line)
{
    std::fprintf(stderr, "nat-peer: %s\n", qPrintable(line.simplified())); // one line, whatever a file is called
}

int complain(const QString &reason)
{
    tell(reason);
    return 1;
}
