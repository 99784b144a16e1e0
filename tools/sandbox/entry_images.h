// An entry as it was before and as it is after a change, taken by slapd together with the change
// (RFC 4527): so nothing can come between, and slapd's access rules hold.
#pragma once

#include "directory.h"

#include <optional>
#include <string>
#include <string_view>

namespace sandbox {

struct EntryImages {
    std::optional<Entry> before;
    std::optional<Entry> after;
};

bool is_change(ber::Tag request);

// The controls that ask for the images of the entry that a request changes: its class and age,
// with the attributes that are about to change when `values` says so. None when the request is no
// change, when it cannot be read, or when the client asks for images itself.
std::string image_controls(const ber::Element &request, std::string_view controls, bool values);

// The images among the controls of a response, and the other controls. Only for the answer to a
// request that got controls of ours.
EntryImages read_images(std::string_view controls);
std::string without_images(std::string_view controls);

} // namespace sandbox
