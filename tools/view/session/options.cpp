// SPDX-License-Identifier: MIT
#include "session/options.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "session/outputs.h"
#include "session/sound_delay.h"

namespace view
{
namespace
{

constexpr char kDescription[] = "Watch and hear an HDMI input: a capture card or dongle, on this machine's display and "
                                "loudspeaker.";
constexpr char kFooter[] = R"(
Without options it takes the first capture device with an HDMI input (--list shows what there is, and why something
is not used), the sound that comes in by the same USB or PCI device, a window of the desktop or, on a console, the
whole screen, and the default sound output. It waits for a device or signal that is not there, and takes it back when
it returns.

Keys, in the window and in the terminal:
  q         quit                         o         the next sound output
  m         mute                         Ctrl + +  sound later by 10 ms  (in a terminal: +)
  9 and 0   softer and louder            Ctrl + -  sound earlier by 10 ms  (in a terminal: -)
  f         whole screen                 i         a line of figures

Exit status: 0 when it was told to end, 2 for wrong usage, 3 when this machine has no such display.
)";

/// "kms:/dev/dri/card1" without what comes before the colon.
std::string behind_colon(const std::string& text)
{
    const size_t colon = text.find(':');
    return colon == std::string::npos ? "" : text.substr(colon + 1);
}

std::string with_prefix(const std::string& text, const std::string& prefix)
{
    return text.rfind(prefix, 0) == 0 ? "" : "must begin with " + prefix;
}

std::string check_display(const std::string& text)
{
    const bool known = text == "auto" || text == "window" || text == "kms" || text.rfind("kms:", 0) == 0;
    return known ? "" : "is none of auto, window, kms, kms:/dev/dri/cardN";
}

DisplayKind kind_of(const std::string& text)
{
    if (text == "window")
        return DisplayKind::window;
    return text == "auto" ? DisplayKind::automatic : DisplayKind::kms;
}

bool parse_size(const std::string& text, ModeWish* mode)
{
    char end = 0;
    return std::sscanf(text.c_str(), "%dx%d%c", &mode->width, &mode->height, &end) == 2 && mode->width > 0 &&
           mode->height > 0;
}

std::vector<std::string> output_options()
{
    std::vector<std::string> options;
    for (const Output& output : kOutputs)
        options.emplace_back(output.option);
    return options;
}

hdmi_player_ao_dev_e output_of(const std::string& option)
{
    for (const Output& output : kOutputs)
        if (output.option == option)
            return output.device;
    return E_HDMI_PLAYER_AO_DEV_SPEAKER;
}

/// What CLI11 reads as text.
struct Texts {
    std::string video, capture, playback, display = "auto", output = "speaker", size, format;
};

void add_options(CLI::App* app, Texts* texts, Options* options)
{
    app->set_help_flag("-h,--help", "Print this help message and exit");
    app->set_version_flag("--version", VIEW_VERSION);
    app->add_flag("--list", options->list, "List the capture devices, with the reason why one is not used");
    app->add_option("--video", texts->video, "Picture from v4l2:/dev/videoN")->check([](const std::string& text) {
        return with_prefix(text, "v4l2:");
    });
    app->add_option("--capture", texts->capture, "Sound from alsa:NAME, or none")->check([](const std::string& text) {
        return text == "none" ? "" : with_prefix(text, "alsa:");
    });
    app->add_option("--playback", texts->playback, "Sound to alsa:NAME")->check([](const std::string& text) {
        return with_prefix(text, "alsa:");
    });
    app->add_option("--display", texts->display,
                    "auto; window (of a desktop); kms or kms:/dev/dri/cardN (the whole "
                    "screen, on a console that no desktop uses)")
        ->check(check_display)
        ->capture_default_str();
    app->add_option("--output", texts->output, "Output device")
        ->check(CLI::IsMember(output_options()))
        ->capture_default_str();
    app->add_option("--size", texts->size, "Size that the device is to send, such as 1920x1080, where it has a choice");
    app->add_option("--fps", options->mode.fps, "Frames per second, likewise")->check(CLI::Range(1.0, 1000.0));
    app->add_option("--format", texts->format, "Pixel format, likewise: NV12, YUYV, MJPG, ...");
    app->add_option("--display-latency", options->display_latency_ms,
                    "From the vertical blank to light, in ms: what your display needs")
        ->check(CLI::Range(0, 500));
    app->add_option("--av-offset", options->sound_delay_ms,
                    "Sound that many ms later (negative: earlier) than it would be")
        ->check(CLI::Range(kLeastWantedDelayMs, kMostSoundDelayMs));
    app->add_flag("--fullscreen", options->fullscreen, "The window on the whole screen");
    app->add_option("--frames", options->frames,
                    "For measuring: at the end, write there when each frame came and when it was seen, as CSV");
    app->add_option("--seconds", options->seconds, "End after that time")->check(CLI::Range(0.1, 1e7));
}

std::string take_texts(const Texts& texts, Options* options)
{
    options->video = behind_colon(texts.video);
    options->capture = texts.capture == "none" ? "none" : behind_colon(texts.capture);
    options->playback = behind_colon(texts.playback);
    options->display = kind_of(texts.display);
    options->display_path = behind_colon(texts.display);
    options->output = output_of(texts.output);
    if (!texts.size.empty() && !parse_size(texts.size, &options->mode))
        return "--size: " + texts.size + " is no size such as 1920x1080";
    if (!texts.format.empty() && (options->mode.v4l2 = capture::fourcc_of(texts.format)) == 0)
        return "--format: " + texts.format + " is none that can be shown";
    return "";
}

} // namespace

ParseResult parse_options(int argc, char** argv, Options* options)
{
    constexpr int kBadUsage = 2;
    CLI::App app(kDescription, "hdmi-player-view");
    Texts texts;
    add_options(&app, &texts, options);
    app.footer(kFooter);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return {false, app.exit(error) == 0 ? 0 : kBadUsage};
    }
    const std::string wrong = take_texts(texts, options);
    if (!wrong.empty())
        std::fprintf(stderr, "hdmi-player-view: %s\n", wrong.c_str());
    return {wrong.empty(), kBadUsage};
}

DisplayKind choose_display(DisplayKind wanted)
{
    auto is_set = [](const char* name) {
        const char* value = std::getenv(name);
        return value != nullptr && *value != '\0';
    };
    if (wanted != DisplayKind::automatic)
        return wanted;
    return is_set("WAYLAND_DISPLAY") || is_set("DISPLAY") ? DisplayKind::window : DisplayKind::kms;
}

} // namespace view
