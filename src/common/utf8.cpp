#include "common/utf8.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

constexpr std::string_view replacement_character = "\xEF\xBF\xBD";

bool is_continuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

// Length of the valid sequence at the start of `text` (not empty), 0 when there is none.
size_t sequence_length(std::string_view text) {
    struct form {
        size_t length;
        uint32_t smallest;
        unsigned char mask;
        unsigned char lead;
    };
    static constexpr form forms[] = {
        {1, 0, 0x80, 0x00},
        {2, 0x80, 0xE0, 0xC0},
        {3, 0x800, 0xF0, 0xE0},
        {4, 0x10000, 0xF8, 0xF0},
    };

    const auto first = static_cast<unsigned char>(text[0]);
    for (const form &row : forms) {
        if ((first & row.mask) != row.lead) {
            continue;
        }
        if (text.size() < row.length) {
            return 0;
        }
        uint32_t code = first & static_cast<unsigned char>(~row.mask);
        for (size_t i = 1; i < row.length; ++i) {
            if (!is_continuation(text[i])) {
                return 0;
            }
            code = (code << 6) | (static_cast<unsigned char>(text[i]) & 0x3FU);
        }
        const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
        return code >= row.smallest && code <= 0x10FFFF && !surrogate ? row.length : 0;
    }
    return 0;
}

// How much of the text's start is ASCII, looked at eight bytes at a time: most texts are nothing
// else.
size_t ascii_length(std::string_view text) {
    size_t length = 0;
    uint64_t block = 0;
    while (text.size() - length >= sizeof block) {
        memcpy(&block, text.data() + length, sizeof block);
        if ((block & 0x8080808080808080U) != 0) {
            break;
        }
        length += sizeof block;
    }
    return length;
}

}  // namespace

bool utf8_is_valid(std::string_view text) {
    while (true) {
        text.remove_prefix(ascii_length(text));
        if (text.empty()) {
            return true;
        }
        const size_t length = sequence_length(text);
        if (length == 0) {
            return false;
        }
        text.remove_prefix(length);
    }
}

std::string utf8_repaired(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const size_t length = sequence_length(text);
        if (length == 0) {
            result += replacement_character;
            text.remove_prefix(1);
        } else {
            result += text.substr(0, length);
            text.remove_prefix(length);
        }
    }
    return result;
}
