// The operations of the appliance's libkarvsdk.so.7 that this project calls. On the appliance its
// own library answers; elsewhere the one built here does.
#pragma once

#define KARV_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/// Creates the directory `path` and every missing directory above it, each with exactly `mode`,
/// whatever the umask: who asks for 0755 wants others to get in, and that takes all of them. What
/// exists already stays as it is. The four arguments in the middle belong to the appliance (callers
/// here pass 0, 1, 1024, 100) and change nothing.
///
/// Returns 0 when the directory is there afterwards, -1 with errno when not (ENOTDIR when something
/// else is in its place). May be called from any thread and process at once, for the same path too.
KARV_EXPORT int KARVFSMkdirP(const char* path, int, int, unsigned, unsigned, unsigned mode);

#ifdef __cplusplus
}
#endif
