#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>

#include <boost/uuid/uuid.hpp>

// This header replaces Boost's own std::hash specialisation for UUIDs: claim
// its include guard so that the two can never both be defined. Including
// <boost/uuid/uuid_hash.hpp> before this header is a compile error.
#define BOOST_UUID_HASH_HPP

// Hash for maps and sets keyed by UUID. A random (version 4) UUID is already
// uniformly distributed, so XOR-ing its two 64-bit halves is as good as any
// mixing and cheaper; other versions have structure and use Boost's hash.
template <>
struct std::hash<boost::uuids::uuid> {
    std::size_t operator()(const boost::uuids::uuid& id) const noexcept {
        if ((id.data[6] >> 4) == 4) {
            std::uint64_t first;
            std::uint64_t last;
            std::memcpy(&first, id.data, sizeof first);
            std::memcpy(&last, id.data + 8, sizeof last);
            return static_cast<std::size_t>(first ^ last);
        }
        return boost::uuids::hash_value(id);
    }
};
