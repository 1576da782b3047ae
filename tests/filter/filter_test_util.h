#pragma once
// Shared by the filter tests: the setup block a job's settings give, and
// small PPD files.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "filter/settings.h"
#include "printer/label_setup.h"
#include "test_support/memory_sink.h"

inline bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// The label setup block of a page of `page` for these settings.
inline std::string setupBlock(const Settings& settings, const KelvoPageSize& page = {812, 1218, 203, 203}) {
  MemorySink sink;
  kelvoWriteLabelSetup(sink, kelvoEngineSettings(settings), page);
  return sink.take();
}

// The process id keeps test cases that ctest runs in parallel apart.
inline std::string scratchPath(const std::string& name) {
  return testing::TempDir() + "kelvo_" + std::to_string(getpid()) + "_" + name;
}

// A file holding `text`, removed at the end.
struct TempFile {
  TempFile(const std::string& name, const std::string& text) : path(scratchPath(name)) {
    std::ofstream(path, std::ios::binary) << text;
  }
  ~TempFile() { std::remove(path.c_str()); }
  std::string path;
};

inline std::string ppdPath(const char* name) { return std::string(KELVO_PPD_DIR) + "/" + name; }

inline std::string ppdText(const std::string& body) {
  return "*PPD-Adobe: \"4.3\"\n*FormatVersion: \"4.3\"\n*LanguageVersion: English\n*LanguageEncoding: ISOLatin1\n" +
         body;
}

// A PickOne option with its declared default and choices.
inline std::string ppdOption(const std::string& name, const std::string& def,
                             std::initializer_list<std::string> choices) {
  std::string text = "*OpenUI *" + name + ": PickOne\n*Default" + name + ": " + def + "\n";
  for (const std::string& choice : choices) text += "*" + name + " " + choice + ": \"\"\n";
  return text + "*CloseUI: *" + name + "\n";
}
inline std::string ppdOption(const std::string& name, const std::string& def) { return ppdOption(name, def, {def}); }

// A PPD with one 4x6 inch page size and `body`.
inline std::string labelPpd(const std::string& body) {
  return ppdText(ppdOption("PageSize", "w288h432") + "*PaperDimension w288h432: \"288 432\"\n" +
                 "*ImageableArea w288h432: \"4 6 280 420\"\n" + body);
}
