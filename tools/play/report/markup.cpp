// SPDX-License-Identifier: MIT
#include "report/markup.h"

#include <cmath>
#include <cstdint>
#include <cstdio>

namespace play
{
namespace
{

constexpr const char* kReplacement = "\xEF\xBF\xBD";

bool continues(unsigned char byte) { return (byte & 0xC0) == 0x80; }

/// Bytes of the UTF-8 character at @p at; 0: there is none. Neither overlong ones, surrogates nor what lies beyond.
size_t character_length(const std::string& text, size_t at)
{
    auto byte = [&text, at](size_t i) {
        return at + i < text.size() ? static_cast<unsigned char>(text[at + i]) : static_cast<unsigned char>(0);
    };
    if (byte(0) < 0x80)
        return 1;
    if (byte(0) >= 0xC2 && byte(0) <= 0xDF)
        return continues(byte(1)) ? 2 : 0;
    if ((byte(0) & 0xF0) == 0xE0) {
        bool overlong = byte(0) == 0xE0 && byte(1) < 0xA0;
        bool surrogate = byte(0) == 0xED && byte(1) > 0x9F;
        return continues(byte(1)) && continues(byte(2)) && !overlong && !surrogate ? 3 : 0;
    }
    bool lead = byte(0) >= 0xF0 && byte(0) <= 0xF4;
    bool outside = (byte(0) == 0xF0 && byte(1) < 0x90) || (byte(0) == 0xF4 && byte(1) > 0x8F);
    return lead && continues(byte(1)) && continues(byte(2)) && continues(byte(3)) && !outside ? 4 : 0;
}

std::string escape_character(char character)
{
    switch (character) {
    case '&': return "&amp;";
    case '<': return "&lt;";
    case '>': return "&gt;";
    case '"': return "&quot;";
    case '\'': return "&#39;";
    case '\t':
    case '\n': return " ";
    default: break;
    }
    // No other control character may stand in a page.
    bool control = static_cast<unsigned char>(character) < 0x20 || character == 0x7F;
    return control ? kReplacement : std::string(1, character);
}

/// So many decimals, without a sign.
std::string magnitude(double value, int decimals)
{
    // The largest double has 309 digits before its point.
    char text[352];
    std::snprintf(text, sizeof text, "%.*f", decimals, std::abs(value));
    return text;
}

/// Whether anything but zeros is left of it.
bool vanishes(const std::string& digits) { return digits.find_first_not_of("0.") == std::string::npos; }

} // namespace

std::string escape(const std::string& text)
{
    std::string escaped;
    for (size_t at = 0; at < text.size();) {
        size_t length = character_length(text, at);
        if (length == 1)
            escaped += escape_character(text[at]);
        else
            escaped += length == 0 ? kReplacement : text.substr(at, length);
        at += length == 0 ? 1 : length;
    }
    return escaped;
}

std::string escape_json(std::string text)
{
    // The one character that could begin an end tag or a comment; in JSON it stands inside of strings only.
    for (size_t at = text.find('<'); at != std::string::npos; at = text.find('<', at))
        text.replace(at, 1, "\\u003c");
    return text;
}

std::string number(double value, int decimals)
{
    if (!std::isfinite(value))
        return "\xE2\x80\x93"; // an en dash
    std::string digits = magnitude(value, decimals);
    return (value < 0 && !vanishes(digits) ? "\xE2\x88\x92" : "") + digits;
}

std::string signed_number(double value, int decimals)
{
    std::string text = number(value, decimals);
    return value > 0 && std::isfinite(value) && !vanishes(text) ? "+" + text : text;
}

std::string plain(double value, int decimals)
{
    if (!std::isfinite(value))
        return "0";
    std::string digits = magnitude(value, decimals);
    return (value < 0 && !vanishes(digits) ? "-" : "") + digits;
}

std::string percent(double fraction) { return plain(100 * fraction, 3) + "%"; }

} // namespace play
