#pragma once
// The tattoo stencil chain: gray page in, page of 0/255 bytes out. The input
// record is never modified.

#include "stencil/jv_image.h"
#include "stencil/jv_run.h"

// Error diffusion over a six-neighbour kernel; outputs above `threshold`
// become 255. Runs as a wavefront of bands of rows on options.threads
// threads; every thread count and vector path gives the same bytes.
JVImage edf_cus(const JVImage& src, int threshold);
JVImage edf_cus(const JVImage& src, int threshold, const JVRunOptions& options);

// Gamma with pivot 64, unsharp mask, then edf_cus at the page's moment
// threshold. The X8 variant takes the gamma pivot at the measured threshold
// and gammas 0.5 / 1.5. Both finish on every page, also where the plain
// stages would not (a page of a single gray level, an X8 pivot of 255).
// With default options they use every core this process may run on for
// pages of a million pixels or more (jv_run.h).
JVImage jvTattooDithering(JVImage& src);
JVImage jvTattooDitheringX8(JVImage& src);
JVImage jvTattooDithering(JVImage& src, const JVRunOptions& options);
JVImage jvTattooDitheringX8(JVImage& src, const JVRunOptions& options);
// The chain (X8 when `x8`) of a gray page given as rows of `width` bytes,
// made in place: the page becomes the stencil, and no page-sized buffer is
// made. False, with the page unchanged, when the page has no pixels or more
// than fit 31 bits.
bool jvTattooStencilInPlace(unsigned char* gray, int width, int height, bool x8,
                            const JVRunOptions& options = JVRunOptions());
