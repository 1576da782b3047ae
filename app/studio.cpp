#include "app/studio.h"

#include <cups/raster.h>
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "app/drivers.h"
#include "app/job.h"
#include "printer/page_layout.h"
#include "printer/page_pipeline.h"
#include "printer/png_io.h"
#include "support/halftone.h"
#include "support/kelvo_string.h"

// The page's files, embedded at build time (app/embed.cmake).
extern const unsigned char kStudioHtml[], kStudioJs[], kStudioCss[];
extern const size_t kStudioHtmlSize, kStudioJsSize, kStudioCssSize;

namespace {

constexpr char kBase[] = "/kelvo-studio";
// A phone's photo is a few megabytes; a PNG drawing at print size a few tens.
constexpr size_t kMaxUploadBytes = 32u << 20;
// An upload beyond the limit is read to its end, up to this much, so that
// the browser sees the answer instead of a broken connection.
constexpr size_t kMaxDrainBytes = 256u << 20;
// Pictures decode whole: this bounds a request's memory whatever the file says.
constexpr size_t kMaxPicturePixels = 64000000;
constexpr unsigned kMaxPictureSide = 16384;
// Placed pages the server holds (the newest ones), and for how long unused.
constexpr size_t kMaxHeldPages = 8;
constexpr time_t kHeldSeconds = 2 * 3600;

// A picture laid on a page of a printer: what the preview shows and what a
// print sends.
struct HeldPage {
  std::string id;  // random, so that nobody finds another user's picture
  int printerId = 0;
  std::string media;  // PWG size name
  unsigned width = 0, height = 0, dpi = 0;
  std::vector<unsigned char> ink;  // width x height bytes, 0 = paper
  mutable time_t used = 0;         // under Studio::lock
};

// One choice of the page: what the engine is asked to do with the picture.
struct Choice {
  std::string media;     // the held page's size
  std::string halftone;  // IPP keyword of kelvo-halftone
  int brightness = 0;
  bool mirror = false, negative = false;
};

struct Studio {
  pappl_system_t* system = nullptr;
  std::string spool;
  std::mutex lock;                                   // everything below but `work`
  std::list<std::shared_ptr<const HeldPage>> pages;  // most recently used first
  std::set<int> linked;                              // printers that link to the studio
  // The choices of prints not started yet, by their document's path: PAPPL
  // 1.3's papplJobCreateWithFile keeps none of the options it is given.
  std::map<std::string, Choice> printing;
  // Decoding and rendering take a page-sized buffer or three and a core: one
  // request at a time.
  std::mutex work;
};

Studio* sStudio = nullptr;

// --- the two steps behind the page ---

// Picture file -> placed 8-bit page: the picture (PNG for now) laid on a
// page of width x height dots as CUPS lays pictures (turned to the page's
// orientation, scaled to fit, centred), as ink, 0 = paper. The application's
// own picture decoder (PNG and JPEG, placed as print-scaling asks) takes
// this function's place once it is there.
bool placePicture(const std::string& path, unsigned width, unsigned height, std::vector<unsigned char>& ink,
                  std::string& error) {
  unsigned char head[24] = {};
  const int fd = open(path.c_str(), O_RDONLY);
  const ssize_t got = fd >= 0 ? read(fd, head, sizeof head) : -1;
  if (fd >= 0) close(fd);
  static const unsigned char kPng[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  if (got >= 3 && head[0] == 0xFF && head[1] == 0xD8 && head[2] == 0xFF) {
    error = "JPEG pictures cannot be read here yet: save the picture as PNG and choose it again.";
    return false;
  }
  if (got < static_cast<ssize_t>(sizeof head) || std::memcmp(head, kPng, sizeof kPng) != 0) {
    error = "This file is not a PNG picture.";
    return false;
  }
  // The size stands in the first chunk; refuse before anything is decoded.
  const auto be32 = [&](int at) {
    return static_cast<uint32_t>(head[at]) << 24 | static_cast<uint32_t>(head[at + 1]) << 16 |
           static_cast<uint32_t>(head[at + 2]) << 8 | head[at + 3];
  };
  const uint32_t pictureWidth = be32(16), pictureHeight = be32(20);
  if (pictureWidth > kMaxPictureSide || pictureHeight > kMaxPictureSide ||
      static_cast<uint64_t>(pictureWidth) * pictureHeight > kMaxPicturePixels) {
    error = "The picture is " + std::to_string(pictureWidth) + " x " + std::to_string(pictureHeight) +
            " pixels; the studio takes pictures of up to " + std::to_string(kMaxPicturePixels / 1000000) +
            " million pixels and " + std::to_string(kMaxPictureSide) + " pixels a side.";
    return false;
  }
  GrayPage picture;
  if (!kelvoPngReadGray(path, picture, error)) {
    // The reader names the file; the user knows theirs by another name.
    const std::string prefix = path + ": ";
    if (error.compare(0, prefix.size(), prefix) == 0) error.erase(0, prefix.size());
    error = "The picture is damaged and cannot be read (" + error + ").";
    return false;
  }
  const GrayPage placed = kelvoPlaceOnPage(picture, width, height);
  ink.resize(placed.pixels.size());
  for (size_t i = 0; i < ink.size(); ++i) ink[i] = static_cast<unsigned char>(255 - placed.pixels[i]);
  return true;
}

// A job's options with the choice in them, where the job's attributes would
// put it: the page's size and the engine's vendor options.
void applyChoice(const Choice& choice, pappl_pr_options_t& options) {
  kelvoStrCpy(options.media.size_name, choice.media.c_str(), sizeof options.media.size_name);
  int& n = options.num_vendor;
  n = cupsAddOption("kelvo-halftone", choice.halftone.c_str(), n, &options.vendor);
  n = cupsAddIntegerOption("kelvo-brightness", choice.brightness, n, &options.vendor);
  n = cupsAddOption("kelvo-mirror", choice.mirror ? "true" : "false", n, &options.vendor);
  n = cupsAddOption("kelvo-negative", choice.negative ? "true" : "false", n, &options.vendor);
}

// Placed page + choice -> the page as the printer prints it, rows of dots:
// the engine's page pipeline with the settings a job of this choice gets.
bool renderPage(const KelvoModel& model, pappl_label_mode_t mode, const HeldPage& page, const Choice& choice,
                KelvoDots& dots) {
  pappl_pr_options_t options;
  std::memset(&options, 0, sizeof options);
  applyChoice(choice, options);
  const KelvoJobSettings settings = kelvoSettingsFromOptions(model, options, mode);
  cupsFreeOptions(options.num_vendor, options.vendor);
  // The engine works in the page it is given; the held page stays as it is.
  std::vector<unsigned char> work(page.ink);
  const KelvoPageSize size{page.width, page.height, page.dpi, page.dpi};
  return kelvoRenderPage(work.data(), page.width, size, settings, dots, nullptr) && dots.width == page.width &&
         dots.height == page.height;
}

// --- small helpers ---

std::string jsonString(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

std::string urlDecode(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '+') {
      out += ' ';
    } else if (text[i] == '%' && i + 2 < text.size() && std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
               std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
      out += static_cast<char>(std::strtol(text.substr(i + 1, 2).c_str(), nullptr, 16));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

std::string urlEncode(const std::string& text) {
  std::string out;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
      out += static_cast<char>(c);
    } else {
      char escaped[4];
      std::snprintf(escaped, sizeof escaped, "%%%02X", c);
      out += escaped;
    }
  }
  return out;
}

using Fields = std::map<std::string, std::string>;

// The query string of the request (or a form body): name=value&...
Fields parseFields(const char* text) {
  Fields fields;
  std::string all = text != nullptr ? text : "";
  size_t start = 0;
  while (start <= all.size()) {
    size_t end = all.find('&', start);
    if (end == std::string::npos) end = all.size();
    const std::string pair = all.substr(start, end - start);
    const size_t equals = pair.find('=');
    if (!pair.empty())
      fields[urlDecode(pair.substr(0, equals))] = equals == std::string::npos ? "" : urlDecode(pair.substr(equals + 1));
    start = end + 1;
  }
  return fields;
}

std::string field(const Fields& fields, const char* name) {
  const auto it = fields.find(name);
  return it != fields.end() ? it->second : std::string();
}

bool respond(pappl_client_t* client, http_status_t status, const char* type, const void* body, size_t size) {
  if (!papplClientRespond(client, status, nullptr, type, 0, size)) return false;
  if (size > 0) httpWrite2(papplClientGetHTTP(client), static_cast<const char*>(body), size);
  return true;
}

bool respondJson(pappl_client_t* client, http_status_t status, const std::string& json) {
  return respond(client, status, "application/json", json.data(), json.size());
}

// Every refusal carries a sentence for the page to show.
bool refuse(pappl_client_t* client, http_status_t status, const std::string& message) {
  return respondJson(client, status, "{\"error\":" + jsonString(message) + "}");
}

std::string randomId() {
  unsigned char bytes[16];
  if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) return std::string();
  std::string id;
  for (unsigned char b : bytes) {
    char hex[3];
    std::snprintf(hex, sizeof hex, "%02x", b);
    id += hex;
  }
  return id;
}

// --- printers ---

struct FindByName {
  const char* name;
  pappl_printer_t* found;
};

pappl_printer_t* findPrinter(const std::string& name) {
  FindByName find{name.c_str(), nullptr};
  papplSystemIteratePrinters(
      sStudio->system,
      [](pappl_printer_t* printer, void* data) {
        auto* f = static_cast<FindByName*>(data);
        if (f->found == nullptr && std::strcmp(papplPrinterGetName(printer), f->name) == 0) f->found = printer;
      },
      &find);
  return find.found;
}

// What the page offers for a printer: read from its driver at every request,
// so that the page follows the driver's choices and the printer's defaults.
struct Offer {
  const KelvoModel* model = nullptr;
  pappl_pr_driver_data_t data;
  ipp_t* attrs = nullptr;  // the printer's driver attributes (a copy)
  ~Offer() { ippDelete(attrs); }
};

bool offerOf(pappl_printer_t* printer, Offer& offer) {
  offer.model = kelvoFindModel(papplPrinterGetDriverName(printer));
  if (offer.model == nullptr) return false;
  papplPrinterGetDriverData(printer, &offer.data);
  offer.attrs = papplPrinterGetDriverAttributes(printer);
  return offer.attrs != nullptr;
}

bool offersMedia(const Offer& offer, const std::string& media) {
  for (int i = 0; i < offer.data.num_media; ++i)
    if (media == offer.data.media[i]) return true;
  return false;
}

void brightnessRange(const Offer& offer, int& low, int& high) {
  low = -100, high = 100;
  if (ipp_attribute_t* range = ippFindAttribute(offer.attrs, "kelvo-brightness-supported", IPP_TAG_RANGE))
    low = ippGetRange(range, 0, &high);
}

// "jarvis-judice-ninke" -> "Jarvis Judice Ninke"
std::string words(std::string keyword) {
  for (size_t i = 0; i < keyword.size(); ++i) {
    if (keyword[i] == '-') keyword[i] = ' ';
    if (i == 0 || keyword[i - 1] == ' ')
      keyword[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(keyword[i])));
  }
  return keyword;
}

