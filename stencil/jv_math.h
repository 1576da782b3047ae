#pragma once
// The stencil chain's own single-precision math. Stencils must come out the
// same dot for dot on every machine and in every release, so these routines,
// with their truncated series, absolute tolerances and fixed operation
// order, decide the bytes; never swap in the platform's sqrt, exp or pow.

#include <cstdint>

float myabs(float x);

// Heron iteration; -1 for negative input. Does not return for NaN, +inf or
// the smallest subnormal (its half rounds to 0); every other positive
// float ends within 68 steps.
float my_sqrt(float x);

// my_sqrt, but gives up after `maxSteps` iterations. Returns true and the
// exact my_sqrt value in *root when the iteration ended in time.
bool my_sqrt_bounded(float x, int maxSteps, float* root);

// Taylor series of at most 20 terms: large arguments come out low
// (my_exp(10) = 21991.48).
float my_exp(float x);

// -1 for x <= 0; does not return for NaN or +inf.
float my_ln(float x);

float my_pow(float base, float exponent);

// The processor's truncating float-to-int32 conversion: NaN and values out
// of range give INT32_MIN instead of undefined behaviour.
inline int32_t jv_trunc_i32(float x) {
  if (!(x >= -2147483648.0f && x < 2147483648.0f)) return INT32_MIN;
  return static_cast<int32_t>(x);
}

// Halves away from zero; NaN and out-of-range values give INT32_MIN. Runs
// per pixel, so it lives here to be inlined.
inline int my_round(float x) {
  if (static_cast<double>(x) >= 0.0) return jv_trunc_i32(x + 0.5f);
  return jv_trunc_i32(x - 0.5f);
}
