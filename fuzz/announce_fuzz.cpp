// SPDX-License-Identifier: MIT
// The audio input on announcements: any text in the state file, any messages on the uevent socket.
//
// Input: the length of the state file's text and the text, then messages, each behind its length.
#include <atomic>
#include <chrono>
#include <thread>

#include "hdmi_sim.h"
#include "input.h"
#include "internal/audio_input.h"

namespace
{

constexpr int kMessagesMax = 64;

void check_state()
{
    const int32_t rate = audio_input_get_original_sample_rate();
    const audio_input_format_e format = audio_input_get_format();
    require(rate == 0 || rate == 32000 || rate == 44100 || rate == 48000);
    require(format >= AUDIO_INPUT_FORMAT_NONE && format < AUDIO_INPUT_FORMAT_MAX);
}

// A state that is announced after everything else must arrive.
void expect_state(const char* name, audio_input_format_e format, int32_t rate)
{
    const std::string message = std::string("change@/devices/receiver") + '\0' + "STATE=" + name + '\0';
    require(hdmi_sim::send_uevent(message));
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (audio_input_get_format() != format || audio_input_get_original_sample_rate() != rate) {
        require(std::chrono::steady_clock::now() < end);
        check_state();
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input input(data, size);
    require(hdmi_sim::write_state_file(input.text(input.word() % 1024)));
    // Messages come while the module starts, too.
    const audio_input_config_t config = {[](hdmi_player_event_e) {}, [](bool, bool*) { check_state(); }};
    require(audio_input_init(config) == 0);
    for (int count = 0; !input.empty() && count < kMessagesMax; ++count)
        hdmi_sim::send_uevent(input.text(input.word() % 2048)); // an empty one is refused
    expect_state("HEADDONE_COMP_44=1", AUDIO_INPUT_FORMAT_COMP_IEC61937, 44100);
    expect_state("HEADDONE_PCM_32=1", AUDIO_INPUT_FORMAT_PCM, 32000);
    require(audio_input_deinit() == 0);
    return 0;
}
