// The host's header, and the call of macOS that names the calling thread.
#pragma once

#include_next <pthread.h>

// On the host the name of a process's first thread is the name of the process.
int pthread_setname_np(const char* name);
