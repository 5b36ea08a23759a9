// SPDX-License-Identifier: MIT
#include "edges/alsa_observer.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>

namespace play
{
namespace
{

constexpr useconds_t kRetryUs = 50'000;

} // namespace

AlsaObserver::AlsaObserver(std::string device, const std::string& wav_path, int rate)
    : device_(std::move(device)), rate_(rate), file_(wav_path, rate)
{
}

bool AlsaObserver::start(std::string* error)
{
    pcm_ = AlsaPcm::open(device_, AlsaPcm::Direction::capture, rate_, error);
    if (!pcm_)
        return false;
    if (!pcm_->start()) {
        *error = "alsa:" + device_ + ": does not start";
        pcm_ = nullptr;
        return false;
    }
    thread_ = std::thread(&AlsaObserver::listen, this);
    return true;
}

void AlsaObserver::listen()
{
    pthread_setname_np(pthread_self(), "alsa_observer");
    while (!stop_) {
        if (pcm_ && take_period())
            continue;
        file_.begin_run();
        if (!pcm_)
            open_again();
    }
    pcm_ = nullptr;
}

/// @return false: sound was missed, another run begins
bool AlsaObserver::take_period()
{
    period_.resize(2 * static_cast<size_t>(pcm_->period_frames()));
    int got = pcm_->read(period_.data(), pcm_->period_frames());
    if (got >= 0) {
        AlsaPcm::Position position = {};
        if (got > 0 && pcm_->ask_position(&position))
            file_.heard(file_.frames() + got + position.frames, position.at_ns);
        file_.append(period_.data(), got);
        return true;
    }
    breaks_++;
    // After an overrun the device goes on; after any other error it is treated as lost.
    bool goes_on = got == -EPIPE && pcm_->prepare() && pcm_->start();
    if (!goes_on)
        pcm_ = nullptr;
    return false;
}

void AlsaObserver::open_again()
{
    std::string ignored;
    pcm_ = AlsaPcm::open(device_, AlsaPcm::Direction::capture, rate_, &ignored);
    if (pcm_ && !pcm_->start())
        pcm_ = nullptr;
    if (!pcm_)
        usleep(kRetryUs);
}

bool AlsaObserver::finish(std::string* error)
{
    stop();
    return file_.finish(error);
}

void AlsaObserver::stop()
{
    stop_ = true;
    if (thread_.joinable())
        thread_.join();
}

} // namespace play