// A size PAPPL has no name for, by the word in its PWG name: "Letter (216 x
// 279 mm)" for om_letter_215.74x279.4mm, "2.25 x 1.25 in" for a label named
// 2-25x1-25-label (labels are named by their inches).
std::string sizeLabel(const std::string& name) {
  const size_t from = name.find('_') + 1, to = name.rfind('_');
  const pwg_media_t* size = pwgMediaForPWG(name.c_str());
  if (to == std::string::npos || to < from || size == nullptr) return name;
  std::string word = name.substr(from, to - from);
  const std::string label = "-label";
  if (word.size() > label.size() && word.compare(word.size() - label.size(), label.size(), label) == 0) {
    word.erase(word.size() - label.size());
    const size_t x = word.find('x');
    if (x != std::string::npos && word.find_first_not_of("0123456789-x") == std::string::npos) {
      for (char& c : word) c = c == '-' ? '.' : c;
      return word.substr(0, x) + " x " + word.substr(x + 1) + " in";
    }
  }
  char mm[64];
  std::snprintf(mm, sizeof mm, " (%.0f x %.0f mm)", size->width / 100.0, size->length / 100.0);
  return words(word) + mm;
}

// The client's language's text for `key`, if PAPPL or the driver has one.
std::string localized(pappl_client_t* client, const std::string& key, const std::string& fallback) {
  const char* text = papplClientGetLocString(client, key.c_str());
  return text != nullptr && key != text ? text : fallback;
}

