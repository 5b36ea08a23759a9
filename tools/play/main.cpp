// SPDX-License-Identifier: MIT
/**
 * @file
 * The player from end to end: a source, the host, and the observers at the
 * edges, then the report.
 */
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "config/options.h"
#include "config/output_file.h"
#include "edges/make_edges.h"
#include "edges/platform_router.h"
#include "edges/stage.h"
#include "hdmi_sim.h"
#include "host/host.h"
#include "measure/measure.h"
#include "measure/passage.h"
#include "measure/punctuality.h"
#include "process/realtime.h"
#include "process/stop_signals.h"
#include "progress.h"
#include "report/page.h"
#include "report/report.h"
#include "report/verdict.h"
#include "screen/open_display.h"
#include "source/captured_pictures.h"
#include "source/coded_programme.h"
#include "source/media_file.h"
#include "source/programme.h"

namespace play
{
namespace
{

/// And 128 + the number of a signal that came before anything was measured.
enum ExitStatus { kInside = 0, kOutside = 1, kBadInput = 2, kNotPermitted = 3, kInconclusive = 4, kStopped = 128 };

constexpr int64_t kSecondNs = 1'000'000'000;
constexpr int64_t kMs = 1'000'000;
/// Pictures and sound are judged from this long after the reset at start.
constexpr int64_t kSettlingNs = 700 * kMs;
/// The programme goes on after its last flash until that was surely seen and heard.
constexpr int64_t kTailNs = 700 * kMs;
/// Instants of the source this close to its end are not judged: they may be cut off.
constexpr int64_t kEndingNs = 550 * kMs;
/// What is on its way from a real capture device to the output.
constexpr int64_t kRealDrainNs = 300 * kMs;
/// Above ordinary threads, below the player's capture thread. Its other threads inherit this one.
constexpr int kRealtimePriority = 20;
/// Of a longer run, charts show the beginning.
constexpr double kLongestTraceS = 4 * 3600;
constexpr int kProgrammeAudioRate = 44100;
constexpr int kCodedProgrammeRate = 48000;

/// A name for the recording, and the recording's end if nobody asked for it.
class RecordingFile
{
public:
    explicit RecordingFile(const std::string& wanted) : path_(wanted)
    {
        if (!wanted.empty())
            return;
        const char* parent = getenv("TMPDIR");
        directory_ = std::string(parent != nullptr ? parent : "/tmp") + "/hdmi-player-play-XXXXXX";
        // Of our own: in a directory that all may write to, a name that can be guessed may be somebody's link.
        path_ = mkdtemp(directory_.data()) != nullptr ? directory_ + "/sound.wav" : directory_;
    }
    ~RecordingFile()
    {
        if (directory_.empty())
            return;
        for (const std::string& sound : {path_, sent_path(path_), captured_path(path_)}) {
            unlink(sound.c_str());
            unlink((sound + ".blocks.csv").c_str());
        }
        rmdir(directory_.c_str());
    }
    RecordingFile(const RecordingFile&) = delete;
    RecordingFile& operator=(const RecordingFile&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
    std::string directory_; ///< empty: the recording is to be kept
};

bool outputs_writable(const Options& options, std::string* error)
{
    std::vector<std::string> files = wanted_files(options);
    return std::all_of(files.begin(), files.end(),
                       [error](const std::string& path) { return is_writable(path, error); });
}

/// Where the options' losses are. @return false with one line in @p error
bool find_losses(const Options& options, std::vector<LostBursts>* lost, std::string* error)
{
    constexpr double kEndS = 1.5;
    int rate = options.source_rate != 0 ? options.source_rate : kCodedProgrammeRate;
    bool placed = place_losses(options.losses, rate, lost);
    if (placed && (lost->empty() || lost->back().loss.looked_at_s + kEndS < options.seconds))
        return true;
    *error = placed
                 ? "--lose-bursts: the run ends before the sound is looked at again"
                 : "--lose-bursts: a loss must begin at 3.5 s or later, and 3.5 s after the one before was looked at";
    return false;
}

/// The source that the options name; null with one line in @p error. Starts no thread.
std::unique_ptr<Source> make_source(const Options& options, const std::vector<LostBursts>& lost, std::string* error)
{
    if (!options.file.empty())
        return MediaFile::open(options.file, options.source_rate, options.coding, error);
    if (options.captured_pictures()) {
        std::optional<Spot> spot;
        if (options.flash_at)
            spot = {options.flash_at->first, options.flash_at->second};
        return CapturedPictures::open(options.video, spot, static_cast<int64_t>(options.seconds * 1e9), error);
    }
    Coding coding = options.coding.value_or(Coding::pcm);
    int own_rate = coding == Coding::pcm ? kProgrammeAudioRate : kCodedProgrammeRate;
    int rate = options.source_rate != 0 ? options.source_rate : own_rate;
    auto length_ns = static_cast<int64_t>(options.seconds * 1e9) + options.video_start_ms * kMs + kTailNs;
    if (coding == Coding::pcm)
        return std::make_unique<Programme>(rate, options.fps, length_ns, options.tones);
    std::unique_ptr<Source> coded =
        CodedProgramme::make(coding, Programme(rate, options.fps, length_ns, options.tones), length_ns,
                             lost.empty() ? CodedProgramme::kBitRate : CodedProgramme::kDenseBitRate, error);
    if (!coded || lost.empty())
        return coded;
    return std::make_unique<LossySource>(std::move(coded), lost);
}

bool start_source(const Options& options, Source* source, std::string* error)
{
    if (auto* pictures = dynamic_cast<CapturedPictures*>(source))
        return pictures->start(error);
    auto* file = dynamic_cast<MediaFile*>(source);
    if (file == nullptr || file->start(static_cast<int64_t>(options.seconds * 1e9), error))
        return true;
    *error = options.file + ": " + *error;
    return false;
}

/// Before the first thread: the environment that the player reads, and a place for announcements of our own.
bool prepare_process(const Options& options, std::string* error)
{
    // The report is what this program prints; warnings can be had by setting the variable.
    // Of bursts that are lost on purpose it need not be told.
    setenv("debug_hdmiplayer_log_level", options.losses.empty() ? "1" : "0", 0);
    if (options.no_sync)
        setenv("debug_hdmiplayer_disable_avsync", "1", 1);
    hdmi_sim::decoder_fills_losses(!options.no_loss_filling);
    return Stage::prepare(options, error);
}

std::unique_ptr<Trace> make_trace(const Options& options, const Source& source, double display_hz)
{
    constexpr double kUnstatedS = 3600;
    double seconds = options.seconds > 0 ? options.seconds : source.stated_seconds();
    if (!(seconds > 0))
        seconds = kUnstatedS;
    seconds = std::min(seconds, kLongestTraceS) + options.video_start_ms / 1e3;
    return std::make_unique<Trace>(seconds, std::max(display_hz, source.fps().value()));
}

/// What light and sound on this display need. Of bursts that are passed on the host holds nothing: they pass it by.
common::Holds holds_for(const Options& options, Coding coding, const display::Display& display)
{
    if (options.raw || options.no_hold)
        return {};
    const int64_t offset_ns = options.av_offset_ms * kMs + (coding == Coding::eac3 ? common::kEarlyPayloadNs : 0);
    common::Holds holds =
        common::plan_holds(options.display_latency_ms() * kMs, offset_ns, display.refresh_hz(), display.paced());
    // Frames of a capture device come too unevenly for a plan (LightPlan).
    holds.even = holds.even && !options.captured_pictures();
    return holds;
}

HostConfig host_config(const Options& options, Coding coding, hdmi_player_drm_info_t drm_info,
                       display::Display* display, FlipGate* gate, Trace* trace)
{
    HostConfig config;
    config.trace = trace;
    config.output = options.output;
    config.display = drm_info;
    config.algorithm_delay_ms = options.algorithm_delay_ms;
    config.video_start_ns = options.video_start_ms * kMs;
    config.sync = !options.no_sync;
    config.raw = options.raw;
    config.stall_ns = options.stall_host_ms * kMs;
    config.holds = holds_for(options, coding, *display);
    // A device goes on with silence when its source has ended.
    if (!options.capture.empty())
        config.drain_ns = kRealDrainNs;
    config.gate = gate;
    config.paint = [display](PictureBuffer* buffer, const Image* image) {
        if (display->provide_surface(buffer))
            paint(buffer->picture, image, buffer->surface->canvas());
    };
    config.present = [display](display::FrameBuffer* buffer) { display->present(buffer); };
    return config;
}

void watch(const Host& host, const display::Display& display, const process::StopSignals& signals)
{
    constexpr useconds_t kLookAgainUs = 50'000;
    Progress progress;
    while (host.video_running() && !display.closed() && signals.number() == 0) {
        double seconds = static_cast<double>(hdmi_sim::now_ns() - host.opened_ns()) / 1e9;
        FrameAccount frames = host.frames();
        char text[128];
        std::snprintf(text, sizeof text, "rendered %lld, flipped %lld, dropped %lld, resets %lld",
                      static_cast<long long>(frames.rendered), static_cast<long long>(frames.flipped),
                      static_cast<long long>(frames.dropped), static_cast<long long>(host.resets()));
        progress.update(seconds, text);
        usleep(kLookAgainUs);
    }
    progress.finish();
}

/// What came out of the sound device, and what the player had given it: without an observer, the same.
struct Sound {
    Recording heard;
    Recording sent;
    Recording captured; ///< empty unless the pictures are captured too
};

/// Sound of the source, found in a recording.
std::vector<SoundMatch> find_sound(const Recording& recording, const Source& source, SourceClock clock, int64_t last_ns)
{
    if (recording.frames() == 0)
        return {};
    return source.marks().empty() ? match_waveform(recording, source, clock, last_ns)
                                  : match_beeps(recording, source, clock);
}

/// Names of hardware: nothing on the way changes a sample.
bool is_hardware(const std::string& device) { return device.rfind("hw:", 0) == 0; }

/// A sound server, a window system and the decoding of a film have no real-time priority, whatever the player has.
bool needs_ordinary_threads(const Options& options)
{
    bool sound_server = false;
    for (const std::string& device : {options.capture, options.feed, options.playback, options.observe})
        sound_server = sound_server || (!device.empty() && !is_hardware(device));
    return sound_server || options.display == DisplayKind::window || !options.file.empty();
}

CapturePath capture_path(const Result& result)
{
    const Options& options = result.options;
    // After a loss the decoder has no block to overlap with.
    bool known_samples = options.losses.empty();
    bool transparent = options.capture.empty() || (is_hardware(options.capture) && is_hardware(options.feed));
    CapturePath path = {result.stage.link.captured_end, transparent && known_samples, {}, result.held_sound};
    path.cut_off = result.audio.cut_off_at_start;
    // What a real device is given is recorded as the player wrote it.
    if (result.stage.sound.matched && options.playback.empty())
        path.matched = (1 + options.playback_ppm / 1e6) / (1 + options.receiver_ppm / 1e6);
    return path;
}

/// From this instant until that one the player has settled, and nothing is cut off.
struct Judged {
    int64_t from_ns;
    int64_t last_ns;
    bool holds(int64_t at_ns) const { return at_ns >= from_ns && at_ns + kEndingNs < last_ns; }
};

/// By the source's clock.
std::vector<int64_t> resets_of(const Trace& trace, SourceClock clock)
{
    std::vector<int64_t> resets = trace.resets.events();
    for (int64_t& at_ns : resets)
        at_ns = clock.to_source(at_ns);
    return resets;
}

void summarise_offsets(Result* result)
{
    result->offset = summarise(result->offsets, result->options.av_offset_ms);
    std::vector<double> sound_ms;
    std::vector<double> picture_ms;
    for (const Offset& offset : result->offsets) {
        sound_ms.push_back(offset.sound_ms);
        picture_ms.push_back(offset.picture_ms);
    }
    result->sound_latency = summarise_latency(sound_ms);
    result->picture_latency = summarise_latency(picture_ms);
}

bool is_compressed(const LinkAccount& link)
{
    return std::any_of(link.announced.begin(), link.announced.end(), [](const Announcement& announcement) {
        return announcement.state.find("COMP") != std::string::npos;
    });
}

/// Of sound and pictures that are captured both.
void evaluate_passage(const CapturedPictures& pictures, SourceClock clock, const Screen& screen, const Sound& sound,
                      Judged judged, Result* result)
{
    result->captured_bursts = is_compressed(result->stage.link);
    if (result->captured_bursts)
        return;
    Passages passages = find_passages(sound.captured, sound.heard);
    auto outside = [&](const Passage& passage) { return !judged.holds(clock.to_source(passage.captured_ns)); };
    passages.all.erase(std::remove_if(passages.all.begin(), passages.all.end(), outside), passages.all.end());
    result->instants = static_cast<int64_t>(passages.all.size());
    result->offsets = measure_passages(passages.all, screen.sightings(), pictures, clock);
    result->chain = measure_chain(passages, pictures.flashes(), screen.sightings(), clock);
    summarise_offsets(result);
}

void evaluate_sound(const Source& source, SourceClock clock, const Screen& screen, const Sound& sound,
                    std::vector<SoundMatch> matches, const Trace& trace, Judged judged, Result* result)
{
    bool by_marks = !source.marks().empty();
    for (const Offset& offset : measure_offsets(matches, sound.heard, screen.sightings(), source, clock, by_marks))
        if (judged.holds(offset.source_ns))
            result->offsets.push_back(offset);
    if (sound.heard.frames() > 0)
        for (int64_t at_ns : by_marks ? source.marks() : waveform_instants(judged.last_ns))
            result->instants += judged.holds(at_ns) ? 1 : 0;
    summarise_offsets(result);
    std::vector<LostBursts> lost;
    for (const LossReading& reading : result->losses)
        lost.push_back(reading.lost);
    result->losses = read_losses(lost, result->offsets, resets_of(trace, clock));
    if (!result->options.observe.empty())
        matches = find_sound(sound.sent, source, clock, judged.last_ns);
    result->samples = check_samples(sound.sent, source, matches, capture_path(*result));
}

/// How the sound went on its way, and what was added to it.
void evaluate_course(const Source& source, SourceClock clock, const Sound& sound,
                     const std::vector<SoundMatch>& matches, const Trace& trace, Judged judged, Result* result)
{
    constexpr double kFidelityFromS = 20;
    int rate = sound.heard.sample_rate();
    std::vector<Reading> fills;
    for (const WrittenEvent& block : trace.written.events()) {
        int64_t at_ns = clock.to_source(block.at_ns);
        if (block.delay_frames >= 0 && judged.holds(at_ns) && rate > 0)
            fills.push_back({static_cast<double>(at_ns) / 1e9, 1e3 * block.delay_frames / rate});
    }
    double source_rate = 1 + result->stage.link.drift_ppm * 1e-6;
    result->course = measure_course(
        result->offsets, std::move(fills),
        {result->fps * source_rate, result->display_hz, result->options.av_offset_ms, 1 / source_rate, result->paced});
    if (!result->options.tones)
        return;
    Comparison comparison;
    comparison.clocks = capture_path(*result).matched.value_or(1);
    comparison.from_s = std::max(kFidelityFromS, static_cast<double>(judged.from_ns) / 1e9);
    comparison.until_s = static_cast<double>(judged.last_ns - kEndingNs) / 1e9;
    comparison.tones = true;
    result->fidelity = compare_sound(sound.heard, source, matches, comparison);
}

void evaluate_pictures(const Source& source, const Host& host, const Screen& screen, Judged judged, Result* result)
{
    std::vector<Sighting> all = screen.sightings();
    // The last picture stays until the display ends.
    for (const Sighting& sighting : all) {
        int64_t at_ns = source.frame_ns(sighting.number);
        if (at_ns >= judged.from_ns && sighting.number != all.back().number)
            result->sightings.push_back(sighting);
    }
    PictureRange due = {host.last_picture() + 1, -1};
    for (int64_t number = 0; number <= host.last_picture(); number++)
        if (judged.holds(source.frame_ns(number)))
            due = {std::min(due.first, number), number};
    result->cadence = measure_cadence(result->sightings, due, result->display_hz / source.fps().value());
    result->grid = measure_grid(result->sightings, result->display_hz);
    result->unreadable = screen.unreadable();
}

void add_recoveries(const char* device, const DisturbanceLog& log, const Recording& heard, Result* result)
{
    for (const Disturbance& disturbance : log.all())
        // After the signal there is nothing that could come back.
        if (disturbance.at_ns < result->signal_end_ns)
            result->recoveries.push_back({device, disturbance, silence_around(heard, disturbance.at_ns)});
}

/// Underruns and overruns: simulated devices show them in the recording, real ones have counted them.
void evaluate_devices(const Sound& sound, const DeviceDisturbances& disturbances, Result* result)
{
    // With bursts passed on, the player writes nothing.
    int64_t began_ns = result->options.raw ? result->opened_ns : result->stage.sound.first_write_ns;
    int64_t settled_ns = began_ns + kSecondNs;
    // A port counts nothing: what its own word of the delay says.
    bool real = !result->options.playback.empty() && !is_port(result->options.playback);
    result->early_gaps = real ? disturbances.playback.count(0, settled_ns) : sound.heard.gaps(0, settled_ns);
    result->gaps = real ? disturbances.playback.count(settled_ns, result->signal_end_ns)
                        : sound.heard.gaps(settled_ns, result->signal_end_ns);
    result->early_overruns = disturbances.capture.count(0, settled_ns);
    result->overruns = result->options.capture.empty() ? result->stage.link.overruns
                                                       : disturbances.capture.count(settled_ns, result->signal_end_ns);
    add_recoveries("capture", disturbances.capture, sound.heard, result);
    add_recoveries("playback", disturbances.playback, sound.heard, result);
}

/// What the charts show, of a run that is to be looked at.
void evaluate_trace(const Trace& trace, const Source& source, SourceClock clock, const Screen& screen, Judged judged,
                    Result* result)
{
    TraceScope scope;
    scope.source_s = [&clock](int64_t at_ns) { return static_cast<double>(clock.to_source(at_ns)) / 1e9; };
    scope.player_opened_ns = result->opened_ns;
    scope.settled_s = static_cast<double>(judged.from_ns) / 1e9;
    scope.end_s = static_cast<double>(judged.last_ns - kEndingNs) / 1e9;
    scope.timeline_s = result->options.html_at;
    scope.flashes = !source.marks().empty();
    scope.paced = result->paced;
    scope.display_latency_ns = result->options.display_latency_ms() * kMs;
    result->trace = view_trace(trace, scope, screen.sightings(), result->offsets);
}

/// Everything that the observers recorded, as figures.
void evaluate(const Source& source, SourceClock clock, const Host& host, const Screen& screen, const Sound& sound,
              const DeviceDisturbances& disturbances, const Trace& trace, Result* result)
{
    // What is lost later may make the player begin anew.
    int64_t raised_ns = result->losses.empty() ? host.reset_ns() : host.first_reset_ns();
    int64_t reset_ns = raised_ns != 0 ? raised_ns : host.opened_ns();
    result->reset_s = static_cast<double>(reset_ns - host.opened_ns()) / 1e9 - result->options.video_start_ms / 1e3;
    // Until what was sent, not what was seen: a picture that freezes must not end the judgement.
    Judged judged = {clock.to_source(reset_ns + kSettlingNs),
                     host.last_picture() >= 0 ? source.frame_ns(host.last_picture()) : 0};
    if (result->options.sync_known() && !result->options.raw) {
        std::vector<SoundMatch> matches;
        if (const auto* pictures = dynamic_cast<const CapturedPictures*>(&source)) {
            evaluate_passage(*pictures, clock, screen, sound, judged, result);
        } else {
            matches = find_sound(sound.heard, source, clock, judged.last_ns);
            evaluate_sound(source, clock, screen, sound, matches, trace, judged, result);
        }
        evaluate_course(source, clock, sound, matches, trace, judged, result);
    }
    evaluate_pictures(source, host, screen, judged, result);
    evaluate_devices(sound, disturbances, result);
    if (!result->options.html_path.empty())
        evaluate_trace(trace, source, clock, screen, judged, result);
}

/// What each has counted, after all have ended.
void gather(const Host& host, const Source& source, const display::Display& display, const Stage& stage, Result* result)
{
    result->video_queue_size = host.video_queue_size();
    result->holds = host.holds();
    result->held_sound = host.held_sound();
    result->frames = host.frames();
    result->audio = host.audio();
    result->resets = host.resets();
    result->coding = source.coding();
    result->unsupported = host.unsupported();
    result->opened_ns = host.opened_ns();
    result->fps = source.fps().value();
    result->source_rate = source.audio_rate();
    result->source = source.faults();
    result->stage = stage.stats();
    result->display = display.description();
    result->display_hz = display.refresh_hz();
    result->paced = display.paced();
    result->display_stats = display.stats();
    hdmi_sim::VblankWaits waits = hdmi_sim::vblank_waits();
    result->vblank_waits = waits.waits;
    result->vblank_missed = waits.missed;
}

/// @p ordinary may be null. Late is a tick by more than half a vertical blank: such a thread may miss one.
Punctuality finish_timers(TickingTimers* timers, TickingTimers* ordinary, double display_hz)
{
    constexpr double kHalfMs = 500;
    TickRecord ticks = timers->finish();
    if (ordinary != nullptr)
        ticks.add(ordinary->finish());
    return ticks.figures(kHalfMs / display_hz);
}

/// Plays the source to its end, or until a signal comes. @return kInside, or with one line in @p error what became of
/// it
ExitStatus run(Source* source, display::Display* display, const process::StopSignals& signals,
               const std::string& wav_path, Result* result, std::string* error)
{
    Screen screen;
    std::unique_ptr<Trace> trace = make_trace(result->options, *source, display->refresh_hz());
    FlipGate gate(display->refresh_hz(), trace != nullptr ? &trace->vblanks : nullptr);
    PlaybackTrace playback_trace(trace.get());
    Stage stage(result->options, source, wav_path);
    std::unique_ptr<Host> host;
    std::unique_ptr<TickingTimers> timers;
    std::unique_ptr<TickingTimers> ordinary_timers;
    if (needs_ordinary_threads(result->options))
        ordinary_timers = std::make_unique<TickingTimers>();
    process::keep_in_memory();
    Usage before = usage_now();
    {
        process::RealtimeScope realtime(kRealtimePriority);
        result->realtime = realtime.active();
        if (!stage.start(error))
            return kNotPermitted;
        std::optional<hdmi_player_drm_info_t> drm_info = display->start(&screen, &gate, error);
        if (!drm_info)
            return kNotPermitted;
        timers = std::make_unique<TickingTimers>();
        // What comes next may take seconds: a source that is listened to, an audio return channel.
        if (signals.number() == 0 && stage.connect(error))
            host = std::make_unique<Host>(
                host_config(result->options, source->coding(), *drm_info, display, &gate, trace.get()), source,
                stage.clock());
        bool open = host != nullptr && signals.number() == 0 && host->start();
        if (!open) {
            if (host != nullptr)
                *error = "the player did not open";
            display->stop();
            return signals.number() != 0 ? kStopped : kNotPermitted;
        }
    }
    watch(*host, *display, signals);
    result->stopped_by = signals.number();
    host->stop_video();
    stage.disconnect();
    result->signal_end_ns = hdmi_sim::now_ns();
    result->seconds = static_cast<double>(result->signal_end_ns - host->opened_ns()) / 1e9;
    result->usage = usage_now().since(before, result->seconds);
    host->drain_audio();
    stage.wait_until_played();
    host->close();
    result->punctuality = finish_timers(timers.get(), ordinary_timers.get(), display->refresh_hz());
    display->stop();

    if (result->stopped_by != 0 && !result->options.raw && host->audio().written == 0)
        return kStopped;
    Sound sound;
    if (!stage.finish(&sound.heard, &sound.sent, error) || !stage.finish_captured(&sound.captured, error))
        return kOutside;
    if (result->options.raw)
        result->raw = stage.check_raw(sound.heard);
    gather(*host, *source, *display, stage, result);
    evaluate(*source, stage.clock(), *host, screen, sound, stage.disturbances(), *trace, result);
    return kInside;
}

/// Those that were asked for. @return false with one line in @p error
bool write_reports(const Result& result, const std::vector<Verdict>& verdicts, std::string* error)
{
    const Options& options = result.options;
    nlohmann::json report = report_json(result, verdicts);
    if (!options.report_path.empty() && !write_report(report, options.report_path, error))
        return false;
    if (options.html_path.empty())
        return true;
    Page page = {std::move(report), result.trace, result.paced, result.display_hz / result.fps, here_and_now()};
    return write_page(page, options.html_path, error);
}

constexpr const char* kStoppedText = "stopped before anything was measured";

int fail(ExitStatus status, const std::string& error)
{
    std::fprintf(stderr, "hdmi-player-play: %s\n", error.c_str());
    return status;
}

/// Of a run that came to its end, or was stopped.
int status_of(Outcome outcome, const process::StopSignals& signals)
{
    switch (outcome) {
    case Outcome::pass: return kInside;
    case Outcome::inconclusive: return kInconclusive;
    case Outcome::nothing: return kStopped + signals.number();
    case Outcome::fail: break;
    }
    return kOutside;
}

int main_with(const Options& options)
{
    process::StopSignals signals;
    std::string error;
    std::vector<LostBursts> lost;
    if (!find_losses(options, &lost, &error))
        return fail(kBadInput, error);
    std::unique_ptr<Source> source = make_source(options, lost, &error);
    if (!source)
        return fail(options.file.empty() ? kNotPermitted : kBadInput, error);
    if (!outputs_writable(options, &error))
        return fail(kBadInput, error);
    if (options.raw && source->coding() == Coding::pcm && !options.foreign_source())
        return fail(kBadInput, options.file + ": its sound is not compressed, --raw has nothing to pass on");
    if (!options.feed.empty() && source->coding() == Coding::eac3)
        return fail(kBadInput, "--feed: E-AC-3 passes at four times the rate at which a player opens its device");
    RecordingFile wav(options.wav_path);
    if (!is_writable(wav.path(), &error))
        return fail(kNotPermitted, error);
    if (!prepare_process(options, &error))
        return fail(kNotPermitted, error);
    if (!machine_is_configured(Stage::config_use(options), &error))
        return fail(kBadInput, error);
    // The first thread.
    signals.start_thread();
    std::unique_ptr<display::Display> display = open_display(options, &error);
    if (!display)
        return fail(kNotPermitted, error);
    Size image_size = display->image_size();
    if (image_size.width > 0)
        source->want_images(image_size);
    if (!start_source(options, source.get(), &error))
        return fail(kBadInput, error);
    Result result;
    result.options = options;
    result.losses = read_losses(lost, {}, {});
    result.programme = source->description();
    ExitStatus played = run(source.get(), display.get(), signals, wav.path(), &result, &error);
    if (played == kStopped)
        return fail(kStopped, kStoppedText) + signals.number();
    if (played != kInside)
        return fail(played, error);
    std::vector<Verdict> verdicts = judge(result);
    print_report(result, verdicts);
    if (!write_reports(result, verdicts, &error))
        return fail(kOutside, error);
    return status_of(outcome_of(verdicts), signals);
}

} // namespace
} // namespace play

int main(int argc, char** argv)
{
    play::Options options;
    play::ParseResult parsed = play::parse_options(argc, argv, &options);
    return parsed.go_on ? play::main_with(options) : parsed.code;
}
