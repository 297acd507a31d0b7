#pragma once

#include <objc/objc.h>

// Call it through a pointer cast to the method's exact type.
extern "C" void objc_msgSend(void);