// The page of a size at the printer's resolution, as a raster document
// of that size has it.
bool pageHeader(const std::string& media, int dpi, cups_page_header2_t& header) {
  pwg_media_t* size = pwgMediaForPWG(media.c_str());
  return size != nullptr && cupsRasterInitPWGHeader(&header, size, "black_8", dpi, dpi, "one-sided", nullptr) != 0 &&
         header.cupsWidth > 0 && header.cupsHeight > 0;
}

// The choice in `fields`, checked against what the printer's driver offers.
bool choiceOf(const Fields& fields, const Offer& offer, const HeldPage& page, Choice& choice, std::string& error) {
  choice.media = page.media;
  choice.halftone = field(fields, "halftone");
  ipp_attribute_t* halftones = ippFindAttribute(offer.attrs, "kelvo-halftone-supported", IPP_TAG_KEYWORD);
  if (halftones == nullptr || !ippContainsString(halftones, choice.halftone.c_str())) {
    error = "This printer has no halftone \"" + choice.halftone + "\".";
    return false;
  }
  const std::string brightness = field(fields, "brightness");
  char* end = nullptr;
  const long value = std::strtol(brightness.c_str(), &end, 10);
  int low, high;
  brightnessRange(offer, low, high);
  if (brightness.empty() || *end != '\0' || value < low || value > high) {
    error = "The brightness is a whole number from " + std::to_string(low) + " to " + std::to_string(high) + ".";
    return false;
  }
  choice.brightness = static_cast<int>(value);
  choice.mirror = field(fields, "mirror") == "true";
  choice.negative = field(fields, "negative") == "true";
  return true;
}

