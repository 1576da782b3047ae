#pragma once
// A page's way from ink amounts to the dots it prints: brightness and
// mirror, the halftone or the stencil chain, negative printing and the
// anti-wrinkle frame, and the debug pictures of both ends.
#include <cstddef>
#include <cstdint>

#include "printer/debug_pictures.h"
#include "printer/dots.h"
#include "printer/job_settings.h"
#include "printer/label_setup.h"

// `page`: size.heightDots rows of size.widthDots bytes of ink (0 = paper,
// 255 = full ink), `stride` bytes apart. The pipeline works in the page
// itself (brightness, mirror, the stencil's rows), so it is lost. `debug`
// may be null. False when the page could not be made (no memory);
// std::bad_alloc may also come through.
bool kelvoRenderPage(uint8_t* page, size_t stride, const KelvoPageSize& size, const KelvoJobSettings& settings,
                     KelvoDots& dots, KelvoDebugPictures* debug);
