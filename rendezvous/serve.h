#pragma once

#include "rendezvous/configuration.h"

/// Introduces peers to boxes until a signal ends it. Throws std::exception with one line where it cannot begin.
void serve(const Configuration &configuration);
