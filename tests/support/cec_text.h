// SPDX-License-Identifier: MIT
// CEC messages as CEC tools write them: "50:c0".
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

inline std::vector<uint8_t> parsed(const std::string& text)
{
    std::vector<uint8_t> bytes;
    for (size_t at = 0; at < text.size(); at += 3)
        bytes.push_back(static_cast<uint8_t>(std::stoi(text.substr(at, 2), nullptr, 16)));
    return bytes;
}

inline std::string printed(const uint8_t* bytes, size_t length)
{
    std::string text;
    char digits[4];
    for (size_t i = 0; i < length; ++i) {
        snprintf(digits, sizeof(digits), i == 0 ? "%02x" : ":%02x", bytes[i]);
        text += digits;
    }
    return text;
}