// --- held pages ---

void holdPage(std::shared_ptr<HeldPage> page) {
  std::lock_guard<std::mutex> hold(sStudio->lock);
  page->used = std::time(nullptr);
  sStudio->pages.push_front(std::move(page));
  while (sStudio->pages.size() > kMaxHeldPages) sStudio->pages.pop_back();
}

std::shared_ptr<const HeldPage> findPage(const std::string& id) {
  std::lock_guard<std::mutex> hold(sStudio->lock);
  const time_t now = std::time(nullptr);
  sStudio->pages.remove_if([&](const std::shared_ptr<const HeldPage>& p) { return now - p->used > kHeldSeconds; });
  for (auto it = sStudio->pages.begin(); it != sStudio->pages.end(); ++it) {
    if ((*it)->id != id) continue;
    std::shared_ptr<const HeldPage> page = *it;
    sStudio->pages.erase(it);
    page->used = now;
    sStudio->pages.push_front(page);
    return page;
  }
  return nullptr;
}

const char kGone[] = "The picture is no longer held by the server; choose it again.";

// A held page with its printer and what that printer offers, or a refusal.
bool pageAndOffer(pappl_client_t* client, const std::string& id, std::shared_ptr<const HeldPage>& page,
                  pappl_printer_t*& printer, Offer& offer) {
  page = findPage(id);
  if (page == nullptr) {
    refuse(client, HTTP_STATUS_GONE, kGone);
    return false;
  }
  printer = papplSystemFindPrinter(sStudio->system, nullptr, page->printerId, nullptr);
  if (printer == nullptr || !offerOf(printer, offer)) {
    refuse(client, HTTP_STATUS_NOT_FOUND, "The printer is gone.");
    return false;
  }
  return true;
}

// --- the page's requests ---

