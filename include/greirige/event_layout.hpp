// greirige/event_layout.hpp - reads an event along its layout before the library decodes it.
// Nothing here is for callers.
//
// Copyright 2026 the greirige authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "greirige/detail.hpp"

namespace greirige::detail {

// A server that sends something else where a string belongs stops the process in an ordinary build
// of the library, and an event with referrals that cannot be read leaves one of their addresses
// allocated. Neither happens here: an event is first read along its layout, and handed on only when
// it will decode. The letters:
//
//   n  number                          u  number, unsigned
//   s  string                          p  string with tag 85
//   t  { u u u }                       a  u, string; an empty one stays where it is
//   c  optional { u u s }, tag 30      R  optional { n { { n s } ... } }, tag 30
//   D  string or any other element, or nothing
//   V  optional string that is not empty, optional number with tag 02
//   L  optional numbers in 86, optional strings in a7
//   N  string of 1 to 31 bytes         M  string of at most 127 bytes
//   C  value that goes with the number read last
//   P  as many parameters as the number read last says
//   S  strings, each { s }             k  the same if the tag is 80      r  if it is 81

class LayoutReader {
public:
    explicit LayoutReader(Reader &in) : in_(in) {}

    // Reads the event's data and its trailer; the reader fails where they are not as they should
    // be. Returns how many elements of the data are.
    std::size_t follow(std::string_view layout)
    {
        std::size_t good = 0;
        for (const char letter : layout) {
            read(letter);
            if (!in_.ok())
                return good;
            ++good;
        }
        read_trailer();
        return good;
    }

private:
    void read(char letter)
    {
        switch (letter) {
        case 'n':
            number_ = in_.number();
            break;
        case 'u':
            in_.unsigned_number();
            break;
        case 's':
            in_.string();
            break;
        case 'p':
            in_.string(0x85);
            break;
        case 't':
            in_.enter();
            read_unsigned(3);
            break;
        case 'a':
            read_address();
            break;
        case 'c':
            if (in_.next_is(LBER_SEQUENCE)) {
                in_.enter();
                read_unsigned(2);
                in_.string();
            }
            break;
        case 'D':
            if (in_.tag() != Reader::none)
                in_.pass();
            break;
        case 'V':
            if (in_.next_is(LBER_OCTETSTRING) && !in_.contents().empty())
                in_.pass();
            if (in_.next_is(LBER_INTEGER))
                in_.unsigned_number();
            break;
        case 'L':
            read_numbers_and_strings();
            break;
        case 'N':
            read_text(1, 31);
            break;
        case 'M':
            read_text(0, 127);
            break;
        case 'C':
            read_config_value();
            break;
        case 'P':
            read_parameters();
            break;
        case 'R':
            read_referrals();
            break;
        case 'S':
            read_strings();
            break;
        case 'k':
            if (in_.next_is(0x80))
                read_strings();
            break;
        case 'r':
            if (in_.next_is(0x81))
                read_strings();
            break;
        default:
            in_.fail();
        }
    }

    void read_unsigned(int count)
    {
        for (; count > 0; --count)
            in_.unsigned_number();
    }
    void read_text(std::size_t least, std::size_t most)
    {
        const std::string_view text = in_.string();
        if (text.size() < least || text.size() > most)
            in_.fail();
    }
    void read_address()
    {
        in_.unsigned_number();
        if (!in_.next_is(LBER_OCTETSTRING))
            in_.fail();
        else if (!in_.contents().empty())
            in_.pass();
    }
    void read_trailer()
    {
        if (in_.next_is(LBER_INTEGER))
            read_address();
    }
    // Both lists end with the first element of another tag.
    void read_numbers_and_strings()
    {
        if (in_.next_is(0x86)) {
            in_.enter();
            int count = 0;
            for (; in_.next_is(LBER_INTEGER) && count <= 4; ++count)
                in_.unsigned_number();
            if (count > 4)
                in_.fail();
        }
        if (in_.next_is(0xa7)) {
            in_.enter();
            int count = 0;
            for (; in_.next_is(LBER_OCTETSTRING) && count <= 3; ++count)
                in_.pass();
            if (count > 3)
                in_.fail();
        }
    }
    void read_config_value()
    {
        if ((number_ == 5 && in_.next_is(0x81)) || (number_ == 2 && in_.next_is(0x82)))
            in_.number();
        else if ((number_ == 1 && in_.next_is(0x83)) || (number_ == 3 && in_.next_is(0x84)))
            in_.pass();
        else if (number_ != 0 || !in_.next_is(0x85)) // no value: its element stays where it is
            in_.fail();
    }
    void read_parameters()
    {
        const std::int64_t count = number_;
        if (count <= 0 || !in_.ok())
            return;
        if (static_cast<std::uint64_t>(count) > in_.unread())
            in_.fail();
        in_.enter();
        for (std::int64_t i = 0; i < count && in_.ok(); ++i)
            read_parameter();
    }
    void read_parameter()
    {
        switch (in_.tag()) {
        case 0x81:
        case 0x84:
            in_.number();
            break;
        case 0x82:
        case 0x83:
            in_.pass();
            break;
        case 0x85:
            in_.enter();
            read_address();
            break;
        case 0x86:
            read('t');
            break;
        case 0x87:
            in_.enter();
            read_time_stamps();
            break;
        default:
            in_.fail();
        }
    }
    void read_time_stamps()
    {
        const std::uint32_t count = in_.unsigned_number();
        in_.enter();
        if (count > in_.unread())
            in_.fail();
        for (std::uint32_t i = 0; i < count && in_.ok(); ++i)
            read('t');
    }
    void read_referrals()
    {
        if (!in_.next_is(LBER_SEQUENCE))
            return;
        in_.enter();
        const std::int32_t count = in_.number();
        in_.enter();
        if (count < 0 || static_cast<std::uint32_t>(count) > in_.unread())
            in_.fail();
        for (std::int32_t i = 0; i < count && in_.ok(); ++i) {
            in_.enter();
            in_.number();
            in_.string();
        }
    }
    // What follows a string in its element is taken for the next element; the last string may
    // reach behind the list. A zero byte may only be a string's last.
    void read_strings()
    {
        if (!in_.ok() || in_.unread() == 0)
            return;
        const std::size_t length = in_.contents().size();
        in_.enter();
        if (!in_.ok())
            return;
        const std::size_t behind = in_.unread() - length;
        while (in_.ok() && in_.unread() > behind) {
            in_.enter();
            const std::string_view string = in_.ok() ? in_.contents() : std::string_view();
            const std::size_t zero = string.find('\0');
            if (zero != string.npos && zero + 1 < string.size())
                in_.fail();
            in_.pass();
        }
    }

    Reader &in_;
    std::int32_t number_ = 0;
};

} // namespace greirige::detail
