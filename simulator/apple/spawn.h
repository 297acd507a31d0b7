// The host's header with what macOS has on top: POSIX_SPAWN_CLOEXEC_DEFAULT, file actions that
// remember which descriptors they name, which that rule needs to know, and
// POSIX_SPAWN_START_SUSPENDED. The values differ from those of macOS, which the host uses
// otherwise.
#pragma once

#include_next <spawn.h>

#define POSIX_SPAWN_CLOEXEC_DEFAULT 0x4000
#define POSIX_SPAWN_START_SUSPENDED 0x2000

typedef void* simulator_spawn_file_actions_t;

extern "C" {

// While a simulated machine is attached, an absolute path is looked up below its root.
int simulator_posix_spawn(pid_t* pid, const char* path,
                          const simulator_spawn_file_actions_t* actions,
                          const posix_spawnattr_t* attributes, char* const argv[],
                          char* const environment[]);
int simulator_posix_spawnattr_setflags(posix_spawnattr_t* attributes, short flags);

int simulator_posix_spawn_file_actions_init(simulator_spawn_file_actions_t* actions);
int simulator_posix_spawn_file_actions_destroy(simulator_spawn_file_actions_t* actions);
int simulator_posix_spawn_file_actions_addopen(simulator_spawn_file_actions_t* actions,
                                               int descriptor, const char* path, int flags,
                                               mode_t mode);
int simulator_posix_spawn_file_actions_addclose(simulator_spawn_file_actions_t* actions,
                                                int descriptor);
int simulator_posix_spawn_file_actions_adddup2(simulator_spawn_file_actions_t* actions,
                                               int descriptor, int newDescriptor);
int simulator_posix_spawn_file_actions_addinherit_np(simulator_spawn_file_actions_t* actions,
                                                     int descriptor);

}  // extern "C"

// The implementation needs the host's names.
#ifndef SIMULATOR_HOST_NAMES
#define posix_spawn simulator_posix_spawn
#define posix_spawnattr_setflags simulator_posix_spawnattr_setflags
#define posix_spawn_file_actions_t simulator_spawn_file_actions_t
#define posix_spawn_file_actions_init simulator_posix_spawn_file_actions_init
#define posix_spawn_file_actions_destroy simulator_posix_spawn_file_actions_destroy
#define posix_spawn_file_actions_addopen simulator_posix_spawn_file_actions_addopen
#define posix_spawn_file_actions_addclose simulator_posix_spawn_file_actions_addclose
#define posix_spawn_file_actions_adddup2 simulator_posix_spawn_file_actions_adddup2
#define posix_spawn_file_actions_addinherit_np simulator_posix_spawn_file_actions_addinherit_np
#endif
