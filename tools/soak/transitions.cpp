// SPDX-License-Identifier: MIT
#include "transitions.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <map>
#include <optional>

#include "aio_device.h"
#include "common/clock.h"
#include "recovery.h"

namespace soak
{
namespace
{

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kLookNs = 5 * kMs;
/// The cable is out for that long.
constexpr int64_t kOutNs = 500 * kMs;
/// What is not back by then will not come back.
constexpr int64_t kPatienceNs = 5000 * kMs;
/// When it is back, what follows is watched for so long.
constexpr int64_t kAfterNs = 1200 * kMs;
constexpr double kSoundLimitS = 0.5;
constexpr double kSyncLimitS = 1;
constexpr double kFreezeLimitS = 1;

enum class Expected { sound, bypass, pictures };

/// What one transition took, in seconds from the moment at which the source sends the new format; nothing: for ever.
struct Measured {
    Expected expected = Expected::pictures;
    std::optional<double> sound_s;
    std::optional<double> sync_s; ///< where there is sound: in sync; elsewhere: pictures in order
    double silence_s = 0;         ///< the longest
    double freeze_s = 0;          ///< the longest time without a new picture

    bool passed() const
    {
        return sync_s && *sync_s <= kSyncLimitS && freeze_s <= kFreezeLimitS &&
               (expected == Expected::pictures || (sound_s && *sound_s <= kSoundLimitS));
    }
};

class Transitions
{
public:
    explicit Transitions(const TransitionsConfig& config) : config_(config), session_(config.session) {}

    int run(const process::StopSignals& signals);

private:
    Measured make(const Step& step);
    void look(Measured* measured);
    Expected expect(Format format) const;
    double since_s(int64_t at_ns) const { return static_cast<double>(at_ns - from_ns_) / 1e9; }