// GET info?printer=NAME: what the page offers for the printer.
bool sendInfo(pappl_client_t* client, const Fields& query) {
  pappl_printer_t* printer = findPrinter(field(query, "printer"));
  Offer offer;
  if (printer == nullptr || !offerOf(printer, offer))
    return refuse(client, HTTP_STATUS_NOT_FOUND, "There is no printer \"" + field(query, "printer") + "\" here.");
  const int dpi = offer.data.x_default;
  char path[256], token[256];
  std::string json = "{\"printer\":" + jsonString(papplPrinterGetName(printer)) +
                     ",\"printerPage\":" + jsonString(papplPrinterGetPath(printer, nullptr, path, sizeof path)) +
                     ",\"dpi\":" + std::to_string(dpi) + ",\"media\":[";
  for (int i = 0; i < offer.data.num_media; ++i) {
    cups_page_header2_t header;
    const std::string name = offer.data.media[i];
    // The custom size range is no size to choose.
    if (name.compare(0, 7, "custom_") == 0 || !pageHeader(offer.data.media[i], dpi, header)) continue;
    const char* text = kelvoMediaText(*offer.model, name.c_str());
    json += std::string(json.back() == '[' ? "" : ",") + "{\"name\":" + jsonString(name) +
            ",\"label\":" + jsonString(localized(client, "media." + name, text != nullptr ? text : sizeLabel(name))) +
            ",\"width\":" + std::to_string(header.cupsWidth) + ",\"height\":" + std::to_string(header.cupsHeight) + "}";
  }
  json += "],\"mediaDefault\":" + jsonString(offer.data.media_default.size_name) + ",\"halftones\":[";
  ipp_attribute_t* halftones = ippFindAttribute(offer.attrs, "kelvo-halftone-supported", IPP_TAG_KEYWORD);
  for (int i = 0; i < ippGetCount(halftones); ++i) {
    const std::string keyword = ippGetString(halftones, i, nullptr);
    // Old keywords are the same methods under their former names.
    const char* text = kelvoChoiceWords("kelvo-halftone", keyword.c_str());
    if (text == nullptr) continue;
    // "engine": the method the keyword runs, by its name, as halftonepreview takes it.
    json += std::string(json.back() == '[' ? "" : ",") + "{\"keyword\":" + jsonString(keyword) +
            ",\"label\":" + jsonString(localized(client, "kelvo-halftone." + keyword, text)) +
            ",\"engine\":" + jsonString(kelvoHalftoneName(kelvoHalftoneFromKeyword(keyword.c_str()))) + "}";
  }
  char value[256] = "";
  const auto defaultOf = [&](const char* name) -> std::string {
    ipp_attribute_t* attr = ippFindAttribute(offer.attrs, name, IPP_TAG_ZERO);
    return attr != nullptr && ippAttributeString(attr, value, sizeof value) > 0 ? value : "";
  };
  int low, high;
  brightnessRange(offer, low, high);
  const std::string brightness = defaultOf("kelvo-brightness-default");
  json += "],\"halftoneDefault\":" + jsonString(defaultOf("kelvo-halftone-default")) +
          ",\"brightness\":{\"min\":" + std::to_string(low) + ",\"max\":" + std::to_string(high) +
          ",\"default\":" + std::to_string(std::atoi(brightness.c_str())) + "}" +
          ",\"mirror\":" + (defaultOf("kelvo-mirror-default") == "true" ? "true" : "false") +
          ",\"negative\":" + (defaultOf("kelvo-negative-default") == "true" ? "true" : "false") +
          ",\"maxUploadBytes\":" + std::to_string(kMaxUploadBytes) +
          ",\"session\":" + jsonString(papplClientGetCSRFToken(client, token, sizeof token)) + "}";
  return respondJson(client, HTTP_STATUS_OK, json);
}

// Reads the request's body into a new file; false when it is beyond the limit
// (read to its end all the same, up to kMaxDrainBytes).
bool receiveUpload(pappl_client_t* client, int fd, size_t& total, bool& tooLarge) {
  http_t* http = papplClientGetHTTP(client);
  char buffer[65536];
  ssize_t got;
  while ((got = httpRead2(http, buffer, sizeof buffer)) > 0) {
    total += static_cast<size_t>(got);
    if (total > kMaxUploadBytes) tooLarge = true;
    if (!tooLarge && write(fd, buffer, static_cast<size_t>(got)) != got) return false;
    if (total > kMaxDrainBytes) {
      httpSetKeepAlive(http, HTTP_KEEPALIVE_OFF);
      break;
    }
  }
  return got >= 0 || tooLarge;
}

// POST picture?printer=NAME&media=SIZE, the picture's bytes as the body:
// lays it on a page and holds the page.
bool receivePicture(pappl_client_t* client, const Fields& query) {
  pappl_printer_t* printer = findPrinter(field(query, "printer"));
  Offer offer;
  const std::string media = field(query, "media");
  if (printer == nullptr || !offerOf(printer, offer))
    return refuse(client, HTTP_STATUS_NOT_FOUND, "There is no printer \"" + field(query, "printer") + "\" here.");
  cups_page_header2_t header;
  if (!offersMedia(offer, media) || !pageHeader(media, offer.data.x_default, header))
    return refuse(client, HTTP_STATUS_BAD_REQUEST, "This printer has no page size \"" + media + "\".");

  std::string path = sStudio->spool + "/kelvo-studio-XXXXXX";
  const int fd = mkstemp(&path[0]);
  if (fd < 0) return refuse(client, HTTP_STATUS_SERVER_ERROR, "The server cannot keep the picture.");
  size_t total = 0;
  bool tooLarge = false;
  const bool received = receiveUpload(client, fd, total, tooLarge);
  close(fd);
  auto page = std::make_shared<HeldPage>();
  std::string error;
  bool placed = false;
  if (received && !tooLarge && total > 0) {
    std::lock_guard<std::mutex> working(sStudio->work);
    placed = placePicture(path, header.cupsWidth, header.cupsHeight, page->ink, error);
  }
  unlink(path.c_str());
  if (tooLarge) {
    char size[32];
    std::snprintf(size, sizeof size, total > kMaxDrainBytes ? "over %.0f" : "%.1f",
                  (total > kMaxDrainBytes ? kMaxDrainBytes : total) / 1048576.0);
    return refuse(client, HTTP_STATUS_REQUEST_TOO_LARGE,
                  std::string("The file is ") + size + " MB; the studio takes pictures of up to " +
                      std::to_string(kMaxUploadBytes >> 20) + " MB.");
  }
  if (!received) return refuse(client, HTTP_STATUS_BAD_REQUEST, "The picture did not arrive whole; choose it again.");
  if (total == 0) return refuse(client, HTTP_STATUS_BAD_REQUEST, "No picture came with the request.");
  if (!placed) return refuse(client, HTTP_STATUS_UNSUPPORTED_MEDIATYPE, error);

  page->id = randomId();
  page->printerId = papplPrinterGetID(printer);
  page->media = media;
  page->width = header.cupsWidth;
  page->height = header.cupsHeight;
  page->dpi = static_cast<unsigned>(offer.data.x_default);
  const std::string json = "{\"page\":" + jsonString(page->id) + ",\"width\":" + std::to_string(page->width) +
                           ",\"height\":" + std::to_string(page->height) + "}";
  if (page->id.empty()) return refuse(client, HTTP_STATUS_SERVER_ERROR, "The server has no random numbers.");
  holdPage(std::move(page));
  return respondJson(client, HTTP_STATUS_OK, json);
}

