#pragma once
// Stencil studio: a page of the printer application's web interface where
// anyone who may print lays a picture on a page of a printer, sees it as
// that printer will print it (through the engine a job takes, at the
// printer's resolution, dot for dot) and prints exactly what was shown. It
// changes no printer settings: a print is a normal job of the requesting
// user, the picture's page as an 8-bit PWG raster document with the choices
// as job attributes.
#include <pappl/pappl.h>

// Serves the page under /kelvo-studio/ and links it from every printer's
// page, those added later too. Call once the printers are loaded. Print
// documents are written to `spoolDirectory`, PAPPL's spool, where PAPPL
// removes them once their job is done.
void kelvoStudioRegister(pappl_system_t* system, const char* spoolDirectory);
