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

// Opens `path` for reading without ever waiting: anything but a regular file
// (a FIFO waits for a writer, a device may do anything, a folder has no
// bytes) is refused before it is opened. -1 when refused or failed, with the
// reason in `why` (may be null). The descriptor blocks as usual.
int kelvoOpenRegularFile(const char* path, std::string* why);

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

// A job's hold on a folder of the driver's files while it makes room there
// and writes its file, so that jobs running at the same time keep the folder
// within its budget together: each one counts the others' files complete.
// Waits up to `seconds` for another job's hold; a folder that cannot be
// opened is not locked (creating the file will say what is wrong).
class KelvoFolderLock {
 public:
  KelvoFolderLock(const std::string& folder, double seconds);
  ~KelvoFolderLock();
  KelvoFolderLock(const KelvoFolderLock&) = delete;
  KelvoFolderLock& operator=(const KelvoFolderLock&) = delete;
  // Another job held the folder for the whole wait: write nothing.
  bool busy() const { return busy_; }

 private:
  int fd_ = -1;
  bool busy_ = false;
};
