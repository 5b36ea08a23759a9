// SPDX-License-Identifier: MIT
#include "config/options.h"

#include "config/program.h"

#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <sstream>

namespace play
{
namespace
{

const std::map<std::string, hdmi_player_ao_dev_e> kOutputs = {
    {"speaker", E_HDMI_PLAYER_AO_DEV_SPEAKER}, {"headphone", E_HDMI_PLAYER_AO_DEV_HEADPHONE},
    {"spdif", E_HDMI_PLAYER_AO_DEV_SPDIF},     {"arc", E_HDMI_PLAYER_AO_DEV_HDMI_ARC},
    {"i2s", E_HDMI_PLAYER_AO_DEV_I2S_TXA},
};

const std::map<std::string, Coding> kCodings = {{"pcm", Coding::pcm}, {"ac3", Coding::ac3}, {"eac3", Coding::eac3}};

const std::map<std::string, DisplayKind> kDisplays = {
    {"sim", DisplayKind::sim}, {"none", DisplayKind::none}, {"kms", DisplayKind::kms}, {"window", DisplayKind::window}};

const char* const kFooter =
    "Plays a programme with a flash and a beep at each second (or FILE) through the player, from a simulated HDMI\n"
    "receiver to a simulated display and sound device, and reports what was seen and heard there.\n\n"
    "Each of these edges can be a real device instead. With --capture alsa:NAME the player captures from that device;\n"
    "--feed alsa:NAME names the device at its other end (of a loopback, or of a cable), into which the source is "
    "sent.\n"
    "Without --feed the source is not known, and sound is not measured against picture, unless --video captures the\n"
    "pictures too: then flashes and beeps, or any sound, are found as they come in and as they come out, whoever sent\n"
    "them, such as this machine's own HDMI output by a cable. With --playback alsa:NAME the player plays to that\n"
    "device; --observe alsa:NAME names one that hears it. Without --observe, the device's own word of its delay says\n"
    "when sound is heard. Names are ALSA's: hw:1,0,0, pulse, ...\n\n"
    "Compressed sound: a sample was sent when its burst began to pass, plus its place in the burst's sound. The "
    "player\n"
    "must reset once, when the first picture meets captured sound, and twice at most if --chunk-phase makes the "
    "capture\n"
    "begin inside of a burst: it takes the zeros at the burst's end for silence, and the first burst after a silence\n"
    "resets it again. Nothing but bursts is sent. The output must be a decode of them, bit for bit at 48 kHz, from "
    "256\n"
    "samples after its first whole burst on. With --raw, what arrives at the output must be the bursts themselves; on\n"
    "real devices --observe compares them, from the first whole burst on.\n\n"
    "Exit status: 0 inside the limits; 1 outside, or what was recorded cannot be kept; 2 wrong usage, unreadable\n"
    "FILE, a fault in the configuration of the real devices in use, or a report or recording that cannot be written "
    "where\n"
    "it was asked for; 3 the machine does not permit it, has no such device, or none that starts; 4 inconclusive: "
    "limits\n"
    "were missed, and this is explained by timers beside the player that came so late themselves, or by FILE: it is\n"
    "damaged, this machine does not decode it in time, or its E-AC-3 is beyond what the player decodes. With 2 and 3\n"
    "nothing was played. SIGINT, SIGTERM and SIGHUP end the run early, with a report of what was measured; before\n"
    "there was anything to judge, the exit status is 128 and the signal's number. A second one ends it at once.\n";

constexpr double kDefaultProgrammeSeconds = 20;
/// Six hours: a WAV file holds 4 GB.
constexpr double kLongestSeconds = 21600;

/// A range that refuses "nan": CLI::Range accepts it.
CLI::Validator in_range(double least, double most)
{
    CLI::Range range(least, most);
    return CLI::Validator(
        [range](std::string& text) {
            return std::isnan(std::strtod(text.c_str(), nullptr)) ? "not a number" : range(text);
        },
        range.get_description());
}

struct Texts {
    std::string fps = "60";
    std::string display_rate;
    std::string display = "sim";
    std::string output = "speaker";
    std::string coding;
    std::string chunk_phase;
    std::string losses;
    std::string capture = "sim";
    std::string playback = "sim";
    std::string cec = "sim";
    std::string video;
    std::string flash_at;
    std::string feed;
    std::string observe;
    std::string rate_matching = "auto";
};

void describe_signal(CLI::App* app, Options* options, Texts* texts)
{
    auto* file = app->add_option("FILE", options->file, "Media file: its first video and audio stream")
                     ->check([](const std::string& name) { return std::string(name.empty() ? "no name" : ""); });
    app->add_option("--rate", options->source_rate, "Audio sample rate of the source: 32000, 44100 or 48000 Hz")
        ->check(CLI::IsMember({32000, 44100, 48000}));
    app->add_option("--bitstream", texts->coding,
                    "Send the sound compressed: ac3, eac3; pcm: send FILE's decoded (default: AC-3 and E-AC-3 of\n"
                    "FILE as they are, unless --rate names another rate)")
        ->check(CLI::IsMember({"ac3", "eac3", "pcm"}));
    app->add_option("--chunk-phase", texts->chunk_phase,
                    "The first capture begins that many bytes (a multiple of 4) before a burst, or random");
    app->add_option(
           "--lose-bursts", texts->losses,
           "N[@SECOND][:KIND],...: lose N bursts in a row of the compressed programme, so that SECOND comes half\n"
           "a second after them (default: four seconds after the ones before). KIND: flag (error flag), preamble\n"
           "(damaged), length (too long), noise, pause (pause bursts). The sound must be back in its place then")
        ->excludes(file);
    app->add_flag("--raw", options->raw, "Pass the bursts on as they are; with --output spdif or arc");
    app->add_option("--fps", texts->fps, "Frames per second of the programme; 59.94 means 60000/1001")
        ->capture_default_str()
        ->excludes(file);
    app->add_flag(
           "--tones", options->tones,
           "The programme's right channel has 997 Hz and a sweep by turns: what the player adds to them is judged")
        ->excludes(file);
}

void describe_devices(CLI::App* app, Texts* texts)
{
    app->add_option("--display-rate", texts->display_rate,
                    "Vertical blanks per second: default 60; for kms that of the display's preferred mode,\n"
                    "for window the desktop's");
    app->add_option("--display", texts->display,
                    "Display: sim; none (no vertical blanks to pace on); kms or kms:/dev/dri/cardN (DRM/KMS: takes\n"
                    "the whole screen, on a console that no desktop uses); window (of a desktop)")
        ->capture_default_str();
    app->add_option("--video", texts->video,
                    "Pictures from v4l2:/dev/videoN, with the sound of --capture: what comes in is played and measured")
        ->excludes("FILE");
    app->add_option("--flash-at", texts->flash_at,
                    "X,Y in percent: flashes of --video are looked for there, not all over the picture");
    app->add_option("--capture", texts->capture,
                    "The player captures from: sim, alsa:NAME, or port:/LIBRARY (of a\nplatform, see docs/porting.md)")
        ->capture_default_str();
    app->add_option("--feed", texts->feed, "Send the source into alsa:NAME, the other end of --capture");
    app->add_option("--playback", texts->playback, "The player plays to: sim, alsa:NAME, or port:/LIBRARY")
        ->capture_default_str();
    app->add_option("--observe", texts->observe, "Hear the sound at alsa:NAME, the other end of --playback");
    app->add_option("--cec", texts->cec, "CEC adapter: sim, or a device file like /dev/cec0")->capture_default_str();
    app->add_option("--output", texts->output, "Output device: speaker, headphone, spdif, arc, i2s")
        ->check(CLI::IsMember({"speaker", "headphone", "spdif", "arc", "i2s"}))
        ->capture_default_str();
}

void describe_delays_and_clocks(CLI::App* app, Options* options, Texts* texts)
{
    app->add_option("--algorithm-delay", options->algorithm_delay_ms, "Delay of the host's audio processing in ms")
        ->check(CLI::Range(0, 1000))
        ->capture_default_str();
    app->add_option("--video-start", options->video_start_ms, "First picture that many ms after open")
        ->check(CLI::Range(0, 10000))
        ->capture_default_str();
    app->add_option("--seconds", options->seconds, "Length; default 20, or the whole FILE")
        ->check(in_range(2, kLongestSeconds));
    app->add_option("--phase", options->phase_ms, "The source starts that many ms later against the display")
        ->check(in_range(0, 100))
        ->capture_default_str();
    app->add_option("--receiver-ppm", options->receiver_ppm, "Clock error of the source")
        ->check(in_range(-1000, 1000))
        ->capture_default_str();
    app->add_option("--playback-ppm", options->playback_ppm, "Clock error of the sound device")
        ->check(in_range(-1000, 1000))
        ->capture_default_str();
    app->add_option(
           "--rate-matching", texts->rate_matching,
           "Resample, so that the sound keeps its age between the two clocks: auto (simulated: if one has an\n"
           "error; of --playback: as its configuration says), on, off (control: a minute with 2000 ppm between\n"
           "them must fail)")
        ->check(CLI::IsMember({"auto", "on", "off"}))
        ->capture_default_str();
    app->add_flag("--page-flips", options->page_flips, "kms: flip as with a driver that has no atomic flips");
    app->add_option("--display-latency", options->display_latency,
                    "From the vertical blank to light, in ms: what your panel needs, which is not measured. Flips or\n"
                    "sound are held accordingly. Default 0 for kms and window, 76 for sim and none, the delay of the\n"
                    "panels that the player plans for")
        ->check(CLI::Range(0, 1000));
    app->add_option(
           "--av-offset", options->av_offset_ms,
           "Sound that many ms later than its picture; negative: earlier. What is measured must be that offset")
        ->check(CLI::Range(-200, 200))
        ->capture_default_str();
}

void describe_report(CLI::App* app, Options* options)
{
    app->add_option("--report", options->report_path, "Also write the report there, as JSON");
    auto* html = app->add_option("--html", options->html_path, "Also write the report there as a page to look at");
    app->add_option("--html-at", options->html_at, "Second of the source at which the page's timeline begins")
        ->check(in_range(0, kLongestSeconds))
        ->needs(html);
    app->add_option("--wav", options->wav_path, "Keep the recording of the sound there");
    app->add_flag("--strict", options->strict,
                  "Also demand 99 % of the offsets within ATSC IS-191 (+15/-45 ms), and of three minutes and more\n"
                  "that neither sound nor pictures move by 2 ms from the second minute to the last one: docs/sync.md");
}

void describe_controls(CLI::App* app, Options* options)
{
    app->add_flag("--no-sync", options->no_sync, "Control: play without A/V sync; must fail");
    app->add_flag("--no-hold", options->no_hold,
                  "Control: hold neither flips nor sound; must fail unless the display's latency is near 76, and then\n"
                  "with --strict where clocks run apart");
    app->add_option("--stall-host", options->stall_host_ms,
                    "The host's sound stands still once, for that many ms: it must be in sync again afterwards")
        ->check(CLI::Range(0, 5000))
        ->capture_default_str();
    app->add_flag("--no-loss-filling", options->no_loss_filling,
                  "Control: decoded frames are counted only, whatever is lost; must fail with --lose-bursts");
    app->add_flag("--withhold-block", options->withhold_block, "Control: lose one block of sound; must fail");
}

/// In the order of the help text.
void describe(CLI::App* app, Options* options, Texts* texts)
{
    describe_signal(app, options, texts);
    describe_devices(app, texts);
    describe_delays_and_clocks(app, options, texts);
    describe_report(app, options);
    describe_controls(app, options);
    app->footer(kFooter);
}

std::string take_coding(const Texts& texts, Options* options)
{
    if (!texts.coding.empty())
        options->coding = kCodings.at(texts.coding);
    if (!options->file.empty() && options->coding.value_or(Coding::pcm) != Coding::pcm)
        return "--bitstream: FILE is sent as it is or as pcm";
    bool programme = options->file.empty();
    bool pcm = options->coding.value_or(programme ? Coding::pcm : Coding::ac3) == Coding::pcm;
    bool digital = options->output == E_HDMI_PLAYER_AO_DEV_SPDIF || options->output == E_HDMI_PLAYER_AO_DEV_HDMI_ARC;
    if (options->raw && !digital)
        return "--raw needs --output spdif or arc";
    if (options->raw && options->av_offset_ms != 0)
        return "--av-offset: with --raw the sound passes the host by, which cannot hold it";
    if (options->raw && pcm && !options->foreign_source())
        return "--raw needs compressed sound (--bitstream)";
    if (!texts.losses.empty() && (pcm || options->raw))
        return "--lose-bursts needs compressed sound that is decoded (--bitstream, without --raw)";
    if (!texts.losses.empty() && !parse_losses(texts.losses, &options->losses))
        return "--lose-bursts: " + texts.losses + " is not N[@SECOND][:KIND],...";
    if (texts.chunk_phase.empty())
        return "";
    if (pcm)
        return "--chunk-phase needs compressed sound (--bitstream)";
    if (texts.chunk_phase == "random") {
        options->chunk_phase = kPhaseRandom;
        return "";
    }
    // A multiple of a link frame; what is longer than a burst wraps around.
    constexpr int kLinkFrameBytes = 4;
    std::istringstream in(texts.chunk_phase);
    if (!(in >> options->chunk_phase) || !in.eof() || options->chunk_phase < 0 ||
        options->chunk_phase % kLinkFrameBytes != 0)
        return "--chunk-phase: " + texts.chunk_phase + " is neither a multiple of 4 nor random";
    return "";
}

std::string take_video(const Texts& texts, Options* options)
{
    constexpr char kPrefix[] = "v4l2:/";
    if (!texts.video.empty() && texts.video.rfind(kPrefix, 0) != 0)
        return "--video: " + texts.video + " is not v4l2:/dev/videoN";
    options->video = texts.video.empty() ? "" : texts.video.substr(sizeof kPrefix - 2);
    if (texts.flash_at.empty())
        return "";
    double x = 0, y = 0;
    char comma = 0;
    std::istringstream in(texts.flash_at);
    if (!(in >> x >> comma >> y) || comma != ',' || !in.eof() || x < 0 || x > 100 || y < 0 || y > 100)
        return "--flash-at: " + texts.flash_at + " is not X,Y in percent";
    options->flash_at = {x / 100, y / 100};
    return options->video.empty() ? "--flash-at is of --video" : "";
}

/// "alsa:NAME".
bool parse_device(const std::string& text, std::string* name)
{
    constexpr char kPrefix[] = "alsa:";
    constexpr size_t kLength = sizeof kPrefix - 1;
    *name = text.compare(0, kLength, kPrefix) == 0 ? text.substr(kLength) : "";
    return !name->empty();
}

/// "alsa:NAME" by its name, "port:/LIBRARY" as it is, "sim" as nothing.
bool parse_edge(const std::string& text, std::string* name)
{
    if (!is_port(text))
        return text == "sim" || parse_device(text, name);
    *name = text;
    return true;
}

std::string take_devices(const Texts& texts, Options* options)
{
    if (!parse_edge(texts.capture, &options->capture))
        return "--capture: " + texts.capture + " is none of sim, alsa:NAME, port:/LIBRARY";
    if (!parse_edge(texts.playback, &options->playback))
        return "--playback: " + texts.playback + " is none of sim, alsa:NAME, port:/LIBRARY";
    if (!texts.feed.empty() && !parse_device(texts.feed, &options->feed))
        return "--feed: " + texts.feed + " is not alsa:NAME";
    if (!texts.observe.empty() && !parse_device(texts.observe, &options->observe))
        return "--observe: " + texts.observe + " is not alsa:NAME";
    if (texts.cec != "sim" && (texts.cec.empty() || texts.cec.front() != '/'))
        return "--cec: " + texts.cec + " is neither sim nor a device file";
    options->cec = texts.cec != "sim" ? texts.cec : "";
    return "";
}

/// What the simulated edges can do, and real ones cannot.
std::string check_devices(const Options& options)
{
    bool real_capture = !options.capture.empty();
    if (!options.feed.empty() && !real_capture)
        return "--feed needs --capture alsa:NAME, the device's other end";
    if (!options.observe.empty() && options.playback.empty())
        return "--observe needs --playback alsa:NAME, the device's other end";
    if (options.captured_pictures() && (!options.foreign_source() || options.raw || options.tones))
        return "--video needs --capture alsa:NAME, without --feed, --raw and --tones: both are of the same cable";
    if (options.foreign_source() && (!options.file.empty() || options.coding))
        return "without --feed, what --capture brings is not ours to choose: neither FILE nor --bitstream";
    if (real_capture && (options.receiver_ppm != 0 || options.phase_ms != 0 || options.chunk_phase != kPhaseAnywhere))
        return "--receiver-ppm, --phase and --chunk-phase are of the simulated receiver";
    if (!options.playback.empty() && options.playback_ppm != 0)
        return "--playback-ppm is of the simulated sound device";
    const bool port = is_port(options.capture) || is_port(options.playback);
    if (port && real_capture && !options.playback.empty() && options.capture != options.playback)
        return "--capture and --playback are of one platform: alsa:, or one library of port:";
    if (port && (options.raw || !options.cec.empty()))
        return "--raw and --cec: not with a platform of port:";
    if (options.raw && real_capture != !options.playback.empty())
        return "--raw: the device of --capture passes it to that of --playback, both real or both simulated";
    if (options.tones && options.raw)
        return "--tones: with --raw the sound passes the player by";
    if (options.page_flips && options.display != DisplayKind::kms)
        return "--page-flips needs --display kms";
    return "";
}

std::string take_rates(const Texts& texts, Options* options)
{
    if (!parse_rate(texts.fps, &options->fps) || options->fps.value() < 5 || options->fps.value() > 240)
        return "--fps: " + texts.fps + " is no frame rate from 5 to 240";
    if (texts.display_rate.empty())
        return "";
    Rational rate{};
    if (!parse_rate(texts.display_rate, &rate) || rate.value() < 20 || rate.value() > 240)
        return "--display-rate: " + texts.display_rate + " is no refresh rate from 20 to 240";
    options->display_rate = rate;
    return "";
}

std::string take_display(const Texts& texts, Options* options)
{
    size_t colon = texts.display.find(':');
    auto kind = kDisplays.find(texts.display.substr(0, colon));
    if (kind == kDisplays.end() || (colon != std::string::npos && kind->second != DisplayKind::kms))
        return "--display: " + texts.display + " is none of sim, none, kms, kms:/dev/dri/cardN, window";
    options->display = kind->second;
    if (colon == std::string::npos)
        return "";
    options->display_path = texts.display.substr(colon + 1);
    return options->display_path.empty() ? "--display: kms: without a path" : "";
}

} // namespace

bool parse_rate(const std::string& text, Rational* rate)
{
    constexpr int64_t kLargestRate = 1'000'000;
    std::istringstream in(text);
    double value = 0;
    if (text.find('/') != std::string::npos) {
        char slash = 0;
        Rational given{0, 0};
        if (!(in >> given.num >> slash >> given.den) || slash != '/' || !in.eof() || given.num <= 0 || given.den <= 0 ||
            given.num > kLargestRate || given.den > kLargestRate)
            return false;
        *rate = given;
        return true;
    }
    if (!(in >> value) || !in.eof() || !(value > 0) || value > kLargestRate)
        return false;
    // Half of the last digit that people write: 23.976 and 23.98, 29.97, 59.94, 119.88.
    constexpr double kWritingError = 0.005;
    double whole = std::round(value);
    double ntsc = std::ceil(value) * 1000 / 1001;
    if (value == whole)
        *rate = {static_cast<int64_t>(whole), 1};
    else if (std::abs(value - ntsc) <= kWritingError)
        *rate = {static_cast<int64_t>(std::ceil(value)) * 1000, 1001};
    else
        *rate = {std::llround(value * 1000), 1000};
    return true;
}

ParseResult parse_options(int argc, char** argv, Options* options)
{
    CLI::App app("hdmi-player-play: the player from end to end, measured at the edges", "hdmi-player-play");
    Texts texts;
    describe(&app, options, &texts);
    Program program = this_program();
    app.set_version_flag("--version",
                         std::string("hdmi-player-play ") + program.version + ", revision " + program.revision +
                             ", platform " + program.platform,
                         "Print version, source revision and platform, and exit");
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& e) {
        return {false, app.exit(e)};
    } catch (const CLI::ParseError& e) {
        std::fprintf(stderr, "hdmi-player-play: %s (--help shows the options)\n", e.what());
        return {false, 2};
    }
    options->output = kOutputs.at(texts.output);
    if (texts.rate_matching != "auto")
        options->rate_matching = texts.rate_matching == "on";
    std::string wrong = take_rates(texts, options);
    if (wrong.empty())
        wrong = take_display(texts, options);
    if (wrong.empty())
        wrong = take_devices(texts, options);
    if (wrong.empty())
        wrong = take_video(texts, options);
    if (wrong.empty())
        wrong = take_coding(texts, options);
    if (wrong.empty())
        wrong = check_devices(*options);
    if (!wrong.empty()) {
        std::fprintf(stderr, "hdmi-player-play: %s\n", wrong.c_str());
        return {false, 2};
    }
    if (options->seconds == 0 && options->file.empty())
        options->seconds = kDefaultProgrammeSeconds;
    return {true, 0};
}

} // namespace play
