#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// What nat-rendezvousd is told, by its configuration file and its command line. Texts as they stand there.
struct Configuration {
    std::string host;   // the name by which boxes and peers find this server
    std::string secret; // 64 hexadecimal digits
    std::vector<std::string> listen{"[::]:7000"};
    std::string metrics{"127.0.0.1:9700"}; // empty: none
    std::string turn;                      // host and port; empty: none
    std::uint16_t turnTlsPort = 0;         // of its TLS; 0: none
    std::string turnSecret;
    bool trustsPlain = false;
    std::vector<std::string> cluster; // URLs of NATS servers; empty: this is the only node
};
