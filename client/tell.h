#pragma once

#include <QString>

/// Tells a person, in one line of standard error.
void tell(const QString &line);

/// The same, where the program cannot go on; gives the exit status for that.
int complain(const QString &reason);
