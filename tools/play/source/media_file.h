// SPDX-License-Identifier: MIT
#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "signal/sample_store.h"
#include "source/coded_track.h"
#include "source/source.h"

struct AVCodecContext;

namespace play
{

struct MediaDecoders;

/// The first video and audio stream of a media file, decoded ahead on a thread of its own.
class MediaFile : public Source
{
public:
    /**
     * Opens and examines the file; starts no thread.
     * AC-3 and E-AC-3 are sent as they are unless @p coding asks for PCM or @p audio_rate for another rate.
     * @param audio_rate Hz, 0: the file's own if HDMI carries it, else 48000
     * @return null with one line in @p error
     */
    static std::unique_ptr<MediaFile> open(const std::string& path, int audio_rate, std::optional<Coding> coding,
                                           std::string* error);
    ~MediaFile() override;

    /**
     * Starts to decode and returns when enough lies ready to play. The programme ends after @p length_ns, if positive.
     * @return false with one line in @p error: the file holds too little to be measured
     */
    bool start(int64_t length_ns, std::string* error);

    int audio_rate() const override { return audio_rate_; }
    void audio(int64_t first, int16_t* stereo, int frames) const override;
    int64_t coded_end() const override { return track_ ? track_->samples() : 0; }
    Coding coding() const override { return track_ ? track_->coding() : Coding::pcm; }
    void link(int64_t first, int16_t* words, int frames) const override;
    Rational fps() const override { return fps_; }
    void want_images(Size box) override;
    bool next_video(VideoFrame* frame) override;
    int64_t frame_ns(int64_t number) const override;
    std::vector<int64_t> marks() const override { return {}; }
    SourceFaults faults() const override;
    std::string description() const override { return description_; }
    double stated_seconds() const override { return stated_seconds_; }

private:
    MediaFile();
    void decode_thread();
    void wait_for_demand();
    void take_video();
    void make_field(Picture* picture);
    std::shared_ptr<const Image> make_image();
    bool wants_more() const;
    void take_audio();
    void take_coded();
    void drain_decoders();
    int64_t sound_ns() const;
    int64_t picture_ns() const { return 1'000'000'000 * fps_.den / fps_.num; }
    bool send(AVCodecContext* decoder, int64_t SourceFaults::*damage);
    bool receive(AVCodecContext* decoder, int64_t SourceFaults::*damage);
    void note_starved(bool complete) const;
    void note(int64_t SourceFaults::*fault);
    bool past_the_end(int64_t source_ns) const { return length_ns_ > 0 && source_ns >= length_ns_; }

    std::unique_ptr<MediaDecoders> decoders_;
    SampleStore sound_;
    std::unique_ptr<CodedTrack> track_; ///< in place of sound_: sound that is sent as it is
    int audio_rate_ = 0;
    Rational fps_{25, 1};
    std::string description_;
    double stated_seconds_ = 0;
    int64_t length_ns_ = 0;
    Size image_box_{0, 0}; ///< nothing: no images are wanted

    std::thread thread_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<VideoFrame> pictures_;  ///< decoded, not taken yet
    std::vector<int64_t> frame_times_; ///< of every picture so far
    bool ended_ = false;
    bool stop_ = false;
    mutable SourceFaults faults_;
};

} // namespace play
