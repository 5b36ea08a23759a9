// SPDX-License-Identifier: MIT
// A player whose calls fail, one at a time: each allocation, each thread, each descriptor, each wait. It neither
// crashes nor hangs nor leaves anything behind, and works as soon as the call succeeds again.
//
//   failure_*_test [PLACES]     one failure at each place that calls, or at PLACES of them
//   failure_*_test 0 CALLS      the first CALLS calls, each of them once
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <memory>
#include <thread>

#include "extcon/extcon.h"
#include "hdmi_player.h"
#include "platform/stage.h"
#include "support/accounts.h"
#include "support/eventually.h"
#include "support/failing/failing_calls.h"

using namespace std::chrono_literals;
using failing_calls::under_test;

namespace
{

int g_failures = 0;

void expect(bool right, const char* what)
{
    if (right)
        return;
    printf("FAILED: %s\n", what);
    fflush(stdout);
    ++g_failures;
}

auto entries(const char* folder) { return std::distance(std::filesystem::directory_iterator(folder), {}); }

// Blocks taken, written and given back, frames rendered, until @p count blocks came or the time is over.
bool play(int count, std::chrono::milliseconds limit)
{
    int blocks = 0;
    return eventually(
        [&] {
            under_test([] { return g_accounts.render(); });
            hdmi_player_audio_frame_t* block = nullptr;
            if (under_test([&] { return hdmi_player_get_pcm(&block, 20); }) == 0) {
                under_test([&] { return hdmi_player_write_pcm(block); });
                expect(hdmi_player_put_pcm(block) == 0, "a block is not taken back");
                ++blocks;
            }
            return blocks >= count;
        },
        limit);
}

void announce(const char* state) { expect(extcon::announce(state), "a state cannot be announced"); }

// All that a host does. Of this, what fails must fail well.
void run_host()
{
    expect(extcon::write_state("HEADDONE_PCM_48=1\n"), "the state file cannot be written");
    if (under_test([] { return g_accounts.open(accounted_config()); }) != 0)
        return;
    under_test([] { return hdmi_player_hotplug_status_changed(E_HDMI_HOTPLUG_STATUS_IN); });
    play(3, 200ms);
    under_test([] {
        hdmi_player_select_audio_output_device(E_HDMI_PLAYER_AO_DEV_HEADPHONE);
        hdmi_player_set_volume(50);
        hdmi_player_set_mute(true);
        hdmi_player_set_mute(false);
        hdmi_player_set_volume2(10);
    });
    announce("HEADDONE_PCM_44=1");
    play(20, 150ms);
    under_test([] { hdmi_player_select_audio_output_format(E_HDMI_PLAYER_AO_FORMAT_RAW); });
    announce("HEADDONE_COMP_48=1");
    play(20, 150ms);
    under_test([] { hdmi_player_select_audio_output_device(E_HDMI_PLAYER_AO_DEV_SPDIF); });
    play(5, 60ms);
    expect(under_test([] { return g_accounts.close(); }) == 0, "the player does not close");
}

struct Left {
    decltype(entries("")) descriptors = entries("/proc/self/fd");
    decltype(entries("")) threads = entries("/proc/self/task");

    bool within(const Left& other) const { return descriptors <= other.descriptors && threads <= other.threads; }
};

void expect_works()
{
    expect(extcon::write_state("HEADDONE_PCM_48=1\n"), "the state file cannot be written");
    expect(g_accounts.open(accounted_config()) == 0, "the player does not open any more");
    hdmi_player_hotplug_status_changed(E_HDMI_HOTPLUG_STATUS_IN);
    expect(play(1, 20s), "no sound arrives any more");
    expect(g_accounts.close() == 0, "the player does not close any more");
}

// A run in which one call fails. @p least: what was left at the least so far; a thread that ended late the first time
// does not make room for one that is lost. @return whether it came to that
bool fail(failing_calls::Site site, int64_t number, Left* least)
{
    failing_calls::begin(site, number);
    run_host();
    const bool failed = failing_calls::end();
    const int faults = g_failures;
    expect(g_accounts.faults() == 0, "a handle came back twice, though it was refused, or from a closed player");
    Left left;
    const bool nothing_left = eventually([&] { return (left = Left()).within(*least); }, 3s);
    if (!nothing_left)
        printf("%lld descriptors, were %lld; %lld threads, were %lld\n", static_cast<long long>(left.descriptors),
               static_cast<long long>(least->descriptors), static_cast<long long>(left.threads),
               static_cast<long long>(least->threads));
    expect(nothing_left, "a descriptor or a thread is left");
    if (nothing_left)
        *least = left;
    expect_works();
    if (g_failures > faults)
        printf("... after the failure of site %llx, call %lld\n", static_cast<unsigned long long>(site),
               static_cast<long long>(number));
    return failed;
}

struct Tries {
    int made = 0;
    int failed = 0; ///< of these, where it came to the call
    void add(bool call_failed)
    {
        ++made;
        failed += call_failed ? 1 : 0;
    }
};

/// As many as @p most of the places, evenly spread; all of them if that is 0. Places turn up while others fail.
Tries fail_places(size_t most, Left* least)
{
    const size_t known = failing_calls::sites().size();
    const size_t step = most > 0 ? (known + most - 1) / most : 1;
    Tries tries;
    for (size_t at = 0; at < (most > 0 ? known : failing_calls::sites().size()); at += step)
        tries.add(fail(failing_calls::sites()[at], 0, least));
    return tries;
}

int run(size_t places, int64_t calls)
{
    failing_calls::begin(0, 0);
    run_host(); // what is made once and kept is there then
    failing_calls::end();
    expect_works();
    Left least;
    Tries tries;
    for (int64_t number = 1; number <= calls; ++number)
        tries.add(fail(0, number, &least));
    if (calls == 0)
        tries = fail_places(places, &least);
    printf("%zu places that call, %d of %d calls failed, %lld handles, %d closes\n", failing_calls::sites().size(),
           tries.failed, tries.made, static_cast<long long>(g_accounts.handles()), g_accounts.closes());
    // Threads do not come to each place in each run.
    expect(tries.failed > 0 && 2 * tries.failed >= tries.made, "most calls were not made again, so they did not fail");
    return g_failures == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    failing_calls::this_thread_is_the_tests();
    setenv("debug_hdmiplayer_log_level", "0", 0);
    std::string why;
    if (!extcon::use_namespaces(&why) || !platform_stage::set_up(&why)) {
        printf("SKIPPED: %s\n", why.c_str());
        return 77;
    }
    const int status = run(argc > 1 ? static_cast<size_t>(atoi(argv[1])) : 0, argc > 2 ? atoll(argv[2]) : 0);
    platform_stage::tear_down();
    return status;
}
