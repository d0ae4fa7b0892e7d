#include "Advertisement.h"

namespace plenk::emulator_tool {

namespace {
constexpr const char* kInterface = "org.bluez.LEAdvertisement1";
}

// The registrators' std::function assignment trips clang-analyzer's leak check: a false positive.
// NOLINTBEGIN(clang-analyzer-cplusplus.NewDeleteLeaks)
Advertisement::Advertisement(sdbus::IConnection& connection, std::string path, const std::string& localName,
                             const std::vector<bt::Uuid>& services, std::function<void()> released)
    : path_(std::move(path)), object_(sdbus::createObject(connection, path_)) {
    // 16-bit UUIDs in their short form, so they go out as a 16-bit list.
    std::vector<std::string> uuids;
    uuids.reserve(services.size());
    for (const auto& uuid : services) uuids.push_back(uuid.toString());
    object_->registerProperty("Type").onInterface(kInterface).withGetter([] {
        return std::string("peripheral");
    });
    object_->registerProperty("LocalName").onInterface(kInterface).withGetter([localName] {
        return localName;
    });
    object_->registerProperty("ServiceUUIDs").onInterface(kInterface).withGetter([uuids] { return uuids; });
    object_->registerMethod("Release")
        .onInterface(kInterface)
        .implementedAs([released = std::move(released)] {
            if (released) released();
        });
    object_->finishRegistration();
}
// NOLINTEND(clang-analyzer-cplusplus.NewDeleteLeaks)

Advertisement::~Advertisement() = default;

}  // namespace plenk::emulator_tool
