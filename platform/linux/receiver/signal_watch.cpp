// SPDX-License-Identifier: MIT
#include "signal_watch.h"

#include <cmath>
#include <cstdio>
#include <cstring>

namespace hdmi_linux
{
namespace
{

constexpr uint16_t kPreambleA = 0xF872;
constexpr uint16_t kPreambleB = 0x4E1F;
constexpr int kFrameBytes = 4;
constexpr int kDataTypeMask = 0x1F; ///< of the word Pc
constexpr int kDataTypeEac3 = 21;
constexpr int kEac3FramesPerSample = 4;
/// An E-AC-3 burst is the longest of those that a source repeats.
constexpr int64_t kLongestBurst = 6144;
constexpr int kEqualDistances = 2;

/// Long against the jitter of the times at which periods arrive, which the fit evens out.
constexpr int64_t kMeasurementNs = 2'000'000'000;
/// Nothing came for so long: the device stood still, or nobody read it.
constexpr int64_t kPauseNs = 250'000'000;
constexpr double kAgreement = 0.002;
/// A source's clock is far more exact than this, and the rates are far more than this apart.
constexpr double kRateTolerance = 0.005;
constexpr int kSupportedRates[] = {32000, 44100, 48000};

bool near(double rate, double nominal, double tolerance) { return std::abs(rate - nominal) <= tolerance * nominal; }

/// The supported rate at or near @p sample_rate, 0 for none.
int supported(double sample_rate)
{
    for (int rate : kSupportedRates)
        if (near(sample_rate, rate, kRateTolerance))
            return rate;
    return 0;
}

} // namespace

// --- What the frames say ----------------------------------------------------------

void SignalWatch::feed(const uint8_t* data, int bytes, int64_t now_ns)
{
    for (int at = 0; at + kFrameBytes <= bytes; at += kFrameBytes) {
        uint16_t words[2];
        std::memcpy(words, data + at, sizeof words);
        look_at(words[0], words[1]);
    }
    // What was read came before now: the first reading is where the measurement begins.
    if (began_ns_ == 0 || now_ns - last_ns_ > kPauseNs) {
        begin_measurement(now_ns);
    } else {
        frames_ += bytes / kFrameBytes;
        pace(now_ns);
    }
    last_ns_ = now_ns;
}

void SignalWatch::look_at(uint16_t left, uint16_t right)
{
    since_preamble_++;
    if (type_is_next_) {
        frames_per_sample_ = (left & kDataTypeMask) == kDataTypeEac3 ? kEac3FramesPerSample : 1;
        type_is_next_ = false;
    }
    if (left == kPreambleA && right == kPreambleB) {
        take_preamble();
        return;
    }
    sounding_ += left != 0 || right != 0 ? 1 : 0;
    if (sounding_ > 2 * kLongestBurst) {
        content_ = Content::pcm;
        equal_ = 0;
    }
}

void SignalWatch::take_preamble()
{
    type_is_next_ = true;
    equal_ = since_preamble_ == distance_ && distance_ <= kLongestBurst ? equal_ + 1 : 1;
    distance_ = since_preamble_;
    since_preamble_ = 0;
    sounding_ = 0;
    if (equal_ >= kEqualDistances)
        content_ = Content::compressed;
}

void SignalWatch::restart_pace()
{
    began_ns_ = 0;
    measured_ = 0;
    link_rate_ = 0;
}

void SignalWatch::pace(int64_t now_ns)
{
    double t = static_cast<double>(now_ns - began_ns_) / 1e9;
    auto n = static_cast<double>(frames_);
    count_++;
    sum_t_ += t;
    sum_n_ += n;
    sum_tt_ += t * t;
    sum_tn_ += t * n;
    if (now_ns - began_ns_ < kMeasurementNs)
        return;
    end_measurement();
    begin_measurement(now_ns);
}

void SignalWatch::begin_measurement(int64_t now_ns)
{
    began_ns_ = now_ns;
    frames_ = 0;
    count_ = sum_t_ = sum_n_ = sum_tt_ = sum_tn_ = 0;
}

void SignalWatch::end_measurement()
{
    double spread = count_ * sum_tt_ - sum_t_ * sum_t_;
    double rate = spread > 0 ? (count_ * sum_tn_ - sum_t_ * sum_n_) / spread : 0;
    if (rate > 0 && near(rate, measured_, kAgreement))
        link_rate_ = (rate + measured_) / 2;
    measured_ = rate;
}

// --- Between two threads ------------------------------------------------------------

void SharedWatch::feed(const uint8_t* data, int bytes, int64_t now_ns)
{
    int64_t change = change_;
    if (change != measured_)
        watch_.restart_pace();
    watch_.feed(data, bytes, now_ns);
    content_ = watch_.content();
    frames_per_sample_ = watch_.frames_per_sample();
    link_rate_ = watch_.link_rate();
    measured_ = change;
}

void SharedWatch::opened()
{
    watch_.restart_pace();
    link_rate_ = 0;
}

LinkEvidence SharedWatch::evidence() const
{
    LinkEvidence evidence;
    bool of_this_change = measured_ == change_;
    evidence.content = content_;
    evidence.frames_per_sample = frames_per_sample_;
    evidence.link_rate = of_this_change ? link_rate_.load() : 0;
    return evidence;
}

// --- What follows from it -----------------------------------------------------------

LinkState derive_state(const LinkState& announced, const LinkEvidence& evidence)
{
    LinkState state = announced;
    if (evidence.content != Content::unknown)
        state.compressed = evidence.content == Content::compressed;
    int per_sample = state.compressed ? evidence.frames_per_sample : 1;
    if (evidence.control_rate > 0) {
        state.sample_rate = supported(static_cast<double>(evidence.control_rate) / per_sample);
        return state;
    }
    int measured = supported(evidence.link_rate / per_sample);
    if (measured != 0)
        state.sample_rate = measured;
    return state;
}

std::string RateWatch::look(const LinkState& announced, const LinkEvidence& evidence)
{
    if (announced.sample_rate != announced_)
        named_ = 0;
    announced_ = announced.sample_rate;
    if (evidence.link_rate <= 0 || announced.sample_rate <= 0)
        return "";
    double rate = evidence.link_rate / (announced.compressed ? evidence.frames_per_sample : 1);
    if (near(rate, announced.sample_rate, kRateTolerance)) {
        // Well inside: a source at the edge would be named over and over.
        if (near(rate, announced.sample_rate, kRateTolerance / 2))
            named_ = 0;
        return "";
    }
    if (near(rate, named_, kRateTolerance))
        return "";
    named_ = rate;
    char text[96];
    std::snprintf(text, sizeof text, "the source sends %.0f samples per second, announced are %d", rate,
                  announced.sample_rate);
    return text;
}

} // namespace hdmi_linux
