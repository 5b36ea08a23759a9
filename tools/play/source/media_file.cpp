// SPDX-License-Identifier: MIT
#include "source/media_file.h"

#include <pthread.h>

#include <algorithm>
#include <cstdio>

#include "capture/aligned_image.h"
#include "signal/rate_conversion.h"
#include "source/av_owned.h"

extern "C" {
#include <libavutil/imgutils.h>
}

namespace play
{
namespace
{

/// Pictures decoded ahead: a few megabytes without images, some two hundred with them.
constexpr size_t kPicturesAhead = 600;
constexpr size_t kImagesAhead = 50;
/// Sound decoded ahead of the pictures, in a file that stores the two far apart; less with images, which would wait in
/// memory for it.
constexpr int64_t kSoundAheadNs = 2'000'000'000;
constexpr int64_t kSoundAheadOfImagesNs = 600'000'000;
/// Larger images are left to the display to enlarge.
constexpr Size kLargestImage{1280, 720};
/// Pictures and sound that must be decoded before the start: with less, not even the first full second is measured.
constexpr int64_t kLeastNs = 1'600'000'000;
/// Shorter gaps between packets of sound come from rounded time stamps, not from missing sound.
constexpr int64_t kGapMs = 100;
constexpr int64_t kSecondNs = 1'000'000'000;
/// Pictures are missing where two are further apart than this many frame durations.
constexpr double kGapInPictures = 1.5;

std::string av_text(int code)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

Coding coding_of(const AVCodecParameters& parameters)
{
    return parameters.codec_id == AV_CODEC_ID_AC3    ? Coding::ac3
           : parameters.codec_id == AV_CODEC_ID_EAC3 ? Coding::eac3
                                                     : Coding::pcm;
}

int64_t to_ns(int64_t time, AVRational base) { return av_rescale_q(time, base, {1, 1'000'000'000}); }

} // namespace

struct MediaDecoders {
    AvOwned<AVFormatContext> format;
    AvOwned<AVCodecContext> video;
    AvOwned<AVCodecContext> audio;
    AvOwned<SwsContext> scaler;
    AvOwned<SwsContext> image_scaler;
    capture::AlignedImage image;
    AvOwned<SwrContext> converter;
    AvOwned<AVFrame> frame{av_frame_alloc()};
    AvOwned<AVPacket> packet{av_packet_alloc()};
    int video_index = -1;
    int audio_index = -1;
    int64_t start_ns = 0;      ///< the file's time at our zero
    int64_t next_video_ns = 0; ///< for pictures without a time stamp
    AvBuffer converted;

    std::string open_stream(AVMediaType type, int* index, AvOwned<AVCodecContext>* codec)
    {
        const char* name = av_get_media_type_string(type);
        for (unsigned i = 0; i < format->nb_streams && *index < 0; i++)
            if (format->streams[i]->codecpar->codec_type == type)
                *index = static_cast<int>(i);
        if (*index < 0)
            return std::string("has no ") + name + " stream";
        const AVCodecParameters* parameters = format->streams[*index]->codecpar;
        const AVCodec* decoder = avcodec_find_decoder(parameters->codec_id);
        if (decoder == nullptr)
            return std::string("has ") + name + " for which there is no decoder";
        codec->reset(avcodec_alloc_context3(decoder));
        if (!*codec || avcodec_parameters_to_context(codec->get(), parameters) < 0)
            return std::string("has ") + name + " that cannot be decoded";
        (*codec)->thread_count = 0;
        return "";
    }

    AVRational time_base(int index) const { return format->streams[index]->time_base; }
};

MediaFile::MediaFile() : decoders_(new MediaDecoders) {}

MediaFile::~MediaFile()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable())
        thread_.join();
}

std::unique_ptr<MediaFile> MediaFile::open(const std::string& path, int audio_rate, std::optional<Coding> coding,
                                           std::string* error)
{
    av_log_set_level(AV_LOG_QUIET);
    std::unique_ptr<MediaFile> file(new MediaFile);
    MediaDecoders& decoders = *file->decoders_;
    AVFormatContext* format = nullptr;
    // "file:" keeps a name with a colon from being taken for a protocol.
    int result = avformat_open_input(&format, ("file:" + path).c_str(), nullptr, nullptr);
    decoders.format.reset(format);
    if (result >= 0)
        result = avformat_find_stream_info(format, nullptr);
    if (result < 0) {
        bool unknown = result == AVERROR_INVALIDDATA || result == AVERROR_EOF;
        *error = path + ": " + (unknown ? "not a media file" : av_text(result));
        return nullptr;
    }
    std::string wrong = decoders.open_stream(AVMEDIA_TYPE_VIDEO, &decoders.video_index, &decoders.video);
    if (wrong.empty())
        wrong = decoders.open_stream(AVMEDIA_TYPE_AUDIO, &decoders.audio_index, &decoders.audio);
    if (!wrong.empty()) {
        *error = path + ": " + wrong;
        return nullptr;
    }
    if (!file->sound_.usable()) {
        *error = "no temporary file for the decoded sound";
        return nullptr;
    }
    int own_rate = decoders.audio->sample_rate;
    bool carried = own_rate == 32000 || own_rate == 44100 || own_rate == 48000;
    file->audio_rate_ = audio_rate != 0 ? audio_rate : carried ? own_rate : 48000;
    AVRational rate = av_guess_frame_rate(format, format->streams[decoders.video_index], nullptr);
    if (rate.num > 0 && rate.den > 0)
        file->fps_ = {rate.num, rate.den};
    decoders.start_ns = format->start_time != AV_NOPTS_VALUE ? format->start_time * 1000 : 0;
    if (format->duration > 0)
        file->stated_seconds_ = static_cast<double>(format->duration) / AV_TIME_BASE;
    const AVStream& sound = *format->streams[decoders.audio_index];
    Coding own = coding_of(*sound.codecpar);
    if (own != Coding::pcm && carried && file->audio_rate_ == own_rate && coding.value_or(own) == own) {
        file->track_ = std::make_unique<CodedTrack>(own, own_rate);
        // The link begins with a burst: zeros before it would be silence to the player.
        if (sound.start_time != AV_NOPTS_VALUE)
            decoders.start_ns = to_ns(sound.start_time, sound.time_base);
    }
    if (file->track_ && !file->track_->usable()) {
        *error = path + ": its sound cannot be packed into bursts";
        return nullptr;
    }
    char text[256];
    std::snprintf(text, sizeof text, "%s %dx%d %.5g fps, %s, sent as %s at %d Hz",
                  avcodec_get_name(decoders.video->codec_id), decoders.video->width, decoders.video->height,
                  file->fps_.value(), avcodec_get_name(decoders.audio->codec_id), coding_name(file->coding()),
                  file->audio_rate_);
    file->description_ = path + ": " + text;
    return file;
}

void MediaFile::want_images(Size box) { image_box_ = box; }

bool MediaFile::start(int64_t length_ns, std::string* error)
{
    length_ns_ = length_ns;
    thread_ = std::thread(&MediaFile::decode_thread, this);
    std::unique_lock<std::mutex> lock(mutex_);
    auto pictures_ns = [this] { return frame_times_.empty() ? 0 : frame_times_.back(); };
    auto enough = [this, &pictures_ns] { return pictures_ns() >= kLeastNs && sound_ns() >= kLeastNs; };
    changed_.wait(lock, [this, &enough] { return ended_ || enough() || !wants_more(); });
    if (!ended_ || enough())
        return true;
    char text[128];
    std::snprintf(text, sizeof text, "too short or damaged: pictures for %.1f s, sound for %.1f s",
                  static_cast<double>(pictures_ns()) / 1e9, static_cast<double>(sound_ns()) / 1e9);
    *error = text;
    return false;
}

void MediaFile::audio(int64_t first, int16_t* stereo, int frames) const
{
    int64_t got = track_ ? track_->audio(first, stereo, frames) : sound_.read(first, stereo, frames);
    note_starved(got == frames || first < 0);
}

void MediaFile::link(int64_t first, int16_t* words, int frames) const
{
    if (track_)
        note_starved(track_->link(first, words, frames) == frames || first < 0);
    else
        audio(first, words, frames);
}

void MediaFile::note_starved(bool complete) const
{
    if (complete)
        return;
    std::lock_guard<std::mutex> lock(mutex_);
    faults_.starved += ended_ ? 0 : 1;
}

void MediaFile::note(int64_t SourceFaults::*fault)
{
    std::lock_guard<std::mutex> lock(mutex_);
    faults_.*fault += 1;
}

SourceFaults MediaFile::faults() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    SourceFaults faults = faults_;
    if (track_) {
        faults.damaged_sound += track_->damaged();
        faults.largest_burst = track_->largest_burst();
    }
    return faults;
}

int64_t MediaFile::sound_ns() const { return (track_ ? track_->samples() : sound_.frames()) * kSecondNs / audio_rate_; }

bool MediaFile::next_video(VideoFrame* frame)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (pictures_.empty() && !ended_) {
        faults_.starved++;
        changed_.wait(lock, [this] { return !pictures_.empty() || ended_; });
    }
    if (pictures_.empty())
        return false;
    *frame = pictures_.front();
    pictures_.pop_front();
    changed_.notify_all();
    return true;
}

