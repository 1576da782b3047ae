#pragma once
// Puts a picture on a printed page the way CUPS's image filter does with its
// default options: turned a quarter left when its orientation differs from
// the page's, scaled to fill the page as far as its proportions allow, and
// centred. Used by halftonepreview and the stencil studio so that the preview
// shows the print.
#include <string>

#include "printer/png_io.h"

// A page size name of the shipped PPDs or a size of one's own, in points:
// "4x6" (inches), "100x150mm", "w288h432" (points, as CUPS names sizes) and
// the sheets A4, A5, A6, Letter, Tattoo_A5 and Tattoo_A6. False for anything
// else, or a size of zero or beyond 1000 inches.
bool kelvoPageSizePoints(const std::string& name, double& width, double& length);

// Dots of a size in points at `dpi`, rounded as CUPS rounds them.
unsigned kelvoPageDots(double points, unsigned dpi);

// The picture (light, 255 = paper) on a blank page of `width` by `height`
// dots. Shrinking averages the pixels a dot covers, enlarging interpolates
// between neighbours.
GrayPage kelvoPlaceOnPage(const GrayPage& picture, unsigned width, unsigned height);
