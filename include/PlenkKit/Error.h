#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include <PlenkKit/Export.h>

namespace plenk {

// An error value: a domain, a signed 64-bit code, an always-empty user info and
// a kind (the dynamic class) that fixes the English description. Errors are
// immutable and passed as ErrorPtr.
class PLENK_EXPORT Error {
public:
    Error(std::string domain, std::int64_t code);
    virtual ~Error();

    const std::string& domain() const noexcept { return domain_; }
    std::int64_t code() const noexcept { return code_; }
    // Always empty: no error of this library carries user information.
    const std::map<std::string, std::string>& userInfo() const noexcept;
    // A kindless error (and a kind without a text of its own) describes itself
    // by domain and code.
    virtual std::string localizedDescription() const;

    // The platform's class factory: an error of kind K with this domain and code.
    template <typename K = Error>
    static std::shared_ptr<const Error> make(std::string domain, std::int64_t code) {
        return std::make_shared<const K>(std::move(domain), code);
    }

private:
    std::string domain_;
    std::int64_t code_;
};

using ErrorPtr = std::shared_ptr<const Error>;

// Kind test by class, parents included: isKind<RKErrorLENotAvailableC>(e).
template <typename K>
bool isKind(const ErrorPtr& error) noexcept {
    return dynamic_cast<const K*>(error.get()) != nullptr;
}

}  // namespace plenk
