// SPDX-License-Identifier: MIT
/**
 * @file
 * The pictures that a capture device receives, as they come. What sends them,
 * a machine or a disc, is not ours.
 */
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "capture/converter.h"
#include "capture/video_device.h"
#include "source/source.h"

namespace play
{

/// A place in a picture, from 0 to 1 across and down.
struct Spot {
    double x;
    double y;
};

/// How bright @p canvas is, from 0 to 1: around @p spot, or all over.
double brightness(const Canvas& canvas, const std::optional<Spot>& spot);

/// The first bright picture after a dark one.
struct Flash {
    int64_t number;
    int64_t source_ns;
};

/// Its sound is silence: the player captures the sound elsewhere.
class CapturedPictures : public Source
{
public:
    /// Opens the device, in a mode for the signal that comes in. Of each picture, the light is looked at around @p
    /// spot.
    /// @return null with one line in @p error
    static std::unique_ptr<CapturedPictures> open(const std::string& path, std::optional<Spot> spot, int64_t length_ns,
                                                  std::string* error);

    /// From now on pictures come. @return false with one line in @p error
    bool start(std::string* error);
    /// After the last picture.
    const std::vector<Flash>& flashes() const { return flashes_; }

    int audio_rate() const override { return 48000; }
    void audio(int64_t first, int16_t* stereo, int frames) const override;
    Rational fps() const override;
    void want_images(Size box) override { box_ = box; }
    bool next_video(VideoFrame* frame) override;
    int64_t frame_ns(int64_t number) const override { return arrivals_[static_cast<size_t>(number)]; }
    std::optional<int64_t> zero_ns() const override { return zero_ns_; }
    std::vector<int64_t> marks() const override { return {}; }
    SourceFaults faults() const override { return faults_; }
    std::string description() const override { return description_; }

private:
    CapturedPictures(std::unique_ptr<capture::VideoDevice> device, std::optional<Spot> spot, int64_t length_ns)
        : device_(std::move(device)), spot_(spot), length_ns_(length_ns)
    {
    }
    bool choose_mode(std::string* error);
    void discard_old();
    bool fill(const capture::CapturedFrame& captured, VideoFrame* frame);

    const std::unique_ptr<capture::VideoDevice> device_;
    const std::optional<Spot> spot_;
    const int64_t length_ns_;
    std::string description_;
    std::optional<Size> box_; ///< nothing: nobody wants images
    capture::Converter converter_;
    int64_t zero_ns_ = 0;
    bool began_ = false;
    bool bright_ = true; ///< the picture before
    uint32_t sequence_ = 0;
    std::vector<int64_t> arrivals_; ///< by number
    std::vector<Flash> flashes_;
    SourceFaults faults_;
};

} // namespace play
