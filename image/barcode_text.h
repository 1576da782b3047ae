#pragma once
// The "Barcode and Text" halftone (KelvoHalftone::kBarcodeText) for
// labels: bar edges on the nearest dot, diffusion only in continuous tone.
#include <cstdint>
#include <functional>

// Reads page row y as one ink level a byte (0 no ink .. 255 full ink) into dst.
using KelvoLevelRowReader = std::function<void(long y, uint8_t* dst)>;
// Takes finished row y as one 0/1 byte a pixel (1 = a dot).
using KelvoDotRowSink = std::function<void(long y, const uint8_t* row)>;

// A pixel is printed with a dot exactly when its level (unmixed, below) is
// above 128, wherever the page is two-level:
//   - the pixel is near paper (level <= 16) or near full ink (>= 239), or
//   - in the 5 x 5 square around it (2 pixels every way, itself included)
//     levels differ by 96 or more: it lies on or beside a hard edge. (A
//     square, not just its row and column: where an enlargement by 2 puts a
//     tie on every module edge, a dot at the corner of four alternating
//     modules sees only mid grey along both.)
// On an anti-aliased page a pixel's level is the share of it that the shape
// covers, so an edge crossing the pixel left of its centre darkens it by more
// than half: the threshold puts every edge on the nearest dot boundary, each
// on its own, and no error carries from one edge to the next.
// A picture enlarged by interpolation (CUPS's imagetoraster on 8-bit pages)
// mixes neighbouring rows and columns of the original, so at the corners of
// modules a level is the product of two edges and the threshold loses or
// adds a dot, differently from row to row. Where clean steps show it (a mixed
// pixel between paper and full ink above and below, or left and right), the
// share t of a pixel that belongs to the row above is read off them (their
// mean over 32 pixels either way along the row, if they agree), and the level
// is unmixed first down the columns, then along the row (shares from the
// rows up to 32 above and 32 below this one; a mixed pixel whose column shows
// no share there takes the share of the enlargement's grid, a scale and an
// offset fitted to 3 to 32 known shares nearby, when every known one lies
// within 16/256 of it and the grids that fit agree). The pixel's earlier source is the one the pixel
// before it had as its later source when the share grew from that pixel to
// this one (the original's grid moved on), else the same earlier source; its
// later source is (level - t * earlier) / (1 - t). It takes the earlier
// source's level when its share is half or more (it is nearer that row of
// the original; a pixel within 2/256 of half counts as half, so both edges of
// a bar at a tie go the same way), else the later source's. A pixel with no
// share known stands for its own level, as both sources. Edges so land on
// the nearest dot consistently along each row and column of modules. One exception
// keeps lone modules: a pixel of level 65..128 that is the darkest of its 3x3
// neighbourhood and 64 or more above its lightest neighbour prints (an
// enlarged picture spreads a 1.5-dot QR module so thin that no pixel reaches
// half), and likewise a pixel of 129..190 that is the lightest of its
// neighbourhood and 64 or more below its darkest one does not.
// Every other pixel is continuous tone: Floyd-Steinberg error diffusion (7/16
// right, 3/16, 5/16, 1/16 on the row below, each share truncated toward zero,
// the pixel's level plus its received error clamped to 0..255). Error reaches
// and leaves only tone pixels: a two-level pixel ignores what it receives and
// passes nothing on, so photos and logos stay halftoned beside sharp bars.
void kelvoBarcodeTextHalftone(long width, long height, const KelvoLevelRowReader& read, const KelvoDotRowSink& emit);

// Rows of only paper and ink with no column mix in the 32 rows either side
// come out as the threshold without the per-pixel work (the same dots: every
// pixel there is two-level and unmixes to itself). On by default; process-wide,
// and only the tests turn it off, to compare. Returns the setting before.
bool kelvoBarcodeTextSetShortcut(bool on);
