/// \file
/// Whole JSON documents from and to files.
///
/// All four functions return false for any failure and throw nothing, whatever the file holds: a
/// document that the parser refuses, or of more than 100 levels of nesting, does not parse.
/// Failures are written to syslog, except that a file that cannot be opened for reading is not. An
/// empty path is a failure that touches no file.
///
/// `root` belongs to the caller. After a failed read it holds whatever the parser left there.
///
/// The functions keep no state and may be called from any thread at once, on different `root`s.
///
/// A FIFO, a socket or a device is not opened: nothing here waits for a process at the other end,
/// or reads a device that does not end.
///
/// JsonCpp reads numbers with a fraction or an exponent, and no others, in the C++ global locale.
/// In a process that has made it one with a decimal comma, a document with such a number does not
/// parse, or loses the fraction. Writing does not depend on the locale.
#pragma once

#include <json/value.h>
#include <velmora/plugin/export.h>

#include <string>

namespace LibReelhouse {

/// Reads the file under a shared lock, flock(2), on the file itself: waits for a WriteJsonToFile()
/// of the same file and so sees the old or the new document, never a part of one. A file that
/// cannot be locked is read all the same. Does not create the file.
VELMORA_EXPORT bool ReadJsonFromFile(const std::string& path, Json::Value& root);

/// The same for a caller that already excludes writers.
VELMORA_EXPORT bool ReadJsonFromFileWithoutLock(const std::string& path, Json::Value& root);

/// Replaces the file's content by the document, on one line, under an exclusive lock on the file
/// itself. Creates a missing file (mode 0664 less the umask), but no directory. A file that cannot
/// be locked is written all the same.
///
/// The file is emptied and rewritten in place, and the result tells of the writing alone: true does
/// not promise that the text has reached the file system, because what fails when the file is
/// closed (a short document on a full disk) is not reported.
VELMORA_EXPORT bool WriteJsonToFile(const std::string& path, const Json::Value& root);

/// The same for a caller that already excludes readers and writers. A missing file gets mode 0666
/// less the umask.
VELMORA_EXPORT bool WriteJsonToFileWithoutLock(const std::string& path, const Json::Value& root);

}  // namespace LibReelhouse
