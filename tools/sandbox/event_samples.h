// One event of every kind, with every field set: for tests and demonstrations of monitors.
#pragma once

#include "event_encoding.h"

#include <memory>
#include <vector>

namespace sandbox {

// In the order of event_kinds. The client is the one that the events are said to come from.
std::vector<Event> sample_events(const std::shared_ptr<const Client> &client);

} // namespace sandbox
