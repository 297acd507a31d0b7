/* The platform shim: the only door from FerovaneCore to the operating system's own interfaces.
 *
 * Plain C. Functions return integers: 0 success, -1 unknown or bad argument, -2 and -3 the shim's
 * own refusals; every other code is the platform's, passed through unchanged (IOKit errors are
 * negative, controller result bytes positive). Nothing is kept between calls except the stop flag.
 */
#ifndef FEROVANE_SHIM_FV_H
#define FEROVANE_SHIM_FV_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- System Management Controller ------------------------------------------------------- */

enum { FV_SMC_DATA_SIZE = 32, FV_SMC_KEY_TEXT_SIZE = 5 };

/* One typed key value, bytes exactly as the controller returned them. */
typedef struct {
    uint32_t data_size;             /* bytes in use, 1 to 32 */
    uint32_t data_type;             /* four characters, the first in the most significant byte */
    uint8_t data[FV_SMC_DATA_SIZE]; /* big-endian for integer and fixed-point types */
} FVValue;

/* A connection to "AppleSMC", or 0 when there is none. Give it back with fv_smc_close. */
uint32_t fv_smc_open(void);
void fv_smc_close(uint32_t connection); /* 0 is ignored */

/* key: exactly four characters. -1 bad argument or wrong reply size, -2 key size outside 1..32. */
int fv_smc_read(uint32_t connection, const char* key, FVValue* value);

/* What the controller tells of a key without its value: bytes, of which there may be more than 32,
 * type, and its attribute bits (0x80 readable, 0x40 writable). Codes as for fv_smc_read, but -2. */
typedef struct {
    uint32_t data_size, data_type;
    uint8_t attributes;
} FVKeyInformation;
int fv_smc_describe(uint32_t connection, const char* key, FVKeyInformation* information);

/* Writes only fan mode and target keys and the forced-fan mask; any other key is refused with -3
 * before the controller is called. The value's type is not sent. Unconfirmed: read it back. */
int fv_smc_write(uint32_t connection, const char* key, const FVValue* value);

/* The key at an index below the value of "#KEY": four characters and a NUL. */
int fv_smc_key_at_index(uint32_t connection, uint32_t index, char key[FV_SMC_KEY_TEXT_SIZE]);

/* NaN for anything it cannot decode. */
double fv_decode(const FVValue* value);

/* By the value's type and size. -1 no value or no usable number, -2 type or range. */
int fv_encode(FVValue* value, double number);

/* ---- Machine state ------------------------------------------------------------------------ */

/* Cumulative ticks of all processors: user, system, idle, nice. 0 or the kernel's code. */
int fv_cpu_ticks(uint64_t* user, uint64_t* system, uint64_t* idle, uint64_t* nice_ticks);

/* Each -1 when unknown. Percent, percent, count, and the platform's unordered warning level. */
typedef struct {
    int32_t speed_limit, scheduler_limit, available_cpus, thermal_warning;
} FVPowerStatus;
FVPowerStatus fv_power_status(void);

int fv_ac_power(void);           /* 1 on AC power, 0 on another source, -1 unknown */
int fv_memory_pressure(void);    /* 1 normal, 2 warning, 4 critical, -1 unknown */
int fv_turbo_driver_state(void); /* 1 turbo-disabling extension loaded, 0 not, -1 no answer */
int fv_thermal_state(void);      /* 0 nominal, 1 fair, 2 serious, 3 critical, -1 unknown */
int fv_processor_count(void);    /* at least 1, or -1 */
int fv_low_power_mode(void);     /* 1 on, 0 off, -1 when this system has no such flag */
int fv_apple_silicon(void);      /* 1 Apple Silicon (also when translated), 0 Intel */

/* Version of the operating system as major * 100 + minor (12.6 is 1206), or -1. */
int fv_system_version(void);

/* The processor's brand string with its NUL. -1 when it cannot be had or does not fit. */
int fv_cpu_brand(char* text, size_t capacity);

