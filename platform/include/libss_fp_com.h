// Process supervision: single instance and health monitoring. Loop's thread.
#pragma once

#include "qx_zlog.h"

#ifdef __cplusplus
extern "C" {
#endif

// Takes the pid file for the life of the process. 0, or non-zero when another instance holds it or it cannot be taken; the reason
// goes to standard error. A result fits an exit status (1 to 125). The Linux host locks the file (a regular one, no link) and
// removes it at exit. With KELIM_RUN_DIR set the file's last path component is placed there, so that an unprivileged or second
// installation can run.
int libss_fp_com_check_run(const char *pid_file);

// Starts health monitoring; none while `marker_file` exists. 0, or QX_FAILED. To the Linux host the marker counts when it is a
// regular file of root or of the user that the process runs as.
// The Linux host feeds the systemd watchdog from the loop when systemd asks for it.
int libss_fp_com_ham_init(const char *marker_file, struct qx_zlog_category *category);

#ifdef __cplusplus
}
#endif
