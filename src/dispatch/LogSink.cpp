#include <PlenkKit/LogSink.h>

#include <cstdio>

namespace plenk {

LogSink::~LogSink() = default;

namespace {
class FileSink final : public LogSink {
public:
    explicit FileSink(std::FILE* file) : file_(file) {}
    void write(std::string_view text) override {
        std::fwrite(text.data(), 1, text.size(), file_);
        std::fflush(file_);
    }

private:
    std::FILE* file_;
};

class DiscardSink final : public LogSink {
public:
    void write(std::string_view /*text*/) override {}
};
}  // namespace

std::shared_ptr<LogSink> LogSink::standardOutput() {
    static auto* const instance = new std::shared_ptr<LogSink>(std::make_shared<FileSink>(stdout));
    return *instance;
}

std::shared_ptr<LogSink> LogSink::standardError() {
    static auto* const instance = new std::shared_ptr<LogSink>(std::make_shared<FileSink>(stderr));
    return *instance;
}

std::shared_ptr<LogSink> LogSink::discard() {
    return std::make_shared<DiscardSink>();
}

}  // namespace plenk
