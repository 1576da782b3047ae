#pragma once
// The filter's entry, callable in process (the program's main and the fuzz
// harness both use it). Returns the exit status for the spooler.
int kelvoFilterMain(int argc, char** argv);

// Largest page the filter accepts, in bytes of 8-bit raster (bytes per line
// times height). An A3 page at 600 dpi is about 66 MiB; anything beyond this
// is refused instead of being allocated several times over.
constexpr unsigned long long kKelvoMaxPageBytes = 128ULL * 1024 * 1024;
