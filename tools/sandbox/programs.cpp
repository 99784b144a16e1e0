#include "programs.h"

#include <utility>

namespace sandbox {

Programs::Programs(asio::io_context &loop, std::filesystem::path directory)
    : loop_(loop), directory_(std::move(directory))
{
}

bool Programs::run(std::vector<std::string> command, Ended ended)
{
    if (waiting_.size() >= most_waiting)
        return false;
    waiting_.push_back({std::move(command), std::move(ended)});
    asio::post(loop_, [this] { start_next(); });
    return true;
}

void Programs::start_next()
{
    while (!waiting_.empty() && running_.size() < most_running) {
        const Waiting next = std::move(waiting_.front());
        waiting_.pop_front();
        const auto output = directory_ / ("program" + std::to_string(++last_) + ".log");
        try {
            running_.emplace_back(loop_, next, output);
        } catch (const CannotStart &error) {
            next.ended({false, -1, error.what()});
            continue;
        }
        const Place place = std::prev(running_.end());
        // Known by its number: when the limit strikes, the place may be another's.
        place->limit.async_wait([this, output](std::error_code stopped) {
            for (auto each = running_.begin(); !stopped && each != running_.end(); ++each)
                if (each->output == output)
                    return finish(each, true);
        });
    }
}

void Programs::reap()
{
    for (auto each = running_.begin(); each != running_.end();) {
        const Place place = each++;
        if (place->child.has_ended())
            finish(place, false);
    }
}

void Programs::finish(Place place, bool timed_out)
{
    const Outcome outcome{timed_out, place->child.status(), read_file(place->output)};
    const Ended ended = std::move(place->ended);
    std::error_code ignored;
    std::filesystem::remove(place->output, ignored);
    running_.erase(place); // kills it if it is still running
    asio::post(loop_, [this] { start_next(); });
    ended(outcome);
}

} // namespace sandbox
