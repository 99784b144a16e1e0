// One at a time: for changes that read, decide and then write, so that none decides on what
// another is about to change.
#pragma once

#include <asio.hpp>

#include <deque>
#include <functional>
#include <memory>
#include <utility>

namespace sandbox {

// Held by whoever's turn it is; the next one begins when the last copy is gone.
using Turn = std::shared_ptr<void>;

class Turns {
public:
    using Work = std::function<void(const Turn &)>;

    explicit Turns(asio::io_context &loop) : line_(std::make_shared<Line>(Line{loop, {}, false})) {}

    void wait(Work work)
    {
        line_->waiting.push_back(std::move(work));
        if (!line_->busy)
            next(line_);
    }

private:
    struct Line {
        asio::io_context &loop;
        std::deque<Work> waiting;
        bool busy;
    };

    static void next(const std::shared_ptr<Line> &line)
    {
        line->busy = !line->waiting.empty();
        if (!line->busy)
            return;
        const Work work = std::move(line->waiting.front());
        line->waiting.pop_front();
        work(Turn(nullptr, [weak = std::weak_ptr(line)](void *) {
            if (const auto still = weak.lock())
                asio::post(still->loop, [weak] {
                    if (const auto open = weak.lock())
                        next(open);
                });
        }));
    }

    std::shared_ptr<Line> line_;
};

} // namespace sandbox