int64_t MediaFile::frame_ns(int64_t number) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto index = static_cast<size_t>(std::max<int64_t>(number, 0));
    return index < frame_times_.size() ? frame_times_[index] : -1;
}

// --- The decoding thread ----------------------------------------------------------

void MediaFile::decode_thread()
{
    pthread_setname_np(pthread_self(), "decode");
    MediaDecoders& decoders = *decoders_;
    bool opened = avcodec_open2(decoders.video.get(), nullptr, nullptr) == 0 &&
                  avcodec_open2(decoders.audio.get(), nullptr, nullptr) == 0;
    AVPacket* packet = decoders.packet.get();
    while (opened && av_read_frame(decoders.format.get(), packet) >= 0) {
        wait_for_demand();
        if (packet->stream_index == decoders.video_index && send(decoders.video.get(), &SourceFaults::damaged_pictures))
            take_video();
        if (packet->stream_index == decoders.audio_index && track_)
            take_coded();
        else if (packet->stream_index == decoders.audio_index &&
                 send(decoders.audio.get(), &SourceFaults::damaged_sound))
            take_audio();
        av_packet_unref(packet);
        std::lock_guard<std::mutex> lock(mutex_);
        bool enough = past_the_end(decoders.next_video_ns) && past_the_end(sound_ns());
        if (stop_ || enough)
            break;
    }
    if (opened)
        drain_decoders();
    std::lock_guard<std::mutex> lock(mutex_);
    ended_ = true;
    changed_.notify_all();
}

