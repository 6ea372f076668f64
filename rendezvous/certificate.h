#pragma once

#include <string>

/// A key and a certificate for this name that it signs itself, in PEM: for TLS that gets through firewalls, where both
/// sides know each other by other means. Throws std::runtime_error where OpenSSL cannot.
std::string selfSignedCertificate(const std::string &host);
