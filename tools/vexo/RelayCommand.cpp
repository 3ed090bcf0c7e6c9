#include <dlfcn.h>
#include <filesystem>
#include <memory>

#include "interface/CardRegisters.h"
#include "tools/cli/Duration.h"
#include "tools/cli/Values.h"
#include "tools/relay/Settings.h"
#include "tools/tap/Settings.h"
#include "tools/vexo/Command.h"
#include "tools/vexo/InputFile.h"
#include "tools/vexo/Places.h"
#include "tools/vexo/ServerOptions.h"
#include "tools/vexo/check/ConfigCheck.h"

namespace vexo {
namespace {

constexpr double kDay = 86400;
constexpr std::uint32_t kLastBus = 4;
constexpr std::uint64_t kBesideRestUs = 50;

struct Options {
    relay::Settings settings;
    std::string to;
    std::uint64_t batchTimeUs = 100;
    std::uint64_t queueMb = 64;
    cli::Option pollRest;
    std::uint64_t rotateMb = relay::ArchiveSettings().rotateBytes / relay::kMegabyte;
    std::uint64_t rotateSeconds = 0;
    std::uint64_t keepSpaceMb = relay::ArchiveSettings().keepFreeBytes / relay::kMegabyte;
    cli::Option channel;
    cli::Option bus;
};

// The configuration decides card and channel. What the command line says of them must agree.
void takePlaceFromConfig(const Options& options, vexo_sim::remote::Place& place) {
    const std::string& config = options.settings.config;
    requireFile(config);
    check::Report report;
    const check::ConfigFacts facts = readable(config, [&] { return check::checkConfig(config, report); });
    if (!facts.device.valid)
        throw Failure(kUsage, config + ": there is no valid device in it; vexo check tells what is wrong");
    const auto differs = [](const cli::Option& option, std::uint32_t said, std::uint32_t meant) {
        return option.isGiven() && said != meant;
    };
    if (differs(options.channel, place.channel, facts.device.channel) ||
        differs(options.bus, place.bus, facts.device.card))
        throw Failure(kUsage, config + " names channel " + std::to_string(facts.device.channel) + " of card " +
                                  std::to_string(facts.device.card) + ", the command line another one");
    place.channel = facts.device.channel;
    place.bus = facts.device.card;
}

relay::Settings settingsOf(const Options& options) {
    relay::Settings settings = options.settings;
    if (options.to.empty()) throw Failure(kUsage, "no servers: give --to nats://HOST:PORT\nSee vexo relay --help");
    std::string error;
    settings.connection.servers = vexo_sim::remote::serversOf(options.to, error);
    if (settings.connection.servers.empty()) throw Failure(kUsage, "--to: " + error);
    for (const std::string* file :
         {&settings.connection.credsFile, &settings.connection.userFile, &settings.connection.tlsCaFile,
          &settings.connection.tlsCertFile, &settings.connection.tlsKeyFile})
        if (!file->empty()) requireFile(*file);
    if (!vexo_sim::remote::isSite(settings.place.site))
        throw Failure(kUsage, "--site " + settings.place.site + ": use 1 to 32 letters, digits, _ and -");
    if (!settings.config.empty()) {
        takePlaceFromConfig(options, settings.place);
    } else if (!options.channel.isGiven()) {
        throw Failure(kUsage, "no channel: give --channel N, or a configuration");
    } else if (settings.place.channel == 0 && !options.settings.beside) {
        throw Failure(kUsage, "channel 0 is the master's, which programs the card: give its configuration");
    }
    settings.limits.timeNs = options.batchTimeUs * 1000;
    settings.queueBytes = options.queueMb * relay::kMegabyte;
    if (options.settings.beside && !options.pollRest.isGiven()) settings.pollRestUs = kBesideRestUs;
    settings.archive.rotateBytes = options.rotateMb * relay::kMegabyte;
    settings.archive.rotateEveryNs = options.rotateSeconds * 1'000'000'000;
    settings.archive.keepFreeBytes = options.keepSpaceMb * relay::kMegabyte;
    return settings;
}

// The card's library is loaded with the relay's, so a machine without one is noticed here. Beside an application none
// is needed.
relay::Run* load(bool beside) {
    const std::filesystem::path path = beside ? besideRelayLibrary() : relayLibrary();
    void* const library = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr && beside) throw Failure(kFinding, ::dlerror());
    if (library == nullptr)
        throw Failure(kNoCard,
                      std::string(::dlerror()) +
                          "\nThe card's library may be missing. For the simulated card: vexo sim run -- vexo relay");
    void* const run = ::dlsym(library, relay::kRunName);
    if (run == nullptr) throw Failure(kFinding, ::dlerror());
    return reinterpret_cast<relay::Run*>(run);
}

void addLimits(const cli::Command& command, Options& options) {
    relay::Settings& settings = options.settings;
    command.addOption("--batch-bytes", settings.limits.bytes, "Most bytes of a message")
        .takes("N")
        .check(cli::wholeNumber(relay::kLeastBatchBytes, relay::kMostBatchBytes))
        .showsDefault();
    command
        .addOption("--batch-time", options.batchTimeUs,
                   "Microseconds that a packet waits for company in its message; 0: each packet is a message")
        .takes("US")
        .check(cli::wholeNumber(0, relay::kMostBatchTimeUs))
        .showsDefault();
    command.addOption("--queue", options.queueMb, "Megabytes of memory for packets on their way to the network")
        .takes("MB")
        .check(cli::wholeNumber(1, relay::kMostQueueMb))
        .showsDefault();
    options.pollRest = command
                           .addOption("--poll-rest", settings.pollRestUs,
                                      "Microseconds that the polling thread sleeps when there is no packet; 0: it "
                                      "never sleeps. With --beside 50, unless given")
                           .takes("US")
                           .check(cli::wholeNumber(0, relay::kMostBatchTimeUs))
                           .showsDefault();
}

// As those of a recording: vexo tap has the same.
void addArchive(const cli::Command& command, Options& options) {
    relay::ArchiveSettings& archive = options.settings.archive;
    const cli::Option directory =
        command
            .addOption("--archive", archive.directory,
                       "Keep the packets in files of this directory, for programs that start with --since")
            .takes("DIR")
            .check(cli::directory());
    const cli::Option rotate =
        command.addOption("--rotate", options.rotateMb, "Start another file before one grows beyond so many megabytes")
            .takes("MB")
            .check(cli::wholeNumber(1, tap::kMaxRotateMb))
            .showsDefault();
    const cli::Option rotateEvery =
        command
            .addOption("--rotate-every", options.rotateSeconds,
                       "Start another file at each multiple of this time: 1h is at each full hour of UTC. TIME is "
                       "seconds, or a number with s, m, h or d")
            .takes("TIME")
            .check(cli::duration(tap::kMaxSeconds));
    const cli::Option keep = command.addOption("--keep", archive.keep, "Keep the newest N files, remove older ones")
                                 .takes("N")
                                 .check(cli::wholeNumber(tap::kLeastKeptFiles, tap::kMostKeptFiles))
                                 .showsDefault();
    const cli::Option keepSpace =
        command
            .addOption("--keep-space", options.keepSpaceMb,
                       "Megabytes of the disk to leave free: older files are removed for it; then nothing is stored "
                       "until there is space again")
            .takes("MB")
            .check(cli::wholeNumber(0, tap::kMaxKeepSpaceMb))
            .showsDefault();
    for (const cli::Option& one : {rotate, rotateEvery, keep, keepSpace}) one.needs(directory);
}

}  // namespace

