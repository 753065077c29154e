// Forms of arguments and results that the files of the recording platform share.
#pragma once

#include <cstdio>
#include <string>

#include "recording_platform.h"

inline std::int32_t status(const scripted_result &result)
{
    return static_cast<std::int32_t>(result.value);
}

inline std::string text(std::int64_t number)
{
    return std::to_string(number);
}

inline std::string words(const std::uint32_t *word, std::size_t count)
{
    std::string list;
    for (std::size_t i = 0; i < count; ++i)
        list += (list.empty() ? "" : ", ") + (word[i] > 0xffff ? hexed(word[i]) : text(word[i]));
    return "{" + list + "}";
}
