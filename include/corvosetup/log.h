// libcorvosetup: the log.
//
// One text file for the whole library. A line is the level word ("[ERROR] ", "[WARNING] ", "[DEBUG] " or
// "[TRACE] "), the local time ("Sun Nov 15 08:50:37 2026 >>> ") and the message; nothing is filtered. The
// file is rotated by size: it is handed to "/usr/sbin/log_compress.sh", whose only argument is the path,
// emptied and reopened. The first lines of the new file are that of the reopening and a notice of the
// rotation.
//
// Threading: the library writes whole lines under a lock of its own; the functions below take the same lock
// and may be called from any thread. The variables are plain: set them before the threads start, or live with
// a moment's delay. A program that writes to `setup_logger` itself writes beside that lock. A child made by
// fork() may log at once.
//
// Time zone: get_cur_time() looks at it each time. Lines are stamped in the zone that it, an entry point of
// the daemon or a reopening looked at last.
//
// Errors: none are reported. A line that cannot be written (a full disk) is lost, and only that line.
#pragma once

#include <fstream>
#include <string>

#include "corvosetup/export.h"

// The path of the log, "/var/log/network/corvo.log" at load. Changed by reopen_setup_logger only.
extern CORVO_API std::string log_target;

// The stream, opened for appending when the library is loaded.
extern CORVO_API std::ofstream setup_logger;

// Bytes above which the file is rotated, 5242880 at load; a file of exactly this size is not. The size is
// compared as a signed 32-bit number: a file of 2 GiB or more counts as negative.
extern CORVO_API int max_log_size;

// Other than 0: the neighbour probe writes its function trace. It gates nothing else.
extern CORVO_API unsigned int verbose;

// The local time as asctime shows it, with " >>> " in place of its line break: 29 characters.
CORVO_API std::string get_cur_time();

// Rotates the file `path` when it is too large, and gives the text that belongs ahead of the next line:
// empty; "File: PATHopen failed.\n" (the blank is missing, parsers know it so) when the file cannot be
// opened; or "file size reach max log size: N, log rotate.\n". A rotation of another file than the log makes
// it the log. The script may take 10 seconds, then it is killed; its failure changes nothing.
CORVO_API std::string check_file_size(std::string path);

// Closes the stream and opens it on `path`, which becomes `log_target`, and logs "Reopen setup_logger to
// PATH". The file is created when it is missing; its directory is not. For a log that was moved away: the
// daemon's entry points find that out by themselves.
CORVO_API void reopen_setup_logger(std::string path);

// Does nothing; programs of the fleet call it with the tag of their component.
CORVO_API void INIT_LOG(const char* tag);
