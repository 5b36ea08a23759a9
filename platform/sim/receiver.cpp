// SPDX-License-Identifier: MIT
#include <cstring>

#include "bypass_path.h"
#include "capture_ring.h"
#include "rate_matcher.h"
#include "sim.h"

namespace sim
{
namespace
{

constexpr int kUnknownInputRate = 48000; ///< of a device opened with rate 0
constexpr int kBypassPiece = 1 << 16;    ///< link frames generated at a time

struct Receiver {
    mutex_t mutex;
    Condition changed; ///< the signal changed or the opening ended
    LinkSignalPtr signal GUARDED_BY(mutex);
    CaptureRing ring GUARDED_BY(mutex);
    BypassPath bypass GUARDED_BY(mutex);
    hdmi_sim::ReceiverStats stats GUARDED_BY(mutex);
    Openings openings;
};

Receiver& receiver()
{
    static auto* instance = new Receiver;
    return *instance;
}

void generate(const hdmi_sim::Signal& source, int64_t first, int16_t* words, int frames)
{
    if (source.generate)
        source.generate(first, words, frames);
    else
        memset(words, 0, static_cast<size_t>(frames) * kLinkFrameBytes);
}

// If the caller's buffer is not aligned, or the piece is a part of a frame, the frames are copied one by one.
void fill(const CaptureRing::Piece& piece, uint8_t* data)
{
    const hdmi_sim::Signal& source = piece.signal->source;
    const bool aligned = reinterpret_cast<uintptr_t>(data) % alignof(int16_t) == 0;
    if (aligned && piece.bytes % kLinkFrameBytes == 0) {
        generate(source, piece.link_frame, reinterpret_cast<int16_t*>(data), piece.bytes / kLinkFrameBytes);
        return;
    }
    int skip = piece.skip_bytes;
    int64_t link_frame = piece.link_frame;
    for (int done = 0; done < piece.bytes;) {
        int16_t frame[kLinkChannels];
        generate(source, link_frame++, frame, 1);
        const int bytes = std::min(piece.bytes - done, kLinkFrameBytes - skip);
        memcpy(data + done, reinterpret_cast<const uint8_t*>(frame) + skip, static_cast<size_t>(bytes));
        done += bytes;
        skip = 0;
    }
}

CaptureRing::Piece take(Receiver& r, int max_bytes) REQUIRES(r.mutex)
{
    const int64_t before = r.ring.position_bytes();
    CaptureRing::Piece piece = r.ring.take(max_bytes);
    const int64_t after = r.ring.position_bytes();
    if (r.stats.first_read_frame < 0)
        r.stats.first_read_frame = piece.link_frame;
    r.stats.frames_read += after / kLinkFrameBytes - before / kLinkFrameBytes;
    r.stats.end_read_frame = piece.link_frame + (piece.skip_bytes + piece.bytes) / kLinkFrameBytes;
    r.stats.periods_read += after / r.ring.period_bytes() - before / r.ring.period_bytes();
    return piece;
}

// Waits for data. @return how many bytes are ready, at most @p size; 0 when the opening ended.
int await_ready(Receiver& r, mutex_guard& guard, uint64_t opening, int size) REQUIRES(r.mutex)
{
    while (!r.openings.ended(opening)) {
        const int64_t now = hdmi_sim::now_ns();
        r.stats.overruns += r.ring.drop_overrun(now);
        const int64_t ready = r.ring.ready_bytes(now);
        if (ready > 0)
            return static_cast<int>(std::min<int64_t>(ready, size));
        r.changed.wait_until(guard, r.ring.next_period_ns(now));
    }
    return 0;
}

int read_whole(Receiver& r, uint64_t opening, uint8_t* data, int size, bool align)
{
    mutex_guard guard(r.mutex);
    int done = 0;
    while (done < size) {
        const int ready = await_ready(r, guard, opening, size - done);
        if (ready == 0)
            return done > 0 ? done : kClosed;
        const CaptureRing::Piece piece = take(r, ready);
        // Without the lock, because generate() is the program's own function.
        guard.unlock();
        fill(piece, data + done);
        guard.lock();
        done += piece.bytes;
    }
    if (align && !r.openings.ended(opening))
        r.ring.align();
    const int64_t now = hdmi_sim::now_ns();
    rate_matcher().captured(now, r.ring.captured(now));
    return done;
}

bool valid(const audio_config_t& config)
{
    return config.device_id == E_AUDIO_IO_DEV_HDMI_IN && config.channels == kLinkChannels && config.sample_rate >= 0 &&
           config.period_frames > 0 && config.period_count > 0;
}

} // namespace

int capture_open(const audio_config_t& config)
{
    const Verdict verdict = fault_verdict(hdmi_sim::Op::capture_open);
    if (verdict.fail)
        return verdict.result;
    if (!valid(config))
        return -EINVAL;
    Receiver& r = receiver();
    mutex_guard guard(r.mutex);
    if (r.openings.is_open())
        return -EBUSY;
    r.openings.begin();
    const int rate = config.sample_rate != 0 ? config.sample_rate : kUnknownInputRate;
    r.ring = CaptureRing(config.period_frames, config.period_count, rate);
    const int64_t now = hdmi_sim::now_ns();
    if (r.signal != nullptr) {
        r.ring.open(r.signal, now);
        rate_matcher().capture_started(r.signal->source.rate);
    }
    r.bypass.open(config.in_bypass_mode == E_AUDIO_IN_BYPASS_MODE_TO_RAW, r.signal, now);
    r.stats.opens++;
    r.stats.first_read_frame = -1;
    r.stats.bypass_mode = config.in_bypass_mode;
    r.stats.sample_rate = rate;
    return 0;
}

int capture_close()
{
    const Verdict verdict = fault_verdict(hdmi_sim::Op::capture_close);
    if (verdict.fail)
        return verdict.result;
    Receiver& r = receiver();
    mutex_guard guard(r.mutex);
    if (!r.openings.is_open())
        return 0;
    r.bypass.close(hdmi_sim::now_ns());
    r.openings.end();
    rate_matcher().capture_ended();
    r.changed.notify_all();
    guard.unlock();
    faults_wake();
    return 0;
}

int capture_read(uint8_t* data, int size)
{
    Receiver& r = receiver();
    return transfer(hdmi_sim::Op::capture_read, r.openings, data, size, [&](uint64_t opening, const Verdict& verdict) {
        return read_whole(r, opening, data, brief_size(verdict, size, kLinkFrameBytes), verdict.odd);
    });
}

double link_clock_error_ppm()
{
    Receiver& r = receiver();
    mutex_guard guard(r.mutex);
    return r.signal != nullptr ? r.signal->source.clock_error_ppm : 0;
}

bool has_signal()
{
    Receiver& r = receiver();
    mutex_guard guard(r.mutex);
    return r.signal != nullptr;
}

void capture_reset()
{
    Receiver& r = receiver();
    mutex_guard guard(r.mutex);
    r.signal = nullptr;
    r.stats = {};
    r.bypass = {};
}

} // namespace sim

