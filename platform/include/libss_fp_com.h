// Process supervision: single instance and health monitoring. Loop's thread.
#pragma once

#include "qx_zlog.h"

#ifdef __cplusplus
extern "C" {
#endif

// Claims the pid file for the life of the process. 0, or non-zero when another instance holds it or it cannot be created; the
// reason goes to standard error. A result fits an exit status (1 to 125). The Linux host locks the file (which must be regular,
// not a link) and removes it at exit. With KELIM_RUN_DIR set the file's last path component is placed there, so that an
// unprivileged or second installation can run.
int libss_fp_com_check_run(const char *pid_file);

// Starts health monitoring, which is off while `marker_file` exists. 0, or QX_FAILED. On the Linux host the marker must be a
// regular file that belongs to root or to the process's user. The Linux host feeds the systemd watchdog from the loop when
// systemd asks for it.
int libss_fp_com_ham_init(const char *marker_file, struct qx_zlog_category *category);

#ifdef __cplusplus
}
#endif
