#pragma once

#include <chrono>

#include <PlenkKit/Export.h>
#include <PlenkKit/Task.h>

namespace plenk {

// A serial executor: tasks run one at a time, in the order they were posted
// (delayed tasks once their delay has passed). The library's "main queue" is
// any Executor the host supplies; every callback to the host is posted to it,
// never called inline.
class PLENK_EXPORT Executor {
public:
    virtual ~Executor();
    virtual void post(Task task) = 0;
    virtual void postAfter(std::chrono::nanoseconds delay, Task task) = 0;
};

}  // namespace plenk
