// SPDX-License-Identifier: MIT
/**
 * @file
 * Plays for hours on the simulated platform, with everything that happens to a
 * player in the field.
 */
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>

#include "config/options.h"
#include "config/program.h"
#include "endurance.h"
#include "hdmi_sim.h"
#include "transitions.h"
#include "troubles.h"

namespace
{

const std::map<std::string, hdmi_player_ao_dev_e> kOutputs = {
    {"speaker", E_HDMI_PLAYER_AO_DEV_SPEAKER},
    {"spdif", E_HDMI_PLAYER_AO_DEV_SPDIF},
    {"arc", E_HDMI_PLAYER_AO_DEV_HDMI_ARC},
};

constexpr char kDescription[] =
    "Plays on the simulated platform, with everything that happens to a player in the field.";
constexpr char kFooter[] =
    "run: trouble upon trouble, drawn from the seed, with pauses of 11 to 15 s. Behind each of them sound and picture\n"
    "must be in sync again (EBU R37) within --recovery seconds; nothing may stray or break off while nothing happens;\n"
    "no frame, descriptor or thread may be lost, and memory may not grow. A line a minute.\n"
    "transitions: from each format to each other one; sound within 0.5 s, in sync within 1 s, no picture for 1 s "
    "never.\n\n"
    "Exit status: 0 inside the limits, 1 outside, 2 wrong usage, 3 the machine does not permit it.\n";

struct Arguments {
    soak::EnduranceConfig run;
    soak::TransitionsConfig transitions;
    std::vector<std::string> only;
    std::vector<std::string> without;
    std::vector<std::string> formats;
    std::string fps = "60";
    std::string output = "speaker";
    std::string format = "pcm48";
    std::string way = "both";
    bool no_realtime = false;
};

void describe_session(CLI::App* app, Arguments* arguments)
{
    soak::SessionConfig& session = arguments->run.session;
    app->add_option("--fps", arguments->fps, "Frames per second")->capture_default_str();
    app->add_option("--display-rate", session.display_hz, "Vertical blanks per second")->capture_default_str();
    app->add_option("--receiver-ppm", session.source_ppm, "Clock error of the source");
    app->add_option("--playback-ppm", session.playback_ppm, "Clock error of the sound device");
    app->add_option("--algorithm-delay", session.algorithm_delay_ms, "Delay of the host's audio processing in ms")
        ->check(CLI::Range(0, 1000));
    app->add_option("--output", arguments->output, "speaker, spdif, arc")->check(CLI::IsMember(kOutputs));
    app->add_flag("--raw", session.raw, "Compressed sound goes to S/PDIF and ARC as it is");
    app->add_flag("--no-realtime", arguments->no_realtime, "Ask for no real-time priority");
}

/// @return false with a message
bool take_kinds(Arguments* arguments)
{
    const std::vector<std::string> known = soak::Troubles::names();
    const auto is_in = [](const std::vector<std::string>& names, const std::string& name) {
        return std::count(names.begin(), names.end(), name) > 0;
    };
    for (const std::vector<std::string>* names : {&arguments->only, &arguments->without})
        for (const std::string& name : *names)
            if (!is_in(known, name)) {
                std::fprintf(stderr, "hdmi-player-soak: %s is no kind of trouble\n", name.c_str());
                return false;
            }
    for (const std::string& name : known)
        if ((arguments->only.empty() || is_in(arguments->only, name)) && !is_in(arguments->without, name))
            arguments->run.kinds.push_back(name);
    if (!arguments->run.kinds.empty())
        return true;
    std::fprintf(stderr, "hdmi-player-soak: no kind of trouble is left\n");
    return false;
}

bool take_formats(Arguments* arguments)
{
    const auto first = soak::format_named(arguments->format);
    if (!first || !soak::can_be_decoded(*first)) {
        std::fprintf(stderr, "hdmi-player-soak: %s is no format with sound\n", arguments->format.c_str());
        return false;
    }
    arguments->run.format = *first;
    for (const std::string& name : arguments->formats) {
        const auto format = soak::format_named(name);
        if (!format) {
            std::fprintf(stderr, "hdmi-player-soak: %s is no format\n", name.c_str());
            return false;
        }
        arguments->transitions.formats.push_back(*format);
    }
    for (int i = 0; i < soak::kFormats && arguments->formats.empty(); i++)
        arguments->transitions.formats.push_back(static_cast<soak::Format>(i));
    arguments->transitions.way = arguments->way == "both" ? 0 : arguments->way == "direct" ? 1 : 2;
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    Arguments arguments;
    CLI::App app(kDescription, "hdmi-player-soak");
    app.footer(kFooter);
    app.require_subcommand(1);
    CLI::App* run = app.add_subcommand("run", "Trouble upon trouble");
    describe_session(run, &arguments);
    run->add_option("--seconds", arguments.run.seconds, "Length")
        ->check(CLI::Range(30, 1'000'000))
        ->capture_default_str();
    run->add_option("--seed", arguments.run.seed, "Of what is drawn")->capture_default_str();
    run->add_option("--format", arguments.format, "At the beginning and at the end")->capture_default_str();
    run->add_option("--only", arguments.only, "Kinds of trouble")->delimiter(',');
    run->add_option("--without", arguments.without, "Kinds of trouble that are left out")->delimiter(',');
    run->add_option("--recovery", arguments.run.recovery_s, "Seconds")->capture_default_str();
    run->add_flag("--hurry", arguments.run.hurry,
                  "Pauses of 0.3 s, a line every ten seconds; only what is lost or left behind is judged");
    run->add_option("--slew", arguments.run.slew_ppm, "The wall clock runs faster by that many ppm");
    run->add_option("--memory", arguments.run.more_memory_mb,
                    "Once it plays, refuse more memory than that many MB beyond what it has");
    run->add_option("--keep", arguments.run.folder, "Folder for what is written down")->required();
    CLI::App* transitions = app.add_subcommand("transitions", "From each format to each other one");
    describe_session(transitions, &arguments);
    transitions->add_option("--formats", arguments.formats, "none, pcm32, pcm44, pcm48, ac3, eac3, dts, wrong")
        ->delimiter(',');
    transitions->add_option("--way", arguments.way, "direct, cable, both")
        ->check(CLI::IsMember({"direct", "cable", "both"}));
    transitions->add_option("--table", arguments.transitions.file, "File for the table, as CSV");
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        std::fprintf(stderr, "hdmi-player-soak: %s (--help shows the options)\n", e.what());
        return 2;
    }
    soak::SessionConfig& session = arguments.run.session;
    session.output = kOutputs.at(arguments.output);
    session.realtime = !arguments.no_realtime;
    if (!play::parse_rate(arguments.fps, &session.fps) || !take_kinds(&arguments) || !take_formats(&arguments))
        return 2;
    // What is done to the player on purpose it need not tell.
    setenv("debug_hdmiplayer_log_level", "0", 0);
    std::string error;
    if (!hdmi_sim::prepare_announcements(&error)) {
        std::fprintf(stderr, "hdmi-player-soak: %s\n", error.c_str());
        return 3;
    }
    process::StopSignals signals;
    signals.start_thread();
    if (*transitions) {
        session.seconds = 7200;
        arguments.transitions.session = session;
        return soak::make_transitions(arguments.transitions, signals);
    }
    session.seconds = arguments.run.seconds + 600;
    return soak::endure(arguments.run, signals);
}