/// Gives the packet to @p decoder. A damaged one is the decoder's to skip: what follows it may be whole.
bool MediaFile::send(AVCodecContext* decoder, int64_t SourceFaults::*damage)
{
    if (avcodec_send_packet(decoder, decoders_->packet.get()) >= 0)
        return true;
    note(damage);
    return false;
}

/// The next frame of @p decoder, false if it has none now.
bool MediaFile::receive(AVCodecContext* decoder, int64_t SourceFaults::*damage)
{
    AVFrame* frame = decoders_->frame.get();
    int result = avcodec_receive_frame(decoder, frame);
    bool ended = result == AVERROR(EAGAIN) || result == AVERROR_EOF;
    if ((result < 0 && !ended) || (result >= 0 && is_damaged(*frame)))
        note(damage);
    return result >= 0;
}

void MediaFile::wait_for_demand()
{
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return stop_ || wants_more(); });
}

bool MediaFile::wants_more() const
{
    bool images = image_box_.width > 0;
    // Pictures may pile up as long as the sound that belongs to the present ones is still to come.
    int64_t present_ns = pictures_.empty() ? 0 : frame_times_[static_cast<size_t>(pictures_.front().number)];
    return pictures_.size() < (images ? kImagesAhead : kPicturesAhead) ||
           sound_ns() < present_ns + (images ? kSoundAheadOfImagesNs : kSoundAheadNs);
}

