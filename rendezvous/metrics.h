#pragma once

#include "rendezvous/introducer.h"

#include <memory>
#include <string>

/// The counts in Prometheus' text format, at http://ADDRESS:PORT/metrics, for as long as this lives. Has threads of its
/// own. Throws std::exception where the address cannot be used.
std::shared_ptr<void> showMetrics(const std::string &address, const Counts &counts);
