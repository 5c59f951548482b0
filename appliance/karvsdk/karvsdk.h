// The functions of the appliance's libkarvsdk.so.7 that this project calls. Machines without that
// library use the substitute built here.
#pragma once

#define KARV_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/// Creates the directory `path` and all missing parents, each with exactly `mode`, whatever the
/// umask: a caller that asks for 0755 wants others to have access, which takes all of them.
/// Existing directories do not change. The four arguments in the middle belong to the appliance
/// (callers here pass 0, 1, 1024, 100) and have no effect.
///
/// Returns 0 if the directory exists afterwards. Otherwise returns -1 and sets errno (ENOTDIR if
/// something else has its name). May be called from several threads and processes at once, even for
/// the same path.
KARV_EXPORT int KARVFSMkdirP(const char* path, int, int, unsigned, unsigned, unsigned mode);

#ifdef __cplusplus
}
#endif
