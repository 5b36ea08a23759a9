// SPDX-License-Identifier: MIT
#include "config.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <map>

#include "alsa_limits.h"
#include "internal/common.h"
#include "internal/locks.h"

namespace hdmi_linux
{
namespace
{

constexpr char kDefaultPath[] = "/etc/hdmiplayer/linux.conf";
constexpr char kPathVariable[] = "HDMIPLAYER_LINUX_CONFIG";
constexpr char kCecVariable[] = "HDMIPLAYER_CEC_DEVICE";
constexpr char kMatchingVariable[] = "HDMIPLAYER_RATE_MATCHING";
/// A configuration has some twenty lines: a longer file is not one.
constexpr size_t kMaxFileBytes = 65536;
constexpr int kMaxStartPeriods = 7; ///< of the player's eight
constexpr int kMinPeriods = 2;

struct DeviceName {
    audio_io_dev_e device;
    const char* key;
    const char* variable;
};
constexpr DeviceName kDeviceNames[] = {
    {E_AUDIO_IO_DEV_SPEAKER, "speaker", "HDMIPLAYER_ALSA_SPEAKER"},
    {E_AUDIO_IO_DEV_HEADPHONE, "headphone", "HDMIPLAYER_ALSA_HEADPHONE"},
    {E_AUDIO_IO_DEV_SPDIF, "spdif", "HDMIPLAYER_ALSA_SPDIF"},
    {E_AUDIO_IO_DEV_HDMI_ARC, "hdmi_arc", "HDMIPLAYER_ALSA_HDMI_ARC"},
    {E_AUDIO_IO_DEV_HDMI_IN, "hdmi_in", "HDMIPLAYER_ALSA_HDMI_IN"},
    {E_AUDIO_IO_DEV_MIC01, "mic01", "HDMIPLAYER_ALSA_MIC01"},
    {E_AUDIO_IO_DEV_I2S_TXA, "i2s_txa", "HDMIPLAYER_ALSA_I2S_TXA"},
};

bool captures(audio_io_dev_e device) { return device == E_AUDIO_IO_DEV_HDMI_IN || device == E_AUDIO_IO_DEV_MIC01; }

const DeviceName* find_device(std::string_view key)
{
    const auto found = std::find_if(std::begin(kDeviceNames), std::end(kDeviceNames),
                                    [key](const DeviceName& n) { return n.key == key; });
    return found != std::end(kDeviceNames) ? found : nullptr;
}

/// What the host has named; empty: nothing.
struct Overrides {
    mutex_t mutex;
    std::array<std::string, E_AUDIO_IO_DEV_MAX> pcm GUARDED_BY(mutex);
};

Overrides& overrides()
{
    static auto* instance = new Overrides;
    return *instance;
}

std::string_view trimmed(std::string_view text)
{
    constexpr char kBlanks[] = " \t\r";
    const size_t begin = text.find_first_not_of(kBlanks);
    if (begin == std::string_view::npos)
        return {};
    return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

std::string_view without_comment(std::string_view line)
{
    for (size_t at = line.find('#'); at != std::string_view::npos; at = line.find('#', at + 1))
        if (at == 0 || line[at - 1] == ' ' || line[at - 1] == '\t')
            return line.substr(0, at);
    return line;
}

std::string quoted(std::string_view text) { return "'" + std::string(text) + "'"; }

// The setters return what is wrong with the value; empty: it was accepted.

std::string set_yes_no(std::string_view value, bool* field)
{
    if (value != "yes" && value != "no")
        return quoted(value) + " is neither yes nor no";
    *field = value == "yes";
    return {};
}

std::string set_number(std::string_view value, int min, int max, int* field)
{
    int number = 0;
    const auto end = std::from_chars(value.data(), value.data() + value.size(), number);
    if (end.ec != std::errc() || end.ptr != value.data() + value.size() || number < min || number > max)
        return quoted(value) + " is not a number from " + std::to_string(min) + " to " + std::to_string(max);
    *field = number;
    return {};
}

std::string set_raw_output(std::string_view value, Config* config)
{
    const DeviceName* name = find_device(value);
    if (name == nullptr || (name->device != E_AUDIO_IO_DEV_SPDIF && name->device != E_AUDIO_IO_DEV_HDMI_ARC))
        return quoted(value) + " is neither spdif nor hdmi_arc";
    config->raw_output = name->device;
    return {};
}

std::string set_rate_matching(std::string_view value, Config* config)
{
    if (value == "auto")
        config->rate_matching = RateMatching::automatic;
    else if (value == "on" || value == "off")
        config->rate_matching = value == "on" ? RateMatching::on : RateMatching::off;
    else
        return quoted(value) + " is none of auto, on, off";
    return {};
}

constexpr char kUnknownKey[] = "unknown key";

std::string set_device_detail(const DeviceName& name, std::string_view detail, std::string_view value,
                              const std::string& source, Config* config)
{
    AudioDeviceConfig& device = config->audio[name.device];
    if (detail == "resample")
        return set_yes_no(value, &device.resample);
    if (detail == "periods")
        return set_number(value, kMinPeriods, kMaxPeriods, &device.periods);
    const bool names_card = detail == "mixer_card";
    if (captures(name.device) || (detail != "mixer" && !names_card))
        return kUnknownKey;
    (names_card ? device.mixer_card : device.mixer) = value;
    (names_card ? device.mixer_card_source : device.mixer_source) = source;
    return {};
}

// @p source: for later messages about the value.
std::string set_key(std::string_view key, std::string_view value, const std::string& source, Config* config)
{
    if (key == "start_periods")
        return set_number(value, 1, kMaxStartPeriods, &config->start_periods);
    if (key == "raw_output")
        return set_raw_output(value, config);
    if (key == "rate_matching")
        return set_rate_matching(value, config);
    if (key == "cec") {
        config->cec = value;
        config->cec_source = source;
        return {};
    }
    const size_t dot = key.find('.');
    const DeviceName* name = find_device(key.substr(0, dot));
    if (name == nullptr)
        return kUnknownKey;
    if (dot != std::string_view::npos)
        return set_device_detail(*name, key.substr(dot + 1), value, source, config);
    config->audio[name->device].pcm = value;
    config->audio[name->device].pcm_source = source;
    return {};
}

// @return false with errno if the file cannot be read. A missing file counts as empty, with errno ENOENT.
bool read_file(const std::string& path, std::string* text)
{
    // Non-blocking: a pipe or terminal of that name must not block the opening of a device.
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return errno == ENOENT;
    text->resize(kMaxFileBytes + 1);
    size_t length = 0;
    ssize_t count = 0;
    while (length < text->size() && (count = ::read(fd, text->data() + length, text->size() - length)) > 0)
        length += static_cast<size_t>(count);
    const int err = count < 0 ? errno : length > kMaxFileBytes ? EFBIG : 0;
    ::close(fd);
    text->resize(length);
    errno = err;
    return err == 0;
}

void apply_file(Config* config, std::vector<std::string>* errors)
{
    const char* named = getenv(kPathVariable);
    const std::string path = named != nullptr && *named != '\0' ? named : kDefaultPath;
    std::string text;
    errno = 0;
    if (!read_file(path, &text) || (path != kDefaultPath && errno == ENOENT))
        errors->push_back(path + ": cannot be read: " + strerror(errno != 0 ? errno : EIO));
    else
        parse_config(text, path, config, errors);
}

void apply_environment(Config* config, std::vector<std::string>* errors)
{
    for (const DeviceName& name : kDeviceNames) {
        const char* value = getenv(name.variable);
        if (value == nullptr || *value == '\0')
            continue;
        config->audio[name.device].pcm = value;
        config->audio[name.device].pcm_source = name.variable;
    }
    const char* matching = getenv(kMatchingVariable);
    const std::string fault =
        matching != nullptr && *matching != '\0' ? set_rate_matching(matching, config) : std::string();
    if (!fault.empty())
        errors->push_back(std::string(kMatchingVariable) + ": " + fault);
    const char* cec = getenv(kCecVariable);
    if (cec == nullptr || *cec == '\0')
        return;
    config->cec = cec;
    config->cec_source = kCecVariable;
}

void apply_overrides(Config* config)
{
    Overrides& all = overrides();
    const mutex_guard guard(all.mutex);
    for (const DeviceName& name : kDeviceNames) {
        const std::string& pcm = all.pcm[name.device];
        if (pcm.empty())
            continue;
        config->audio[name.device].pcm = pcm;
        config->audio[name.device].pcm_source = std::string("this program's ") + name.key;
    }
}

} // namespace

Config::Config()
{
    for (AudioDeviceConfig& device : audio) {
        device.pcm = "default";
        device.resample = true;
    }
    audio[E_AUDIO_IO_DEV_SPDIF].pcm = "iec958";
    audio[E_AUDIO_IO_DEV_HDMI_ARC].pcm = "hdmi";
    audio[E_AUDIO_IO_DEV_HDMI_IN].pcm.clear();
    // A digital output must send exactly what the player wrote. A converted capture would hide that the source has
    // another rate.
    for (const int device : {E_AUDIO_IO_DEV_SPDIF, E_AUDIO_IO_DEV_HDMI_ARC, E_AUDIO_IO_DEV_HDMI_IN})
        audio[device].resample = false;
}

const char* device_key(int device)
{
    for (const DeviceName& name : kDeviceNames)
        if (name.device == device)
            return name.key;
    return device == E_AUDIO_IO_DEV_AUTO ? kDeviceNames[0].key : "unknown";
}

void parse_config(std::string_view text, const std::string& path, Config* config, std::vector<std::string>* errors)
{
    std::map<std::string, int, std::less<>> seen;
    for (int number = 1; !text.empty(); ++number) {
        const size_t end = text.find('\n');
        const std::string_view line = trimmed(without_comment(text.substr(0, end)));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (line.empty())
            continue;
        const size_t equals = line.find('=');
        const std::string key(trimmed(line.substr(0, equals)));
        const std::string_view value =
            equals != std::string_view::npos ? trimmed(line.substr(equals + 1)) : std::string_view();
        const std::string source = path + ":" + std::to_string(number) + ": " + key;
        std::string fault;
        if (value.empty() || value.find('\0') != std::string_view::npos)
            fault = "no value";
        else if (const auto [before, first] = seen.emplace(key, number); !first)
            fault = "set in line " + std::to_string(before->second) + " already";
        else
            fault = set_key(key, value, source, config);
        if (!fault.empty())
            errors->push_back(source + ": " + fault);
    }
}

bool override_device(std::string_view key, const std::string& pcm)
{
    const DeviceName* name = find_device(key);
    if (name == nullptr)
        return false;
    Overrides& all = overrides();
    const mutex_guard guard(all.mutex);
    all.pcm[name->device] = pcm;
    return true;
}

Config load_config(std::vector<std::string>* errors)
{
    Config config;
    apply_file(&config, errors);
    apply_environment(&config, errors);
    apply_overrides(&config);
    // AUTO is the speaker.
    config.audio[E_AUDIO_IO_DEV_AUTO] = config.audio[E_AUDIO_IO_DEV_SPEAKER];
    return config;
}

Config current_config()
{
    static mutex_t mutex;
    static std::vector<std::string> reported;
    std::vector<std::string> errors;
    Config config = load_config(&errors);
    mutex_guard guard(mutex);
    if (errors != reported) {
        reported = errors;
        for (const std::string& error : errors)
            log_e("%s; the default is used\n", error.c_str());
    }
    return config;
}

} // namespace hdmi_linux
