// SPDX-License-Identifier: MIT
/**
 * @file
 * What the receiver's driver announces, and what of it is due to be reported:
 * decisions of the audio input, without a clock or a thread of their own.
 */
#pragma once

#include <cstdint>
#include <string_view>

typedef enum {
    AUDIO_INPUT_FORMAT_NONE = 0,
    AUDIO_INPUT_FORMAT_PCM = 1,
    AUDIO_INPUT_FORMAT_COMP_IEC61937 = 2,
    AUDIO_INPUT_FORMAT_MAX = 3,
} audio_input_format_e;

/// An unsupported state is reported when it lasts longer: sources pass through it at every change.
constexpr int64_t kUnsupportedAfterUs = 1000000;

struct input_state_key {
    std::string_view text;
    audio_input_format_e format;
    int32_t sample_rate;
};

// In order of precedence.
constexpr input_state_key kInputStateKeys[] = {
    {"HEADDONE_PCM_48=1", AUDIO_INPUT_FORMAT_PCM, 48000},
    {"HEADDONE_PCM_44=1", AUDIO_INPUT_FORMAT_PCM, 44100},
    {"HEADDONE_PCM_32=1", AUDIO_INPUT_FORMAT_PCM, 32000},
    {"HEADDONE_COMP_48=1", AUDIO_INPUT_FORMAT_COMP_IEC61937, 48000},
    {"HEADDONE_COMP_44=1", AUDIO_INPUT_FORMAT_COMP_IEC61937, 44100},
    {"HEADDONE_COMP_32=1", AUDIO_INPUT_FORMAT_COMP_IEC61937, 32000},
};

/// The format and rate that @p text announces; false, with both unchanged, when it holds no key.
inline bool audio_input_parse_state(std::string_view text, audio_input_format_e* format, int32_t* sample_rate)
{
    for (const input_state_key& key : kInputStateKeys) {
        if (text.find(key.text) == std::string_view::npos)
            continue;
        *format = key.format;
        *sample_rate = key.sample_rate;
        return true;
    }
    return false;
}

/// Takes the first of the NUL-separated strings off @p message; empty at an empty string and at the end.
inline std::string_view audio_input_next_string(std::string_view* message)
{
    const size_t end = message->find('\0');
    const std::string_view first = message->substr(0, end);
    message->remove_prefix(end == std::string_view::npos ? message->size() : end + 1);
    return first;
}

/// The serial that follows @p serial: never negative, never INT32_MAX.
inline int32_t audio_input_next_serial(int32_t serial) { return serial >= INT32_MAX - 1 ? 0 : serial + 1; }

/// The latest state, and what of it has not been reported.
struct input_state {
    int32_t old_sample_rate;
    audio_input_format_e old_format;
    bool force_reset = false;   ///< it differs from the last one announced, since the last report
    bool state_changed = false; ///< a state was announced since the last report
    int64_t last_timeus = 0;    ///< when the last one was announced, monotonic
};

struct input_report {
    enum kind_e { NONE, SUPPORTED, UNSUPPORTED } kind;
    bool changed; ///< the state differs from the last one announced
};

/// Takes what is due at @p now_us out of @p state: a supported state at once, an unsupported one when it lasts.
inline input_report audio_input_take_report(input_state* state, int64_t now_us)
{
    if (!state->state_changed)
        return {input_report::NONE, false};
    const bool changed = state->force_reset;
    state->force_reset = false;
    const bool supported = state->old_format != AUDIO_INPUT_FORMAT_NONE;
    if (!supported && now_us - state->last_timeus <= kUnsupportedAfterUs)
        return {input_report::NONE, false};
    state->state_changed = false;
    return {supported ? input_report::SUPPORTED : input_report::UNSUPPORTED, supported && changed};
}
