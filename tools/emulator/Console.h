#pragma once

#include <string>

#include "EventLog.h"
#include "PeripheralScale.h"
#include "dispatch/PollLoop.h"

namespace plenk::emulator_tool {

// Lines typed on stdin act on the scale as its owner would:
//   button 0|1    press a button       pour [GRAMS]  start a shot
//   load GRAMS    put a load on        battery PERCENT
//   drop          drop the link        help
// Watched on the loop; end of input just stops the console.
class Console {
public:
    Console(dispatch::PollLoop& loop, int fd, PeripheralScale& scale, EventLog& log);
    ~Console();
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    // One line, without its newline. Returns false for a line it did not understand.
    bool execute(const std::string& line);

private:
    void readable();

    dispatch::PollLoop& loop_;
    int fd_;
    PeripheralScale& scale_;
    EventLog& log_;
    std::string pending_;
};

}  // namespace plenk::emulator_tool
