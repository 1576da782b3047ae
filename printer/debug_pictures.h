#pragma once
// Debug pictures of a job's pages, as received and as they print, named
// "kelvozpl-debug-<kind>-<job>-<pid>-<n>-<time>.bmp": unique to the job,
// the process and the page, and recognisable, so that only the driver's own
// pictures are ever removed to keep the folder within its budget.
#include <cstddef>
#include <cstdint>
#include <string>

#include "printer/dots.h"

class KelvoDebugPictures {
 public:
  // Off when `folder` is empty. `tag` names the job (e.g. its id).
  KelvoDebugPictures(const std::string& folder, const std::string& tag);
  bool on() const { return !folder_.empty(); }

  // An 8-bit picture ("origin") of the page as received: width x height
  // bytes as they lie in the buffer from `page` on, top row first, the way
  // support tools read them.
  void saveReceived(const uint8_t* page, unsigned width, unsigned height);
  // A 1-bit picture ("dithered") of the page as it prints: dots black on
  // white paper, rows bottom up as BMP keeps them.
  void savePrinted(const KelvoDots& dots);

  // Pictures numbered so far, those that could not be written included.
  uint64_t count() const { return count_; }

 private:
  void save(const char* kind, uint64_t fileBytes, const void* head, size_t headBytes, const void* rows,
            size_t rowBytes);

  std::string folder_;
  std::string tag_;
  uint64_t count_ = 0;
};
