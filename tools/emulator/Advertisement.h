#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>

#include "bt/Uuid.h"

namespace plenk::emulator_tool {

// A connectable LE advertisement as a BlueZ LEAdvertisement1 object, ready for
// LEAdvertisingManager1.RegisterAdvertisement: the local name and the service
// UUIDs a central filters on. `released` runs when bluetoothd drops it.
class Advertisement {
public:
    Advertisement(sdbus::IConnection& connection, std::string path, const std::string& localName,
                  const std::vector<bt::Uuid>& services, std::function<void()> released);
    ~Advertisement();
    Advertisement(const Advertisement&) = delete;
    Advertisement& operator=(const Advertisement&) = delete;

    const std::string& path() const { return path_; }

private:
    std::string path_;
    std::unique_ptr<sdbus::IObject> object_;
};

}  // namespace plenk::emulator_tool