// GET preview?page=ID&halftone=...&brightness=...&mirror=...&negative=...:
// the page as the printer prints it, a PBM bitmap (1 = dot).
bool sendPreview(pappl_client_t* client, const Fields& query) {
  std::shared_ptr<const HeldPage> page;
  pappl_printer_t* printer = nullptr;
  Offer offer;
  if (!pageAndOffer(client, field(query, "page"), page, printer, offer)) return true;
  Choice choice;
  std::string error;
  if (!choiceOf(query, offer, *page, choice, error)) return refuse(client, HTTP_STATUS_BAD_REQUEST, error);
  KelvoDots rendered;
  bool ok;
  {
    std::lock_guard<std::mutex> working(sStudio->work);
    ok = renderPage(*offer.model, offer.data.mode_configured, *page, choice, rendered);
  }
  if (!ok) return refuse(client, HTTP_STATUS_SERVER_ERROR, "The engine could not process this page.");
  // PBM rows are the dots' rows: a set bit is black, the first pixel in bit 7.
  const std::string head = "P4\n" + std::to_string(rendered.width) + " " + std::to_string(rendered.height) + "\n";
  if (!papplClientRespond(client, HTTP_STATUS_OK, nullptr, "image/x-portable-bitmap", 0,
                          head.size() + rendered.bits.size()))
    return true;
  http_t* http = papplClientGetHTTP(client);
  httpWrite2(http, head.data(), head.size());
  httpWrite2(http, reinterpret_cast<const char*>(rendered.bits.data()), rendered.bits.size());
  return true;
}

// GET page?page=ID: the placed page itself, a PGM picture as it lies on
// paper (255 = paper).
bool sendPage(pappl_client_t* client, const Fields& query) {
  const std::shared_ptr<const HeldPage> page = findPage(field(query, "page"));
  if (page == nullptr) return refuse(client, HTTP_STATUS_GONE, kGone);
  const std::string head = "P5\n" + std::to_string(page->width) + " " + std::to_string(page->height) + "\n255\n";
  std::vector<unsigned char> light(page->ink.size());
  for (size_t i = 0; i < light.size(); ++i) light[i] = static_cast<unsigned char>(255 - page->ink[i]);
  if (!papplClientRespond(client, HTTP_STATUS_OK, nullptr, "image/x-portable-graymap", 0, head.size() + light.size()))
    return true;
  http_t* http = papplClientGetHTTP(client);
  httpWrite2(http, head.data(), head.size());
  httpWrite2(http, reinterpret_cast<const char*>(light.data()), light.size());
  return true;
}

