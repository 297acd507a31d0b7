// Process information; answered from the host's own processes.
#pragma once

#include <sys/types.h>
#include <cstdint>

#define MAXCOMLEN 16

#define PROC_ALL_PIDS 1
#define PROC_PIDTBSDINFO 3

struct proc_bsdinfo {
    std::uint32_t pbi_flags;
    std::uint32_t pbi_status;
    std::uint32_t pbi_xstatus;
    std::uint32_t pbi_pid;
    std::uint32_t pbi_ppid;
    uid_t pbi_uid;  // effective
    gid_t pbi_gid;
    uid_t pbi_ruid;
    gid_t pbi_rgid;
    uid_t pbi_svuid;
    gid_t pbi_svgid;
    std::uint32_t rfu_1;
    char pbi_comm[MAXCOMLEN];
    char pbi_name[2 * MAXCOMLEN];
    std::uint32_t pbi_nfiles;
    std::uint32_t pbi_pgid;
    std::uint32_t pbi_pjobc;
    std::uint32_t e_tdev;
    std::uint32_t e_tpgid;
    std::int32_t pbi_nice;
    std::uint64_t pbi_start_tvsec;
    std::uint64_t pbi_start_tvusec;
};
#define PROC_PIDTBSDINFO_SIZE (sizeof(struct proc_bsdinfo))

#define RUSAGE_INFO_V0 0
#define RUSAGE_INFO_V1 1
#define RUSAGE_INFO_V2 2

typedef void* rusage_info_t;

struct rusage_info_v2 {
    std::uint8_t ri_uuid[16];
    std::uint64_t ri_user_time;  // absolute-time units, like every time here
    std::uint64_t ri_system_time;
    std::uint64_t ri_pkg_idle_wkups;
    std::uint64_t ri_interrupt_wkups;
    std::uint64_t ri_pageins;
    std::uint64_t ri_wired_size;
    std::uint64_t ri_resident_size;
    std::uint64_t ri_phys_footprint;
    std::uint64_t ri_proc_start_abstime;
    std::uint64_t ri_proc_exit_abstime;
    std::uint64_t ri_child_user_time;
    std::uint64_t ri_child_system_time;
    std::uint64_t ri_child_pkg_idle_wkups;
    std::uint64_t ri_child_interrupt_wkups;
    std::uint64_t ri_child_pageins;
    std::uint64_t ri_child_elapsed_abstime;
    std::uint64_t ri_diskio_bytesread;
    std::uint64_t ri_diskio_byteswritten;
};

extern "C" {

// Bytes, or 0 on failure. A null buffer asks for the bytes needed, with room to spare.
int proc_listpids(std::uint32_t type, std::uint32_t typeinfo, void* buffer, int size);

// Bytes, or 0 with errno. Other users' processes need root. Zombies are found when arg is not 0.
int proc_pidinfo(int pid, int flavor, std::uint64_t arg, void* buffer, int size);

// 0, or -1 with errno. The record is passed as rusage_info_t* whatever its version.
int proc_pid_rusage(int pid, int flavor, rusage_info_t* record);

// Length, or 0 with errno. The buffer needs at least 2 * MAXCOMLEN bytes.
int proc_name(int pid, void* buffer, std::uint32_t size);

// The path of the process's own file: length, or 0 with errno.
int proc_pidpath(int pid, void* buffer, std::uint32_t size);

}  // extern "C"
