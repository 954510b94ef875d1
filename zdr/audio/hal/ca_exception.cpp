#include "zdr/audio/hal/ca_exception.h"

namespace zdr::hal {

CAException::CAException(OSStatus error)
    : error_(error), what_("CAException: HAL status " + statusString(error)) {}

}  // namespace zdr::hal
