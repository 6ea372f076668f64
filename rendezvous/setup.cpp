#include "rendezvous/setup.h"

#include "introduction/secrets.h"
#include "rendezvous/certificate.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

namespace
{
// Networks that are nobody's on the internet, and those that lead to IPv4 addresses in disguise: what coturn carries
// must not reach the machine it runs on, nor its neighbours, nor a cloud's metadata.
constexpr std::array<const char *, 21> denied{
    "0.0.0.0-0.255.255.255",
    "10.0.0.0-10.255.255.255",
    "100.64.0.0-100.127.255.255",
    "127.0.0.0-127.255.255.255",
    "169.254.0.0-169.254.255.255",
    "172.16.0.0-172.31.255.255",
    "192.0.0.0-192.0.0.255",
    "192.0.2.0-192.0.2.255",
    "192.88.99.0-192.88.99.255",
    "192.168.0.0-192.168.255.255",
    "198.51.100.0-198.51.100.255",
    "203.0.113.0-203.0.113.255",
    "224.0.0.0-255.255.255.255",
    "::1-::ffff:ffff", // coturn itself denies ::, and would take a range from there for all addresses
    "::ffff:0:0-::ffff:ffff:ffff",
    "64:ff9b::-64:ff9b::ffff:ffff",
    "64:ff9b:1::-64:ff9b:1:ffff:ffff:ffff:ffff:ffff",
    "2002::-2002:ffff:ffff:ffff:ffff:ffff:ffff:ffff",
    "fc00::-fdff:ffff:ffff:ffff:ffff:ffff:ffff:ffff",
    "fe80::-febf:ffff:ffff:ffff:ffff:ffff:ffff:ffff",
    "ff00::-ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"};

constexpr auto noChange = static_cast<uid_t>(-1);

std::string ofServer(const Setup &setup, const std::string &secret, const std::string &turnSecret)
{
    return "# nat-rendezvousd. Whoever has the secret can make the token of any box; another one makes all boxes join "
           "anew.\n"
           "# What has brackets, such as listen=\"[::]:7000\", stands in quotes: else it begins a list.\n"
           "host=\"" +
           setup.host + "\"\nsecret=" + secret + "\nturn=\"" + setup.host + ":3478\"\nturn-tls-port=" + setup.tlsPort +
           "\nturn-secret=" + turnSecret + '\n';
}

std::string ofCoturn(const Setup &setup, const std::string &turnSecret)
{
    std::string text =
        "# coturn beside nat-rendezvousd: carries datagrams for peers with a credential of a call, and for\n"
        "# nobody else, by UDP and to nothing but addresses of the internet.\n"
        "listening-port=3478\n"
        "realm=" +
        setup.host + "\nuse-auth-secret\nstatic-auth-secret=" + turnSecret +
        "\nfingerprint\n"
        "stale-nonce=600\n"
        "user-quota=8\n"
        "total-quota=2000\n"
        "min-port=49152\nmax-port=65535\n"
        "no-tcp-relay\n"
        "no-multicast-peers\n"
        "no-cli\n"
        "no-software-attribute\n"
        "simple-log\nlog-file=stdout\n";
    text += "tls-listening-port=" + setup.tlsPort + "\nno-tlsv1\nno-tlsv1_1\nno-dtls\ncert=" + setup.certificate +
            "\npkey=" + setup.key + '\n';
    for (const char *network : denied)
        text += std::string("denied-peer-ip=") + network + '\n';
    return text;
}

/// Readable by its owner and group alone.
void writeNew(const std::string &path, const std::string &text)
{
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0640);
    if (file < 0 && errno == EEXIST)
        throw std::invalid_argument(path + " exists already and stays as it is; name another --folder");
    const bool isWritten =
        file >= 0 && write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && fsync(file) == 0;
    const int reason = errno;
    if (file >= 0)
        close(file);
    if (isWritten)
        return;
    if (file >= 0)
        unlink(path.c_str());
    throw std::system_error(reason, std::generic_category(), "cannot write " + path);
}

/// Where coturn runs as a user of its own, as Debian's does, it is to read this file.
void letCoturnRead(const std::string &path)
{
    const group *coturn = getgrnam("turnserver");
    if (coturn != nullptr && chown(path.c_str(), noChange, coturn->gr_gid) == 0)
        chmod(path.c_str(), 0640); // whatever the umask; who may not give it away runs coturn himself
}
} // namespace

std::string Setup::run() const
{
    if (certificate.empty() != key.empty())
        throw std::invalid_argument("--certificate and --key belong together");
    Setup whole = *this;
    const std::string own = folder + "/certificate.pem";
    if (certificate.empty())
        whole.certificate = whole.key = std::filesystem::absolute(own);
    const std::string server = folder + "/nat-rendezvousd.conf";
    const std::string coturn = folder + "/turnserver.conf";
    const std::string turnSecret = introduction::textOf(introduction::freshKey());
    std::filesystem::create_directories(folder);
    std::vector<std::pair<std::string, std::string>> files{
        {server, ofServer(whole, introduction::textOf(introduction::freshKey()), turnSecret)},
        {coturn, ofCoturn(whole, turnSecret)}};
    if (certificate.empty())
        files.emplace_back(own, selfSignedCertificate(host));
    std::size_t written = 0;
    try {
        for (const auto &[path, text] : files) {
            writeNew(path, text);
            written++;
        }
    } catch (...) {
        for (std::size_t file = 0; file < written; file++)
            unlink(files.at(file).first.c_str());
        throw;
    }
    letCoturnRead(coturn);
    if (certificate.empty())
        letCoturnRead(own);
    return "Wrote " + server + (certificate.empty() ? ", " + own : "") + " and " + coturn +
           ". Keep a copy: without the secret all boxes must join anew.\n"
           "Open to the internet:\n"
           "  UDP and TCP 7000     nat-rendezvousd\n"
           "  UDP and TCP 3478     coturn\n"
           "  TCP " +
           tlsPort + std::string(17 - tlsPort.size(), ' ') +
           "coturn, TLS\n"
           "  UDP 49152 to 65535   coturn, what it carries\n" +
           (folder == defaultFolder
                ? "Then run systemctl restart nat-rendezvousd coturn,\n"
                : "Then run nat-rendezvousd --config " + server + " serve and turnserver -c " + coturn + ",\n") +
           "and for each box nat-rendezvousd token UUID. For several nodes copy these files to each (cp -a keeps them "
           "readable by coturn), and add cluster=nats://HOST:4222 to the first.\n";
}
