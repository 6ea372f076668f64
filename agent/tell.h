#pragma once

#include <QString>

/// One line in the log, unless it is what was told last: as long as nothing changes there is nothing to say.
void tell(const QString &line);
