#pragma once

#include <cstdint>
#include <string_view>

#include <boost/uuid/uuid.hpp>

namespace jx {

// Reads `text` when it is a UUID in the canonical form that names nodes: 36
// characters, hexadecimal digits (either case) in groups of 8-4-4-4-12
// joined by hyphens. Returns false, leaving `id` unspecified, for any other
// text: a caller that accepts more forms falls back to its general reader.
// Gives the same value as Boost's stream input for every text it accepts,
// without the stream, the locale or an exception per rejected name.
inline bool ParseCanonicalUuid(std::string_view text, boost::uuids::uuid& id) {
    if (text.size() != 36) return false;
    std::size_t at = 0;
    for (std::uint8_t& byte : id.data) {
        if (at == 8 || at == 13 || at == 18 || at == 23) {
            if (text[at++] != '-') return false;
        }
        int value = 0;
        for (int half = 0; half < 2; ++half) {
            const char c = text[at++];
            const int digit = c >= '0' && c <= '9'   ? c - '0'
                              : c >= 'a' && c <= 'f' ? c - 'a' + 10
                              : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                     : -1;
            if (digit < 0) return false;
            value = value * 16 + digit;
        }
        byte = static_cast<std::uint8_t>(value);
    }
    return true;
}

}  // namespace jx
