// The job settings and the label setup block, from a job option string and a
// PPD whose choice words come from the input.
//
// Input: the option string up to a zero byte, then lines: the default choice
// word of each option below in turn, the paper dimension text, the
// recording-file prefix, and any further lines as raw PPD text.
//
// Properties: every text field stays terminated within its size; the
// halftone is one of the methods; the setup block is well formed.
#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "filter/settings.h"
#include "fuzz_util.h"
#include "printer/label_setup.h"
#include "test_support/memory_sink.h"

namespace {

const char* const kOptions[] = {"PageSize",   "Resolution",   "MediaMethod",   "PaperType",  "GapsHeight",
                                "PostAction", "AntiWrinkle",  "Origin",        "HalftoneType", "MirrorImage",
                                "NegativeImage", "PrintSpeed", "Darkness",     "Brightness", "ZplDialect",
                                "RecordPrinterCommands"};
const size_t kOptionCount = sizeof kOptions / sizeof kOptions[0];

// The PPD that the input's lines describe (see the top of this file).
std::string makePpd(const std::string& text) {
  // libcups ends a PPD line at CR as well as LF; split the same way so that
  // the filter of leaking keys below sees every line libcups will read.
  std::string lines = text;
  std::replace(lines.begin(), lines.end(), '\r', '\n');
  std::vector<std::string> words;
  std::istringstream in(lines);
  for (std::string line; std::getline(in, line);) words.push_back(line);
  std::string ppd =
      "*PPD-Adobe: \"4.3\"\n*FormatVersion: \"4.3\"\n*FileVersion: \"1.0\"\n*LanguageVersion: English\n"
      "*LanguageEncoding: ISOLatin1\n*PCFileName: \"FUZZ.PPD\"\n*Manufacturer: \"Kelvo\"\n*Product: \"(Fuzz)\"\n"
      "*ModelName: \"Fuzz\"\n*NickName: \"Fuzz\"\n*ShortNickName: \"Fuzz\"\n";
  auto word = [&](size_t i) -> const std::string* { return i < words.size() ? &words[i] : nullptr; };
  for (size_t i = 0; i < kOptionCount; ++i) {
    const std::string* w = word(i);
    if (w == nullptr) break;
    const std::string name = kOptions[i];
    ppd += "*OpenUI *" + name + ": PickOne\n*Default" + name + ": " + *w + "\n*" + name + " " + *w +
           ": \"\"\n*" + name + " Other: \"\"\n*CloseUI: *" + name + "\n";
  }
  if (const std::string* size = word(0)) {
    const std::string* dims = word(kOptionCount);
    ppd += "*PaperDimension " + *size + ": \"" + (dims ? *dims : std::string("288 432")) + "\"\n";
    ppd += "*ImageableArea " + *size + ": \"0 0 " + (dims ? *dims : std::string("288 432")) + "\"\n";
    ppd +=
        "*VariablePaperSize: True\n*MaxMediaWidth: \"100000\"\n*MaxMediaHeight: \"100000\"\n*HWMargins: 0 0 0 0\n"
        "*CustomPageSize True: \"pop pop pop <</PageSize[5 -2 roll]>>setpagedevice\"\n"
        "*ParamCustomPageSize Width: 1 points 1 100000\n*ParamCustomPageSize Height: 2 points 1 100000\n"
        "*ParamCustomPageSize WidthOffset: 3 points 0 0\n*ParamCustomPageSize HeightOffset: 4 points 0 0\n"
        "*ParamCustomPageSize Orientation: 5 int 0 0\n";
  }
  if (const std::string* prefix = word(kOptionCount + 1)) ppd += "*kelvoFilterOutputFile: \"" + *prefix + "\"\n";
  // *Include would let the input name any file, /dev/stdin included. libcups
  // keeps one copy of *NickName, *LanguageEncoding and the *JCL texts and
  // leaks any earlier one; that leak is theirs, not the filter's.
  for (size_t i = kOptionCount + 2; i < words.size(); ++i) {
    const std::string& line = words[i];
    if (line.find("Include") == std::string::npos && line.find("NickName") == std::string::npos &&
        line.find("LanguageEncoding") == std::string::npos && line.find("JCL") == std::string::npos)
      ppd += line + "\n";
  }
  return ppd;
}

bool terminated(const char* field, size_t size) { return std::memchr(field, 0, size) != nullptr; }

kfuzz::MemFile* gPpd;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kfuzz::quietStderr();
  gPpd = new kfuzz::MemFile("ppd");
  setenv("PPD", gPpd->path.c_str(), 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const uint8_t* end = data + size;
  const uint8_t* zero = static_cast<const uint8_t*>(std::memchr(data, 0, size));
  const std::string options(reinterpret_cast<const char*>(data), static_cast<size_t>((zero ? zero : end) - data));
  const uint8_t* lines = zero ? zero + 1 : end;
  gPpd->set(makePpd(std::string(reinterpret_cast<const char*>(lines), static_cast<size_t>(end - lines))));

  Settings settings;
  std::memset(&settings, 0xA5, sizeof settings);
  kelvoParseSettings(&settings, options.c_str());

  const struct {
    const char* name;
    const char* field;
    size_t size;
  } texts[] = {{"PageSize", settings.PageSize, sizeof settings.PageSize},
               {"MediaMethod", settings.MediaMethod, sizeof settings.MediaMethod},
               {"PaperType", settings.PaperType, sizeof settings.PaperType},
               {"PostAction", settings.PostAction, sizeof settings.PostAction},
               {"Origin", settings.Origin, sizeof settings.Origin},
               {"PrintSpeed", settings.PrintSpeed, sizeof settings.PrintSpeed},
               {"outputFile", settings.outputFile, sizeof settings.outputFile}};
  for (const auto& t : texts)
    if (!terminated(t.field, t.size)) kfuzz::fail("%s is not terminated within %zu bytes", t.name, t.size);
  const int halftone = static_cast<int>(settings.halftoneType);
  if (halftone < 0 || halftone >= kKelvoHalftoneCount) kfuzz::fail("halftone type %d", halftone);

  MemorySink sink;
  const KelvoJobSettings job = kelvoEngineSettings(settings);
  if (job.antiWrinkleMm < 0 || job.antiWrinkleMm > 3) kfuzz::fail("anti-wrinkle frame of %d mm", job.antiWrinkleMm);
  kelvoWriteLabelSetup(sink, job, KelvoPageSize{812, 1218, 203, 203});
  const std::string block = sink.take();
  const char* start = settings.dialect == ZplDialect::kStandard ? "^XA\r\n" : "SIZE ";
  if (block.compare(0, std::strlen(start), start) != 0 || block.size() < 8 ||
      block.compare(block.size() - 7, 7, "^XZ\r\n\r\n") != 0)
    kfuzz::fail("setup block is not framed by %s and ^XZ: %s", start, block.c_str());
  // Whatever the PPD says, only a speed of digits follows ^PR.
  const size_t speed = block.find("^PR");
  if (speed != std::string::npos && block.find_first_not_of("0123456789", speed + 3) != block.find("\r\n", speed))
    kfuzz::fail("^PR followed by something that is not a speed: %s", block.c_str());
  // Every command is one line ending in CR LF.
  for (size_t at = 0; (at = block.find('\n', at)) != std::string::npos; ++at)
    if (at == 0 || block[at - 1] != '\r') kfuzz::fail("bare line feed in the setup block: %s", block.c_str());
  return 0;
}
