// Result codes of IOKit: negative once they sit in the signed type.
#pragma once

#include <mach/mach_types.h>

typedef kern_return_t IOReturn;

#define iokit_common_err(code) (static_cast<IOReturn>(0xE0000000u | (code)))

#define kIOReturnSuccess KERN_SUCCESS
#define kIOReturnError iokit_common_err(0x2bcu)
#define kIOReturnNoMemory iokit_common_err(0x2bdu)
#define kIOReturnNoResources iokit_common_err(0x2beu)
#define kIOReturnIPCError iokit_common_err(0x2bfu)
#define kIOReturnNoDevice iokit_common_err(0x2c0u)
#define kIOReturnNotPrivileged iokit_common_err(0x2c1u)
#define kIOReturnBadArgument iokit_common_err(0x2c2u)
#define kIOReturnExclusiveAccess iokit_common_err(0x2c5u)
#define kIOReturnUnsupported iokit_common_err(0x2c7u)
#define kIOReturnInternalError iokit_common_err(0x2c9u)
#define kIOReturnIOError iokit_common_err(0x2cau)
#define kIOReturnNotOpen iokit_common_err(0x2cdu)
#define kIOReturnNotReadable iokit_common_err(0x2ceu)
#define kIOReturnNotWritable iokit_common_err(0x2cfu)
#define kIOReturnBusy iokit_common_err(0x2d5u)
#define kIOReturnTimeout iokit_common_err(0x2d6u)
#define kIOReturnNotReady iokit_common_err(0x2d8u)
#define kIOReturnNotAttached iokit_common_err(0x2d9u)
#define kIOReturnNotPermitted iokit_common_err(0x2e2u)
#define kIOReturnAborted iokit_common_err(0x2ebu)
#define kIOReturnNotResponding iokit_common_err(0x2edu)
#define kIOReturnNotFound iokit_common_err(0x2f0u)
