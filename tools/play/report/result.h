// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "config/options.h"
#include "display/display.h"
#include "edges/stage.h"
#include "host/host.h"
#include "measure/course.h"
#include "measure/fidelity.h"
#include "measure/measure.h"
#include "measure/passage.h"
#include "measure/punctuality.h"
#include "measure/usage.h"
#include "report/trace_view.h"

namespace play
{

/// A disturbance of a real device, and the silence that it caused.
struct Recovery {
    std::string device; ///< "capture" or "playback"
    Disturbance disturbance;
    Silence silence; ///< around the disturbance, at the output
};

/// All that one run has shown.
struct Result {
    Options options;
    std::string programme;
    Coding coding = Coding::pcm; ///< of the sound on the link
    int source_rate = 0;         ///< Hz, of the sound's samples
    SourceFaults source;
    bool realtime = false;
    std::string display;    ///< which one was used
    double display_hz = 60; ///< its vertical blanks per second
    double fps = 60;        ///< of the source
    bool paced = true;      ///< the player could wait for them
    int video_queue_size = 0;
    common::Holds holds;
    int held_sound = 0;        ///< frames: so much silence comes before the sound
    int64_t opened_ns = 0;     ///< when the player had opened
    int64_t signal_end_ns = 0; ///< when the source stopped sending
    double seconds = 0;        ///< from open to the end of the signal
    int stopped_by = 0;        ///< the signal that ended the run early

    int64_t instants = 0; ///< of the source at which the offset should be measured
    std::vector<Offset> offsets;
    OffsetStatistics offset;
    Latency sound_latency;
    Latency picture_latency;
    Chain chain;                  ///< of captured pictures
    bool captured_bursts = false; ///< their sound is compressed
    Course course;
    std::vector<LossReading> losses;
    Fidelity fidelity;

    FrameAccount frames;
    Cadence cadence;
    GridError grid;
    std::vector<Sighting> sightings;
    int64_t unreadable = 0;

    AudioAccount audio;
    SampleCheck samples;
    int64_t gaps = 0;           ///< underruns after the first second
    int64_t early_gaps = 0;     ///< underruns in the first second
    int64_t early_overruns = 0; ///< of a capture card, in the first second
    int64_t overruns = 0;
    std::vector<Recovery> recoveries; ///< of real devices
    int64_t resets = 0;
    double reset_s = 0; ///< of the last reset, after the first picture
    RawCheck raw;       ///< of a run with raw pass-through
    int64_t unsupported = 0;
    StageStats stage;
    display::DisplayStats display_stats;
    int64_t vblank_waits = 0;  ///< of the player, for vertical blanks
    int64_t vblank_missed = 0; ///< vertical blanks that it was not woken for
    Usage usage;
    Punctuality punctuality; ///< of the machine, while the player was open
    TraceView trace;         ///< of a run that is to be looked at
};

} // namespace play
