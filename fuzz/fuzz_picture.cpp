// The printer application's picture decoder and placement on arbitrary
// bytes. Input: a scaling byte (auto, auto-fit, fit, fill, none), an
// orientation byte (IPP's 3 to 7, from 3 + the byte modulo 5), then the document, whose
// first bytes tell its type as they do in a job. A decoded picture has its
// stated size in pixels within the budget; a refused one says why; laying
// it on a small page stays on the page (the sanitizers watch that).
#include <string>
#include <vector>

#include "app/picture.h"
#include "fuzz_util.h"

namespace {
constexpr size_t kMaxPixels = 1 << 18;
constexpr uint32_t kMaxSide = 2048;
const pappl_scaling_t kScalings[] = {PAPPL_SCALING_AUTO, PAPPL_SCALING_AUTO_FIT, PAPPL_SCALING_FIT, PAPPL_SCALING_FILL,
                                     PAPPL_SCALING_NONE};
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kfuzz::quietStderr();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const kfuzz::MemFile file("picture");
  kfuzz::Reader in(data, size);
  const pappl_scaling_t scaling = kScalings[in.byte() % 5];
  const auto orientation = static_cast<ipp_orient_t>(IPP_ORIENT_PORTRAIT + in.byte() % 5);
  const std::string document(reinterpret_cast<const char*>(in.rest()), in.restSize());
  file.set(document);

  KelvoPicture picture;
  std::string error;
  const KelvoPictureType type =
      kelvoPictureTypeOf(reinterpret_cast<const unsigned char*>(document.data()), document.size());
  if (!kelvoDecodePicture(file.path, type, kMaxPixels, kMaxSide, picture, error)) {
    if (error.empty()) kfuzz::fail("a refused picture without a reason");
    if (!picture.grey.empty()) kfuzz::fail("a refused picture kept %zu pixels", picture.grey.size());
    return 0;
  }
  if (picture.width == 0 || picture.height == 0 || picture.width > kMaxSide || picture.height > kMaxSide ||
      static_cast<size_t>(picture.width) * picture.height > kMaxPixels ||
      picture.grey.size() != static_cast<size_t>(picture.width) * picture.height)
    kfuzz::fail("decoded %u x %u pixels into %zu bytes", picture.width, picture.height, picture.grey.size());
  const unsigned width = 101, height = 150;
  std::vector<unsigned char> page(static_cast<size_t>(width) * height, 0);
  kelvoPlacePicture(picture, scaling, orientation, width, height, 203, 203, page.data(), width);
  return 0;
}