// The held page as a one-page 8-bit PWG raster document at `path`.
bool writeRaster(const HeldPage& page, const std::string& path) {
  cups_page_header2_t header;
  if (!pageHeader(page.media, static_cast<int>(page.dpi), header) || header.cupsWidth != page.width ||
      header.cupsHeight != page.height)
    return false;
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  cups_raster_t* raster = cupsRasterOpen(fd, CUPS_RASTER_WRITE_PWG);
  bool ok = raster != nullptr && cupsRasterWriteHeader2(raster, &header) != 0;
  for (unsigned y = 0; ok && y < page.height; ++y)
    ok =
        cupsRasterWritePixels(raster, const_cast<unsigned char*>(page.ink.data()) + static_cast<size_t>(y) * page.width,
                              page.width) == page.width;
  if (raster != nullptr) cupsRasterClose(raster);
  ok = close(fd) == 0 && ok;
  if (!ok) unlink(path.c_str());
  return ok;
}

// POST print (a form: session, page, halftone, brightness, mirror, negative,
// name): the held page as a job of the requesting user, with the choice as
// its attributes.
bool printPage(pappl_client_t* client) {
  cups_option_t* form = nullptr;
  const int count = papplClientGetForm(client, &form);
  Fields fields;
  for (int i = 0; i < count; ++i) fields[form[i].name] = form[i].value;
  const bool valid = papplClientIsValidForm(client, count, form);
  cupsFreeOptions(count, form);
  if (!valid) return refuse(client, HTTP_STATUS_BAD_REQUEST, "This page is out of date; load it again to print.");

  std::shared_ptr<const HeldPage> page;
  pappl_printer_t* printer = nullptr;
  Offer offer;
  if (!pageAndOffer(client, field(fields, "page"), page, printer, offer)) return true;
  // A printer kept for a group takes jobs through IPP, where the group is checked.
  char group[256] = "";
  papplPrinterGetPrintGroup(printer, group, sizeof group);
  if (group[0] != '\0')
    return refuse(client, HTTP_STATUS_FORBIDDEN,
                  "This printer takes jobs from the members of a group only; print "
                  "from a program that logs in.");
  if (!papplPrinterIsAcceptingJobs(printer))
    return refuse(client, HTTP_STATUS_SERVICE_UNAVAILABLE, "The printer takes no jobs at the moment.");
  Choice choice;
  std::string error;
  if (!choiceOf(fields, offer, *page, choice, error)) return refuse(client, HTTP_STATUS_BAD_REQUEST, error);

  const std::string id = randomId();
  const std::string path = sStudio->spool + "/kelvo-studio-" + id + ".pwg";
  if (id.empty() || !writeRaster(*page, path))
    return refuse(client, HTTP_STATUS_SERVER_ERROR, "The server cannot write the job's document.");
  // The job is named after the picture, in printable characters.
  std::string name;
  for (unsigned char c : field(fields, "name").substr(0, 80))
    name += c >= 0x20 && c != 0x7F ? static_cast<char>(c) : '_';
  if (name.empty()) name = "Stencil studio";
  const char* user = papplClientGetUsername(client);
  {
    std::lock_guard<std::mutex> hold(sStudio->lock);
    sStudio->printing[path] = choice;
  }
  pappl_job_t* job = papplJobCreateWithFile(printer, user != nullptr && *user != '\0' ? user : "anonymous",
                                            "image/pwg-raster", name.c_str(), 0, nullptr, path.c_str());
  if (job == nullptr) {
    std::lock_guard<std::mutex> hold(sStudio->lock);
    sStudio->printing.erase(path);
    unlink(path.c_str());
    return refuse(client, HTTP_STATUS_SERVER_ERROR, "The printer did not take the job.");
  }
  const int jobId = papplJobGetID(job);
  return respondJson(client, HTTP_STATUS_OK,
                     "{\"job\":" + std::to_string(jobId) + ",\"message\":" +
                         jsonString("Job " + std::to_string(jobId) + " sent to " + papplPrinterGetName(printer) + ".") +
                         "}");
}

