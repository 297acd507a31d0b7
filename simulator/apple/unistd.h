// The host's header, and the one configuration string of macOS that the host does not know.
#pragma once

#include_next <unistd.h>

#define _CS_DARWIN_USER_TEMP_DIR 65537

// confstr, knowing also the user's temporary directory: $TMPDIR or /tmp, ending in a slash.
extern "C" size_t simulator_confstr(int name, char* buffer, size_t size);

// The implementation needs the host's name.
#ifndef SIMULATOR_HOST_NAMES
#define confstr simulator_confstr
#endif
