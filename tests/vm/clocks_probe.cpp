// SPDX-License-Identifier: MIT
// clocks_probe SECONDS SETTLING: sends a tone of 997 Hz into the HDMI cable and listens at the loudspeaker, while
// something else plays from one to the other. Prints, of what was heard SETTLING seconds after its beginning: how far
// its age moves, its distortion and noise, how far the two cards' clocks are apart; and by how much the machine was
// late meanwhile.
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

#include "edges/alsa_pcm.h"
#include "signal/clock_track.h"

namespace
{

using play::AlsaPcm;

constexpr int kRate = 48000;
constexpr int kPriority = 20; ///< between the player's threads and others
constexpr double kToneHz = 997;
constexpr double kFrequency = 2 * M_PI * kToneHz / kRate;
constexpr double kAmplitude = 29204; ///< 1 dB below full scale
constexpr int kLoud = 3000;
/// Analysed at a time, and the step to the next.
constexpr size_t kWindow = 32768;
constexpr size_t kHop = kRate / 2;
/// What counts as the tone itself, to both sides of it.
constexpr double kNotchHz = 40;
constexpr double kAudibleHz[] = {20, 20000};

using Spectrum = std::vector<std::complex<double>>;

/// Of the whole circle, as many parts as a window has frames; the first half of them.
Spectrum circle()
{
    Spectrum roots(kWindow / 2);
    for (size_t i = 0; i < roots.size(); i++)
        roots[i] = std::polar(1.0, -2 * M_PI * static_cast<double>(i) / kWindow);
    return roots;
}

/// The fast Fourier transform of a window.
void transform(Spectrum* values)
{
    static const Spectrum roots = circle();
    Spectrum& x = *values;
    const size_t size = x.size();
    for (size_t i = 1, j = 0; i < size; i++) {
        size_t bit = size / 2;
        for (; (j & bit) != 0; bit /= 2)
            j ^= bit;
        j ^= bit;
        if (i < j)
            std::swap(x[i], x[j]);
    }
    for (size_t length = 2; length <= size; length *= 2)
        for (size_t begin = 0; begin < size; begin += length)
            for (size_t k = 0; k < length / 2; k++) {
                const std::complex<double> odd = roots[k * (size / length)] * x[begin + k + length / 2];
                x[begin + k + length / 2] = x[begin + k] - odd;
                x[begin + k] += odd;
            }
}

/// The seven-term Blackman-Harris window: what leaks beyond 10 Hz is below -180 dB.
double taper(size_t i)
{
    constexpr double kTerms[] = {0.27105140069342, -0.43329793923448, 0.21812299954311, -0.06592544638803,
                                 0.01081174209837, -0.00077658482522, 0.00001388721735};
    double sum = 0;
    for (int k = 0; k < 7; k++)
        sum += kTerms[k] * std::cos(2 * M_PI * k * (static_cast<double>(i) + 0.5) / kWindow);
    return sum;
}

/// A device and what it has told of its clock.
struct End {
    End(const char* name, AlsaPcm::Direction direction) : clock(kRate)
    {
        std::string error;
        pcm = AlsaPcm::open(name, direction, kRate, &error);
        if (pcm)
            return;
        std::fprintf(stderr, "%s\n", error.c_str());
        std::exit(1);
    }
    void learn(int64_t position, int64_t sign)
    {
        AlsaPcm::Position at = {};
        if (pcm->ask_position(&at))
            clock.add(position + sign * at.frames, at.at_ns);
    }
    void recover()
    {
        breaks++;
        pcm->prepare();
    }