void MediaFile::drain_decoders()
{
    avcodec_send_packet(decoders_->video.get(), nullptr);
    take_video();
    if (track_)
        return;
    avcodec_send_packet(decoders_->audio.get(), nullptr);
    take_audio();
}

void MediaFile::take_coded()
{
    AVPacket* packet = decoders_->packet.get();
    if (packet->pts != AV_NOPTS_VALUE) {
        int64_t at_ns = to_ns(packet->pts, decoders_->time_base(decoders_->audio_index)) - decoders_->start_ns;
        int64_t gap_ns = at_ns - sound_ns();
        if (gap_ns > kGapMs * kSecondNs / 1000) {
            track_->add_gap(gap_ns * audio_rate_ / kSecondNs);
            note(&SourceFaults::damaged_sound);
        }
    }
    track_->add(packet);
    std::lock_guard<std::mutex> lock(mutex_);
    changed_.notify_all();
}

void MediaFile::take_video()
{
    MediaDecoders& decoders = *decoders_;
    AVFrame* frame = decoders.frame.get();
    while (receive(decoders.video.get(), &SourceFaults::damaged_pictures)) {
        VideoFrame out = {};
        out.source_ns = decoders.next_video_ns;
        if (frame->best_effort_timestamp != AV_NOPTS_VALUE)
            out.source_ns =
                to_ns(frame->best_effort_timestamp, decoders.time_base(decoders.video_index)) - decoders.start_ns;
        decoders.next_video_ns = out.source_ns + picture_ns();
        make_field(&out.picture);
        if (image_box_.width > 0)
            out.image = make_image();
        std::lock_guard<std::mutex> lock(mutex_);
        bool in_order = frame_times_.empty() || out.source_ns > frame_times_.back();
        if (out.source_ns < 0 || !in_order || past_the_end(out.source_ns))
            continue;
        if (!frame_times_.empty() && static_cast<double>(out.source_ns - frame_times_.back()) >
                                         kGapInPictures * static_cast<double>(picture_ns()))
            faults_.picture_gaps++;
        out.number = static_cast<int64_t>(frame_times_.size());
        write_number(&out.picture, out.number);
        frame_times_.push_back(out.source_ns);
        pictures_.push_back(out);
        changed_.notify_all();
    }
}

void MediaFile::make_field(Picture* picture)
{
    const AVFrame& frame = *decoders_->frame;
    AvOwned<SwsContext>& scaler = decoders_->scaler;
    scaler.reset(sws_getCachedContext(scaler.release(), frame.width, frame.height,
                                      static_cast<AVPixelFormat>(frame.format), Picture::kWidth, Picture::kFieldHeight,
                                      AV_PIX_FMT_GRAY8, SWS_POINT, nullptr, nullptr, nullptr));
    uint8_t* rows[4] = {picture->field(), nullptr, nullptr, nullptr};
    int strides[4] = {Picture::kWidth, 0, 0, 0};
    if (scaler)
        sws_scale(scaler.get(), frame.data, frame.linesize, 0, frame.height, rows, strides);
}

