#pragma once

#include <CoreFoundation/CFArray.h>
#include <CoreFoundation/CFBase.h>
#include <CoreFoundation/CFDictionary.h>

extern "C" CFDictionaryRef KextManagerCopyLoadedKextInfo(CFArrayRef identifiers,
                                                         CFArrayRef infoKeys);
