#include "support/safe_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <cerrno>
#include <cstring>
#include <vector>

namespace {

const char* kindOf(mode_t mode) {
  return S_ISFIFO(mode)   ? "a FIFO"
         : S_ISCHR(mode)  ? "a character device"
         : S_ISBLK(mode)  ? "a block device"
         : S_ISDIR(mode)  ? "a folder"
         : S_ISSOCK(mode) ? "a socket"
                          : "of an unknown kind";
}

int refuse(std::string* why, const std::string& reason) {
  if (why != nullptr) *why = reason;
  return -1;
}

}  // namespace

int kelvoOpenRegularFile(const char* path, std::string* why) {
  struct stat info {};
  if (stat(path, &info) != 0) return refuse(why, std::strerror(errno));
  if (!S_ISREG(info.st_mode)) return refuse(why, std::string("not a regular file but ") + kindOf(info.st_mode));
  // Not waiting even if the name now stands for a FIFO.
  const int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return refuse(why, std::strerror(errno));
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    close(fd);
    return refuse(why, std::string("not a regular file but ") + kindOf(info.st_mode));
  }
  const int flags = fcntl(fd, F_GETFL);
  if (flags != -1) fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  return fd;
}

int kelvoCreateNewFile(const std::string& path, mode_t mode) {
  // O_EXCL refuses every existing name, a dangling link included; O_NOFOLLOW
  // is there for systems where that is not so.
  return open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
}

bool kelvoWriteAllv(int fd, const struct iovec* parts, int count) {
  std::vector<struct iovec> left(parts, parts + count);
  size_t first = 0;
  while (first < left.size()) {
    const ssize_t done = writev(fd, left.data() + first, static_cast<int>(std::min<size_t>(left.size() - first, 64)));
    if (done < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    size_t rest = static_cast<size_t>(done);
    while (first < left.size() && rest >= left[first].iov_len) rest -= left[first++].iov_len;
    if (first < left.size()) {
      left[first].iov_base = static_cast<char*>(left[first].iov_base) + rest;
      left[first].iov_len -= rest;
    }
  }
  return true;
}

bool kelvoMakeRoom(const std::string& folder, const std::function<bool(const char*)>& owns, const KelvoFileBudget& budget,
                   size_t files, uint64_t bytes) {
  if (files > budget.maxFiles || bytes > budget.maxBytes) return false;
  struct Entry {
    std::string name;
    struct timespec modified;
    uint64_t size;
  };
  std::vector<Entry> own;
  DIR* dir = opendir(folder.empty() ? "." : folder.c_str());
  if (dir == nullptr) return true;  // creating the file will say what is wrong
  const int dirFd = dirfd(dir);
  while (const struct dirent* entry = readdir(dir)) {
    if (!owns(entry->d_name)) continue;
    struct stat info {};
    // Looked at, not followed: a link is nobody's debug picture.
    if (fstatat(dirFd, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(info.st_mode)) continue;
    own.push_back({entry->d_name, info.st_mtim, static_cast<uint64_t>(info.st_size)});
  }
  std::sort(own.begin(), own.end(), [](const Entry& a, const Entry& b) {
    if (a.modified.tv_sec != b.modified.tv_sec) return a.modified.tv_sec < b.modified.tv_sec;
    if (a.modified.tv_nsec != b.modified.tv_nsec) return a.modified.tv_nsec < b.modified.tv_nsec;
    return a.name < b.name;
  });
  uint64_t used = 0;
  for (const Entry& e : own) used += e.size;
  size_t count = own.size();
  for (const Entry& e : own) {
    if (count + files <= budget.maxFiles && used + bytes <= budget.maxBytes) break;
    // unlinkat removes the name itself, never what a link points to.
    if (unlinkat(dirFd, e.name.c_str(), 0) == 0 || errno == ENOENT) {
      --count;
      used -= e.size;
    }
  }
  closedir(dir);
  return count + files <= budget.maxFiles && used + bytes <= budget.maxBytes;
}

KelvoFolderLock::KelvoFolderLock(const std::string& folder, double seconds) {
  fd_ = open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd_ < 0) return;
  // Polled rather than waited for: a hold that never ends costs a picture,
  // not the job.
  const long tries = static_cast<long>(seconds * 100) + 1;
  for (long i = 0; i < tries; ++i) {
    if (flock(fd_, LOCK_EX | LOCK_NB) == 0) return;
    if (errno != EWOULDBLOCK && errno != EINTR) break;  // a folder that takes no locks
    const struct timespec tick {0, 10 * 1000 * 1000};
    nanosleep(&tick, nullptr);
    if (i + 1 == tries) busy_ = true;
  }
  close(fd_);
  fd_ = -1;
}

KelvoFolderLock::~KelvoFolderLock() {
  if (fd_ >= 0) close(fd_);  // releases the lock
}
