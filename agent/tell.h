#pragma once

#include <QString>

/// One line in the log, unless it is what was told last: as long as nothing changes there is nothing to say.
void tell(const QString &line);
/// The same, at error level: peers do not get in before somebody sees to it.
void tellError(const QString &line);
