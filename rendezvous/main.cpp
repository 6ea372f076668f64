// nat-rendezvousd: tells boxes and their peers where the other one is.

#include "introduction/secrets.h"
#include "rendezvous/configuration.h"
#include "rendezvous/serve.h"
#include "rendezvous/setup.h"
#include "rendezvous/sockets.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>

namespace
{
int complain(std::string reason)
{
    std::replace(reason.begin(), reason.end(), '\n', ' ');
    std::fprintf(stderr, "nat-rendezvousd: %s\n", reason.c_str());
    return 1;
}

/// What the owner of the box enters there.
std::string joinLine(const Configuration &configuration, const std::string &uuid)
{
    const auto box = introduction::uuidOf(uuid);
    if (!box)
        throw std::invalid_argument(
            "the box's UUID must be 36 characters in braces, as nat-relay-admin get uuid shows it");
    const auto secret = introduction::keyOf(configuration.secret);
    if (!secret || configuration.host.empty())
        throw std::invalid_argument("the configuration must have host and secret; nat-rendezvousd setup makes one");
    const auto port = std::to_string(addressOf(configuration.listen.front()).port);
    return configuration.host + ':' + port + ' ' + introduction::textOf(introduction::boxToken(*secret, *box)) + '\n';
}

int run(int argc, char **argv)
{
    CLI::App app(
        "Tells boxes and their peers where the other one is, so that they find each other through their routers.",
        "nat-rendezvousd");
    app.require_subcommand(1);
    app.set_version_flag("--version", "nat-rendezvousd " PROGRAM_VERSION);
    app.set_config("--config", std::string(defaultFolder) + "/nat-rendezvousd.conf", "What setup wrote");
    app.allow_config_extras(CLI::config_extras_mode::error);
    Configuration configuration;
    app.add_option("--host", configuration.host, "Name by which boxes and peers find this server");
    app.add_option("--secret", configuration.secret)->group(""); // for the file: a command line can be seen by others
    app.add_option("--turn", configuration.turn, "HOST:PORT of the TURN server that carries what finds no other way");
    app.add_option("--turn-tls-port", configuration.turnTlsPort, "Where it listens for TLS");
    app.add_option("--turn-secret", configuration.turnSecret)->group("");

    CLI::App *serving = app.add_subcommand("serve", "Serves until it is ended");
    serving->fallthrough();
    app.add_option("--listen", configuration.listen, "ADDRESS:PORT, or several, by UDP and TCP")->capture_default_str();
    app.add_option("--metrics", configuration.metrics, "ADDRESS:PORT of the counts, for Prometheus; '' for none")
        ->capture_default_str();
    app.add_flag("--trust-plain", configuration.trustsPlain,
                 "Take the plain registration of a relay for where its box is: anybody can send one");

    app.add_option("--cluster", configuration.cluster,
                   "nats://HOST:PORT, or several: the NATS servers through which this server's nodes find each "
                   "other's boxes")
        ->delimiter(',');

    CLI::App *settingUp = app.add_subcommand("setup", "Writes a configuration with a fresh secret, and one for coturn");
    settingUp->fallthrough();
    Setup setup;
    settingUp->add_option("--folder", setup.folder, "Where to")->capture_default_str();
    settingUp->add_option("--certificate", setup.certificate,
                          "For TURN over TLS, where firewalls want a known one; else one is made");
    settingUp->add_option("--key", setup.key, "and that one's key");
    settingUp->add_option("--tls-port", setup.tlsPort, "Some firewalls let out to 443 alone")
        ->capture_default_str()
        ->check(CLI::Range(1, 65535));

    CLI::App *making =
        app.add_subcommand("token", "Prints the line that the owner of a box enters: nat-relay-admin join 'LINE'");
    making->fallthrough();
    std::string uuid;
    making->add_option("UUID", uuid, "The box's, in braces")->required();

    try {
        app.parse(argc, argv);
        if (settingUp->parsed()) {
            setup.host = configuration.host;
            if (setup.host.empty())
                throw std::invalid_argument("setup needs --host, the name by which boxes and peers find this server");
            std::fputs(setup.run().c_str(), stdout);
        } else if (making->parsed()) {
            std::fputs(joinLine(configuration, uuid).c_str(), stdout);
        } else {
            serve(configuration);
        }
    } catch (const CLI::CallForVersion &version) {
        std::puts(version.what());
    } catch (const CLI::Success &) {
        std::fputs(app.help("", CLI::AppFormatMode::All).c_str(), stdout);
    } catch (const CLI::ParseError &error) {
        return complain(std::string(error.what()) + "; see nat-rendezvousd --help");
    }
    return std::fflush(stdout) == 0 ? 0 : complain("cannot write to standard output");
}
} // namespace

int main(int argc, char **argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "nat-rendezvousd: %s\n", error.what());
        return 1;
    }
}
