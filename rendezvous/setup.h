#pragma once

#include <string>

/// Where the units look.
constexpr const char *defaultFolder = "/etc/nat-rendezvousd";

/// Writes the server's configuration with a fresh secret, and one for coturn that carries datagrams for called boxes
/// alone and to nothing but the internet. All are new files of `folder`, which is made where it is missing.
struct Setup {
    std::string host;
    std::string folder = defaultFolder;
    std::string certificate; // of TURN over TLS, with its key; both empty: one that is made here, and signed by itself
    std::string key;
    std::string tlsPort = "5349";

    /// Throws std::exception with one line; then nothing has been written. Gives what is to be done next.
    std::string run() const;
};
