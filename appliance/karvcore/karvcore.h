// The functions of the appliance's libkarvcore.so.7 that this project calls. Machines without that
// library use the substitute built here. All may be called from several threads at once.
#pragma once

#define KARV_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/// Returns 1 if a process with this id exists, otherwise 0. Processes of other users exist, and so
/// do those that have ended but were not waited for. An id of 0 or less is no process, and neither
/// is the id of a thread other than a process's first.
KARV_EXPORT int KLIBCProcAlive(int pid);

/// Returns 1 if the path exists, whatever it is, otherwise 0. A symbolic link exists if its target
/// does. A path that cannot be looked up (no permission) does not exist.
KARV_EXPORT int KLIBCFileExist(const char* path);

/// Runs the executable at `path` with the arguments up to the first NULL and waits for its end;
/// signals do not end the wait. There is no shell and no search in PATH. The program gets this
/// process's environment and starts with no signal blocked or ignored, whatever the calling thread
/// has. The caller's signal handling does not change.
///
/// Returns the program's exit status, or 128 + N if signal N ended it. Returns -1 and sets errno if
/// the program could not be started or its status was lost (ECHILD: the process ignores SIGCHLD, or
/// another thread waits for all children).
KARV_EXPORT int KLIBCExec(const char* path, const char* arg1, const char* arg2, const char* arg3,
                          const char* arg4);

/// Looks up `key` in a file of lines "key=value" and copies the value into `buffer`, which has
/// `size` bytes. The value is truncated if necessary and always terminated.
///
/// Blanks around key and value are ignored. A value in single or double quotes is what stands
/// between them, including blanks and "#"; there are no escapes. Other values end at the end of the
/// line or at a "#" after a blank. Lines that begin with "#" and lines without "=" are ignored.
/// Lines may end in CR LF. If several lines have the key, the first one counts. Keys are compared
/// exactly.
///
/// Returns the number of bytes written to `buffer`, including the terminator, so 1 for an empty
/// value. Returns 0 if the file has no such key. Returns -1 and sets errno if the file cannot be
/// read, or to EINVAL if an argument is NULL, the key is empty or `size` is less than 1. Unless the
/// result is positive, `buffer` does not change. `flags` is 0 and has no meaning here.
KARV_EXPORT int KLIBCFileGetKeyValue(const char* file, const char* key, char* buffer, int size,
                                     int flags);

#ifdef __cplusplus
}
#endif
