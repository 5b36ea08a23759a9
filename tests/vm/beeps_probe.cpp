// SPDX-License-Identifier: MIT
// beeps_probe SECONDS [FILE.wav]: sends a beep a second into the HDMI cable. With a file it listens at the loudspeaker
// too, while something else plays from one to the other, and prints for each beep how long it took, in ms.
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "edges/alsa_feed.h"
#include "edges/alsa_observer.h"
#include "measure/measure.h"
#include "signal/recording.h"
#include "source/programme.h"

namespace
{

constexpr int kRate = 48000;

int fail(const std::string& error)
{
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
}

int report(const play::AlsaFeed& feed, const play::AlsaObserver& ear, const play::Programme& programme)
{
    std::string error;
    play::Recording heard;
    if (!heard.open(ear.heard().path, ear.heard().blocks, &error))
        return fail(error);
    const play::SourceClock clock = {0, 0, feed.track()};
    for (const play::SoundMatch& beep : play::match_beeps(heard, programme, clock)) {
        const int64_t sent_ns = clock.to_monotonic(beep.source_sample * 1'000'000'000 / kRate);
        std::printf("beep %.3f\n", static_cast<double>(heard.heard_ns(beep.position) - sent_ns) / 1e6);
    }
    std::printf("breaks %" PRId64 "\n", feed.breaks() + ear.breaks());
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2 && argc != 3) {
        std::fprintf(stderr, "Usage: beeps_probe SECONDS [FILE.wav]\n");
        return 2;
    }
    const int seconds = std::atoi(argv[1]);
    const play::Programme programme(kRate, {60, 1}, int64_t{seconds} * 1'000'000'000);
    play::AlsaFeed feed("hw:Cable,0", &programme);
    play::AlsaObserver ear("hw:Speaker,1", argc == 3 ? argv[2] : "/dev/null", kRate);
    std::string error;
    if ((argc == 3 && !ear.start(&error)) || !feed.start(&error))
        return fail(error);
    sleep(static_cast<unsigned>(seconds));
    feed.stop();
    if (argc == 2)
        return 0;
    return ear.finish(&error) ? report(feed, ear, programme) : fail(error);
}
