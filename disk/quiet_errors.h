// A scope of the host's quiet-errors mode for the disk cache's file work: a failing file is an
// expected event there, so its reports are recorded but not shown to the user.
#pragma once

#include <cstdint>

#include "host/y_api.h"

namespace jx::disk {

class ScQuietErrors {
 public:
  // Throws the host's code when the mode cannot be entered.
  ScQuietErrors() {
    if (int32_t err = Y_StartQuietErrorsOnCurrentThread()) throw static_cast<int>(err);
  }
  ~ScQuietErrors() { Y_EndQuietErrorsOnCurrentThread(); }
  ScQuietErrors(const ScQuietErrors&) = delete;
  ScQuietErrors& operator=(const ScQuietErrors&) = delete;
};

}  // namespace jx::disk
