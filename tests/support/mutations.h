// A value made of BER elements, damaged in one place: cut at every byte, and with each element's
// tag, length or number replaced by others that a hostile server may send. Everything around the
// damaged place fits it, so that only that one thing is wrong.
//
//     for (const Mutation &mutation : mutations(sequence(integer(2), octets("o=x"))))
//         decode(mutation.bytes) ...                          // mutation.what says what was done
#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "support/ber.h"

namespace support {

struct Mutation {
    std::string what; // "length 5 of the element 4 at byte 7"
    std::string bytes;

    friend std::ostream &operator<<(std::ostream &out, const Mutation &mutation)
    {
        return out << mutation.what << ": " << hex(mutation.bytes);
    }
};

std::vector<Mutation> mutations(std::string_view value);

} // namespace support
