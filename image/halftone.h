#pragma once
// The halftones of labels: a page of ink amounts, one byte a pixel (0 =
// paper, 255 = full ink), straight to a page of dots.
#include <cstddef>
#include <cstdint>

#include "support/halftone.h"

// Halftones `height` rows of `width` levels, rows `stride` bytes apart, into
// rows of one bit a pixel (1 = a dot, the row's first pixel in bit 7) that lie
// `rowBytes` apart; the unused low bits of each row's last byte are 0. The
// page is only read. Every method but the two tattoo stencils
// (stencil/jv_tattoo.h), for which it returns false and writes nothing.
bool kelvoHalftone(KelvoHalftone method, const uint8_t* page, size_t stride, long width, long height, uint8_t* dots,
                   size_t rowBytes);

// How the error-diffusion kernels run; every path gives the same dots.
// -1: row by row, one pixel after the other; 0: a wavefront of rows in
// vector lanes (the default, on x86). Process-wide; only the tests change it
// (to compare the paths). Returns the path in force afterwards.
int kelvoDitherSetPath(int path);
