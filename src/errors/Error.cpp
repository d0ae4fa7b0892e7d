#include <PlenkKit/Error.h>

#include <utility>

namespace plenk {

Error::Error(std::string domain, std::int64_t code) : domain_(std::move(domain)), code_(code) {}

Error::~Error() = default;

const std::map<std::string, std::string>& Error::userInfo() const noexcept {
    static const std::map<std::string, std::string> empty;
    return empty;
}

std::string Error::localizedDescription() const {
    return "The operation couldn\u2019t be completed. (" + domain_ + " error " + std::to_string(code_) + ".)";
}

}  // namespace plenk
