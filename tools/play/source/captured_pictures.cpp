// SPDX-License-Identifier: MIT
#include "source/captured_pictures.h"

#include <drm_fourcc.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "common/clock.h"

namespace play
{
namespace
{

using common::now_ns;

constexpr int kBuffers = 6;
constexpr int kWaitMs = 50;
/// A signal that is there may take that long to be found.
constexpr int kSignalTries = 60;
/// Longer than a source takes between two modes.
constexpr int64_t kStallNs = 2'000'000'000;
constexpr double kUnstatedFps = 60;
/// Looked at around a spot, to each side, as a share of the height.
constexpr double kSpotReach = 0.04;
constexpr double kBright = 0.5;
/// For light alone, where nobody looks at the picture.
constexpr Size kSmall = {64, 48};

std::string line_of(const machine::Finding& finding) { return finding.what + ": " + finding.detail; }

/// Looked at, across and down: a few points stand for what lies around them.
constexpr int kPoints = 32;

/// BT.601, in 1/256 of 255.
uint32_t level_of(uint32_t colour)
{
    return (colour >> 16 & 255) * 77 + (colour >> 8 & 255) * 150 + (colour & 255) * 29;
}

} // namespace

double brightness(const Canvas& canvas, const std::optional<Spot>& spot)
{
    int left = 0, top = 0, right = canvas.width, bottom = canvas.height;
    if (spot) {
        const int reach = std::max(1, static_cast<int>(std::lround(kSpotReach * canvas.height)));
        const int x = static_cast<int>(spot->x * (canvas.width - 1));
        const int y = static_cast<int>(spot->y * (canvas.height - 1));
        left = std::max(0, x - reach);
        top = std::max(0, y - reach);
        right = std::min(canvas.width, x + reach + 1);
        bottom = std::min(canvas.height, y + reach + 1);
    }
    constexpr double kWhite = 255 * 256;
    uint64_t sum = 0;
    for (int y = 0; y < kPoints; y++)
        for (int x = 0; x < kPoints; x++)
            sum += level_of(canvas.row(top + (2 * y + 1) * (bottom - top) /
                                                 (2 * kPoints))[left + (2 * x + 1) * (right - left) / (2 * kPoints)]);
    return static_cast<double>(sum) / (kWhite * kPoints * kPoints);
}

std::unique_ptr<CapturedPictures> CapturedPictures::open(const std::string& path, std::optional<Spot> spot,
                                                         int64_t length_ns, std::string* error)
{
    machine::Finding why;
    std::unique_ptr<capture::VideoDevice> device = capture::VideoDevice::open(path, &why);
    if (!device) {
        *error = line_of(why);
        return nullptr;
    }
    std::unique_ptr<CapturedPictures> pictures(new CapturedPictures(std::move(device), spot, length_ns));
    return pictures->choose_mode(error) ? std::move(pictures) : nullptr;
}

bool CapturedPictures::choose_mode(std::string* error)
{
    machine::VideoSignal signal;
    machine::Finding objection;
    for (int tries = 0; tries < kSignalTries; tries++) {
        signal = device_->detect();
        objection = machine::objection_to(signal, device_->path());
        if (objection.detail.empty())
            break;
        device_->wait(kWaitMs);
    }
    const std::optional<capture::CaptureMode> mode =
        capture::choose_mode(device_->modes(signal), {}, [](uint32_t drm) { return drm == DRM_FORMAT_XRGB8888; });
    machine::Finding why = {machine::Verdict::missing, device_->path(), "sends no pixel format that can be shown", ""};
    if (!objection.detail.empty())
        why = objection;
    if (!objection.detail.empty() || !mode || !device_->set_mode(*mode, &why)) {
        *error = line_of(why);
        return false;
    }
    char text[160];
    std::snprintf(text, sizeof text, "%s (%s), %dx%d %s at %.5g fps", device_->path().c_str(), device_->card().c_str(),
                  device_->layout().width, device_->layout().height, capture::name_of(device_->format()).c_str(),
                  fps().value());
    description_ = text;
    return true;
}

Rational CapturedPictures::fps() const
{
    constexpr int64_t kDenominator = 1000;
    const double fps = device_->fps() > 0 ? device_->fps() : kUnstatedFps;
    return {std::llround(fps * kDenominator), kDenominator};
}

bool CapturedPictures::start(std::string* error)
{
    machine::Finding why;
    const int count = device_->allocate(kBuffers, &why);
    for (int index = 0; index < count; index++)
        device_->queue(index);
    if (count == 0 || !device_->start(&why)) {
        *error = line_of(why);
        return false;
    }
    zero_ns_ = now_ns();
    return true;
}

void CapturedPictures::audio(int64_t, int16_t* stereo, int frames) const
{
    std::fill_n(stereo, 2 * static_cast<size_t>(frames), int16_t{0});
}

/// What came while nobody asked.
void CapturedPictures::discard_old()
{
    while (device_->wait(0).frame)
        if (const std::optional<capture::CapturedFrame> old = device_->take()) {
            sequence_ = old->sequence;
            device_->queue(old->index);
        }
}

bool CapturedPictures::next_video(VideoFrame* frame)
{
    if (!began_)
        discard_old();
    const int64_t asked_ns = now_ns();
    while (now_ns() - asked_ns < kStallNs) {
        const capture::VideoDevice::News news = device_->wait(kWaitMs);
        if (news.gone || news.signal)
            return false;
        const std::optional<capture::CapturedFrame> captured = news.frame ? device_->take() : std::nullopt;
        if (!captured)
            continue;
        const bool filled = fill(*captured, frame);
        device_->queue(captured->index);
        if (filled)
            return frame->source_ns < length_ns_;
    }
    return false;
}

bool CapturedPictures::fill(const capture::CapturedFrame& captured, VideoFrame* frame)
{
    frame->source_ns = now_ns() - zero_ns_;
    if (began_)
        faults_.picture_gaps += std::max(static_cast<int32_t>(captured.sequence - sequence_) - 1, 0);
    began_ = true;
    sequence_ = captured.sequence;
    const display::PixelLayout& layout = device_->layout();
    const Size size = fit(layout.width, layout.height, box_.value_or(kSmall));
    auto image = std::make_shared<Image>();
    image->width = size.width;
    image->height = size.height;
    image->pixels.resize(static_cast<size_t>(size.width) * static_cast<size_t>(size.height));
    const Canvas canvas = {reinterpret_cast<uint8_t*>(image->pixels.data()), size.width, size.height,
                           static_cast<size_t>(size.width) * sizeof(uint32_t)};
    if (captured.damaged || !converter_.paint(device_->frame(captured.index), captured.bytes, canvas)) {
        faults_.damaged_pictures++;
        return false;
    }
    frame->number = static_cast<int64_t>(arrivals_.size());
    arrivals_.push_back(frame->source_ns);
    const bool bright = brightness(canvas, spot_) > kBright;
    if (bright && !bright_)
        flashes_.push_back({frame->number, frame->source_ns});
    bright_ = bright;
    write_number(&frame->picture, frame->number);
    fill_field(&frame->picture, bright ? Picture::kWhite : Picture::kBlack);
    frame->image = box_ ? std::move(image) : nullptr;
    return true;
}

} // namespace play
