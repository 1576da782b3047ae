#include "printer/debug_pictures.h"

#include <sys/uio.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "support/kelvo_log.h"
#include "support/safe_files.h"

namespace {

const char kPrefix[] = "kelvozpl-debug-";
const char kSuffix[] = ".bmp";

// The last 64 pictures and 256 MB of them stay; older ones go first.
constexpr KelvoFileBudget kBudget{64, 256ull << 20};
// How long a picture waits for other jobs writing theirs (a picture of the
// largest page takes well under a second to write).
constexpr double kLockWait = 5;

bool isDebugPicture(const char* name) {
  const size_t length = std::strlen(name);
  return std::strncmp(name, kPrefix, sizeof kPrefix - 1) == 0 && length >= sizeof kSuffix - 1 &&
         std::strcmp(name + length - (sizeof kSuffix - 1), kSuffix) == 0;
}

// Keeps what goes into a file name to letters, digits and underscores: the
// tag comes from the job and must not reach another folder.
std::string fileNamePart(const std::string& text) {
  std::string out;
  for (char c : text.substr(0, 64)) out += (std::isalnum(static_cast<unsigned char>(c)) || c == '_') ? c : '_';
  return out.empty() ? "job" : out;
}

void putLe16(unsigned char* p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
}

void putLe32(unsigned char* p, uint32_t v) {
  putLe16(p, v);
  putLe16(p + 2, v >> 16);
}

// The 54 bytes of file and information header.
void bmpHeader(unsigned char* head, unsigned width, unsigned height, int bits, uint32_t dataOffset, uint32_t rowSize) {
  const uint32_t imageSize = rowSize * height;
  std::memset(head, 0, 54);
  putLe16(head + 0, 0x4D42);
  putLe32(head + 2, dataOffset + imageSize);
  putLe32(head + 10, dataOffset);
  putLe32(head + 14, 40);
  putLe32(head + 18, width);
  putLe32(head + 22, height);
  putLe16(head + 26, 1);
  putLe16(head + 28, static_cast<uint32_t>(bits));
  putLe32(head + 34, imageSize);
  putLe32(head + 46, bits == 8 ? 256 : 0);
  putLe32(head + 50, bits == 8 ? 256 : 0);
}

}  // namespace

KelvoDebugPictures::KelvoDebugPictures(const std::string& folder, const std::string& tag)
    : folder_(folder.empty() || folder.back() == '/' ? folder : folder + "/"), tag_(fileNamePart(tag)) {}

void KelvoDebugPictures::saveReceived(const uint8_t* page, unsigned width, unsigned height) {
  unsigned char head[54 + 1024];
  bmpHeader(head, width, height, 8, 1078, (width + 3) / 4 * 4);
  for (int i = 0; i < 256; ++i) {
    unsigned char* entry = head + 54 + 4 * i;
    entry[0] = entry[1] = entry[2] = static_cast<unsigned char>(i);
    entry[3] = 0;
  }
  // Rows go out as they lie in the buffer, unpadded and top row first: the
  // files are for a quick look at the bytes, and support tools read them so.
  const size_t bytes = static_cast<size_t>(width) * height;
  save("origin", sizeof head + bytes, head, sizeof head, page, bytes);
}

void KelvoDebugPictures::savePrinted(const KelvoDots& dots) {
  const uint32_t rowSize = static_cast<uint32_t>((dots.rowBytes + 3) / 4 * 4);
  unsigned char head[54 + 8] = {};
  bmpHeader(head, dots.width, dots.height, 1, 62, rowSize);
  const unsigned char palette[8] = {0, 0, 0, 0, 255, 255, 255, 0};  // black, white
  std::memcpy(head + 54, palette, sizeof palette);
  // A set bit is white: paper. The unused low bits of a row's last byte are
  // paper as well; the padding to four bytes is 0.
  std::vector<unsigned char> rows(static_cast<size_t>(rowSize) * dots.height, 0);
  for (unsigned y = 0; y < dots.height; ++y) {
    const uint8_t* src = dots.row(dots.height - 1 - y);
    unsigned char* dst = rows.data() + static_cast<size_t>(y) * rowSize;
    for (size_t i = 0; i < dots.rowBytes; ++i) dst[i] = static_cast<unsigned char>(~src[i]);
  }
  save("dithered", sizeof head + rows.size(), head, sizeof head, rows.data(), rows.size());
}

void KelvoDebugPictures::save(const char* kind, uint64_t fileBytes, const void* head, size_t headBytes,
                              const void* rows, size_t rowBytes) {
  const time_t now = std::time(nullptr);
  struct tm local {};
  localtime_r(&now, &local);
  char name[256];
  std::snprintf(name, sizeof name, "%s%s-%s-%ld-%llu-%04d%02d%02d%02d%02d%02d%s", kPrefix, kind, tag_.c_str(),
                static_cast<long>(getpid()), static_cast<unsigned long long>(count_), local.tm_year + 1900,
                local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, kSuffix);
  ++count_;
  const std::string path = folder_ + name;

  // Held until the picture is written: jobs saving pictures at the same time
  // make room in turn, each counting the others' pictures whole.
  const KelvoFolderLock lock(folder_, kLockWait);
  if (lock.busy()) {
    kelvoLogCommon(LogWarning, "Debug picture %s not saved: another job held the folder for %g s", path.c_str(),
                   kLockWait);
    return;
  }
  if (!kelvoMakeRoom(folder_, isDebugPicture, kBudget, 1, fileBytes)) {
    kelvoLogCommon(LogWarning, "Debug picture %s not saved: it does not fit the %llu MB kept for debug pictures",
                   path.c_str(), static_cast<unsigned long long>(kBudget.maxBytes >> 20));
    return;
  }
  const int fd = kelvoCreateNewFile(path, 0600);
  if (fd < 0) {
    kelvoLogCommon(LogWarning, "Debug picture not saved: unable to create %s: %s", path.c_str(), std::strerror(errno));
    return;
  }
  const struct iovec parts[2] = {{const_cast<void*>(head), headBytes}, {const_cast<void*>(rows), rowBytes}};
  if (!kelvoWriteAllv(fd, parts, 2))
    kelvoLogCommon(LogWarning, "Debug picture %s is incomplete: %s", path.c_str(), std::strerror(errno));
  close(fd);
}
