// SPDX-License-Identifier: MIT
/**
 * @file
 * One screen of what this machine offers the player: devices, rights and
 * configuration, and a command for each thing that can be repaired.
 */
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "findings.h"
#include "hdmi_linux.h"

namespace
{

using machine::Finding;
using machine::Findings;
using machine::Verdict;

enum ExitStatus { kCanPlay = 0, kBadConfiguration = 2 };

constexpr char kDescription[] = "Lists what this machine offers the player, each line ok, missing or refused, and "
                                "the commands that repair it.";
constexpr char kFooter[] =
    "It opens devices for a moment and changes nothing. Simulated play needs none of them.\n\n"
    "Exit status: 0, or 2 for wrong arguments or a configuration that cannot be used as it is.\n";

constexpr char kVariables[] = "HDMIPLAYER_";

const char* text(Verdict verdict)
{
    switch (verdict) {
    case Verdict::ok: return "ok";
    case Verdict::missing: return "missing";
    case Verdict::refused: return "refused";
    }
    return "?";
}

void print(const char* title, const Findings& findings)
{
    printf("%s\n", title);
    size_t width = 0;
    for (const Finding& finding : findings)
        width = std::max(width, finding.what.size());
    for (const Finding& finding : findings) {
        printf("  %-8s ", text(finding.verdict));
        if (finding.detail.empty())
            printf("%s\n", finding.what.c_str());
        else
            printf("%-*s  %s\n", static_cast<int>(width), finding.what.c_str(), finding.detail.c_str());
        if (!finding.remedy.empty())
            printf("             %s\n", finding.remedy.c_str());
    }
}

// A fault begins with its place: a line of the file, or a variable.
std::string remedy_for(const std::string& fault, const std::string& path)
{
    const bool variable = fault.compare(0, sizeof(kVariables) - 1, kVariables) == 0;
    return variable ? "unset " + fault.substr(0, fault.find(':')) : "${EDITOR:-vi} " + path;
}

// Prints each fault of the configuration. @return whether there is none.
bool check_configuration()
{
    const char* named = getenv("HDMIPLAYER_LINUX_CONFIG");
    const std::string path = named != nullptr && *named != '\0' ? named : "/etc/hdmiplayer/linux.conf";
    std::string error;
    Findings findings;
    const bool good = hdmi_linux::check_config(&error);
    std::istringstream lines(error);
    for (std::string line; std::getline(lines, line);)
        findings.push_back({Verdict::refused, line, "", remedy_for(line, path)});
    if (good)
        findings.push_back({Verdict::ok, path, access(path.c_str(), F_OK) == 0 ? "" : "none: the defaults", ""});
    print("Configuration", findings);
    return good;
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app(kDescription, "hdmi-player-doctor");
    app.footer(kFooter);
    app.set_help_flag("-h,--help", "this text");
    app.set_version_flag("--version", DOCTOR_VERSION);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kCanPlay : kBadConfiguration;
    }
    // First, because a process with threads cannot enter private namespaces.
    const Finding namespaces = doctor::examine_namespaces();
    print("Sound", doctor::examine_sound());
    print("Receiver", doctor::examine_receiver());
    print("Video", doctor::examine_video());
    print("Display", doctor::examine_displays());
    print("CEC", doctor::examine_cec());
    Findings rights = doctor::examine_priority();
    rights.push_back(namespaces);
    print("Rights", rights);
    const bool configured = check_configuration();
    printf("Simulated play is possible.\n");
    return configured ? kCanPlay : kBadConfiguration;
}
