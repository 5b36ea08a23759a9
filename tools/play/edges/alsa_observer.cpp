// SPDX-License-Identifier: MIT
#include "edges/alsa_observer.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>

namespace play
{
namespace
{

constexpr useconds_t retry_us = 50'000;

} // namespace

AlsaObserver::AlsaObserver(std::string device, const std::string& wav_path, int rate)
    : m_device(std::move(device)), m_rate(rate), m_file(wav_path, rate)
{
}

bool AlsaObserver::start(std::string* error)
{
    m_pcm = AlsaPcm::open(m_device, AlsaPcm::Direction::capture, m_rate, error);
    if (!m_pcm)
        return false;
    if (!m_pcm->start()) {
        *error = "alsa:" + m_device + ": does not start";
        m_pcm = nullptr;
        return false;
    }
    m_thread = std::thread(&AlsaObserver::listen, this);
    return true;
}

void AlsaObserver::listen()
{
    pthread_setname_np(pthread_self(), "alsa_observer");
    while (!m_stop) {
        if (m_pcm && take_period())
            continue;
        m_file.begin_run();
        if (!m_pcm)
            open_again();
    }
    m_pcm = nullptr;
}

/// @return false: what comes next does not continue this
bool AlsaObserver::take_period()
{
    m_period.resize(static_cast<size_t>(2 * m_pcm->period_frames()));
    int got = m_pcm->read(m_period.data(), m_pcm->period_frames());
    if (got >= 0) {
        AlsaPcm::Word word = {};
        if (got > 0 && m_pcm->ask(&word))
            m_file.heard(m_file.frames() + got + word.frames, word.at_ns);
        m_file.append(m_period.data(), got);
        return true;
    }
    m_breaks++;
    // An overrun; whatever else it is, the device is taken for gone.
    bool goes_on = got == -EPIPE && m_pcm->prepare() && m_pcm->start();
    if (!goes_on)
        m_pcm = nullptr;
    return false;
}

void AlsaObserver::open_again()
{
    std::string ignored;
    m_pcm = AlsaPcm::open(m_device, AlsaPcm::Direction::capture, m_rate, &ignored);
    if (m_pcm && !m_pcm->start())
        m_pcm = nullptr;
    if (!m_pcm)
        usleep(retry_us);
}

bool AlsaObserver::finish(std::string* error)
{
    stop();
    return m_file.finish(error);
}

void AlsaObserver::stop()
{
    m_stop = true;
    if (m_thread.joinable())
        m_thread.join();
}

} // namespace play