/* page_size is 0 when the page counts cannot be had, total_bytes when the physical memory cannot. */
typedef struct {
    uint64_t page_size, internal_pages, purgeable_pages, wired_pages, compressed_pages;
    uint64_t total_bytes;
} FVMemory;
int fv_memory(FVMemory* memory); /* 0, or -1 with the record zeroed when neither can be had */

/* The internal battery; each value NaN, or charging and cycles -1, when it cannot be read. */
typedef struct {
    double percent, millivolts, milliamps; /* the current is negative while discharging */
    int32_t charging;                      /* 1, 0 or -1 */
    int64_t cycles;
} FVBattery;
FVBattery fv_battery(void);

/* One power assertion; texts live only during the visit, null when absent. */
typedef struct {
    int32_t pid;
    int64_t level;
    const char *type, *reason, *process_name;
    double since; /* seconds since 2001-01-01 00:00:00 UTC, NaN when unknown */
} FVPowerAssertion;
typedef void (*fv_assertion_visitor)(void* context, const FVPowerAssertion* assertion);
int fv_power_assertions(fv_assertion_visitor visit, void* context); /* 0 or the platform's code */

/* 1 when a bundle can be opened at the path and has exactly this identifier, else 0. */
int fv_bundle_has_identifier(const char* path, const char* identifier);

/* ---- Time, processes, signals ------------------------------------------------------------- */

double fv_continuous_seconds(void); /* monotonic, counts while the machine sleeps */
double fv_uptime_seconds(void);     /* monotonic, stops while the machine sleeps */

enum { FV_PROCESS_NAME_SIZE = 96 };
typedef struct {
    int32_t pid;
    uint32_t parent_pid, uid;
    uint64_t started; /* absolute-time units: identifies a process together with its pid */
    uint64_t cpu_ns, memory_bytes, disk_read_bytes, disk_write_bytes;
    char name[FV_PROCESS_NAME_SIZE];
} FVProcessSnapshot;

/* Entries filled, or -1. inaccessible (may be null): listed processes that could not be read. */
int fv_process_snapshot(FVProcessSnapshot* entries, int capacity, int* inaccessible);

bool fv_owner_alive(int32_t pid, uint32_t uid); /* pid exists, can be inspected and has this uid */

void fv_install_stop_handlers(void); /* SIGTERM, SIGINT, SIGHUP set one flag; safe to call twice */
bool fv_should_stop(void);
bool fv_pause(double seconds);      /* sleeps; ends early, with true, once the stop flag is set */
void fv_use_utility_priority(void); /* the calling thread, for watchdogs */
void fv_name_thread(const char* name); /* the calling one; at most 15 bytes */

/* ---- Child tools -------------------------------------------------------------------------- */

/* Starts path with argv (null-terminated, argv[0] included) in its own process group: null standard
 * input, output_fd as both outputs, no other descriptor of ours, default signals, an environment of
 * PATH and LANG alone. path is absolute. 0 and *pid, or an errno value (EINVAL for a bad argument).
 * The child stands before its first instruction until it gets SIGCONT; when this process ends
 * before that, the system ends it too (a stopped group that nobody is left for gets SIGHUP). The
 * caller waits for the child. */
int fv_spawn_tool(const char* path, const char* const argv[], int output_fd, int32_t* pid);

/* Starts the file at path, which is absolute, with name as its only argument (number 0), in a session
 * of its own: input_fd, which is above 2, as standard input, null outputs, no other descriptor of
 * ours, default signals, our environment. 0 and *pid, or an errno value (EINVAL for a bad argument).
 * The caller waits for the child. */
int fv_spawn_companion(const char* path, const char* name, int input_fd, int32_t* pid);

/* The file this process was started from. -1 when it cannot be told or does not fit. */
int fv_executable_path(char* path, size_t capacity);

/* One line into the system's log, as an error or a notice, under the helper's name and number. What
 * becomes of it is not known. May wait for the log: not called where anything else waits. One
 * thread at a time. */
void fv_log(bool failure, const char* text);

/* The user's temporary directory, ending in a slash. -1 when it does not fit. */
int fv_temporary_directory(char* path, size_t capacity);

#ifdef __cplusplus
}
#endif

#endif
