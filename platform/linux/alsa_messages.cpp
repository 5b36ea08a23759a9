// SPDX-License-Identifier: MIT
#include "alsa_messages.h"

#include <cstdio>

#include "contained.h"

namespace hdmi_linux
{
namespace
{

thread_local AlsaMessages* t_messages = nullptr;

} // namespace

AlsaMessages::AlsaMessages() : outer_(t_messages), handler_(snd_lib_error_set_local(take)) { t_messages = this; }

AlsaMessages::~AlsaMessages()
{
    t_messages = outer_;
    snd_lib_error_set_local(handler_);
}

void AlsaMessages::take(const char*, int, const char*, int error, const char* format, va_list args)
{
    if (t_messages == nullptr)
        return;
    char text[256];
    vsnprintf(text, sizeof(text), format, args);
    // An exception must not pass through alsa-lib.
    contained([&] { return t_messages->keep(text, error), 0; }, 0);
}

void AlsaMessages::keep(const char* text, int error)
{
    text_ = text;
    if (error != 0)
        text_ += std::string(": ") + snd_strerror(error);
    while (!text_.empty() && text_.back() == '\n')
        text_.pop_back();
}

} // namespace hdmi_linux
