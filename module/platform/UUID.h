#pragma once

#include <string>

namespace platform {

// A fresh random UUID in canonical upper-case text form, 36 characters.
std::string newUUIDString();

}  // namespace platform
