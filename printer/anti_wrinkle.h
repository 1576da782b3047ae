#pragma once
// The anti-wrinkle frame of the stencil printers: solid lines of dots around
// the printable sheet keep thin stencil paper flat under the print head.
#include <string>

#include "printer/dots.h"

// Frames `dots` for the sheet named `sheet` ("A4", "Letter", "Tattoo_A5",
// "Tattoo_A6"): the left and right lines `levelMm` millimetres wide, the top
// and bottom ones 1 mm, around the sheet's printable area at xdpi x ydpi. A
// page smaller than the frame is centred in it on paper; a larger one keeps
// its size and the frame is drawn into it, centred. False (nothing drawn)
// for a sheet that has no frame.
bool kelvoDrawAntiWrinkleFrame(KelvoDots& dots, int levelMm, const std::string& sheet, unsigned xdpi, unsigned ydpi);
