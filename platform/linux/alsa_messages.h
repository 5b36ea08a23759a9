// SPDX-License-Identifier: MIT
/**
 * @file
 * alsa-lib's own messages, for reports of what failed.
 */
#pragma once

#include <cstdarg>
// First: in some releases alsa/error.h leaves its last function outside of its extern "C".
extern "C" {
#include <alsa/error.h>
}
#include <alsa/asoundlib.h>

#include <string>

namespace hdmi_linux
{

/// Catches what alsa-lib reports on the calling thread in this scope, which would go to standard error otherwise.
class AlsaMessages
{
public:
    AlsaMessages();
    ~AlsaMessages();
    AlsaMessages(const AlsaMessages&) = delete;
    AlsaMessages& operator=(const AlsaMessages&) = delete;

    /// The last message, which is that of the outermost layer; empty: there was none.
    const std::string& text() const { return text_; }

private:
    static void take(const char* file, int line, const char* function, int error, const char* format, va_list args);
    void keep(const char* text, int error);

    std::string text_;
    AlsaMessages* outer_;
    snd_local_error_handler_t handler_;
};

} // namespace hdmi_linux
