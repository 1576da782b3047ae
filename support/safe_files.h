#pragma once
// Files the driver leaves behind (debug pictures, recordings of what was sent)
// live in folders other users can write to and are made while serving
// anyone's job: they are created only where nothing exists yet, never through
// a link, and the driver keeps only a bounded number of its own.
#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

// Opens a new file for writing; fails (returns -1, errno set) when the name
// exists in any form, a symbolic link included. Never truncates anything.
int kelvoCreateNewFile(const std::string& path, mode_t mode);

// Writes all the buffers, retrying short writes; false on an error.
bool kelvoWriteAllv(int fd, const struct iovec* parts, int count);

// What a folder keeps of the driver's own files.
struct KelvoFileBudget {
  size_t maxFiles;
  uint64_t maxBytes;
};

// Removes the oldest regular files of `folder` whose names `owns` accepts
// until `files` more files of `bytes` bytes fit the budget. Links, folders
// and other people's names are never touched. Returns false when the new
// files do not fit even so (larger than the whole budget, or files that
// could not be removed): then they must not be written.
bool kelvoMakeRoom(const std::string& folder, const std::function<bool(const char*)>& owns, const KelvoFileBudget& budget,
                   size_t files, uint64_t bytes);
