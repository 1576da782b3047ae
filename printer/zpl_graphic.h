#pragma once
// The page graphic: the dots downloaded as a ZPL II graphic (compressed
// hex, or Z64), recalled at the label origin and printed `copies` times.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "printer/byte_sink.h"
#include "printer/dots.h"
#include "printer/job_settings.h"

// Rows of dots as ZPL's compressed hex, one after the other. Standard
// dialect: a row equal to the one before is ":", a row's last run of paper
// "," and of dots "!". Kelvo dialect: only an all-dots row right after
// another all-dots row is ":", and only paper ends with ",". A new encoder
// has no row before.
class ZplRowEncoder {
 public:
  explicit ZplRowEncoder(ZplDialect dialect) : standard_(dialect == ZplDialect::kStandard) {}
  // The text of the next row of `n` bytes, at `*text`; it stays valid until
  // the next call. Returns its length.
  size_t encode(const uint8_t* row, size_t n, const uint8_t** text);

 private:
  bool standard_;
  // Kelvo dialect: the row before was all dots (sent in full or as a
  // repeat); only then may an all-dots row be sent as a repeat.
  bool prevAllDots_ = false;
  // Standard dialect: the row before (empty: none).
  std::vector<uint8_t> prevRow_;
  // The text of a row, kept from row to row so that no row allocates.
  std::vector<uint8_t> text_;
};

// The graphic of one page, after its setup block. A job cancelled before
// it sends nothing; one cancelled during the download ends it with "~DN".
void kelvoWriteGraphic(KelvoSink& sink, const KelvoJobSettings& settings, const KelvoDots& dots);
