// The printer's status answers as IPP reads them: ~HQES and ~HS answers
// written out by hand from ZPL II's documentation (not made by the code
// under test), every prefix of an answer, malformed answers, when the
// application asks, and the bounded wait for an answer.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/printer_status.h"

namespace {

// ~HQES answer: ERRORS and WARNINGS lines with their two groups.
std::string hqes(const char* errorsHigh, const char* errorsLow, const char* warningsLow) {
  return std::string("\x02\r\n  PRINTER STATUS\r\n    ERRORS:         1 ") + errorsHigh + " " + errorsLow +
         "\r\n    WARNINGS:       1 00000000 " + warningsLow + "\r\n\x03\r\n";
}

// ~HS answer with its flags: paper out, pause, under and over temperature in
// string 1; head up, ribbon out and thermal transfer in string 2.
std::string hs(char paperOut, char pause, char under, char over, char headUp, char ribbonOut, char transfer) {
  return std::string("\x02" "030,") + paperOut + "," + pause + ",1218,000,0,0,0,000,0," + under + "," + over +
         "\x03\r\n\x02" "001,0," + headUp + "," + ribbonOut + "," + transfer + ",2,4,0,00000000,1,000\x03\r\n"
         "\x02" "1234,0\x03\r\n";
}

constexpr pappl_preason_t kNone = PAPPL_PREASON_NONE;

struct Case {
  const char* name;
  std::string answer;
  ZplAnswer kind;
  pappl_preason_t reasons;
  int labels;  // printer-supply level of the label roll
  int ribbon;  // and of the ribbon, when reported
};

TEST(PrinterStatus, AnswersReadAsTheDocumentationSays) {
  // Levels: 0 empty, 10 low, -3 some left (printer MIB), -2 unknown.
  const Case cases[] = {
      {"ready", hqes("00000000", "00000000", "00000000"), ZplAnswer::kHqes, kNone, -3, -3},
      {"media out", hqes("00000000", "00000001", "00000000"), ZplAnswer::kHqes, PAPPL_PREASON_MEDIA_EMPTY, 0, -3},
      {"ribbon out", hqes("00000000", "00000002", "00000000"), ZplAnswer::kHqes, PAPPL_PREASON_MARKER_SUPPLY_EMPTY,
       -3, 0},
      {"head open", hqes("00000000", "00000004", "00000000"), ZplAnswer::kHqes, PAPPL_PREASON_COVER_OPEN, -3, -3},
      {"cutter", hqes("00000000", "00000008", "00000000"), ZplAnswer::kHqes, PAPPL_PREASON_OTHER, -3, -3},
      {"head hot", hqes("00000000", "00000010", "00000000"), ZplAnswer::kHqes, PAPPL_PREASON_OTHER, -3, -3},
      {"motor hot", hqes("00000000", "00000020", "00000000"), ZplAnswer::kHqes, PAPPL_PREASON_OTHER, -3, -3},
      {"bad element", hqes("00000000", "00000040", "00000000"), ZplAnswer::kHqes, PAPPL_PREASON_OTHER, -3, -3},
      {"no head", hqes("00000000", "00000080", "00000000"), ZplAnswer::kHqes, PAPPL_PREASON_OTHER, -3, -3},
      {"jam", hqes("00000000", "00001000", "00000000"), ZplAnswer::kHqes, PAPPL_PREASON_MEDIA_JAM, -3, -3},
      {"paused", hqes("00000000", "00010000", "00000000"), ZplAnswer::kHqes, PAPPL_PREASON_OFFLINE, -3, -3},
      {"near end", hqes("00000000", "00000000", "00000008"), ZplAnswer::kHqes, PAPPL_PREASON_MEDIA_LOW, 10, -3},
      {"calibrate, clean, replace head", hqes("00000000", "00000000", "00000007"), ZplAnswer::kHqes, kNone, -3, -3},
      {"out and near end", hqes("00000000", "00000001", "00000008"), ZplAnswer::kHqes,
       PAPPL_PREASON_MEDIA_EMPTY | PAPPL_PREASON_MEDIA_LOW, 0, -3},
      {"media out, head open (lower case)", hqes("00000000", "0000000d", "00000000"), ZplAnswer::kHqes,
       PAPPL_PREASON_MEDIA_EMPTY | PAPPL_PREASON_COVER_OPEN | PAPPL_PREASON_OTHER, 0, -3},
      // Hexadecimal in either case, every digit.
      {"media out, cutter (9)", hqes("00000000", "00000009", "00000000"), ZplAnswer::kHqes,
       PAPPL_PREASON_MEDIA_EMPTY | PAPPL_PREASON_OTHER, 0, -3},
      {"all low bits (F)", hqes("00000000", "0001F0FF", "0000000F"), ZplAnswer::kHqes,
       PAPPL_PREASON_MEDIA_EMPTY | PAPPL_PREASON_MARKER_SUPPLY_EMPTY | PAPPL_PREASON_COVER_OPEN | PAPPL_PREASON_OTHER |
           PAPPL_PREASON_MEDIA_JAM | PAPPL_PREASON_OFFLINE | PAPPL_PREASON_MEDIA_LOW,
       0, 0},
      {"all low bits (f)", hqes("00000000", "0001f0ff", "0000000f"), ZplAnswer::kHqes,
       PAPPL_PREASON_MEDIA_EMPTY | PAPPL_PREASON_MARKER_SUPPLY_EMPTY | PAPPL_PREASON_COVER_OPEN | PAPPL_PREASON_OTHER |
           PAPPL_PREASON_MEDIA_JAM | PAPPL_PREASON_OFFLINE | PAPPL_PREASON_MEDIA_LOW,
       0, 0},
      {"g is no digit", hqes("00000000", "0000000g", "00000000"), ZplAnswer::kGarbage, kNone, -2, -2},
      {"G is no digit", hqes("00000000", "0000000G", "00000000"), ZplAnswer::kGarbage, kNone, -2, -2},
      {"nine digits, the last 0", hqes("00000000", "000000010", "00000000"), ZplAnswer::kGarbage, kNone, -2, -2},
      // Only the low group carries the bits read.
      {"high group only", hqes("00000001", "00000000", "00000000"), ZplAnswer::kHqes, kNone, -3, -3},
      {"hs ready", hs('0', '0', '0', '0', '0', '0', '0'), ZplAnswer::kHs, kNone, -3, -1},
      {"hs paper out", hs('1', '0', '0', '0', '0', '0', '0'), ZplAnswer::kHs, PAPPL_PREASON_MEDIA_EMPTY, 0, -1},
      {"hs paused", hs('0', '1', '0', '0', '0', '0', '0'), ZplAnswer::kHs, PAPPL_PREASON_OFFLINE, -3, -1},
      {"hs too cold", hs('0', '0', '1', '0', '0', '0', '0'), ZplAnswer::kHs, PAPPL_PREASON_OTHER, -3, -1},
      {"hs too hot", hs('0', '0', '0', '1', '0', '0', '0'), ZplAnswer::kHs, PAPPL_PREASON_OTHER, -3, -1},
      {"hs head up", hs('0', '0', '0', '0', '1', '0', '0'), ZplAnswer::kHs, PAPPL_PREASON_COVER_OPEN, -3, -1},
      // The ribbon counts in thermal-transfer mode only.
      {"hs ribbon out, transfer", hs('0', '0', '0', '0', '0', '1', '1'), ZplAnswer::kHs,
       PAPPL_PREASON_MARKER_SUPPLY_EMPTY, -3, 0},
      {"hs transfer", hs('0', '0', '0', '0', '0', '0', '1'), ZplAnswer::kHs, kNone, -3, -3},
      {"nothing", "", ZplAnswer::kNone, kNone, -2, -2},
      {"unknown command", "?? unknown command\r\n", ZplAnswer::kGarbage, kNone, -2, -2},
      {"nine digits", hqes("00000000", "000000001", "00000000"), ZplAnswer::kGarbage, kNone, -2, -2},
      {"flag 2", "\x02 ERRORS: 2 00000000 00000001\r\n WARNINGS: 0 00000000 00000000\r\n\x03",
       ZplAnswer::kGarbage, kNone, -2, -2},
      {"hs flag x", hs('x', '0', '0', '0', '0', '0', '0'), ZplAnswer::kGarbage, kNone, -2, -2},
      {"hs short string", "\x02" "030,1,0\x03\x02" "001\x03\x02" "1234,0\x03", ZplAnswer::kGarbage, kNone, -2, -2},
      {"binary", std::string("\x02\x00\xff\x01 ERRORS:", 13), ZplAnswer::kGarbage, kNone, -2, -2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const ZplStatus status = kelvoParseStatus(c.answer);
    EXPECT_EQ(status.answer, c.kind);
    EXPECT_EQ(kelvoStatusReasons(status), c.reasons);
    pappl_supply_t supplies[2];
    // ~HS tells whether a ribbon is used; ~HQES leaves it to the loaded media.
    const bool ribbon = status.transfer >= 0 ? status.transfer == 1 : true;
    const int n = kelvoStatusSupplies(status, false, ribbon, supplies);
    ASSERT_EQ(n, ribbon ? 2 : 1);
    EXPECT_STREQ(supplies[0].description, "Labels");
    EXPECT_EQ(supplies[0].level, c.labels);
    if (ribbon) {
      EXPECT_STREQ(supplies[1].description, "Ribbon");
      EXPECT_EQ(supplies[1].level, c.ribbon);
    } else {
      EXPECT_EQ(c.ribbon, -1);
    }
  }
}

TEST(PrinterStatus, ConditionsInWords) {
  EXPECT_EQ(kelvoStatusText(kelvoParseStatus(hqes("00000000", "00000005", "00000000"))),
            "Out of labels; Print head open");
  EXPECT_EQ(kelvoStatusText(kelvoParseStatus(hs('0', '0', '0', '1', '0', '0', '0'))), "Print head too hot");
  EXPECT_EQ(kelvoStatusText(kelvoParseStatus(hqes("00000000", "00000000", "00000000"))), "");
  pappl_supply_t supplies[2];
  ASSERT_EQ(kelvoStatusSupplies(ZplStatus{}, true, false, supplies), 1);
  EXPECT_STREQ(supplies[0].description, "Stencil paper");
}

// Every prefix of an answer is part of one, until the whole has come.
TEST(PrinterStatus, PrefixesArePartial) {
  for (const std::string& answer : {hqes("00000000", "00000001", "00000008"), hs('1', '0', '0', '0', '1', '0', '1')}) {
    const ZplAnswer whole = kelvoParseStatus(answer).answer;
    ASSERT_TRUE(whole == ZplAnswer::kHqes || whole == ZplAnswer::kHs);
    size_t first = answer.size();
    for (size_t n = 1; n <= answer.size(); ++n) {
      const ZplStatus status = kelvoParseStatus(answer.substr(0, n));
      if (status.answer == whole) {
        first = std::min(first, n);
        EXPECT_EQ(kelvoStatusReasons(status), kelvoStatusReasons(kelvoParseStatus(answer)));
      } else {
        EXPECT_EQ(status.answer, ZplAnswer::kPartial) << n << " bytes";
        EXPECT_LT(n, first) << "a longer prefix is read as less than a shorter one";
      }
    }
    // ~HQES is whole once its last group has ended; ~HS at its third ETX.
    EXPECT_EQ(first, whole == ZplAnswer::kHqes ? answer.find("\r\n\x03") + 1 : answer.rfind('\x03') + 1);
  }
}

TEST(PrinterStatus, WhenToAsk) {
  StatusPolicy policy;
  double t = 1000;
  EXPECT_TRUE(policy.due(t, false));
  EXPECT_STREQ(policy.command(), "~HQES");
  policy.noteAnswer(t, ZplAnswer::kHqes);
  EXPECT_FALSE(policy.due(t + 9.9, false));
  EXPECT_TRUE(policy.due(t + 10, false));
  EXPECT_FALSE(policy.due(t + 1.9, true));
  EXPECT_TRUE(policy.due(t + 2, true));
  policy.soon();
  EXPECT_TRUE(policy.due(t + 0.1, false));
  // Silent: it keeps to ~HQES, which it has answered, and after two
  // questions in a row asks only every three minutes, also after jobs.
  policy.noteAnswer(t += 10, ZplAnswer::kNone);
  EXPECT_STREQ(policy.command(), "~HQES");
  EXPECT_TRUE(policy.due(t + 10, false));
  policy.noteAnswer(t += 10, ZplAnswer::kPartial);
  policy.soon();
  EXPECT_FALSE(policy.due(t + 179, true));
  EXPECT_TRUE(policy.due(t + 180, false));
  policy.noteAnswer(t += 180, ZplAnswer::kHqes);
  EXPECT_EQ(policy.unanswered(), 0);
  EXPECT_TRUE(policy.due(t + 10, false));

  // A printer that never answered ~HQES is asked ~HS in turn; the one it
  // answers stays.
  StatusPolicy old;
  const char* asked[4];
  for (int i = 0; i < 4; ++i) {
    asked[i] = old.command();
    old.noteAnswer(t, ZplAnswer::kGarbage);
  }
  EXPECT_STREQ(asked[0], "~HQES");
  EXPECT_STREQ(asked[1], "~HS");
  EXPECT_STREQ(asked[2], "~HQES");
  EXPECT_STREQ(asked[3], "~HS");
  old.noteAnswer(t, ZplAnswer::kNone);  // to ~HS, unanswered
  old.noteAnswer(t, ZplAnswer::kHs);
  old.noteAnswer(t, ZplAnswer::kNone);
  EXPECT_STREQ(old.command(), "~HS");
  EXPECT_TRUE(old.everAnswered());
}

// A link that gives its bytes in the pieces it was given, one piece per
// read, then nothing (timing out at once).
class PieceLink : public StatusLink {
 public:
  std::vector<std::string> before;  // waiting before the question
  std::vector<std::string> after;   // the answer's pieces
  std::string sent;
  int reads = 0;
  bool send(const char* data, size_t size) override {
    sent.append(data, size);
    return true;
  }
  ssize_t receive(char* buffer, size_t size, int /*millis*/) override {
    ++reads;
    std::vector<std::string>& queue = sent.empty() ? before : after;
    if (queue.empty()) return 0;
    const std::string piece = queue.front();
    queue.erase(queue.begin());
    const size_t n = std::min(size, piece.size());
    piece.copy(buffer, n);
    return static_cast<ssize_t>(n);
  }
};

TEST(PrinterStatus, AskDropsLeftoversAndJoinsPieces) {
  const std::string answer = hqes("00000000", "00000004", "00000000");
  PieceLink link;
  // A late answer to an earlier question, saying the labels are out.
  link.before = {hqes("00000000", "00000001", "00000000")};
  for (size_t at = 0; at < answer.size(); at += 7) link.after.push_back(answer.substr(at, 7));
  const ZplStatus status = kelvoAskStatus(link, "~HQES", 300);
  EXPECT_EQ(link.sent, "~HQES");
  EXPECT_EQ(status.answer, ZplAnswer::kHqes);
  EXPECT_EQ(kelvoStatusReasons(status), PAPPL_PREASON_COVER_OPEN);
}

// A link whose printer never answers: each read waits as long as it is
// asked to, and the waits asked for are noted.
class SilentLink : public StatusLink {
 public:
  std::vector<int> waits;
  bool send(const char*, size_t) override { return true; }
  ssize_t receive(char*, size_t, int millis) override {
    waits.push_back(millis);
    timespec t{millis / 1000, (millis % 1000) * 1000000L};
    nanosleep(&t, nullptr);
    return 0;
  }
};

// The waits asked of the link add up to no more than the question's time.
TEST(PrinterStatus, AskWaitsNoLongerThanAllowed) {
  SilentLink link;
  EXPECT_EQ(kelvoAskStatus(link, "~HQES", 120).answer, ZplAnswer::kNone);
  ASSERT_GE(link.waits.size(), 2u);
  EXPECT_EQ(link.waits[0], 0);  // leftovers are not waited for
  int total = 0;
  for (int wait : link.waits) total += wait;
  EXPECT_GT(total, 0);
  EXPECT_LE(total, 120 + static_cast<int>(link.waits.size()));  // each rounded up to a millisecond
}

}  // namespace
