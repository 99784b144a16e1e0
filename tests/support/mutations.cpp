#include "mutations.h"

#include <array>
#include <cstdint>

namespace support {

namespace {

constexpr unsigned char constructed = 0x20;

// Where the bytes of one element lie.
struct Place {
    std::size_t tag = 0;
    std::size_t contents = 0;
    std::size_t end = 0;
    std::vector<std::size_t> around{}; // the elements that it lies in, outermost first
};

// All elements, also those inside of constructed ones. Tags have one byte.
void find_places(std::string_view value, std::size_t begin, std::size_t end,
                 const std::vector<std::size_t> &around, std::vector<Place> &places)
{
    while (begin < end) {
        const std::size_t size = whole_element(value.substr(begin, end - begin));
        const auto first = static_cast<unsigned char>(value[begin + 1]);
        const std::size_t contents = begin + 2 + (first < 0x80 ? 0 : first - 0x80U);
        places.push_back({begin, contents, begin + size, around});
        if ((static_cast<unsigned char>(value[begin]) & constructed) != 0) {
            std::vector<std::size_t> inside = around;
            inside.push_back(places.size() - 1);
            find_places(value, contents, begin + size, inside, places);
        }
        begin += size;
    }
}

std::vector<Place> places_in(std::string_view value)
{
    std::vector<Place> places;
    find_places(value, 0, value.size(), {}, places);
    return places;
}

// The value with other bytes in the place of an element, and the lengths around it made to fit.
std::string replaced(std::string_view value, const std::vector<Place> &places, const Place &place,
                     std::string bytes)
{
    std::size_t begin = place.tag, end = place.end;
    for (auto outer = place.around.rbegin(); outer != place.around.rend(); ++outer) {
        const Place &parent = places[*outer];
        bytes = element(static_cast<unsigned char>(value[parent.tag]),
                        concat(value.substr(parent.contents, begin - parent.contents), bytes,
                               value.substr(end, parent.end - end)));
        begin = parent.tag;
        end = parent.end;
    }
    return concat(value.substr(0, begin), bytes, value.substr(end));
}

} // namespace

std::vector<Mutation> mutations(std::string_view value)
{
    std::vector<Mutation> all;
    for (const std::string &cut : cuts(value))
        all.push_back({"cut after " + std::to_string(cut.size()) + " bytes", cut});

    const std::vector<Place> places = places_in(value);
    for (const Place &place : places) {
        const auto tag = static_cast<unsigned char>(value[place.tag]);
        const std::string contents(value.substr(place.contents, place.end - place.contents));
        const std::uint64_t length = contents.size();
        const auto add = [&](const std::string &what, const std::string &bytes) {
            all.push_back({what + " of the element " + hex(value.substr(place.tag, 1)) +
                               " at byte " + std::to_string(place.tag),
                           replaced(value, places, place, bytes)});
        };

        for (unsigned bit = 0; bit < 8; ++bit)
            add("bit " + std::to_string(bit) + " of the tag", element(tag ^ (1U << bit), contents));

        const std::array<std::uint64_t, 6> lengths = {0,          0x7f,       0x80,
                                                      length + 1, length - 1, 0xffffffffU};
        for (const std::uint64_t lie : lengths)
            if (lie != length && lie != UINT64_MAX)
                add("length " + std::to_string(lie), header(tag, lie) + contents);
        add("the length byte 80", static_cast<char>(tag) + ("\x80" + contents));

        if ((tag & constructed) == 0)
            for (const long long number : {-1LL, 0LL, 0x100000LL, 0x7fffffffLL})
                add("number " + std::to_string(number), integer(number, tag));
    }
    return all;
}

} // namespace support
