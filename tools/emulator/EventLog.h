#pragma once

#include <cstdio>
#include <string>
#include <string_view>

#include "bt/Bytes.h"

namespace plenk::emulator_tool {

// What the peripheral received and sent, one line per event on stdout:
// seconds since start, the event and its details, e.g.
//   "   1.204 frame 0a 31" or "   1.300 weight 12.3 00 00 ...".
// Hex bytes are written as the plenk tool's frame verb prints them.
class EventLog {
public:
    explicit EventLog(std::FILE* out = stdout);
    void line(std::string_view event, std::string_view details = {});
    void bytes(std::string_view event, std::string_view prefix, const bt::Bytes& value);

private:
    std::FILE* out_;
    double start_;
};

}  // namespace plenk::emulator_tool