namespace hdmi_sim
{

void receiver_connect(Signal signal)
{
    const int64_t now = now_ns();
    auto link = std::make_shared<sim::LinkSignal>();
    link->start_ns = signal.start_ns != 0 ? signal.start_ns : now;
    link->pace = sim::Pace(signal.rate, signal.clock_error_ppm);
    link->source = std::move(signal);

    sim::Receiver& r = sim::receiver();
    mutex_guard guard(r.mutex);
    r.signal = std::move(link);
    if (r.openings.is_open()) {
        r.ring.attach(r.signal, now);
        sim::rate_matcher().capture_started(r.signal->source.rate);
    }
    r.bypass.carry(r.signal, now);
    r.changed.notify_all();
}

void receiver_disconnect()
{
    sim::Receiver& r = sim::receiver();
    mutex_guard guard(r.mutex);
    const int64_t now = now_ns();
    if (r.openings.is_open())
        r.ring.detach(now);
    sim::rate_matcher().capture_ended();
    r.bypass.carry(nullptr, now);
    r.signal = nullptr;
    r.changed.notify_all();
}

ReceiverStats receiver_stats()
{
    sim::Receiver& r = sim::receiver();
    mutex_guard guard(r.mutex);
    // Counts the periods that were lost since the last read.
    if (r.openings.is_open())
        r.stats.overruns += r.ring.drop_overrun(now_ns());
    return r.stats;
}

std::vector<BypassRun> bypass_recording()
{
    std::vector<sim::BypassPath::Span> spans;
    {
        sim::Receiver& r = sim::receiver();
        mutex_guard guard(r.mutex);
        spans = r.bypass.spans(now_ns());
    }
    std::vector<BypassRun> runs;
    for (const sim::BypassPath::Span& span : spans) {
        const sim::LinkSignal& signal = *span.signal;
        BypassRun run = {signal.source.rate, span.first, signal.start_ns + signal.pace.time_of(span.first), {}};
        run.words.resize(static_cast<size_t>((span.end - span.first) * sim::kLinkChannels));
        for (int64_t done = 0; done < span.end - span.first; done += sim::kBypassPiece) {
            const int64_t frames = std::min<int64_t>(sim::kBypassPiece, span.end - span.first - done);
            sim::generate(signal.source, span.first + done, run.words.data() + done * sim::kLinkChannels,
                          static_cast<int>(frames));
        }
        runs.push_back(std::move(run));
    }
    return runs;
}

} // namespace hdmi_sim