void addRelay(const cli::Command& app, Invocation& invocation) {
    const auto options = std::make_shared<Options>();
    relay::Settings& settings = options->settings;
    const cli::Command relay = app.addCommand("relay",
                                              "Publish what a channel delivers, for remote cards of other machines");
    const cli::Option config = relay.addOption(
        "CONFIG.ini", settings.config, "Start as an application with this configuration does; the master needs one");
    relay
        .addFlag("--beside", settings.beside,
                 "Relay what an application receives that runs under vexo tap --share; open no channel")
        .excludes(config);
    options->channel = relay.addOption("--channel", settings.place.channel, "Channel to relay")
                           .takes("N")
                           .check(cli::wholeNumber(0, card_reg::kChannels - 1));
    options->bus = relay.addOption("--bus", settings.place.bus, "Number of the card")
                       .takes("N")
                       .check(cli::wholeNumber(0, kLastBus))
                       .showsDefault();
    relay.addOption("--to", options->to, "Servers, with commas between them: nats://HOST:PORT or tls://HOST:PORT")
        .takes("SERVERS");
    relay.addOption("--site", settings.place.site, "Name of this site, a part of the subjects")
        .takes("NAME")
        .showsDefault();
    relay.addFlag("--by-contract", settings.byContract,
                  "Publish each contract's packets under a subject of its own, too; VEXO_LAYOUT describes the payload");
    addLimits(relay, *options);
    addArchive(relay, *options);
    addServerFiles(relay, settings.connection);
    relay.addOption("--seconds", settings.seconds, "End after so long; 0: at SIGINT or SIGTERM")
        .takes("SECONDS")
        .check(cli::number(0, kDay))
        .showsDefault();
    relay.addFlag("--json", settings.json, "Show the result as JSON; a log goes to standard error");
    relay.footer(
        "The relay has its channel for itself, like an application, but for --beside. Its subject is "
        "vexo.SITE.BUS.CHANNEL.stream.");
    cli::tellStatuses(relay,
                      {{cli::kFine, "ended as asked, and the server has confirmed everything"},
                       {kFinding, "no server, the stream or the subject is taken, or not everything was confirmed"},
                       {kUsage, "wrong usage, or a file that was named and cannot be read"},
                       {kNoCard, "no card"}});
    relay.whenChosen([options, &invocation] {
        invocation.run = [options] {
            const relay::Settings chosen = settingsOf(*options);
            return load(chosen.beside)(chosen);
        };
    });
}

}  // namespace vexo
