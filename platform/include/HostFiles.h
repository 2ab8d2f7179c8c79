// Reading host files: the small JSON state files that stand in for the
// host's kernel and firmware interfaces, and whole files for any caller.
#pragma once

#include <sys/types.h>

#include <string>

#include "QenJson.h"

namespace QenPlatform {

// Parses the file at logical path `logical` into `doc`. On failure returns
// false and sets `error` to a sentence naming the file.
bool ReadHostJson(const std::string& logical, rapidjson::Document& doc, std::string* error);

// Reads the whole file at physical path `path`; false (errno set) when it
// cannot be read. `opened`, when given, tells whether the file was opened.
// Plain reads, no streams: plugins and runners call this at start-up, where
// setting up the stream library would cost more than the read.
bool ReadWholeFile(const std::string& path, std::string& out, bool* opened = nullptr);

// Creates directory `dir` (physical) and its missing ancestors with exactly
// `mode`, whatever the umask; directories that exist are left as they are.
// False (errno set) when one cannot be created.
bool MakeDirectories(const std::string& dir, mode_t mode);

// Creates a new file at physical `path` for writing, owner-only (0600 whatever
// the umask): whatever is there (a stale file, a symbolic link) is removed
// first, and the file is created exclusively, so that a link planted in
// between makes this fail instead of being followed. The descriptor
// (close-on-exec), or -1 with errno set.
int CreatePrivateFile(const std::string& path);

// Replaces the file at physical path `path` by `text` all at once: written
// to "<path>.new" with exactly `mode`, then renamed over it, so a reader
// sees the old or the new content and never a part. False (errno set, the
// temporary removed) when it cannot.
bool ReplaceFile(const std::string& path, const std::string& text, int mode);

// Writes all `size` bytes to `fd`, retrying interrupted and partial writes;
// false (errno set) when the descriptor takes no more.
bool WriteAll(int fd, const char* data, size_t size);

// Removes the file at physical path `path`. 0 when it is gone, else the
// error number (ENOENT when there was none).
int RemoveFile(const std::string& path);

// Test hook: makes the Nth RemoveFile from now on (process-wide, 1-based)
// fail with EBUSY and leave the file; 0 switches it off. A root process has
// no other way to see a removal fail.
void FailNthRemove(int n);

}  // namespace QenPlatform
