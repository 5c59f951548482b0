/// \file
/// Reads and writes whole JSON documents.
///
/// All four functions return false on failure and throw nothing, whatever the file contains. A
/// document that the parser rejects or that is nested more than 100 levels deep is a failure.
/// Failures are logged to syslog, except when a file cannot be opened for reading. An empty path
/// fails without touching any file.
///
/// `root` belongs to the caller. After a failed read it contains whatever the parser left in it.
///
/// The functions keep no state and may be called from several threads at once, each with its own
/// `root`. They refuse to open FIFOs, sockets and devices, so they never wait for another process
/// and never read an endless device.
///
/// JsonCpp parses numbers with a fraction or an exponent in the C++ global locale. If that locale
/// has a decimal comma, a document with such a number fails to parse or the fraction is lost. Other
/// numbers and all writing are independent of the locale.
#pragma once

#include <json/value.h>
#include <velmora/plugin/export.h>

#include <string>

namespace LibReelhouse {

/// Reads the file under a shared flock(2) lock on the file itself. It waits for a WriteJsonToFile()
/// of the same file, and therefore sees either the old or the new document. If the file cannot be
/// locked, it is read anyway. A missing file is not created.
VELMORA_EXPORT bool ReadJsonFromFile(const std::string& path, Json::Value& root);

/// Does the same for a caller that already excludes writers.
VELMORA_EXPORT bool ReadJsonFromFileWithoutLock(const std::string& path, Json::Value& root);

/// Replaces the file's content with the document, on one line, under an exclusive lock on the file
/// itself. Creates a missing file (mode 0664 minus the umask), but no directories. If the file
/// cannot be locked, it is written anyway.
///
/// The file is truncated and rewritten in place. True does not guarantee that the text has reached
/// the file: a failure to write less than 1024 bytes, as on a full disk, is not reported.
VELMORA_EXPORT bool WriteJsonToFile(const std::string& path, const Json::Value& root);

/// Does the same for a caller that already excludes readers and writers. A missing file gets mode
/// 0666 minus the umask.
VELMORA_EXPORT bool WriteJsonToFileWithoutLock(const std::string& path, const Json::Value& root);

}  // namespace LibReelhouse
