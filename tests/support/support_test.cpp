#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>

#include "support/halftone.h"
#include "support/kelvo_log.h"
#include "support/kelvo_string.h"
#include "support/safe_files.h"
#include "support/z64.h"

namespace {

std::string logLine(int level, const char* format, int value) {
  testing::internal::CaptureStderr();
  kelvoLogCommon(level, format, value);
  return testing::internal::GetCapturedStderr();
}

TEST(Log, PrefixJoinsMessageWithoutBlank) {
  struct Case { int level; const char* expected; };
  const Case cases[] = {
      {0, "DEBUG:x=5\n"}, {1, "DEBUG:x=5\n"},  {2, "WARN:x=5\n"},
      {3, "ERROR:x=5\n"}, {4, "CRIT:x=5\n"},   {5, "INVALID:x=5\n"}, {6, "WARNING: x=5\n"},
  };
  for (const Case& c : cases) EXPECT_EQ(logLine(c.level, "x=%d", 5), c.expected) << c.level;
}

TEST(Log, SinkTakesThisThreadsLinesOnly) {
  struct Line { int level = -1; std::string text; } got;
  kelvoLogSetSink([](void* data, int level, const char* message) { *static_cast<Line*>(data) = {level, message}; }, &got);
  const std::string longer(3000, 'x');
  testing::internal::CaptureStderr();
  kelvoLogCommon(LogWarning, "%s=%d", longer.c_str(), 7);
  std::thread([] { kelvoLogCommon(LogError, "y=%d", 1); }).join();
  kelvoLogSetSink(nullptr, nullptr);
  kelvoLogCommon(LogDebug, "z");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR:y=1\nDEBUG:z\n");
  EXPECT_EQ(got.level, LogWarning);
  EXPECT_EQ(got.text, longer + "=7");
}

TEST(HalftoneNames, RoundTripAndEdges) {
  for (int i = 0; i < kKelvoHalftoneCount; ++i) {
    KelvoHalftone back = KelvoHalftone::kBarcodeText;
    ASSERT_TRUE(kelvoHalftoneFromName(kelvoHalftoneName(static_cast<KelvoHalftone>(i)), &back)) << i;
    EXPECT_EQ(static_cast<int>(back), i);
  }
  EXPECT_STREQ(kelvoHalftoneName(KelvoHalftone::kOrdered4x4), "ordered-4x4");
  EXPECT_STREQ(kelvoHalftoneName(static_cast<KelvoHalftone>(kKelvoHalftoneCount)), "unknown");
  // Only the exact name selects a method; the PPD's words are not names.
  KelvoHalftone unchanged = KelvoHalftone::kBayer;
  for (const char* other : {"Ordered", "", " tattoo", "tattoo ", "Tattoo_X8", "unknown"})
    EXPECT_FALSE(kelvoHalftoneFromName(other, &unchanged)) << other;
  EXPECT_FALSE(kelvoHalftoneFromName(nullptr, &unchanged));
  EXPECT_EQ(unchanged, KelvoHalftone::kBayer);
}

TEST(Basename, BothSeparatorsCount) {
  struct Case { const char* path; const char* base; };
  const Case cases[] = {
      {"/a/b\\c.txt", "c.txt"}, {"c:\\x/y", "y"}, {"name", "name"},
      {"/dir/", ""},           {"a\\b", "b"},    {"/usr/lib/cups/filter/rastertokelvozpl", "rastertokelvozpl"},
  };
  for (const Case& c : cases) EXPECT_STREQ(kelvoPathGetBasename(c.path), c.base) << c.path;
  EXPECT_EQ(kelvoPathGetBasename(nullptr), nullptr);
  const char* p = "x/y";
  EXPECT_EQ(kelvoPathGetBasename(p), p + 2);  // points into the argument
}

TEST(StrCpy, TruncatesAndPads) {
  char buf[8];
  std::memset(buf, 'Z', sizeof buf);
  EXPECT_EQ(kelvoStrCpy(buf, "abcdef", 4), buf);
  EXPECT_STREQ(buf, "abc");
  EXPECT_EQ(buf[4], 'Z');  // nothing past size is touched

  std::memset(buf, 'Z', sizeof buf);
  kelvoStrCpy(buf, "ab", 8);
  const char expected[8] = {'a', 'b', 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(std::memcmp(buf, expected, 8), 0);

  char one[1] = {'Q'};
  kelvoStrCpy(one, "long", 1);
  EXPECT_EQ(one[0], '\0');
}

// The CRC is CRC-16/XMODEM (CCITT polynomial, start 0): its catalogue check
// value for "123456789" is 0x31C3. Base64 against the RFC 4648 examples.
TEST(Z64, CrcAndBase64KnownValues) {
  EXPECT_EQ(kelvoCrc16(reinterpret_cast<const unsigned char*>("123456789"), 9), 0x31C3);
  EXPECT_EQ(kelvoCrc16(nullptr, 0), 0);
  const std::pair<std::string, std::string> vectors[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"}, {std::string("\xff\xfe\x00", 3), "//4A"}};
  for (const auto& v : vectors) {
    std::vector<unsigned char> out;
    size_t bad = 99;
    ASSERT_TRUE(kelvoBase64Decode(reinterpret_cast<const unsigned char*>(v.second.data()), v.second.size(), out, bad));
    EXPECT_EQ(std::string(out.begin(), out.end()), v.first) << v.second;
  }
  for (const std::pair<std::string, size_t>& bad : {std::pair<std::string, size_t>{"Zm9v!", 4}, {"Zg=a", 3},
                                                   {"Z", 0}, {"Zm9===", 3}}) {
    std::vector<unsigned char> out;
    size_t at = 99;
    EXPECT_FALSE(kelvoBase64Decode(reinterpret_cast<const unsigned char*>(bad.first.data()), bad.first.size(), out, at))
        << bad.first;
    EXPECT_EQ(at, bad.second) << bad.first;
  }
  // The encoded form: the prefix, base64 of a zlib stream (78 9C: deflate,
  // default level), and the CRC of exactly the base64 text.
  std::string z64;
  const unsigned char page[6] = {0xFF, 0, 0, 0, 0, 0x0F};
  ASSERT_TRUE(kelvoZ64Encode(page, sizeof page, z64));
  ASSERT_EQ(z64.rfind(":Z64:eJ", 0), 0u) << z64;
  const size_t colon = z64.rfind(':');
  char crc[8];
  std::snprintf(crc, sizeof crc, "%04X",
                kelvoCrc16(reinterpret_cast<const unsigned char*>(z64.data()) + 5, colon - 5));
  EXPECT_EQ(z64.substr(colon + 1), crc);
}

// The folder keeps the newest own files within the count and the bytes;
// what cannot fit the whole budget is refused, and nothing else is touched.
TEST(SafeFiles, MakeRoomKeepsTheNewestWithinTheBudget) {
  char dirTemplate[] = "/tmp/kelvo-room-XXXXXX";
  ASSERT_NE(mkdtemp(dirTemplate), nullptr);
  const std::string dir = dirTemplate;
  auto make = [&](const std::string& name, size_t bytes, int age) {
    std::FILE* f = std::fopen((dir + "/" + name).c_str(), "w");
    std::fwrite(std::string(bytes, 'x').data(), 1, bytes, f);
    std::fclose(f);
    const struct timespec times[2] = {{1000000 - age, 0}, {1000000 - age, 0}};
    utimensat(AT_FDCWD, (dir + "/" + name).c_str(), times, 0);
  };
  for (int i = 0; i < 5; ++i) make("own-" + std::to_string(i), 100, 10 - i);  // own-0 is the oldest
  make("other", 5000, 99);
  const auto owns = [](const char* name) { return std::strncmp(name, "own-", 4) == 0; };
  const KelvoFileBudget budget{4, 350};
  EXPECT_FALSE(kelvoMakeRoom(dir, owns, budget, 1, 351));  // larger than the whole budget
  EXPECT_TRUE(kelvoMakeRoom(dir, owns, budget, 1, 100));   // 5 + 1 files of 600 bytes: keep the newest 2
  for (const auto& [name, kept] : {std::pair<const char*, bool>{"own-0", false}, {"own-2", false}, {"own-3", true},
                                   {"own-4", true}, {"other", true}})
    EXPECT_EQ(access((dir + "/" + name).c_str(), F_OK) == 0, kept) << name;
  const int fd = kelvoCreateNewFile(dir + "/own-4", 0600);  // an existing name is never reused
  EXPECT_EQ(fd, -1);
  std::system(("rm -rf " + dir).c_str());
}

}  // namespace
