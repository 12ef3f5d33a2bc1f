// Becoming a daemon and starting commands, for programs that embed the library.
#pragma once

/// Turns the process into a daemon (two forks, a session of its own, SIGHUP ignored, `work_dir`,
/// creation mask 0; a directory that can't be entered is left as it was) and locks `pid_file` with
/// flock(2), waiting while another daemon holds it, before its pid is written there in decimal. The
/// descriptor stays open on purpose: the lock lasts as long as the daemon. The calling process and
/// the one between exit with status 0, without running exit handlers.
/// 0 in the daemon; negative for null, or when a fork, the opening or the writing failed.
int daemonize(const char *pid_file, const char *work_dir);

/// Runs `file` (searched in PATH) with `argv`, which ends with null. With `wait_flag` other than 0
/// blocks until it has ended, also where SIGCHLD is ignored. 0, whatever the command's status: a
/// command that doesn't exist ends with status 1 in the child. No signal is blocked in the command.
/// -1 when the fork failed or for null.
int exec_cmd(const char *file, char *const argv[], int wait_flag);
