#pragma once
// The pages a job may send: no wider or longer than the printer model can
// print, and no larger than a fixed number of raster bytes. Both front ends
// refuse a page with the same check and the same message: the filter with
// the model read from its PPD, the printer application from its model table.
// A page's cost (memory, time, printer bytes) grows with its dots, so the
// limits bound what any job can cost.
#include <cups/raster.h>

#include <string>

// Largest page in bytes of 8-bit raster (bytes per line times height), on
// top of the model's width and length: an A3 page at 600 dpi is about
// 66 MiB. Only a model description that allows pages this large reaches it.
constexpr unsigned long long kKelvoMaxPageBytes = 128ULL * 1024 * 1024;

// The longest label a ZPL label printer takes: 39 inches (its largest
// maximum label length), as the label PPDs' *MaxMediaHeight says.
constexpr double kKelvoLongestLabelPt = 39 * 72.0;

// Neither side of a page goes past 32000 dots, whatever a model description
// says: the longest label (^LL) and the farthest field origin (^FO) ZPL
// takes. This also bounds the scratch a halftone keeps per dot of a row.
constexpr unsigned long long kKelvoMaxSideDots = 32000;

// A model description that names no resolution is taken at 600 dpi, the
// finest a ZPL printer has.
constexpr unsigned kKelvoFinestDpi = 600;

// What a printer model takes: its widest and its longest page in points
// (1/72 inch) and its finest resolution (0: not known).
struct KelvoPrintableArea {
  double widestPt = 0;
  double longestPt = 0;
  unsigned dpi = 0;
};

// Why page `page` (counted from 1) of `header` cannot be printed on a model
// of `area`; empty when it can. In this order: a header that contradicts
// itself or has no resolution, a page wider than the model prints, longer
// than it prints, larger than kKelvoMaxPageBytes. The message names the
// limit that was broken. Limits are in dots whatever resolution the header
// claims (a hostile header may claim any): the model's widest and longest
// page at its finest resolution, an eighth of an inch beyond (room for the
// rounding of page sizes to dots, nothing a printer could use), and at most
// kKelvoMaxSideDots.
std::string kelvoPageRefusal(const KelvoPrintableArea& area, const cups_page_header2_t& header, unsigned page);