// PAPPL 1.3 prints a PWG raster document only while it streams in with its
// IPP request; one that is spooled first, as the studio's prints are, comes
// here and goes through the same page steps.
bool printSpooledRaster(pappl_job_t* job, pappl_device_t* device, void* /*data*/) {
  const int fd = open(papplJobGetFilename(job), O_RDONLY | O_CLOEXEC);
  cups_raster_t* raster = fd >= 0 ? cupsRasterOpen(fd, CUPS_RASTER_READ) : nullptr;
  if (raster == nullptr) {
    if (fd >= 0) close(fd);
    papplJobSetMessage(job, "Unable to read the job's document");
    return false;
  }
  pappl_pr_options_t* options = papplJobCreatePrintOptions(job, 1, false);
  {
    std::lock_guard<std::mutex> hold(sStudio->lock);
    const auto studio = sStudio->printing.find(papplJobGetFilename(job));
    if (studio != sStudio->printing.end()) {
      applyChoice(studio->second, *options);
      sStudio->printing.erase(studio);
    }
  }
  papplJobSetImpressions(job, 1);
  const bool started = kelvoStartJob(job, options, device);
  bool ok = started;
  unsigned page = 0;
  std::vector<unsigned char> line;
  while (ok && !papplJobIsCanceled(job) && cupsRasterReadHeader2(raster, &options->header) != 0) {
    ok = kelvoStartPage(job, options, device, ++page);
    line.resize(options->header.cupsBytesPerLine);
    // A page cut short ends early; kelvoEndPage says so.
    for (unsigned y = 0; ok && y < options->header.cupsHeight; ++y) {
      if (cupsRasterReadPixels(raster, line.data(), static_cast<unsigned>(line.size())) != line.size()) break;
      ok = kelvoWriteLine(job, options, device, y, line.data());
    }
    ok = ok && kelvoEndPage(job, options, device, page);
    if (ok) papplJobSetImpressionsCompleted(job, 1);
  }
  if (ok && page == 0) {
    papplJobSetMessage(job, "The document has no pages");
    ok = false;
  }
  if (started) ok = kelvoEndJob(job, options, device) && ok;
  papplJobDeletePrintOptions(options);
  cupsRasterClose(raster);
  close(fd);
  return ok;
}

bool handle(pappl_client_t* client, void* data) {
  const std::string which = static_cast<const char*>(data);
  const http_state_t method = papplClientGetMethod(client);
  const Fields query = parseFields(papplClientGetOptions(client));
  if (which == "info" && method == HTTP_STATE_GET) return sendInfo(client, query);
  if (which == "picture" && method == HTTP_STATE_POST) return receivePicture(client, query);
  if (which == "preview" && method == HTTP_STATE_GET) return sendPreview(client, query);
  if (which == "page" && method == HTTP_STATE_GET) return sendPage(client, query);
  if (which == "print" && method == HTTP_STATE_POST) return printPage(client);
  return refuse(client, HTTP_STATUS_METHOD_NOT_ALLOWED, "The studio does not take this request.");
}

// Every printer's page links to the studio; printers added while the server
// runs get their link within a second. Choices of prints whose document
// is gone (a job cancelled before it started) are dropped.
bool tend(pappl_system_t* system, void* /*data*/) {
  papplSystemIteratePrinters(
      system,
      [](pappl_printer_t* printer, void* /*data*/) {
        {
          std::lock_guard<std::mutex> hold(sStudio->lock);
          if (!sStudio->linked.insert(papplPrinterGetID(printer)).second) return;
        }
        const std::string path = std::string(kBase) + "/?printer=" + urlEncode(papplPrinterGetName(printer));
        papplPrinterAddLink(printer, "Stencil studio", path.c_str(), PAPPL_LOPTIONS_NAVIGATION | PAPPL_LOPTIONS_STATUS);
      },
      nullptr);
  std::lock_guard<std::mutex> hold(sStudio->lock);
  for (auto it = sStudio->printing.begin(); it != sStudio->printing.end();)
    it = access(it->first.c_str(), F_OK) == 0 ? std::next(it) : sStudio->printing.erase(it);
  return true;
}

}  // namespace

void kelvoStudioRegister(pappl_system_t* system, const char* spoolDirectory) {
  if (sStudio != nullptr) return;
  sStudio = new Studio;  // lives as long as the server
  sStudio->system = system;
  sStudio->spool = spoolDirectory;
  const std::string base = kBase;
  papplSystemAddResourceData(system, (base + "/").c_str(), "text/html", kStudioHtml, kStudioHtmlSize);
  papplSystemAddResourceData(system, (base + "/studio.js").c_str(), "text/javascript", kStudioJs, kStudioJsSize);
  papplSystemAddResourceData(system, (base + "/studio.css").c_str(), "text/css", kStudioCss, kStudioCssSize);
  static const char* const kRequests[] = {"info", "picture", "preview", "page", "print"};
  for (const char* request : kRequests)
    papplSystemAddResourceCallback(system, (base + "/" + request).c_str(), "application/json", handle,
                                   const_cast<char*>(request));
  papplSystemAddMIMEFilter(system, "image/pwg-raster", kKelvoZplFormat, printSpooledRaster, nullptr);
  tend(system, nullptr);
  papplSystemAddTimerCallback(system, 0, 1, tend, nullptr);
}
