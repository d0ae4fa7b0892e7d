#pragma once

#include <string>

#include <PlenkKit/Error.h>

#include "JsonWriter.h"

namespace plenk::cli {

// The error's kind as the library names it ("RKErrorLEConnectionTimeoutC"), or
// "Error" for a kindless one.
std::string errorKind(const Error& error);
// "RKErrorLEWriteC (RKErrorDomain 109): <description>".
std::string describeError(const Error& error);
// Adds kind, domain, code and description to a JSON object.
JsonObject& addError(JsonObject& object, const Error& error);

}  // namespace plenk::cli
