// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "hdmi_player.h"
#include "source/burst_losses.h"
#include "source/source.h"

namespace play
{

/// Values of Options::chunk_phase beside the bytes.
constexpr int kPhaseAnywhere = -1; ///< captures begin with what passes next
constexpr int kPhaseRandom = -2;   ///< drawn for the run

enum class DisplayKind { sim, none, kms, window };

/// From the vertical blank to light, of the simulated panel: what the player allows for.
constexpr int kDefaultDisplayLatencyMs = 76;

/// A device of a platform library, "port:/path/to/it", instead of ALSA's.
inline bool is_port(const std::string& device) { return device.rfind("port:/", 0) == 0; }

/// What the command line asks for.
struct Options {
    std::string file;    ///< media file; empty: the built-in programme
    int source_rate = 0; ///< Hz; 0: 44100 for the programme in PCM, 48000 for it coded, the file's own for a file
    /// How the sound is sent; nothing: as it is in the file, PCM for the programme.
    std::optional<Coding> coding;
    int chunk_phase = kPhaseAnywhere;     ///< bytes from the beginning of the first capture to the next burst
    bool raw = false;                     ///< bursts go to the output as they are
    Rational fps{60, 1};                  ///< of the programme; a file brings its own
    std::optional<Rational> display_rate; ///< nothing: the display's own, see display_hz()
    DisplayKind display = DisplayKind::sim;
    std::string display_path; ///< of the DRM card; empty: the first with a display
    bool page_flips = false;  ///< on it, though it may be capable of atomic ones
    /// ALSA's name of the device that the player captures from, or a port's; empty: the simulated receiver.
    std::string capture;
    std::string playback; ///< likewise, that it plays to
    std::string cec;      ///< CEC device file; empty: the simulated one
    std::string video;    ///< V4L2 node that the pictures come from; empty: the source's own
    std::optional<std::pair<double, double>> flash_at; ///< where light is looked at, 0 to 1; nothing: all over
    std::string feed;    ///< ALSA's name of the device that the source is sent into; empty: none
    std::string observe; ///< ALSA's name of the device that hears what is played; empty: none
    hdmi_player_ao_dev_e output = E_HDMI_PLAYER_AO_DEV_SPEAKER;
    int algorithm_delay_ms = 0; ///< what the host's own processing adds
    int video_start_ms = 0;     ///< first frame that long after open
    double seconds = 0;         ///< 0: 20 s for the programme, the whole file
    double phase_ms = 0;        ///< the source starts that much later against the display
    double receiver_ppm = 0;
    double playback_ppm = 0;
    std::optional<bool> rate_matching;  ///< nothing: the sound device decides
    std::optional<int> display_latency; ///< ms; nothing: see display_latency_ms()
    int av_offset_ms = 0;               ///< positive: sound later than its picture
    std::string report_path;
    std::string html_path;
    std::optional<double> html_at; ///< where the page's timeline begins, in seconds of the source
    std::string wav_path;
    bool no_sync = false;
    bool withhold_block = false;
    int stall_host_ms = 0;         ///< the host's sound thread stands still once, for that long
    bool no_hold = false;          ///< neither flips nor sound are held
    std::vector<BurstLoss> losses; ///< of the coded programme
    bool no_loss_filling = false;  ///< the decoder counts what it decoded only
    bool tones = false;            ///< the programme's right channel has tone and sweep
    bool strict = false;           ///< judge by the limits of a system that plays for days, too

    /// From the vertical blank to light: of a simulated panel what the player allows for, of a real one what is stated.
    int display_latency_ms() const
    {
        bool simulated = display == DisplayKind::sim || display == DisplayKind::none;
        return display_latency.value_or(simulated ? kDefaultDisplayLatencyMs : 0);
    }
    /// Of displays without a rate of their own.
    double display_hz() const { return display_rate.value_or(Rational{60, 1}).value(); }
    /// The captured sound comes from somewhere else.
    bool foreign_source() const { return !capture.empty() && feed.empty(); }
    /// Pictures are captured too: what came in when is known, whoever sent it.
    bool captured_pictures() const { return !video.empty(); }
    bool sync_known() const { return !foreign_source() || captured_pictures(); }
};

/// Nothing to do but leave with @p code (help was shown, or the usage was wrong), or go on.
struct ParseResult {
    bool go_on;
    int code;
};

/// Reads the command line; prints help or one line about what is wrong with it.
ParseResult parse_options(int argc, char** argv, Options* options);

/// "59.94" is 60000/1001, as in every such rate of television; "30000/1001" and whole numbers are taken as they are.
bool parse_rate(const std::string& text, Rational* rate);

} // namespace play
