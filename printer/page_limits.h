#pragma once
// Largest page the engine accepts, in bytes of 8-bit raster (bytes per line
// times height). An A3 page at 600 dpi is about 66 MiB; anything beyond this
// is refused instead of being allocated several times over. The filter and
// the printer application both refuse larger pages.
constexpr unsigned long long kKelvoMaxPageBytes = 128ULL * 1024 * 1024;
