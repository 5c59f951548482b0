// The operations of the appliance's libkarvcore.so.7 that this project calls. On the appliance its
// own library answers; elsewhere the one built here does. All may be called from any thread at
// once.
#pragma once

#define KARV_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/// 1 when a process with this id exists, else 0. A process of another user exists, and so does one
/// that has ended but was not waited for. An id of 0 or less names no process, and neither does the
/// id of a thread other than a process's first.
KARV_EXPORT int KLIBCProcAlive(int pid);

/// 1 when the path exists, whatever it is, else 0. A symbolic link exists when what it points to
/// does. A path that cannot be looked up (no permission) does not exist.
KARV_EXPORT int KLIBCFileExist(const char* path);

/// Runs the executable at `path`, without a shell and without a search in PATH, with the arguments
/// up to the first NULL and this process's environment, and waits for its end; a signal does not
/// end the wait. The program starts with no signal blocked or ignored, whatever the calling thread
/// has, and the caller's own signal handling stays as it is.
///
/// Returns the program's exit status, 128 + N when signal N ended it, and -1 with errno when it
/// could not be started, or when its end was taken from here (ECHILD: the process ignores SIGCHLD,
/// or another of its threads waits for every child).
KARV_EXPORT int KLIBCExec(const char* path, const char* arg1, const char* arg2, const char* arg3,
                          const char* arg4);

/// Looks up `key` in a file of lines "key=value" and puts the value into `buffer`, which holds
/// `size` bytes: cut off where it does not fit, and always terminated.
///
/// Blanks around key and value do not count. A value in quotes, single or double, is what stands
/// between them, blanks and "#" included; there are no escapes. Otherwise it ends at the line's
/// end, or at a "#" after a blank. Lines that begin with "#" and lines without "=" are passed over.
/// Lines may end in CR LF. Of several lines with the key the first counts. Names are compared
/// exactly.
///
/// Returns the number of bytes put into `buffer`, the terminating one included, so an empty value
/// gives 1; 0 when the file has no such key; -1 with errno when the file cannot be read, or when an
/// argument is NULL, the key is empty or `size` is less than 1 (EINVAL). Unless the result is
/// positive, `buffer` stays as it is. `flags` is 0 and has no meaning here.
KARV_EXPORT int KLIBCFileGetKeyValue(const char* file, const char* key, char* buffer, int size,
                                     int flags);

#ifdef __cplusplus
}
#endif
