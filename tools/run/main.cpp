// SPDX-License-Identifier: MIT
/**
 * @file
 * Runs a host on another platform than the one that it was linked with, without
 * a change to it: the platform's library is loaded ahead of all others.
 */
#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace
{

enum ExitStatus { kBadArguments = 2, kCannotRun = 126, kNotFound = 127 };

constexpr char kLinuxLibrary[] = "libhdmiplayer_linux.so.1";
constexpr char kSimLibrary[] = "libhdmiplayer_sim.so.1";

constexpr char kDescription[] =
    "Runs a host of the player on this machine's devices, or on simulated ones, without a change to it.";
constexpr char kFooter[] =
    "The host hears what the capture device receives and follows its format and rate; docs/linux.md tells the names\n"
    "of devices. Exit status: the host's; 2 for wrong arguments, 126 and 127 when it cannot be run.\n\n"
    "  hdmi-player-run -- ./host\n"
    "  hdmi-player-run --capture hw:CARD=Dongle --playback default -- ./host --fullscreen\n"
    "  hdmi-player-run --signal programme -- ./host\n";

struct Options {
    std::string capture;
    std::string playback;
    std::string signal;
    std::vector<std::string> host;
};

/// Where the loader finds @p library; empty with a line on standard error.
std::string path_of(const char* library)
{
    void* handle = dlopen(library, RTLD_LAZY | RTLD_LOCAL);
    const link_map* map = nullptr;
    if (handle != nullptr && dlinfo(handle, RTLD_DI_LINKMAP, &map) == 0)
        return map->l_name;
    fprintf(stderr, "hdmi-player-run: %s\n", dlerror());
    return {};
}

void set(const char* variable, const std::string& value)
{
    if (!value.empty())
        setenv(variable, value.c_str(), 1);
}

/// Ahead of what is preloaded already.
void preload(const std::string& library)
{
    const char* others = getenv("LD_PRELOAD");
    set("LD_PRELOAD", others != nullptr && *others != '\0' ? library + ":" + others : library);
}

int run(const Options& options)
{
    const bool simulated = !options.signal.empty();
    const std::string library = path_of(simulated ? kSimLibrary : kLinuxLibrary);
    if (library.empty())
        return kCannotRun;
    preload(library);
    set("HDMIPLAYER_SIM_SIGNAL", options.signal);
    set("HDMIPLAYER_ALSA_HDMI_IN", options.capture);
    for (const char* output : {"SPEAKER", "HEADPHONE", "SPDIF", "HDMI_ARC", "I2S_TXA"})
        set((std::string("HDMIPLAYER_ALSA_") + output).c_str(), options.playback);
    if (!simulated)
        set("HDMIPLAYER_LINUX_RECEIVER", "1");
    std::vector<char*> arguments;
    for (const std::string& argument : options.host)
        arguments.push_back(const_cast<char*>(argument.c_str())); // execvp() changes none of them
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    const int error = errno;
    fprintf(stderr, "hdmi-player-run: %s: %s\n", arguments[0], strerror(error));
    return error == ENOENT ? kNotFound : kCannotRun;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    CLI::App app(kDescription, "hdmi-player-run");
    app.footer(kFooter);
    app.set_help_flag("-h,--help", "this text");
    app.set_version_flag("--version", RUN_VERSION);
    auto* capture = app.add_option("--capture", options.capture, "ALSA's name of the capture device");
    auto* playback = app.add_option("--playback", options.playback, "ALSA's name of the device for every output");
    app.add_option("--signal", options.signal,
                   "simulated devices, with this source: SOURCE[,rate=HZ][,ppm=NUMBER], SOURCE being programme, tone, "
                   "silence or a file")
        ->excludes(capture)
        ->excludes(playback);
    app.add_option("HOST", options.host, "the host and its arguments")->required();
    app.positionals_at_end();
    app.prefix_command(false);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kBadArguments;
    }
    return run(options);
}
