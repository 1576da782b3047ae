#pragma once
// Row kernels of the blur and weighting passes, with vector paths picked at
// run time. Every path computes each pixel with exactly the float and double
// steps of the plain loops, in the same order; only different pixels share a
// vector, so the bytes never depend on the path.
#include <cstddef>
#include <cstdint>

// 0: SSE2 (the x86-64 baseline), 1: AVX2. Starts at the best the CPU has.
int jvRowsLevel();
int jvRowsSetLevel(int level);

// out[x] = low byte of my_round((float)sum), sum over k = 0..size-1 in
// increasing order of sum = padded[x + k] * taps[k] + sum, from 0.0.
void jvBlurRowHorizontal(const double* padded, const double* taps, int size, size_t width, uint8_t* out);

// The same along a column: the k-th term reads rows[k][x].
void jvBlurRowVertical(const uint8_t* const* rows, const double* taps, int size, size_t width, uint8_t* out);

// out[i] = clamp(my_round((a[i] * alpha + b[i] * beta) + gamma), 0, 255).
void jvWeightedRow(const uint8_t* a, const uint8_t* b, float alpha, float beta, float gamma, size_t n, uint8_t* out);
