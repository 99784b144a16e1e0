// While one lives, what this thread allocates may leak without the leak checker's complaint: the
// manual states the leak, and a test in faults/ counts its blocks.
#pragma once

// The leak checker's own switch, where the program is built with one.
extern "C" {
[[gnu::weak]] void __lsan_disable();
[[gnu::weak]] void __lsan_enable();
}

namespace support {

struct StatedLeak {
    StatedLeak()
    {
        if (__lsan_disable != nullptr)
            __lsan_disable();
    }
    ~StatedLeak()
    {
        if (__lsan_enable != nullptr)
            __lsan_enable();
    }
    StatedLeak(const StatedLeak &) = delete;
    StatedLeak &operator=(const StatedLeak &) = delete;
};

} // namespace support