    const TransitionsConfig config_;
    Session session_;
    int64_t from_ns_ = 0; ///< since when the source sends the new format
    int64_t opens_ = 0;   ///< of the capture device, before
    Recovery recovery_{0};
    int64_t last_sight_ns_ = 0;
};

Expected Transitions::expect(Format format) const
{
    const bool digital =
        config_.session.output == E_HDMI_PLAYER_AO_DEV_SPDIF || config_.session.output == E_HDMI_PLAYER_AO_DEV_HDMI_ARC;
    if (config_.session.raw && digital && is_announced_compressed(format))
        return Expected::bypass;
    return can_be_decoded(format) ? Expected::sound : Expected::pictures;
}

void Transitions::look(Measured* measured)
{
    session_.look();
    for (const Meeting& meeting : session_.take_meetings())
        if (measured->expected == Expected::sound)
            recovery_.met(meeting);
    for (const Sight& sight : session_.take_sights()) {
        if (measured->expected != Expected::sound)
            recovery_.seen(sight);
        if (sight.seen_ns > from_ns_ && last_sight_ns_ != 0)
            measured->freeze_s =
                std::max(measured->freeze_s, since_s(sight.seen_ns) - std::max(since_s(last_sight_ns_), 0.0));
        last_sight_ns_ = sight.seen_ns;
    }
    for (const Pause& pause : session_.take_pauses()) {
        if (pause.to_ns <= from_ns_ || measured->expected != Expected::sound)
            continue;
        if (!measured->sound_s)
            measured->sound_s = since_s(pause.to_ns);
        measured->silence_s =
            std::max(measured->silence_s, since_s(pause.to_ns) - std::max(since_s(pause.from_ns), 0.0));
    }
    const hdmi_sim::ReceiverStats receiver = hdmi_sim::receiver_stats();
    const bool to_raw = receiver.bypass_mode == E_AUDIO_IN_BYPASS_MODE_TO_RAW;
    if (measured->expected == Expected::bypass && !measured->sound_s && to_raw)
        // A device that is open in this mode passes on whatever comes.
        measured->sound_s = receiver.opens > opens_ ? since_s(common::now_ns()) : 0;
}

Measured Transitions::make(const Step& step)
{
    Measured measured;
    measured.expected = expect(step.to);
    opens_ = hdmi_sim::receiver_stats().opens;
    if (step.cable) {
        session_.plug(false);
        common::sleep_until_ns(common::now_ns() + kOutNs);
        session_.look();
        opens_ = hdmi_sim::receiver_stats().opens;
    }
    from_ns_ = common::now_ns();
    recovery_ = Recovery(from_ns_);
    session_.sender().send(step.to);
    if (step.cable)
        session_.plug(true);
    int64_t end_ns = from_ns_ + kPatienceNs;
    while (common::now_ns() < end_ns) {
        common::sleep_until_ns(common::now_ns() + kLookNs);
        look(&measured);
        if (recovery_.back_ns())
            end_ns = std::min(end_ns, std::max(*recovery_.back_ns(), from_ns_) + kAfterNs);
    }
    measured.sync_s = recovery_.seconds();
    // Without a pause the sound went on.
    if (measured.expected == Expected::sound && !measured.sound_s && session_.last_sound_ns() > from_ns_ + kAfterNs / 2)
        measured.sound_s = 0;
    return measured;
}

std::string text_of(const std::optional<double>& seconds)
{
    char text[32] = "never";
    if (seconds)
        std::snprintf(text, sizeof text, "%.3f", *seconds);
    return text;
}

const char* output_name(hdmi_player_ao_dev_e output)
{
    switch (output) {
    case E_HDMI_PLAYER_AO_DEV_SPDIF: return "spdif";
    case E_HDMI_PLAYER_AO_DEV_HDMI_ARC: return "arc";
    default: return "speaker";
    }
}

int Transitions::run(const process::StopSignals& signals)
{
    std::string error;
    FILE* file = config_.file.empty() ? stdout : fopen(config_.file.c_str(), "we");
    if (file == nullptr || !session_.start(config_.formats.front(), &error)) {
        std::fprintf(stderr, "hdmi-player-soak: %s\n", file == nullptr ? config_.file.c_str() : error.c_str());
        return 3;
    }
    std::fprintf(file, "output,raw,cable,from,to,expected,sound_s,sync_s,silence_s,freeze_s,passed\n");
    // Opening is no transition.
    make({Format::none, config_.formats.front(), false});
    int failed = 0;
    int made = 0;
    for (const Step& step : way_through(config_.formats, config_.way)) {
        if (signals.number() != 0)
            break;
        const Measured measured = make(step);
        constexpr const char* kExpected[] = {"sound", "bypass", "pictures"};
        std::fprintf(file, "%s,%d,%d,%s,%s,%s,%s,%s,%.3f,%.3f,%d\n", output_name(config_.session.output),
                     config_.session.raw ? 1 : 0, step.cable ? 1 : 0, name_of(step.from), name_of(step.to),
                     kExpected[static_cast<size_t>(measured.expected)], text_of(measured.sound_s).c_str(),
                     text_of(measured.sync_s).c_str(), measured.silence_s, measured.freeze_s,
                     measured.passed() ? 1 : 0);
        std::fflush(file);
        made++;
        failed += measured.passed() ? 0 : 1;
    }
    const SessionAccount account = session_.account();
    std::printf("%d transitions, %d outside of the limits; %" PRId64 " frames lost\n", made, failed, account.lost);
    if (file != stdout)
        fclose(file);
    return failed == 0 && account.lost == 0 ? 0 : 1;
}

} // namespace

std::vector<Step> way_through(const std::vector<Format>& formats, int way)
{
    // Hierholzer: as many steps lead to each format as away from it.
    std::map<Format, std::vector<Step>> left;
    for (const Format from : formats)
        for (const Format to : formats) {
            if (way != 1)
                left[from].push_back({from, to, true});
            if (way != 2 && from != to)
                left[from].push_back({from, to, false});
        }
    std::vector<Step> path;
    std::vector<Step> all;
    Format at = formats.front();
    while (true) {
        std::vector<Step>& next = left[at];
        if (!next.empty()) {
            path.push_back(next.back());
            next.pop_back();
            at = path.back().to;
        } else if (!path.empty()) {
            all.push_back(path.back());
            at = path.back().from;
            path.pop_back();
        } else {
            break;
        }
    }
    std::reverse(all.begin(), all.end());
    return all;
}

int make_transitions(const TransitionsConfig& config, const process::StopSignals& signals)
{
    Transitions transitions(config);
    return transitions.run(signals);
}

} // namespace soak