    std::unique_ptr<AlsaPcm> pcm;
    play::ClockTrack clock;
    int breaks = 0;
};

void be_urgent()
{
    sched_param priority = {};
    priority.sched_priority = kPriority;
    pthread_setschedparam(pthread_self(), SCHED_RR, &priority);
}

void send(End* feed, const std::atomic<bool>* stop)
{
    constexpr int kPeriodsAhead = 8;
    be_urgent();
    const int frames = feed->pcm->period_frames();
    std::vector<int16_t> words(2 * static_cast<size_t>(frames));
    for (int64_t sent = 0, periods = 0; !*stop; periods++) {
        for (int i = 0; i < frames; i++)
            words[2 * i] = words[2 * i + 1] =
                static_cast<int16_t>(std::lrint(kAmplitude * std::sin(kFrequency * static_cast<double>(sent + i))));
        const int put = feed->pcm->write(words.data(), frames);
        sent += std::max(put, 0);
        if (put < 0)
            feed->recover();
        periods = put < 0 ? -1 : periods;
        if (periods == kPeriodsAhead)
            feed->pcm->start();
        feed->learn(sent, -1);
    }
}

void listen(End* ear, std::vector<int16_t>* heard, const std::atomic<bool>* stop)
{
    be_urgent();
    std::vector<int16_t> words(2 * static_cast<size_t>(ear->pcm->period_frames()));
    for (ear->pcm->start(); !*stop;) {
        const int got = ear->pcm->read(words.data(), ear->pcm->period_frames());
        for (int i = 0; i < got; i++)
            heard->push_back(words[2 * i]);
        if (got > 0)
            ear->learn(static_cast<int64_t>(heard->size()), 1);
        if (got < 0) {
            ear->recover();
            ear->pcm->start();
        }
    }
}

/// How late a thread of this machine is woken at worst, in ms.
void watch(double* worst_ms, const std::atomic<bool>* stop)
{
    using Clock = std::chrono::steady_clock;
    be_urgent();
    for (auto due = Clock::now(); !*stop; due = Clock::now()) {
        due += std::chrono::milliseconds(5);
        std::this_thread::sleep_until(due);
        *worst_ms = std::max(*worst_ms, std::chrono::duration<double, std::milli>(Clock::now() - due).count());
    }
}

struct Moment {
    double late;       ///< seconds since the tone was sent, of any whole number of its periods
    double residue_db; ///< all but the tone by all
};

Moment analyse(const std::vector<int16_t>& heard, size_t begin, const End& feed, const End& ear)
{
    Spectrum spectrum(kWindow);
    std::complex<double> tone;
    for (size_t i = 0; i < kWindow; i++) {
        const double value = heard[begin + i] * taper(i);
        spectrum[i] = value;
        tone += value * std::polar(1.0, -kFrequency * (static_cast<double>(i) - kWindow / 2.0));
    }
    transform(&spectrum);
    constexpr double kBinHz = static_cast<double>(kRate) / kWindow;
    double all = 0, residue = 0;
    for (size_t bin = 0; bin < kWindow / 2; bin++) {
        const double hz = static_cast<double>(bin) * kBinHz;
        if (hz < kAudibleHz[0] || hz > kAudibleHz[1])
            continue;
        all += std::norm(spectrum[bin]);
        residue += std::fabs(hz - kToneHz) > kNotchHz ? std::norm(spectrum[bin]) : 0;
    }
    // The tone was sent as a sine from frame 0 on.
    const double sent_phase = std::arg(tone) + M_PI / 2;
    const auto place = static_cast<double>(begin) + kWindow / 2.0;
    const double passing = feed.clock.position_at(ear.clock.time_of(place));
    return {(passing - sent_phase / kFrequency) / kRate, 10 * std::log10(residue / all)};
}

void judge(const std::vector<int16_t>& heard, size_t settling, const End& feed, const End& ear)
{
    const auto first = std::find_if(heard.begin(), heard.end(), [](int16_t word) { return std::abs(word) > kLoud; });
    std::vector<double> residues;
    double late = 0, least = 0, most = 0;
    for (auto at = static_cast<size_t>(first - heard.begin()) + settling; at + kWindow < heard.size(); at += kHop) {
        const Moment moment = analyse(heard, at, feed, ear);
        const double step = std::remainder(moment.late - late, 1 / kToneHz);
        late += residues.empty() ? moment.late - late : step;
        least = residues.empty() ? late : std::min(least, late);
        most = residues.empty() ? late : std::max(most, late);
        residues.push_back(moment.residue_db);
    }
    std::printf("windows %zu\n", residues.size());
    if (residues.empty())
        return;
    std::sort(residues.begin(), residues.end());
    std::printf("wander_ms %.3f\nthdn_db %.1f\nthdn_worst_db %.1f\n", (most - least) * 1e3,
                residues[residues.size() / 2], residues.back());
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "Usage: clocks_probe SECONDS SETTLING\n");
        return 2;
    }
    End feed("hw:Cable,0", AlsaPcm::Direction::playback);
    End ear("hw:Speaker,1", AlsaPcm::Direction::capture);
    const auto seconds = static_cast<unsigned>(std::atoi(argv[1]));
    std::vector<int16_t> heard;
    heard.reserve(size_t{kRate} * (seconds + 10));
    std::atomic<bool> stop{false};
    std::thread sender(send, &feed, &stop);
    std::thread listener(listen, &ear, &heard, &stop);
    double late_ms = 0;
    std::thread watcher(watch, &late_ms, &stop);
    sleep(seconds);
    stop = true;
    sender.join();
    listener.join();
    watcher.join();
    std::printf("breaks %d\nlate_ms %.1f\napart_ppm %.1f\n", feed.breaks + ear.breaks, late_ms,
                feed.clock.drift_ppm() - ear.clock.drift_ppm());
    judge(heard, static_cast<size_t>(std::atoi(argv[2])) * kRate, feed, ear);
    return 0;
}
