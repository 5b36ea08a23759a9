// SPDX-License-Identifier: MIT
// The configuration of the Linux platform: the text of its file.
#include "config.h"

#include <sys/mman.h>
#include <unistd.h>

#include "alsa_limits.h"
#include "input.h"

using namespace hdmi_linux;

namespace
{

void check(const Config& config)
{
    require(config.start_periods >= 1 && config.start_periods <= 7);
    require(config.raw_output == E_AUDIO_IO_DEV_SPDIF || config.raw_output == E_AUDIO_IO_DEV_HDMI_ARC);
    for (const AudioDeviceConfig& device : config.audio) {
        require(device.periods == 0 || (device.periods >= 2 && device.periods <= kMaxPeriods));
        for (const std::string& text : {device.pcm, device.mixer, device.mixer_card})
            require(text.find('\0') == std::string::npos && text.find('\n') == std::string::npos);
    }
}

// As a file, through the reading of it.
size_t load(const uint8_t* data, size_t size)
{
    const int file = memfd_create("config", MFD_CLOEXEC);
    require(file >= 0 && write(file, data, size) == static_cast<ssize_t>(size));
    setenv("HDMIPLAYER_LINUX_CONFIG", ("/proc/self/fd/" + std::to_string(file)).c_str(), 1);
    std::vector<std::string> errors;
    check(load_config(&errors));
    close(file);
    return errors.size();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::vector<char> text(data, data + size);
    Config config;
    std::vector<std::string> errors;
    parse_config({text.data(), text.size()}, "file", &config, &errors);
    check(config);
    for (const std::string& error : errors)
        require(error.rfind("file:", 0) == 0);
    require(errors.size() <= static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + 1);
    require(size > 65536 || load(data, size) == errors.size());
    return 0;
}
