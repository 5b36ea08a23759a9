// SPDX-License-Identifier: MIT
#include <cerrno>

#include "edges/alsa_pcm.h"

namespace play
{

std::unique_ptr<AlsaPcm> AlsaPcm::open(const std::string& name, Direction, int, std::string* error)
{
    *error = "alsa:" + name + ": this program was built without alsa-lib";
    return nullptr;
}

AlsaPcm::~AlsaPcm() = default;
int AlsaPcm::write(const int16_t*, int) { return -ENODEV; }
int AlsaPcm::read(int16_t*, int) { return -ENODEV; }
bool AlsaPcm::start() { return false; }
bool AlsaPcm::prepare() { return false; }
bool AlsaPcm::ask_position(Position*) { return false; }
bool alsa_opens(const std::string& name, AlsaPcm::Direction, std::string* error)
{
    return AlsaPcm::open(name, AlsaPcm::Direction::playback, 0, error) != nullptr;
}

} // namespace play
