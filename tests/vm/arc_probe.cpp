// SPDX-License-Identifier: MIT
/**
 * @file
 * Opens the audio return channel on a kernel CEC adapter and tells what comes
 * of it: one line for each message and each change, until it is told to end by
 * SIGTERM or SIGINT, and how long the calls took.
 */
#include <hdmi_linux.h>
#include <signal.h>
#include <time.h>

#include <cinttypes>
#include <cstdio>
#include <tuple>

#include "hdmi_cec.h"

namespace
{

constexpr timespec kLookEvery = {0, 5000000};

int64_t now_us()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * INT64_C(1000000) + now.tv_nsec / 1000;
}

const char* text(hdmi_linux::ArcState state)
{
    switch (state) {
    case hdmi_linux::ArcState::idle: return "idle";
    case hdmi_linux::ArcState::requested: return "requested";
    case hdmi_linux::ArcState::active: return "active";
    case hdmi_linux::ArcState::terminated: return "terminated";
    }
    return "?";
}

void print_state(const hdmi_linux::CecStats& stats, int64_t since)
{
    printf("%8.3f state %s activations %" PRId64 " attached %d address %04x device %s note %s\n",
           static_cast<double>(now_us() - since) / 1e6, text(stats.arc), stats.activations, stats.attached,
           static_cast<unsigned>(stats.physical_address), stats.device.c_str(), stats.note.c_str());
    fflush(stdout);
}

// Those after @p last; the time of the newest. As long as fewer come between two looks than are kept.
int64_t print_messages(int64_t last, int64_t since)
{
    for (const hdmi_linux::CecMessage& message : hdmi_linux::cec_messages()) {
        if (message.time_ns <= last)
            continue;
        last = message.time_ns;
        printf("%8.3f %s%s", static_cast<double>(last / 1000 - since) / 1e6, message.sent ? "sent" : "received",
               message.delivered ? "" : " (not acknowledged)");
        for (int i = 0; i < message.length; ++i)
            printf("%c%02x", i == 0 ? ' ' : ':', message.bytes[i]);
        printf("\n");
    }
    fflush(stdout);
    return last;
}

} // namespace

int main()
{
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    sigaddset(&ending, SIGINT);
    sigprocmask(SIG_BLOCK, &ending, nullptr);

    const int64_t start = now_us();
    hdmi_cec_config_t config = {};
    const int init = vendor_hdmi_cec_init(&config);
    const int64_t initialised = now_us();
    const int open = vendor_hdmi_cec_open_arc();
    const int64_t opened = now_us();
    printf("init %d in %" PRId64 " us, open_arc %d in %" PRId64 " us\n", init, initialised - start, open,
           opened - initialised);
    const auto facts = [](const hdmi_linux::CecStats& stats) {
        return std::make_tuple(stats.arc, stats.attached, stats.activations, stats.note);
    };
    hdmi_linux::CecStats last = hdmi_linux::cec_stats();
    print_state(last, start);
    int64_t printed = 0;
    while (init == 0 && sigtimedwait(&ending, nullptr, &kLookEvery) < 0) {
        printed = print_messages(printed, start);
        const hdmi_linux::CecStats stats = hdmi_linux::cec_stats();
        if (facts(stats) != facts(last))
            print_state(stats, start);
        last = stats;
    }
    const int64_t ended = now_us();
    const int deinit = vendor_hdmi_cec_deinit();
    printf("deinit %d in %" PRId64 " us\n", deinit, now_us() - ended);
    print_messages(printed, start);
    print_state(hdmi_linux::cec_stats(), start);
    return init == 0 ? 0 : 1;
}