/// The decoded frame in colour, in the shape in which it is to be seen.
std::shared_ptr<const Image> MediaFile::make_image()
{
    const AVFrame& frame = *decoders_->frame;
    AVRational pixel = frame.sample_aspect_ratio;
    double width = pixel.num > 0 && pixel.den > 0 ? frame.width * av_q2d(pixel) : frame.width;
    Size box{std::min(image_box_.width, kLargestImage.width), std::min(image_box_.height, kLargestImage.height)};
    Size size = fit(width, frame.height, box);
    AvOwned<SwsContext>& scaler = decoders_->image_scaler;
    const SwsContext* before = scaler.get();
    scaler.reset(sws_getCachedContext(scaler.release(), frame.width, frame.height,
                                      static_cast<AVPixelFormat>(frame.format), size.width, size.height,
                                      AV_PIX_FMT_0RGB32, SWS_FAST_BILINEAR, nullptr, nullptr, nullptr));
    if (!scaler || !decoders_->image.resize(size, AV_PIX_FMT_0RGB32))
        return nullptr;
    if (scaler.get() != before) {
        // Unless a large picture names its colours, they are those of HDTV.
        constexpr int kSdHeight = 576;
        int colours = frame.colorspace != AVCOL_SPC_UNSPECIFIED ? static_cast<int>(frame.colorspace)
                      : frame.height > kSdHeight                ? SWS_CS_ITU709
                                                                : SWS_CS_ITU601;
        constexpr int kUnchanged = 1 << 16;
        sws_setColorspaceDetails(scaler.get(), sws_getCoefficients(colours), frame.color_range == AVCOL_RANGE_JPEG,
                                 sws_getCoefficients(SWS_CS_DEFAULT), 1, 0, kUnchanged, kUnchanged);
    }
    auto image = std::make_shared<Image>();
    image->width = size.width;
    image->height = size.height;
    image->pixels.resize(static_cast<size_t>(size.width) * static_cast<size_t>(size.height));
    uint8_t* const rows[4] = {decoders_->image.pixels()};
    const int pitches[4] = {decoders_->image.pitch()};
    sws_scale(scaler.get(), frame.data, frame.linesize, 0, frame.height, rows, pitches);
    const int row_bytes = size.width * static_cast<int>(sizeof(uint32_t));
    av_image_copy_plane(reinterpret_cast<uint8_t*>(image->pixels.data()), row_bytes, rows[0], pitches[0], row_bytes,
                        size.height);
    return image;
}

void MediaFile::take_audio()
{
    MediaDecoders& decoders = *decoders_;
    AVFrame* frame = decoders.frame.get();
    while (receive(decoders.audio.get(), &SourceFaults::damaged_sound)) {
        if (!decoders.converter)
            decoders.converter.reset(make_converter(frame, audio_rate_));
        if (!decoders.converter)
            continue;
        int64_t skip = 0;
        if (frame->best_effort_timestamp != AV_NOPTS_VALUE) {
            int64_t at_ns =
                to_ns(frame->best_effort_timestamp, decoders.time_base(decoders.audio_index)) - decoders.start_ns;
            int64_t gap = at_ns * audio_rate_ / kSecondNs - sound_.frames();
            bool hole = gap > kGapMs * audio_rate_ / 1000;
            if (hole && sound_.frames() > 0)
                note(&SourceFaults::damaged_sound);
            if (hole || (sound_.frames() == 0 && gap > 0))
                sound_.append_silence(gap);
            else if (sound_.frames() == 0)
                skip = -gap;
        }
        int capacity = swr_get_out_samples(decoders.converter.get(), frame->nb_samples);
        auto* samples = decoders.converted.room_for<int16_t>(2 * static_cast<size_t>(std::max(capacity, 0)));
        if (samples == nullptr)
            continue;
        auto* bytes = reinterpret_cast<uint8_t*>(samples);
        int frames = swr_convert(decoders.converter.get(), &bytes, capacity,
                                 const_cast<const uint8_t**>(frame->extended_data), frame->nb_samples);
        if (frames > skip)
            sound_.append(samples + 2 * skip, frames - skip);
        std::lock_guard<std::mutex> lock(mutex_);
        changed_.notify_all();
    }
}

} // namespace play
