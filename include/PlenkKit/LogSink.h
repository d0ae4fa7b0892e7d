#pragma once

#include <memory>
#include <string_view>

#include <PlenkKit/Export.h>

namespace plenk {

// Where the library's diagnostic lines go. They are not part of any contract.
class PLENK_EXPORT LogSink {
public:
    virtual ~LogSink();
    // Receives each diagnostic text exactly as the library prints it.
    virtual void write(std::string_view text) = 0;

    static std::shared_ptr<LogSink> standardOutput();
    static std::shared_ptr<LogSink> standardError();
    static std::shared_ptr<LogSink> discard();
};

}  // namespace plenk
