// SPDX-License-Identifier: MIT
#include "named_signal.h"

#include <sndfile.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <system_error>
#include <vector>

#include "extcon/extcon.h"
#include "hdmi_sim_control.h"
#include "internal/common.h"
#include "sim.h"

namespace sim
{
namespace
{

constexpr char kVariable[] = "HDMIPLAYER_SIM_SIGNAL";
constexpr double kToneHz = 1000;
constexpr double kTonePeak = 8192; ///< 12 dB below full scale
constexpr int kNoisePeak = 64;
constexpr int kBeepsPerSecond = 20; ///< the length of a beep is one of so many parts of its second
/// Longer recordings are no matter for the memory of a test.
constexpr sf_count_t kMostFrames = 48000 * 3600;

int16_t tone(int64_t number, int rate)
{
    // Tones repeat each second: the angle stays exact for as long as the source sends.
    const double phase = 2 * M_PI * kToneHz * static_cast<double>(number % rate) / rate;
    return static_cast<int16_t>(std::lrint(kTonePeak * std::sin(phase)));
}

int16_t noise(int64_t number)
{
    const auto mixed = static_cast<uint32_t>(number) * 2654435761U;
    return static_cast<int16_t>(static_cast<int>(mixed >> 16) % (2 * kNoisePeak + 1) - kNoisePeak);
}

/// Both channels alike.
template <typename Sample> hdmi_sim::Signal signal_of(int rate, Sample sample)
{
    hdmi_sim::Signal signal;
    signal.rate = rate;
    signal.generate = [sample](int64_t first, int16_t* words, int frames) {
        for (int i = 0; i < frames; i++)
            words[2 * i] = words[2 * i + 1] = sample(first + i);
    };
    return signal;
}

bool ends_with(const std::string& text, const char* end)
{
    const size_t length = strlen(end);
    return text.size() >= length && text.compare(text.size() - length, length, end) == 0;
}

bool read_sound(const std::string& path, NamedSignal* found, std::string* error)
{
    SF_INFO info = {};
    const std::unique_ptr<SNDFILE, int (*)(SNDFILE*)> file(sf_open(path.c_str(), SFM_READ, &info), sf_close);
    if (file == nullptr) {
        *error = path + ": " + sf_strerror(nullptr);
        return false;
    }
    if (info.channels > 2 || info.frames <= 0 || info.frames > kMostFrames) {
        *error = path + ": not a sound of one or two channels and up to an hour";
        return false;
    }
    auto samples = std::make_shared<std::vector<int16_t>>(static_cast<size_t>(info.frames * info.channels));
    samples->resize(static_cast<size_t>(sf_readf_short(file.get(), samples->data(), info.frames) * info.channels));
    if (samples->empty()) {
        *error = path + ": no sound can be read";
        return false;
    }
    found->sample_rate = found->signal.rate = info.samplerate;
    found->signal.generate = [samples, channels = info.channels](int64_t first, int16_t* words, int frames) {
        const auto length = static_cast<int64_t>(samples->size()) / channels;
        for (int i = 0; i < frames; i++) {
            const int16_t* frame = samples->data() + (first + i) % length * channels;
            words[2 * i] = frame[0];
            words[2 * i + 1] = frame[channels - 1];
        }
    };
    return true;
}

bool read_bursts(hdmi_sim::Coding coding, const std::string& path, NamedSignal* found, std::string* error)
{
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> data{std::istreambuf_iterator<char>(file), {}};
    if (!file) {
        *error = path + ": " + strerror(errno);
        return false;
    }
    hdmi_sim::Bitstream stream;
    std::string why;
    if (!hdmi_sim::pack_bitstream(coding, reinterpret_cast<const uint8_t*>(data.data()), data.size(), &stream, &why)) {
        *error = path + ": " + why;
        return false;
    }
    hdmi_sim::BurstOptions options;
    options.repeat = true;
    found->signal = hdmi_sim::bitstream_signal(stream, options);
    found->compressed = true;
    found->sample_rate = stream.sample_rate;
    return true;
}

bool is_made(const std::string& source) { return source == "tone" || source == "programme" || source == "silence"; }

bool make_source(const std::string& source, NamedSignal* found, std::string* error)
{
    const int rate = found->sample_rate;
    if (source == "silence")
        found->signal.rate = rate;
    else if (source == "tone")
        found->signal = signal_of(rate, [rate](int64_t number) { return tone(number, rate); });
    else if (source == "programme")
        found->signal = signal_of(rate, [rate](int64_t number) {
            const bool beeps = number % rate < rate / kBeepsPerSecond;
            return static_cast<int16_t>((beeps ? tone(number, rate) : 0) + noise(number));
        });
    else if (ends_with(source, ".ac3"))
        return read_bursts(hdmi_sim::Coding::ac3, source, found, error);
    else if (ends_with(source, ".eac3") || ends_with(source, ".ec3"))
        return read_bursts(hdmi_sim::Coding::eac3, source, found, error);
    else
        return read_sound(source, found, error);
    return true;
}

/// Takes the last ",NAME=NUMBER" off @p text, if that is what it ends with.
bool take_option(std::string* text, const char* name, double* value)
{
    const std::string begin = std::string(",") + name + "=";
    const size_t at = text->rfind(begin);
    if (at == std::string::npos)
        return false;
    const char* number = text->c_str() + at + begin.size();
    char* end = nullptr;
    *value = strtod(number, &end);
    if (end == number || *end != '\0')
        return false;
    text->resize(at);
    return true;
}

} // namespace

bool find_signal(const std::string& text, NamedSignal* found, std::string* error)
{
    constexpr double kMostPpm = 10'000;
    std::string source = text;
    double rate = 0;
    double ppm = 0;
    while (take_option(&source, "rate", &rate) || take_option(&source, "ppm", &ppm)) {
    }
    if (rate != 0 && is_made(source))
        found->sample_rate = static_cast<int>(rate);
    std::error_code failed;
    if (!is_made(source) && !std::filesystem::exists(source, failed)) {
        *error = source + ": no such file, nor programme, tone or silence; ,rate=HZ and ,ppm=NUMBER may follow";
        return false;
    }
    if (!make_source(source, found, error))
        return false;
    if (rate != 0 && rate != found->sample_rate)
        *error = source + ": it has " + std::to_string(found->sample_rate) + " Hz";
    else if (hdmi_sim::announce_text(found->compressed, found->sample_rate).empty())
        *error = source + ": " + std::to_string(found->sample_rate) + " Hz is not one of 32000, 44100, 48000";
    else if (!(std::abs(ppm) <= kMostPpm))
        *error = source + ": no clock is so wrong as " + std::to_string(ppm) + " ppm";
    else
        found->signal.clock_error_ppm = ppm;
    return error->empty();
}

void connect_if_asked()
{
    static std::atomic<bool> asked{false};
    const char* signal = getenv(kVariable);
    if (asked.exchange(true) || signal == nullptr || *signal == '\0' || has_signal())
        return;
    char error[256];
    if (hdmi_sim_connect(signal, error, sizeof(error)) != 0)
        log_e("%s: %s\n", kVariable, error);
}

} // namespace sim
