#pragma once
// How PaletteImage::Dither runs its error-diffusion kernels (methods 2 to 6
// and the default). Every path gives the same bytes.

// -1: row by row, one pixel after the other; 0: a wavefront of rows in
// vector lanes (the default, on x86). Process-wide; only the tests change it
// (to compare the paths). Returns the path in force afterwards.
int kelvoDitherSetPath(int path);
