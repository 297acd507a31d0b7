// Result codes of IOKit: negative once they sit in the signed type.
#pragma once

#include <mach/mach_types.h>

typedef kern_return_t IOReturn;

#define iokit_common_err(code) (static_cast<IOReturn>(0xE0000000u | (code)))

#define kIOReturnSuccess KERN_SUCCESS
#define kIOReturnError iokit_common_err(0x2bcu)
#define kIOReturnNoResources iokit_common_err(0x2beu)
#define kIOReturnNoDevice iokit_common_err(0x2c0u)
#define kIOReturnNotPrivileged iokit_common_err(0x2c1u)
#define kIOReturnBadArgument iokit_common_err(0x2c2u)
#define kIOReturnUnsupported iokit_common_err(0x2c7u)
#define kIOReturnNotFound iokit_common_err(0x2f0u)
