// CAException: the failure the HAL wrappers throw; it carries the status the
// hardware layer answered. Callers of the wrappers catch it at the point of use,
// log the status and answer a default value.
//
// Thread safety: a value type.
#pragma once

#include <exception>
#include <string>

#include "zdr/audio/hal/hal_types.h"

namespace zdr::hal {

class CAException : public std::exception {
 public:
    explicit CAException(OSStatus error);
    OSStatus GetError() const noexcept { return error_; }
    const char* what() const noexcept override { return what_.c_str(); }

 private:
    OSStatus error_;
    std::string what_;
};

/// Throws CAException(status) unless status is kAudioHardwareNoError.
inline void ThrowIfError(OSStatus status) {
    if (status != kAudioHardwareNoError) throw CAException(status);
}

}  // namespace zdr::hal
