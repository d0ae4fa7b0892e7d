#pragma once

// Umbrella header: everything a host needs to use the library.

#include <PlenkKit/Export.h>
#include <PlenkKit/Version.h>

#include <PlenkKit/Clock.h>
#include <PlenkKit/Color.h>
#include <PlenkKit/Context.h>
#include <PlenkKit/Executor.h>
#include <PlenkKit/LogSink.h>
#include <PlenkKit/NotificationCenter.h>
#include <PlenkKit/RunLoop.h>
#include <PlenkKit/Task.h>
#include <PlenkKit/Uuid.h>

#include <PlenkKit/Error.h>
#include <PlenkKit/PlatformErrors.h>
#include <PlenkKit/RKConfiguration.h>
#include <PlenkKit/RKErrors.h>
#include <PlenkKit/StringToHexConverter.h>

#include <PlenkKit/BLEConnecter.h>
#include <PlenkKit/CSRDevice.h>
#include <PlenkKit/CSRSelectDeviceViewController.h>
#include <PlenkKit/PKPlenk.h>
#include <PlenkKit/Peripheral.h>
#include <PlenkKit/RKDevice.h>
#include <PlenkKit/RKRostaKit.h>
#include <PlenkKit/RadioState.h>

// The scale's frames and decoders, for hosts that speak to it themselves.
#include <PlenkKit/ScaleProtocol.h>

// Testing without a scale: the simulated world.
#include <PlenkKit/Simulator.h>
