// SPDX-License-Identifier: MIT
#include "edges/signal_watch.h"

#include <cmath>
#include <cstdio>
#include <cstring>

namespace play
{
namespace
{

constexpr uint16_t preamble_a = 0xF872;
constexpr uint16_t preamble_b = 0x4E1F;
constexpr int frame_bytes = 4;
constexpr int data_type_mask = 0x1F; ///< of the word Pc
constexpr int data_type_eac3 = 21;
constexpr int eac3_frames_per_sample = 4;
/// An E-AC-3 burst is the longest of those that a source repeats.
constexpr int64_t longest_burst = 6144;
constexpr int equal_distances = 2;

/// Long against the jitter of the times at which periods arrive, which the fit evens out.
constexpr int64_t measurement_ns = 2'000'000'000;
/// Nothing came for so long: the device stood still, or nobody read it.
constexpr int64_t pause_ns = 250'000'000;
constexpr double agreement = 0.002;
/// A source's clock is far more exact than this, and the rates are far more than this apart.
constexpr double rate_tolerance = 0.005;
constexpr int supported_rates[] = {32000, 44100, 48000};

bool near(double rate, double nominal, double tolerance) { return std::abs(rate - nominal) <= tolerance * nominal; }

/// The supported rate at or near @p sample_rate, 0 for none.
int supported(double sample_rate)
{
    for (int rate : supported_rates)
        if (near(sample_rate, rate, rate_tolerance))
            return rate;
    return 0;
}

} // namespace

// --- What the frames say ----------------------------------------------------------

void SignalWatch::feed(const uint8_t* data, int bytes, int64_t now_ns)
{
    for (int at = 0; at + frame_bytes <= bytes; at += frame_bytes) {
        uint16_t words[2];
        std::memcpy(words, data + at, sizeof words);
        look_at(words[0], words[1]);
    }
    // What was read came before now: the first reading is where the measurement begins.
    if (m_began_ns == 0 || now_ns - m_last_ns > pause_ns) {
        begin_measurement(now_ns);
    } else {
        m_frames += bytes / frame_bytes;
        pace(now_ns);
    }
    m_last_ns = now_ns;
}

void SignalWatch::look_at(uint16_t left, uint16_t right)
{
    m_since_preamble++;
    if (m_type_is_next) {
        m_frames_per_sample = (left & data_type_mask) == data_type_eac3 ? eac3_frames_per_sample : 1;
        m_type_is_next = false;
    }
    if (left == preamble_a && right == preamble_b) {
        take_preamble();
        return;
    }
    m_sounding += left != 0 || right != 0 ? 1 : 0;
    if (m_sounding > 2 * longest_burst) {
        m_content = Content::pcm;
        m_equal = 0;
    }
}

void SignalWatch::take_preamble()
{
    m_type_is_next = true;
    m_equal = m_since_preamble == m_distance && m_distance <= longest_burst ? m_equal + 1 : 1;
    m_distance = m_since_preamble;
    m_since_preamble = 0;
    m_sounding = 0;
    if (m_equal >= equal_distances)
        m_content = Content::compressed;
}

void SignalWatch::restart_pace()
{
    m_began_ns = 0;
    m_measured = 0;
    m_link_rate = 0;
}

void SignalWatch::pace(int64_t now_ns)
{
    double t = static_cast<double>(now_ns - m_began_ns) / 1e9;
    auto n = static_cast<double>(m_frames);
    m_count++;
    m_sum_t += t;
    m_sum_n += n;
    m_sum_tt += t * t;
    m_sum_tn += t * n;
    if (now_ns - m_began_ns < measurement_ns)
        return;
    end_measurement();
    begin_measurement(now_ns);
}

void SignalWatch::begin_measurement(int64_t now_ns)
{
    m_began_ns = now_ns;
    m_frames = 0;
    m_count = m_sum_t = m_sum_n = m_sum_tt = m_sum_tn = 0;
}

void SignalWatch::end_measurement()
{
    double spread = m_count * m_sum_tt - m_sum_t * m_sum_t;
    double rate = spread > 0 ? (m_count * m_sum_tn - m_sum_t * m_sum_n) / spread : 0;
    if (rate > 0 && near(rate, m_measured, agreement))
        m_link_rate = (rate + m_measured) / 2;
    m_measured = rate;
}

// --- Between two threads ------------------------------------------------------------

void SharedWatch::feed(const uint8_t* data, int bytes, int64_t now_ns)
{
    int64_t change = m_change;
    if (change != m_measured)
        m_watch.restart_pace();
    m_watch.feed(data, bytes, now_ns);
    m_content = m_watch.content();
    m_frames_per_sample = m_watch.frames_per_sample();
    m_link_rate = m_watch.link_rate();
    m_measured = change;
}

void SharedWatch::opened()
{
    m_watch.restart_pace();
    m_link_rate = 0;
}

LinkEvidence SharedWatch::evidence() const
{
    LinkEvidence evidence;
    bool of_this_change = m_measured == m_change;
    evidence.content = m_content;
    evidence.frames_per_sample = m_frames_per_sample;
    evidence.link_rate = of_this_change ? m_link_rate.load() : 0;
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
    if (announced.sample_rate != m_announced)
        m_named = 0;
    m_announced = announced.sample_rate;
    if (evidence.link_rate <= 0 || announced.sample_rate <= 0)
        return "";
    double rate = evidence.link_rate / (announced.compressed ? evidence.frames_per_sample : 1);
    if (near(rate, announced.sample_rate, rate_tolerance)) {
        // Well inside: a source at the edge would be named over and over.
        if (near(rate, announced.sample_rate, rate_tolerance / 2))
            m_named = 0;
        return "";
    }
    if (near(rate, m_named, rate_tolerance))
        return "";
    m_named = rate;
    char text[96];
    std::snprintf(text, sizeof text, "the source sends %.0f samples per second, announced are %d", rate,
                  announced.sample_rate);
    return text;
}

} // namespace play
