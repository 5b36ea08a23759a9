// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "source/coded_track.h"
#include "signal/sample_store.h"
#include "source/source.h"

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

    int audio_rate() const override { return m_audio_rate; }
    void audio(int64_t first, int16_t* stereo, int frames) const override;
    int64_t coded_end() const override { return m_track ? m_track->samples() : 0; }
    Coding coding() const override { return m_track ? m_track->coding() : Coding::pcm; }
    void link(int64_t first, int16_t* words, int frames) const override;
    Rational fps() const override { return m_fps; }
    void want_images(Size box) override;
    bool next_video(VideoFrame* frame) override;
    int64_t frame_ns(int64_t number) const override;
    std::vector<int64_t> marks() const override { return {}; }
    int64_t starved() const override { return m_starved; }
    std::string description() const override { return m_description; }
    double stated_seconds() const override { return m_stated_seconds; }

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
    void note_starved(bool complete) const;
    bool past_the_end(int64_t source_ns) const { return m_length_ns > 0 && source_ns >= m_length_ns; }

    std::unique_ptr<MediaDecoders> m_decoders;
    SampleStore m_sound;
    std::unique_ptr<CodedTrack> m_track; ///< in place of m_sound: sound that is sent as it is
    int m_audio_rate = 0;
    Rational m_fps{25, 1};
    std::string m_description;
    double m_stated_seconds = 0;
    int64_t m_length_ns = 0;
    Size m_image_box{0, 0}; ///< nothing: no images are wanted

    std::thread m_thread;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<VideoFrame> m_pictures;  ///< decoded, not taken yet
    std::vector<int64_t> m_frame_times; ///< of every picture so far
    bool m_ended = false;
    bool m_stop = false;
    mutable std::atomic<int64_t> m_starved{0};
};

} // namespace play
